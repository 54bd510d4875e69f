/* The plug-in's C interface, as the engine sees it: the records that cross it and every exported
 * function. Engines marshal the records by layout, so sizes and offsets are fixed (checked below). */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define OZM_API_EXPORT extern "C" __attribute__((visibility("default")))
#else
#define OZM_API_EXPORT __attribute__((visibility("default")))
#endif

/* Options for OpenLumoObject: 4124 bytes; byte 0 declines audio, byte 5 turns on auto-looping. The
 * other bytes are handed to the input stream with the rest. */
typedef struct OzmOpenInfo {
  uint8_t audioDisabled;
  uint8_t reserved1[4];
  uint8_t autoLooping;
  uint8_t reserved6[4118];
} OzmOpenInfo;

/* File information: 104 bytes. */
typedef struct OzmFileInfo {
  uint8_t hasAudio;
  uint8_t pad1[7];
  int64_t duration; /* 100 ns units */
  uint32_t frameCount;
  uint32_t maxVertexCount;
  uint32_t maxIndexCount;
  float bitrate;    /* Mbit/s */
  float fileSizeMB; /* MiB */
  uint8_t pad36[4];
  double bboxMin[3];
  double bboxMax[3];
  int32_t textureWidth;
  int32_t textureHeight;
  uint8_t hasNormals;
  uint8_t pad97[7];
} OzmFileInfo;

/* The mesh frame last made current by the render step: 80 bytes. */
typedef struct OzmFrameInfo {
  int64_t timestamp; /* 100 ns units */
  double bboxMin[3];
  double bboxMax[3];
  uint32_t frameId;
  uint32_t vertexCount;
  uint32_t indexCount;
  uint32_t textureWidth;
  uint32_t textureHeight;
  uint8_t endOfStream; /* 1 in exactly one call after the video output ended */
  uint8_t repeated;    /* the frame has been drawn two or more times */
  uint8_t keyFrame;
  uint8_t pad79;
} OzmFrameInfo;

#ifdef __cplusplus
static_assert(sizeof(OzmOpenInfo) == 4124, "OzmOpenInfo is 4124 bytes");
static_assert(offsetof(OzmOpenInfo, audioDisabled) == 0, "OzmOpenInfo layout");
static_assert(offsetof(OzmOpenInfo, autoLooping) == 5, "OzmOpenInfo layout");
static_assert(sizeof(OzmFileInfo) == 104, "OzmFileInfo is 104 bytes");
static_assert(offsetof(OzmFileInfo, hasAudio) == 0, "OzmFileInfo layout");
static_assert(offsetof(OzmFileInfo, duration) == 8, "OzmFileInfo layout");
static_assert(offsetof(OzmFileInfo, frameCount) == 16, "OzmFileInfo layout");
static_assert(offsetof(OzmFileInfo, maxVertexCount) == 20, "OzmFileInfo layout");
static_assert(offsetof(OzmFileInfo, maxIndexCount) == 24, "OzmFileInfo layout");
static_assert(offsetof(OzmFileInfo, bitrate) == 28, "OzmFileInfo layout");
static_assert(offsetof(OzmFileInfo, fileSizeMB) == 32, "OzmFileInfo layout");
static_assert(offsetof(OzmFileInfo, bboxMin) == 40, "OzmFileInfo layout");
static_assert(offsetof(OzmFileInfo, bboxMax) == 64, "OzmFileInfo layout");
static_assert(offsetof(OzmFileInfo, textureWidth) == 88, "OzmFileInfo layout");
static_assert(offsetof(OzmFileInfo, textureHeight) == 92, "OzmFileInfo layout");
static_assert(offsetof(OzmFileInfo, hasNormals) == 96, "OzmFileInfo layout");
static_assert(sizeof(OzmFrameInfo) == 80, "OzmFrameInfo is 80 bytes");
static_assert(offsetof(OzmFrameInfo, timestamp) == 0, "OzmFrameInfo layout");
static_assert(offsetof(OzmFrameInfo, bboxMin) == 8, "OzmFrameInfo layout");
static_assert(offsetof(OzmFrameInfo, bboxMax) == 32, "OzmFrameInfo layout");
static_assert(offsetof(OzmFrameInfo, frameId) == 56, "OzmFrameInfo layout");
static_assert(offsetof(OzmFrameInfo, vertexCount) == 60, "OzmFrameInfo layout");
static_assert(offsetof(OzmFrameInfo, indexCount) == 64, "OzmFrameInfo layout");
static_assert(offsetof(OzmFrameInfo, textureWidth) == 68, "OzmFrameInfo layout");
static_assert(offsetof(OzmFrameInfo, textureHeight) == 72, "OzmFrameInfo layout");
static_assert(offsetof(OzmFrameInfo, endOfStream) == 76, "OzmFrameInfo layout");
static_assert(offsetof(OzmFrameInfo, repeated) == 77, "OzmFrameInfo layout");
static_assert(offsetof(OzmFrameInfo, keyFrame) == 78, "OzmFrameInfo layout");
#endif

