// Android backend of the logging port: the system log.
#include <android/log.h>

#include "platform/Log.h"

namespace OzmPlatform {

void LogPrintV(int priority, const char* format, va_list args) {
  __android_log_vprint(priority, kLogTag, format, args);
}

}  // namespace OzmPlatform
