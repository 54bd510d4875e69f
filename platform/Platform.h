// The process-wide platform: everything the player reaches outside portable C++ and GL, as ports
// whose semantics copy the Android services (and Java objects) they stand for. The Android backend
// makes the NDK and JNI calls; the host backend uses FFmpeg, Mesa EGL and plain files. Tests swap in
// a platform of their own with SetPlatform.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/Media.h"

namespace OzmPlatform {

// Android's SurfaceTexture: the consumer side of a video decoder's output, bound to a
// GL_TEXTURE_EXTERNAL_OES texture. A picture released to its window at a time becomes available at
// that time and is announced through the frame-available handler, on a thread of the platform.
class SurfaceTexture {
 public:
  virtual ~SurfaceTexture() = default;
  // Latches the newest available picture into the external texture. Render thread only, with a GL
  // context current that shares objects with the one that made the texture.
  virtual void UpdateTexImage() = 0;
  // The timestamp (ns) of the latched picture: exactly the time it was released at.
  virtual int64_t GetTimestamp() = 0;
  // Whether `platformObject`, the object the platform announces a new picture with, is this
  // texture: the Java SurfaceTexture on Android (compared as Java objects), this object itself on
  // a platform without one.
  virtual bool IsSameObject(const void* platformObject) const { return platformObject == this; }
};

// Called when a surface texture has a new picture, with the platform's object for it (see
// SurfaceTexture::IsSameObject); set once by the plug-in.
using FrameAvailableHandler = void (*)(const void* platformObject);
void SetFrameAvailableHandler(FrameAvailableHandler handler);
// For backends: announces a new picture of the surface texture `platformObject` stands for.
void NotifyFrameAvailable(const void* platformObject);

// Called when a download started with Platform::DownloadFileFromUrl ends: the local file it was
// saved to, or null when it failed. `nativeHandle` is the one given with the request. Reported on a
// thread of the platform, never the requester's; set once by the HLS input.
using DownloadCompleteHandler = void (*)(const char* localPath, void* nativeHandle);
void SetDownloadCompleteHandler(DownloadCompleteHandler handler);
// For backends: reports the end of a download.
void NotifyDownloadComplete(const char* localPath, void* nativeHandle);

// Android's AudioTrack in streaming mode, 16-bit interleaved PCM.
class AudioTrack {
 public:
  virtual ~AudioTrack() = default;
  // Blocks while the track's buffer is full (it drains at the playback rate). Returns the bytes
  // taken, or a negative error.
  virtual int Write(const uint8_t* data, size_t size) = 0;
  virtual void Play() = 0;
  virtual void Pause() = 0;
  virtual void Stop() = 0;
  virtual void Flush() = 0;
  virtual void Release() = 0;
  // 0 on success.
  virtual int SetVolume(float volume) = 0;
  virtual int SetPlaybackRate(int sampleRateHz) = 0;
};

// An application asset (AAsset); closed on destruction.
class Asset {
 public:
  virtual ~Asset() = default;
  // A descriptor onto the file that holds the asset, with the asset's range in it; below 1 when
  // the asset cannot be reached that way (compressed).
  virtual int OpenFileDescriptor(int64_t* start, int64_t* length) = 0;
  // -1 on failure, else the new position.
  virtual int64_t Seek(int64_t offset, int whence) = 0;
  virtual int Read(void* buffer, size_t count) = 0;
};

// What the Java side hands over for a file it opened (AssetFileDescriptor): the descriptor and the
// range of the file within it.
struct AssetFileDescriptor {
  int fd = -1;
  int64_t startOffset = 0;
  int64_t length = 0;
};

class Platform {
 public:
  virtual ~Platform() = default;

  // Java VM attachment of the calling thread (kept until Detach). False when it fails.
  virtual bool AttachCurrentThread() = 0;
  virtual void DetachCurrentThread() = 0;

  virtual std::unique_ptr<MediaExtractor> NewMediaExtractor() = 0;
  // Null when no decoder handles the type.
  virtual std::unique_ptr<MediaCodec> CreateDecoderByType(const char* mime) = 0;

  // The plug-in's Java methods. Null results mean the Java side could not make the object.
  virtual std::shared_ptr<SurfaceTexture> CreateSurfaceTexture(unsigned int externalTexture) = 0;
  virtual std::shared_ptr<NativeWindow> CreateSurfaceTextureSurface(SurfaceTexture& texture) = 0;
  virtual void ReleaseSurfaceTexture(SurfaceTexture& texture) = 0;
  // 16-bit PCM with the given channel count (a device may choose its own layout).
  virtual std::unique_ptr<AudioTrack> CreateAudioTrack(int sampleRateHz, int channelCount) = 0;
  // The expansion-archive route exists only when the Java side offers it.
  virtual bool HasObbRoute() = 0;
  virtual bool GetAssetFileDescriptorFromObb(const char* path, AssetFileDescriptor* out) = 0;
  virtual bool GetAssetFileDescriptorAndroid10(const char* path, AssetFileDescriptor* out) = 0;
  // Null when there is no such asset.
  virtual std::unique_ptr<Asset> OpenAsset(const char* path) = 0;

  // The plug-in's download methods (streaming input). DownloadFileFromUrl starts downloading one
  // segment, `url`, and returns at once; its end is reported through the download-complete handler
  // with `nativeHandle`. Files of one playlist (`playlistName`) are kept apart from other playlists'.
  // `uri` is the segment's name in the playlist. A platform without downloads logs an error and
  // reports nothing.
  virtual void DownloadFileFromUrl(const std::string& playlistName, const std::string& url, const std::string& uri,
                                   void* nativeHandle);
  // Downloads `url` (a playlist) and returns the local file's path; empty when it failed.
  virtual std::string DownloadFileFromUrlBlocking(const std::string& url);
  // Abandons the running download of `nativeHandle`. Once it returns, no completion for that handle
  // is being reported or will be.
  virtual void CancelDownload(void* nativeHandle);

  // The EGL display the player makes its contexts on, taken on the render thread when the engine
  // hands over its graphics device (the engine's context is current then).
  virtual void* CaptureEglDisplay() = 0;
};

// The platform in use: the backend of this build unless a test installed another.
Platform& GetPlatform();
// Installs a platform (null restores the backend's); returns the previous one. Not for use while
// players exist.
Platform* SetPlatform(Platform* platform);

}  // namespace OzmPlatform
