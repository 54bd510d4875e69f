#include "input/HLSStream.h"

#include "platform/Log.h"

std::unique_ptr<MediaInputStream> CreateHLSStream(int playerId) {
  // The transport-stream reader and the segment download chain are not part of this build yet.
  OZM_LOGE("[%i] HLS input is not supported yet", playerId);
  return nullptr;
}
