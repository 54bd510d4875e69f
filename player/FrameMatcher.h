// The heart of the render step, apart from its threads and GL: given the timestamp of the latched
// picture, advance through the decoded mesh frames to the one that belongs to it.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>

#include "OzmCore/MeshFrame.h"

struct FrameAdvance {
  int slotsBack = 0;  // frames taken out of the queue (each gives a mesh-work slot back)
  int discarded = 0;  // of those, thrown away as leftovers of a previous pass
  bool restartHandled = false;
};

// After a restart (pendingRestart), a current frame more than `restartThreshold` ns ahead of the
// picture is a leftover of the previous pass: queued frames are taken until one is within the
// threshold. Then frames older than the picture are dropped until the current one is not older.
// The caller shows `current` only when its timestamp equals the picture's exactly.
FrameAdvance AdvanceToPicture(std::deque<std::shared_ptr<Ozm::MeshFrame>>& queue,
                              std::shared_ptr<Ozm::MeshFrame>& current, int64_t pictureTimestamp, bool pendingRestart,
                              int64_t restartThreshold);

// While the player is not playing, the render step latches pictures without showing them: their
// meshes, and those of every picture before them, will never be drawn. Takes them out of the queue
// (the same way AdvanceToPicture would) but leaves the current frame, the one last shown, alone.
// A frame that belongs to a later picture stays queued. Returns the number taken out: each gives a
// mesh-work slot back. Without this, the slots of unshown meshes would stay taken and the pump could
// not feed the decoder the pictures it still needs before it can put out the next one.
int DropUnshownFrames(std::deque<std::shared_ptr<Ozm::MeshFrame>>& queue,
                      const std::shared_ptr<Ozm::MeshFrame>& current, int64_t pictureTimestamp, bool pendingRestart,
                      int64_t restartThreshold);

// Presentation time (µs) of a sample under the clock scale, re-based where the scale last changed.
// The difference goes through an unsigned 64-bit integer into single precision: a negative
// difference becomes a huge time, and long clips lose microseconds alike on the picture and the mesh
// side, so their timestamps still match.
inline int64_t ScaledPresentationTime(int64_t sampleTime, int64_t sampleBase, int64_t presentationOffset,
                                      float clockScale) {
  const uint64_t difference = static_cast<uint64_t>(sampleTime - sampleBase);
  return static_cast<int64_t>(static_cast<float>(difference) / clockScale) + presentationOffset;
}
