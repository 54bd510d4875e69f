package com.OzmUnityPlugin;

import java.lang.reflect.Constructor;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.ArrayList;
import java.util.List;

/**
 * The plug-in's Java logic on a desktop JVM: the contract with the native side and the engine
 * (names, signatures, static natives), the expansion-archive reader and the downloader. Exits with
 * 1 when a check fails, 2 when the run takes longer than its bound.
 */
public final class JavaPluginLogicTest {
  private static final long TIME_BOUND_MS = 20000;
  private static final List<String> failures = new ArrayList<>();

  /** Records a failure when `ok` is false; returns `ok`. */
  static synchronized boolean check(boolean ok, String what) {
    if (!ok) {
      failures.add(what);
      System.err.println("FAILED: " + what);
    }
    return ok;
  }

  static void checkEquals(Object expected, Object actual, String what) {
    boolean same = expected == null ? actual == null : expected.equals(actual);
    check(same, what + ": expected " + expected + ", got " + actual);
  }

  public static void main(String[] args) throws Exception {
    Thread watchdog = new Thread(() -> {
      try {
        Thread.sleep(TIME_BOUND_MS);
      } catch (InterruptedException e) {
        return;
      }
      System.err.println("FAILED: the Java tests took longer than " + TIME_BOUND_MS + " ms");
      for (Thread t : Thread.getAllStackTraces().keySet()) {
        System.err.println(t + " " + java.util.Arrays.toString(t.getStackTrace()));
      }
      Runtime.getRuntime().halt(2);
    });
    watchdog.setDaemon(true);
    watchdog.start();

    long start = System.nanoTime();
    run("JavaMembersMatchWhatNativeAndEngineCall", JavaPluginLogicTest::javaMembersMatchWhatNativeAndEngineCall);
    run("ObbEntries", ObbEntriesTest::runAll);
    run("SegmentDownloader", SegmentDownloaderTest::runAll);
    long ms = (System.nanoTime() - start) / 1000000;

    if (!failures.isEmpty()) {
      System.err.println(failures.size() + " check(s) failed in " + ms + " ms");
      System.exit(1);
    }
    System.out.println("all Java checks passed in " + ms + " ms");
    System.exit(0);
  }

  interface Body {
    void run() throws Exception;
  }

  private static void run(String name, Body body) {
    int before = failures.size();
    long start = System.nanoTime();
    try {
      body.run();
    } catch (Throwable t) {
      t.printStackTrace();
      check(false, name + " threw " + t);
    }
    long ms = (System.nanoTime() - start) / 1000000;
    System.out.println((failures.size() == before ? "[ OK ] " : "[FAIL] ") + name + " (" + ms + " ms)");
  }

  // The native side finds these by name and JNI signature, and binds the natives by name; the
  // engine's script calls create and the constructors. A changed type anywhere breaks them at run
  // time only, on a device, so they are checked here against the compiled class.
  private static void javaMembersMatchWhatNativeAndEngineCall() throws Exception {
    String[][] methods = {
        // name, JNI signature, "static native" or "instance"
        {"onCreated", "(Lcom/OzmUnityPlugin/JavaPlugin;Landroid/content/res/AssetManager;I)V", "static native"},
        {"onFrameAvailableNative", "(Landroid/graphics/SurfaceTexture;)V", "static native"},
        {"onDownloadComplete", "(Ljava/lang/String;J)V", "static native"},
        {"createSurfaceTexture", "(I)Landroid/graphics/SurfaceTexture;", "instance"},
        {"releaseSurfaceTexture", "(Landroid/graphics/SurfaceTexture;)V", "instance"},
        {"createSurfaceTextureSurface", "(Landroid/graphics/SurfaceTexture;)Landroid/view/Surface;", "instance"},
        {"createAudioTrack", "(I)Landroid/media/AudioTrack;", "instance"},
        {"getAssetFileDescriptorAndroid10", "(Ljava/lang/String;)Landroid/content/res/AssetFileDescriptor;", "instance"},
        {"getAssetFileDescriptorFromObb", "(Ljava/lang/String;)Landroid/content/res/AssetFileDescriptor;", "instance"},
        {"downloadFileFromUrl", "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;J)V", "instance"},
        {"downloadFileFromUrlBlocking", "(Ljava/lang/String;)Ljava/lang/String;", "instance"},
        {"cancelDownload", "(J)V", "instance"},
        {"create", "(Landroid/app/Activity;)Lcom/OzmUnityPlugin/JavaPlugin;", "static public"},
    };
    // Loaded without running its static initialiser, which loads the native library.
    Class<?> plugin = Class.forName("com.OzmUnityPlugin.JavaPlugin", false, JavaPluginLogicTest.class.getClassLoader());
    for (String[] expected : methods) {
      Method found = null;
      for (Method m : plugin.getDeclaredMethods()) {
        if (m.getName().equals(expected[0]) && descriptor(m.getParameterTypes(), m.getReturnType()).equals(expected[1])) {
          found = m;
        }
      }
      check(found != null, "JavaPlugin." + expected[0] + expected[1] + " exists");
      if (found == null) continue;
      int modifiers = found.getModifiers();
      boolean isStatic = Modifier.isStatic(modifiers);
      switch (expected[2]) {
        case "static native":
          check(isStatic && Modifier.isNative(modifiers), expected[0] + " is a static native method");
          break;
        case "static public":
          check(isStatic && Modifier.isPublic(modifiers), expected[0] + " is public and static");
          break;
        default:
          check(!isStatic && Modifier.isPublic(modifiers), expected[0] + " is a public instance method");
      }
    }
    String[] constructors = {"(Landroid/content/Context;)V", "(Landroid/content/Context;Ljava/lang/String;)V",
                             "(Landroid/content/Context;Z)V"};
    for (String expected : constructors) {
      boolean found = false;
      for (Constructor<?> c : plugin.getConstructors()) {
        found |= descriptor(c.getParameterTypes(), void.class).equals(expected);
      }
      check(found, "public JavaPlugin constructor " + expected + " exists");
    }
  }

  private static String descriptor(Class<?>[] parameters, Class<?> result) {
    StringBuilder s = new StringBuilder("(");
    for (Class<?> p : parameters) s.append(descriptor(p));
    return s.append(')').append(descriptor(result)).toString();
  }

  private static String descriptor(Class<?> type) {
    if (type.isArray()) return "[" + descriptor(type.getComponentType());
    if (type == void.class) return "V";
    if (type == int.class) return "I";
    if (type == long.class) return "J";
    if (type == boolean.class) return "Z";
    if (type == float.class) return "F";
    if (type == byte.class) return "B";
    if (type.isPrimitive()) return "?" + type.getName();
    return "L" + type.getName().replace('.', '/') + ";";
  }
}
