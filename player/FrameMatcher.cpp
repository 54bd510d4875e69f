#include "player/FrameMatcher.h"

FrameAdvance AdvanceToPicture(std::deque<std::shared_ptr<Ozm::MeshFrame>>& queue,
                              std::shared_ptr<Ozm::MeshFrame>& current, int64_t pictureTimestamp, bool pendingRestart,
                              int64_t restartThreshold) {
  FrameAdvance result;
  if (pendingRestart && current && current->Timestamp() - pictureTimestamp > restartThreshold) {
    while (!queue.empty()) {
      current = std::move(queue.front());
      queue.pop_front();
      ++result.slotsBack;
      ++result.discarded;
      if (current->Timestamp() - pictureTimestamp <= restartThreshold) break;
    }
    result.restartHandled = result.discarded > 0;
  }
  while (!queue.empty()) {
    if (current && current->Timestamp() >= pictureTimestamp) break;
    current = std::move(queue.front());
    queue.pop_front();
    ++result.slotsBack;
  }
  return result;
}

int DropUnshownFrames(std::deque<std::shared_ptr<Ozm::MeshFrame>>& queue,
                      const std::shared_ptr<Ozm::MeshFrame>& current, int64_t pictureTimestamp, bool pendingRestart,
                      int64_t restartThreshold) {
  std::shared_ptr<Ozm::MeshFrame> probe = current;
  const FrameAdvance advance = AdvanceToPicture(queue, probe, pictureTimestamp, pendingRestart, restartThreshold);
  int dropped = advance.slotsBack;
  if (dropped > 0 && probe->Timestamp() > pictureTimestamp) {
    // Its picture is still to come.
    queue.push_front(std::move(probe));
    --dropped;
  }
  return dropped;
}
