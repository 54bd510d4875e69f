// The engine's hooks: plug-in load, the graphics device (whose EGL context the players share
// objects with), and the render events that run the players' render steps.
#include <EGL/egl.h>
#include <GLES2/gl2.h>

#include "platform/Log.h"
#include "platform/Platform.h"
#include "player/EngineContext.h"
#include "plugin/OzmPluginApi.h"
#include "plugin/PluginVersion.h"
#include "plugin/Registry.h"

namespace {

IUnityInterfaces* g_unityInterfaces = nullptr;

}  // namespace

OZM_API_EXPORT void UnityPluginLoad(IUnityInterfaces* interfaces) {
  OZM_LOGI("This dynamic shared library is compiled with ABI: %s", OzmPlugin::kAbiName);
  OZM_LOGI("OzmUnityPlugin loaded: version %s\n", OzmPlugin::kVersion);
  g_unityInterfaces = interfaces;
}

OZM_API_EXPORT void UnitySetGraphicsDevice(void*, int deviceType, int) {
  OZM_LOGI("UnitySetGraphicsDevice: device type = %i", deviceType);
  EngineGraphics graphics;
  graphics.context = eglGetCurrentContext();
  OZM_LOGI("Unity EGL context = %p", graphics.context);
  graphics.display = OzmPlatform::GetPlatform().CaptureEglDisplay();
  EGLint version = 0;
  if (graphics.display && graphics.context &&
      eglQueryContext(static_cast<EGLDisplay>(graphics.display), static_cast<EGLContext>(graphics.context),
                      EGL_CONTEXT_CLIENT_VERSION, &version) == EGL_TRUE) {
    graphics.clientVersion = version;
    OZM_LOGI("Unity EGL_CONTEXT_CLIENT_VERSION = %i", version);
  }
  const GLubyte* renderer = graphics.context ? glGetString(GL_RENDERER) : nullptr;
  OZM_LOGI("renderer = %s", renderer ? reinterpret_cast<const char*>(renderer) : "(none)");
  SetEngineGraphics(graphics);
}

OZM_API_EXPORT void UnityRenderEvent(int) { OZM_LOGI("UnityRenderEvent"); }

OZM_API_EXPORT OzmRenderEventFunc GetRenderEventFunc(void) { return &UnityRenderEvent; }

OZM_API_EXPORT void OnUnityRenderModeEvent(int eventId) {
  DeleteRetiredGLObjects();
  if (std::shared_ptr<LumoObject> player = OzmPlugin::GetRegistry().Find(eventId)) player->OnUnityRender();
}

OZM_API_EXPORT OzmRenderEventFunc GetUnityRenderModeEventFunc(void) { return &OnUnityRenderModeEvent; }

OZM_API_EXPORT void OnUnrealRenderEvent(int id, void* vertexData, void* indexData, int vertexCapacity,
                                        int indexCapacity, unsigned int texture, int width, int height) {
  DeleteRetiredGLObjects();
  if (std::shared_ptr<LumoObject> player = OzmPlugin::GetRegistry().Find(id)) {
    player->OnUnrealRender(vertexData, indexData, vertexCapacity, indexCapacity, texture, width, height);
  }
}
