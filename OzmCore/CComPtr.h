// Owning smart pointer for the reference-counted media objects.
#pragma once

#include "platform/Log.h"

namespace OZMCORE {

template <class T>
class CComPtr {
 public:
  CComPtr() = default;
  CComPtr(T* p) : p_(p) {  // NOLINT(google-explicit-constructor): adopts with an AddRef, like the original
    if (p_) p_->AddRef();
  }
  CComPtr(const CComPtr& other) : CComPtr(other.p_) {}
  CComPtr(CComPtr&& other) noexcept : p_(other.p_) { other.p_ = nullptr; }
  ~CComPtr() { Release(); }

  CComPtr& operator=(T* p) {
    if (p) p->AddRef();
    T* old = p_;
    p_ = p;
    if (old) old->Release();
    return *this;
  }
  CComPtr& operator=(const CComPtr& other) { return *this = other.p_; }
  CComPtr& operator=(CComPtr&& other) noexcept {
    if (this != &other) {
      Release();
      p_ = other.p_;
      other.p_ = nullptr;
    }
    return *this;
  }

  // Takes over a reference the caller already owns (no AddRef).
  void Attach(T* p) {
    Release();
    p_ = p;
  }
  // Gives the reference up to the caller (no Release).
  T* Detach() {
    T* p = p_;
    p_ = nullptr;
    return p;
  }
  void Release() {
    T* p = p_;
    p_ = nullptr;
    if (p) p->Release();
  }

  T* operator->() const {
    OZM_ASSERT_MSG(p_ != nullptr, "p != NULL");
    return p_;
  }
  T& operator*() const {
    OZM_ASSERT_MSG(p_ != nullptr, "p != NULL");
    return *p_;
  }
  // Out-parameter use: the pointer should be empty, since the callee overwrites it.
  T** operator&() {
    OZM_ASSERT_MSG(p_ == nullptr, "p == NULL");
    return &p_;
  }
  operator T*() const { return p_; }
  T* Get() const { return p_; }

 private:
  T* p_ = nullptr;
};

}  // namespace OZMCORE
