package android.content;

import android.content.res.AssetManager;
import java.io.File;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;

/**
 * An application context. The cache and expansion-archive folders are folders of their own in the
 * temporary directory, made on first use.
 */
public abstract class Context {
  private final AssetManager assets = new AssetManager();
  private File cacheDir;
  private File obbDir;

  public AssetManager getAssets() {
    return assets;
  }

  public Context getApplicationContext() {
    return this;
  }

  public String getPackageName() {
    return "com.OzmUnityPlugin.standin";
  }

  public synchronized File getCacheDir() {
    if (cacheDir == null) cacheDir = makeFolder("cache");
    return cacheDir;
  }

  public synchronized File getObbDir() {
    if (obbDir == null) obbDir = makeFolder("obb");
    return obbDir;
  }

  private static File makeFolder(String what) {
    try {
      return Files.createTempDirectory("ozm-standin-" + what + "-").toFile();
    } catch (IOException e) {
      throw new UncheckedIOException(e);
    }
  }
}
