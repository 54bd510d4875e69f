#pragma once

namespace OzmPlugin {

constexpr const char* kVersion = "1.4.5.0-local";

// The ABI name logged at load: set by the build for each target.
#ifndef OZM_ABI_NAME
#define OZM_ABI_NAME "unknown"
#endif
constexpr const char* kAbiName = OZM_ABI_NAME;

}  // namespace OzmPlugin
