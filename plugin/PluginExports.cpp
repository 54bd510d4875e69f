#include "plugin/PluginExports.h"

#include "platform/Log.h"
#include "plugin/PluginVersion.h"

namespace {

IUnityInterfaces* g_unityInterfaces = nullptr;

}  // namespace

OZM_EXPORT void UnityPluginLoad(IUnityInterfaces* interfaces) {
  OZM_LOGI("This dynamic shared library is compiled with ABI: %s", OzmPlugin::kAbiName);
  OZM_LOGI("OzmUnityPlugin loaded: version %s\n", OzmPlugin::kVersion);
  g_unityInterfaces = interfaces;
}

OZM_EXPORT const char* getPlatformABI() {
  OZM_LOGI("This dynamic shared library is compiled with ABI: %s", OzmPlugin::kAbiName);
  // The "%s" is part of the text the engine-side binding expects; it is not a format.
  return "This native library is compiled with ABI: %s" OZM_ABI_NAME ".";
}
