// The native methods of com.OzmUnityPlugin.JavaPlugin. They live apart from the rest of the bridge
// so that the shared plug-in links these objects directly: symbols of the static libraries it links
// are kept inside the library, and these three must be exported for the VM to find them.
#include <jni.h>

#include "platform/jni/JavaBridge.h"

extern "C" JNIEXPORT void JNICALL Java_com_OzmUnityPlugin_JavaPlugin_onCreated(JNIEnv* env, jclass pluginClass,
                                                                               jobject plugin, jobject assetManager,
                                                                               jint useObb) {
  OzmJni::JavaBridge::Get().OnCreated(env, pluginClass, plugin, assetManager, useObb);
}

extern "C" JNIEXPORT void JNICALL Java_com_OzmUnityPlugin_JavaPlugin_onFrameAvailableNative(JNIEnv* env, jclass,
                                                                                            jobject surfaceTexture) {
  OzmJni::JavaBridge::Get().OnFrameAvailable(env, surfaceTexture);
}

extern "C" JNIEXPORT void JNICALL Java_com_OzmUnityPlugin_JavaPlugin_onDownloadComplete(JNIEnv* env, jclass,
                                                                                        jstring localPath,
                                                                                        jlong nativeHandle) {
  OzmJni::JavaBridge::Get().OnDownloadComplete(env, localPath, nativeHandle);
}
