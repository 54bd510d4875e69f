// Logging port. Every message of the plug-in goes through here, tagged "OzmUnityPlugin".
// The Android backend writes to the system log; the host backend writes to standard error or to a
// sink installed by tests (platform/host/LogCapture.h).
#pragma once

#include <cstdarg>

namespace OzmPlatform {

// Android log priorities, used as they are by both backends.
enum LogPriority : int {
  kLogInfo = 4,
  kLogWarn = 5,
  kLogError = 6,
};

constexpr const char* kLogTag = "OzmUnityPlugin";

void LogPrint(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
void LogPrintV(int priority, const char* format, va_list args) __attribute__((format(printf, 2, 0)));

// Non-fatal assertion: logs "ASSERT FAILED: '<expr>' at <path> line <n>" at info priority and
// returns, so that execution goes on. The path is the source file relative to the project root,
// without its extension.
void AssertFailed(const char* expression, const char* file, int line);
void AssertFailedWide(const wchar_t* expression, const char* file, int line);

}  // namespace OzmPlatform

#define OZM_LOGI(...) ::OzmPlatform::LogPrint(::OzmPlatform::kLogInfo, __VA_ARGS__)
#define OZM_LOGW(...) ::OzmPlatform::LogPrint(::OzmPlatform::kLogWarn, __VA_ARGS__)
#define OZM_LOGE(...) ::OzmPlatform::LogPrint(::OzmPlatform::kLogError, __VA_ARGS__)

// Evaluates to the value of the condition, so callers can still react to a failed check.
#define OZM_ASSERT(cond) ((cond) ? true : (::OzmPlatform::AssertFailed(#cond, __FILE__, __LINE__), false))
#define OZM_ASSERT_WIDE(cond) ((cond) ? true : (::OzmPlatform::AssertFailedWide(L## #cond, __FILE__, __LINE__), false))
// For checks that are written as a message rather than as code: logs the text as given.
#define OZM_ASSERT_MSG(cond, text) ((cond) ? true : (::OzmPlatform::AssertFailed(text, __FILE__, __LINE__), false))
