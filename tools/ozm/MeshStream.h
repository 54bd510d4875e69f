// Helpers over the mesh units of access units, shared by inspect and export.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/host/LogCapture.h"

namespace OzmTool {

// True when the access unit's mesh decodes without earlier frames: a key frame, or a temporal mesh
// whose sub-meshes are key frames (the encoder starts all of them together).
bool StartsMeshGroup(const std::vector<uint8_t>& annexB);

// The last line the player's code logged, without its line break (empty when none).
std::string LastLogLine(const OzmPlatform::ScopedLogCapture& capture);

}  // namespace OzmTool
