// Backend-independent half of the logging port: assertion formatting.
#include <cstring>
#include <string>

#include "platform/Log.h"

namespace OzmPlatform {
namespace {

// "OzmCore/MeshPayload.cpp" -> "OzmCore/MeshPayload". __FILE__ is already relative to the project
// root thanks to -fmacro-prefix-map.
std::string SourcePath(const char* file) {
  std::string path = file ? file : "";
  const size_t slash = path.find_last_of('/');
  const size_t dot = path.find_last_of('.');
  if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) path.resize(dot);
  return path;
}

}  // namespace

void AssertFailed(const char* expression, const char* file, int line) {
  LogPrint(kLogInfo, "ASSERT FAILED: '%s' at %s line %i", expression, SourcePath(file).c_str(), line);
}

void AssertFailedWide(const wchar_t* expression, const char* file, int line) {
  LogPrint(kLogInfo, "ASSERT FAILED: '%ls' at %s line %i", expression, SourcePath(file).c_str(), line);
}

void LogPrint(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  LogPrintV(priority, format, args);
  va_end(args);
}

}  // namespace OzmPlatform
