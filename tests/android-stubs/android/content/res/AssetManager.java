package android.content.res;

/** The application's assets; the plug-in only hands this object to its native side. */
public final class AssetManager {
  /** Hidden on Android, where only the framework makes asset managers. */
  public AssetManager() {}
}
