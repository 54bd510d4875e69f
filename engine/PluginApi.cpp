#include "engine/PluginApi.h"

#include <dlfcn.h>

namespace OzmEngine {

PluginApi PluginApi::Load(const std::string& path, std::string* error) {
  PluginApi api;
  dlerror();
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    const char* why = dlerror();
    if (error) *error = "cannot load " + path + ": " + (why ? why : "unknown error");
    return api;
  }
  api.m_library = std::shared_ptr<void>(handle, [](void* h) { dlclose(h); });

  std::string missing;
#define OZM_ENGINE_LOOK_UP(name)                                         \
  api.name = reinterpret_cast<decltype(api.name)>(dlsym(handle, #name)); \
  if (!api.name) missing += std::string(missing.empty() ? "" : ", ") + #name;
  OZM_ENGINE_PLUGIN_FUNCTIONS(OZM_ENGINE_LOOK_UP)
#undef OZM_ENGINE_LOOK_UP

  if (!missing.empty()) {
    if (error) *error = path + " does not export " + missing;
    return PluginApi();
  }
  api.m_origin = path;
  return api;
}

bool PluginApi::Complete() const {
  bool complete = true;
#define OZM_ENGINE_CHECK(name) complete = complete && name != nullptr;
  OZM_ENGINE_PLUGIN_FUNCTIONS(OZM_ENGINE_CHECK)
#undef OZM_ENGINE_CHECK
  return complete;
}

}  // namespace OzmEngine