/* Player states returned by GetLumoState; 6 answers an unknown id. */
enum {
  kLumoStateEmpty = 0,
  kLumoStateInitialized = 1,
  kLumoStateOpened = 2,
  kLumoStatePlaying = 3,
  kLumoStatePaused = 4,
  kLumoStateClosed = 5,
  kLumoStateUnknownId = 6
};

struct IUnityInterfaces;
typedef void (*OzmRenderEventFunc)(int eventId);

/* Players. */
OZM_API_EXPORT int CreateLumoObject(void);
OZM_API_EXPORT int DestroyLumoObject(int id);
OZM_API_EXPORT int OpenLumoObject(int id, const char* path, const OzmOpenInfo* info);
OZM_API_EXPORT int PlayLumoObject(int id);
OZM_API_EXPORT int PauseLumoObject(int id);
OZM_API_EXPORT int RewindLumoObject(int id);
OZM_API_EXPORT int CloseLumoObject(int id);
OZM_API_EXPORT int GetLumoState(int id);
OZM_API_EXPORT int GetLumoObjectFileInfo(int id, OzmFileInfo* out);
OZM_API_EXPORT int GetLumoObjectFrameInfo(int id, OzmFrameInfo* out);
OZM_API_EXPORT int SetClockScale(int id, float scale);
OZM_API_EXPORT int SetAudioVolume(int id, float volume);
OZM_API_EXPORT int SetComputeNormals(int id, int computeNormals);
OZM_API_EXPORT int SetLumoObjectAudio3DPosition(int id, float x, float y, float z);
OZM_API_EXPORT int SetUseGPU(int id, int useGpu);
OZM_API_EXPORT int TestUnityBuffersValid(int id);
OZM_API_EXPORT int ReleaseUnityBuffers(int id);
OZM_API_EXPORT int SetUnityBuffers(int id, unsigned int texture, int textureWidth, int textureHeight,
                                   unsigned int vertexBuffer, unsigned int vertexCapacity, unsigned int indexBuffer,
                                   unsigned int indexCapacity);
OZM_API_EXPORT const char* getPlatformABI(void);

/* Engine hooks. */
OZM_API_EXPORT void UnityPluginLoad(struct IUnityInterfaces* interfaces);
OZM_API_EXPORT void UnitySetGraphicsDevice(void* device, int deviceType, int eventType);
OZM_API_EXPORT void UnityRenderEvent(int eventId);
OZM_API_EXPORT OzmRenderEventFunc GetRenderEventFunc(void);
OZM_API_EXPORT void OnUnityRenderModeEvent(int eventId);
OZM_API_EXPORT OzmRenderEventFunc GetUnityRenderModeEventFunc(void);
OZM_API_EXPORT void OnUnrealRenderEvent(int id, void* vertexData, void* indexData, int vertexCapacity,
                                        int indexCapacity, unsigned int texture, int width, int height);
