package ozmtest;

/** The test's own natives (tests/jni/JniTestNatives.cpp). */
public final class JniTestNatives {
  private JniTestNatives() {}

  /** Installs the test platform and starts capturing the native log. */
  public static native void install();

  /** The native log lines since the last call, as "priority text". */
  public static native String[] takeLog();

  /** The bridge's lookups, as "owner name signature method|field found|missing". */
  public static native String[] lookups();

  /** onCreated with any class; false when it left a Java exception pending. */
  public static native boolean onCreatedWith(Class<?> pluginClass, Object plugin, Object assets, int useObb);

  public static native boolean hasObbRoute();

  public static native boolean pluginIs(Object plugin);

  public static native boolean assetManagerIs(Object assets);

  public static native int createPlayer();

  public static native int openPlayer(int id, String path);

  public static native int destroyPlayer(int id);

  public static native void renderEvent(int id);

  public static native int[] tablePlayers();

  public static native Object addEntry(int playerId, int texName);

  public static native boolean removeEntry(Object surfaceTexture);

  public static native long surfaceScenario(int texName);

  public static native int[] audioScenario(int rate, int channels, byte[] first, byte[] second, boolean tearDown);

  public static native long[] descriptorRoute(byte[] path, boolean obb, boolean useFdField);

  public static native int readByteAt(int fd, long offset);

  public static native void closeFd(int fd);

  public static native byte[] downloadBlocking(byte[] url);

  public static native void download(byte[] playlist, byte[] url, byte[] uri, long handle);

  public static native void cancelDownload(long handle);

  public static native boolean nativeThreadAttachment();

  public static native boolean detachJavaThread();

  public static native long hlsStart(String url);

  public static native int hlsWait(int timeoutMs);

  public static native void hlsDestroy();
}
