package ozmtest;

import android.app.Activity;
import com.OzmUnityPlugin.JavaPlugin;
import java.io.File;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/**
 * The plug-in's real Java class, compiled against the Android stand-ins and constructed from a
 * stand-in activity: its constructor calls onCreated, and the bridge must find every method of the
 * plug-in class on it (with and without an expansion archive). The library it loads as
 * "OzmUnityPlugin" is the bridge's test library.
 */
public final class RealPluginCheck {
  private static final String PLUGIN = "com/OzmUnityPlugin/JavaPlugin";
  private static final String[] METHODS = {
      "createSurfaceTexture (I)Landroid/graphics/SurfaceTexture;",
      "releaseSurfaceTexture (Landroid/graphics/SurfaceTexture;)V",
      "createSurfaceTextureSurface (Landroid/graphics/SurfaceTexture;)Landroid/view/Surface;",
      "createAudioTrack (I)Landroid/media/AudioTrack;",
      "getAssetFileDescriptorAndroid10 (Ljava/lang/String;)Landroid/content/res/AssetFileDescriptor;",
      "getAssetFileDescriptorFromObb (Ljava/lang/String;)Landroid/content/res/AssetFileDescriptor;",
      "downloadFileFromUrl (Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;J)V",
      "downloadFileFromUrlBlocking (Ljava/lang/String;)Ljava/lang/String;",
      "cancelDownload (J)V",
  };

  private RealPluginCheck() {}

  private static void delete(File file) {
    File[] children = file.listFiles();
    if (children != null) {
      for (File child : children) delete(child);
    }
    if (!file.delete())
      System.err.println("could not delete " + file);
  }

  public static void main(String[] args) throws Exception {
    System.loadLibrary("OzmUnityPlugin");
    JniTestNatives.install();
    int failures = 0;
    File archive = File.createTempFile("ozm-real-plugin", ".obb");
    archive.deleteOnExit();
    List<Activity> activities = new ArrayList<>();
    for (boolean obb : new boolean[] {false, true}) {
      String row = obb ? "with an expansion archive" : "without an expansion archive";
      Activity activity = new Activity();
      activities.add(activity);
      JavaPlugin plugin = obb ? new JavaPlugin(activity, archive.getPath()) : JavaPlugin.create(activity);
      List<String> expected = new ArrayList<>();
      for (String method : METHODS) {
        if (!obb && method.startsWith("getAssetFileDescriptorFromObb "))
          continue;
        expected.add(PLUGIN + " " + method + " method found");
      }
      List<String> found = new ArrayList<>();
      for (String lookup : JniTestNatives.lookups()) {
        if (lookup.startsWith(PLUGIN + " "))
          found.add(lookup);
      }
      List<String> log = Arrays.asList(JniTestNatives.takeLog());
      boolean ok = expected.equals(found) && JniTestNatives.pluginIs(plugin) && JniTestNatives.hasObbRoute() == obb
          && log.contains("4 OzmUnityPlugin_JavaPlugin_onCreated");
      if (!ok) {
        ++failures;
        System.err.println("FAIL: " + row + "\n  expected: " + expected + "\n  found:    " + found + "\n  log: " + log);
      }
    }
    for (Activity activity : activities) delete(activity.getCacheDir());
    System.out.println("real plug-in class: " + (failures == 0 ? "every method found" : failures + " failed"));
    // The plug-in's own threads (frame callbacks, downloads) would keep the VM alive.
    System.exit(failures == 0 ? 0 : 1);
  }
}
