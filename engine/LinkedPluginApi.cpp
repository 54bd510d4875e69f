// The plug-in's functions as linked into this program (the static library ozm_plugin). Kept apart
// from PluginApi.cpp so that programs which only load the shared plug-in do not link it.
#include "engine/PluginApi.h"

namespace OzmEngine {

PluginApi PluginApi::Linked() {
  PluginApi api;
#define OZM_ENGINE_TAKE(name) api.name = &::name;
  OZM_ENGINE_PLUGIN_FUNCTIONS(OZM_ENGINE_TAKE)
#undef OZM_ENGINE_TAKE
  api.m_origin = "linked";
  return api;
}

}  // namespace OzmEngine
