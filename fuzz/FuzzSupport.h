// Shared set-up of the fuzz targets.
#pragma once

#include <string>

#include "platform/host/LogCapture.h"

// Parsers log what they reject; while fuzzing that is noise, so the lines are dropped.
inline void SilenceLogOnce() {
  static const bool silenced = [] {
    OzmPlatform::SetLogSink([](int, const std::string&) {});
    return true;
  }();
  (void)silenced;
}

// Stops the run the way the sanitizers do, so the fuzzer records the input.
#define FUZZ_CHECK(cond)           \
  do {                             \
    if (!(cond)) __builtin_trap(); \
  } while (0)
