// Blocking first-in-first-out queue shared between one or more producers and consumers.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

template <typename T>
class ConcurrentQueue {
 public:
  // Appends and wakes one waiter. The queue has no bound of its own; producers that need
  // back-pressure keep their own credit.
  void Enqueue(T&& item) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_items.push_back(std::move(item));
    }
    m_condition.notify_one();
  }

  // Waits while the queue is empty. Returns false as soon as the queue is aborted (items still queued
  // are then left unread), otherwise moves the front item out and returns true.
  bool Dequeue(T& item) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_condition.wait(lock, [this] { return m_aborted || !m_items.empty(); });
    return PopLocked(item);
  }

  // Like Dequeue, but gives up and returns false after timeoutMs milliseconds.
  bool TryDequeue(T& item, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto timeout = std::chrono::milliseconds(timeoutMs > 0 ? timeoutMs : 0);
    m_condition.wait_for(lock, timeout, [this] { return m_aborted || !m_items.empty(); });
    return PopLocked(item);
  }

  // Sets the abort flag and wakes every waiter.
  void Abort() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_aborted = true;
    }
    m_condition.notify_all();
  }

  bool IsAborted() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_aborted;
  }

  size_t Size() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_items.size();
  }

  void Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_items.clear();
  }

 private:
  bool PopLocked(T& item) {
    if (m_aborted || m_items.empty()) return false;
    item = std::move(m_items.front());
    m_items.pop_front();
    return true;
  }

  mutable std::mutex m_mutex;
  std::condition_variable m_condition;
  std::deque<T> m_items;
  bool m_aborted = false;
};
