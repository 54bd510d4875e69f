// The C functions the engine calls. Only what is declared with OZM_EXPORT leaves the library.
#pragma once

#define OZM_EXPORT extern "C" __attribute__((visibility("default")))

struct IUnityInterfaces;

// Engine plug-in entry: logs the ABI and version and keeps the engine's interface table.
OZM_EXPORT void UnityPluginLoad(IUnityInterfaces* interfaces);

// The ABI this library was built for, as a fixed text.
OZM_EXPORT const char* getPlatformABI();
