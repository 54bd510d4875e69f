// The plug-in as an engine sees it: one pointer per C function of plugin/OzmPluginApi.h. The table is
// filled either with the functions linked into the program (Linked(), engine/LinkedPluginApi.cpp,
// only in programs that link the static plug-in) or with those of a built libOzmUnityPlugin.so
// loaded at run time (Load()). A loaded library stays loaded while any copy of the table lives.
//
// A program that links the plug-in and also loads the shared library holds two independent copies of
// the plug-in: players, logs and captured graphics devices are not shared between them.
#pragma once

#include <memory>
#include <string>

#include "plugin/OzmPluginApi.h"

// Every function of the C interface, for code that handles them all alike.
#define OZM_ENGINE_PLUGIN_FUNCTIONS(X) \
  X(CreateLumoObject)                  \
  X(DestroyLumoObject)                 \
  X(OpenLumoObject)                    \
  X(PlayLumoObject)                    \
  X(PauseLumoObject)                   \
  X(RewindLumoObject)                  \
  X(CloseLumoObject)                   \
  X(GetLumoState)                      \
  X(GetLumoObjectFileInfo)             \
  X(GetLumoObjectFrameInfo)            \
  X(SetClockScale)                     \
  X(SetAudioVolume)                    \
  X(SetComputeNormals)                 \
  X(SetLumoObjectAudio3DPosition)      \
  X(SetUseGPU)                         \
  X(TestUnityBuffersValid)             \
  X(ReleaseUnityBuffers)               \
  X(SetUnityBuffers)                   \
  X(getPlatformABI)                    \
  X(UnityPluginLoad)                   \
  X(UnitySetGraphicsDevice)            \
  X(UnityRenderEvent)                  \
  X(GetRenderEventFunc)                \
  X(OnUnityRenderModeEvent)            \
  X(GetUnityRenderModeEventFunc)       \
  X(OnUnrealRenderEvent)

namespace OzmEngine {

struct PluginApi {
  // The functions, named as the plug-in exports them.
#define OZM_ENGINE_DECLARE_POINTER(name) decltype(&::name) name = nullptr;
  OZM_ENGINE_PLUGIN_FUNCTIONS(OZM_ENGINE_DECLARE_POINTER)
#undef OZM_ENGINE_DECLARE_POINTER

  // The functions linked into this program. Defined in engine/LinkedPluginApi.cpp (library
  // ozm_engine_linked), which pulls in the static plug-in.
  static PluginApi Linked();

  // Loads a built plug-in (dlopen, RTLD_NOW | RTLD_LOCAL) and looks every function up. On failure
  // returns a table with no functions and, when error is given, says what went wrong.
  static PluginApi Load(const std::string& path, std::string* error);

  // True when every function is there.
  bool Complete() const;
  // Where the functions come from: "linked" or the loaded library's path; empty for an empty table.
  const std::string& Origin() const { return m_origin; }

 private:
  std::shared_ptr<void> m_library;  // the dlopen handle; closed with the last copy
  std::string m_origin;
};

}  // namespace OzmEngine
