package com.OzmUnityPlugin;

import android.app.Activity;
import android.content.Context;
import android.content.res.AssetFileDescriptor;
import android.content.res.AssetManager;
import android.graphics.SurfaceTexture;
import android.media.AudioAttributes;
import android.media.AudioFormat;
import android.media.AudioManager;
import android.media.AudioTrack;
import android.os.Handler;
import android.os.HandlerThread;
import android.os.ParcelFileDescriptor;
import android.util.Log;
import android.view.Surface;
import java.io.File;
import java.io.IOException;

/**
 * The Java side of the playback plug-in: what libOzmUnityPlugin.so needs of Android and cannot
 * reach natively. The native side calls these methods through JNI (names and signatures are fixed
 * there, so they must not change):
 *
 * <pre>
 *   createSurfaceTexture             (I)Landroid/graphics/SurfaceTexture;
 *   releaseSurfaceTexture            (Landroid/graphics/SurfaceTexture;)V
 *   createSurfaceTextureSurface      (Landroid/graphics/SurfaceTexture;)Landroid/view/Surface;
 *   createAudioTrack                 (I)Landroid/media/AudioTrack;
 *   getAssetFileDescriptorAndroid10  (Ljava/lang/String;)Landroid/content/res/AssetFileDescriptor;
 *   getAssetFileDescriptorFromObb    (Ljava/lang/String;)Landroid/content/res/AssetFileDescriptor;
 *   downloadFileFromUrl              (Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;J)V
 *   downloadFileFromUrlBlocking      (Ljava/lang/String;)Ljava/lang/String;
 *   cancelDownload                   (J)V
 * </pre>
 *
 * Make one object per process, on the main thread, before the first player opens a file: with
 * {@link #create(Activity)}, or with a constructor when an expansion archive is used (create then
 * returns that object). Construction hands the object and the asset manager to the
 * native side (onCreated). Every method here may be called from any thread; failures are logged
 * with the tag "OzmUnityPlugin" and answered with null, never with an exception.
 *
 * Threads of its own: "OzmFrameAvailable", on which surface textures announce new frames, and
 * "OzmDownloads", which fetches stream segments one at a time and reports their end.
 */
public final class JavaPlugin {
  private static final String TAG = "OzmUnityPlugin";

  /** Milliseconds to connect, and to wait for more bytes of a response. */
  private static final int CONNECT_TIMEOUT_MS = 10000;
  private static final int READ_TIMEOUT_MS = 15000;
  /** A failed segment is reported after this pause; the stream then asks again. */
  private static final long FAILED_DOWNLOAD_PAUSE_MS = 1000;

  static {
    // The engine has normally loaded the library already; loading it again is harmless, and it
    // binds the natives below to this class's loader.
    try {
      System.loadLibrary("OzmUnityPlugin");
    } catch (UnsatisfiedLinkError e) {
      Log.w(TAG, "JavaPlugin: System.loadLibrary(\"OzmUnityPlugin\") failed: " + e.getMessage());
    }
  }

  private static native void onCreated(JavaPlugin plugin, AssetManager assetManager, int useObb);

  private static native void onFrameAvailableNative(SurfaceTexture surfaceTexture);

  private static native void onDownloadComplete(String localPath, long nativeHandle);

  private static JavaPlugin instance;

  private final Context context;
  /** The expansion archive, or null when the plug-in reads none. */
  private final File obbArchive;
  private ObbEntries obbEntries;
  private final HandlerThread frameThread;
  private final Handler frameHandler;
  private final SegmentDownloader downloader;

  private final SurfaceTexture.OnFrameAvailableListener frameListener = new SurfaceTexture.OnFrameAvailableListener() {
    @Override
    public void onFrameAvailable(SurfaceTexture surfaceTexture) {
      onFrameAvailableNative(surfaceTexture);
    }
  };

  /**
   * The plug-in object of this process: the first one made, or one made now from the engine's
   * current activity (without an expansion archive).
   */
  public static synchronized JavaPlugin create(Activity activity) {
    if (instance == null) instance = new JavaPlugin(activity);
    return instance;
  }

  /** A plug-in that reads files and assets, and no expansion archive. */
  public JavaPlugin(Context context) {
    this(context, (File) null);
  }

  /** A plug-in whose relative paths name entries of the expansion archive at `obbPath`. */
  public JavaPlugin(Context context, String obbPath) {
    this(context, obbPath != null ? new File(obbPath) : null);
  }

  /**
   * With `useMainObb`, relative paths name entries of the application's main expansion archive,
   * "main.VERSION.PACKAGE.obb" in its obb folder (the highest version there).
   */
  public JavaPlugin(Context context, boolean useMainObb) {
    this(context, useMainObb && context != null ? mainObb(context) : null);
  }

  private JavaPlugin(Context context, File obb) {
    if (context == null) throw new IllegalArgumentException("JavaPlugin needs a Context: the engine's current activity");
    Context application = context.getApplicationContext();
    this.context = application != null ? application : context;
    if (obb != null && !obb.isFile()) {
      Log.w(TAG, "JavaPlugin: no expansion archive at " + obb + "; relative paths go to the assets");
      obb = null;
    }
    this.obbArchive = obb;

    frameThread = new HandlerThread("OzmFrameAvailable");
    frameThread.start();
    frameHandler = new Handler(frameThread.getLooper());

    File downloads = new File(this.context.getCacheDir(), "ozm-streams");
    downloader = new SegmentDownloader(downloads, new SegmentDownloader.Listener() {
      @Override
      public void onDownloadComplete(String localPath, long nativeHandle) {
        JavaPlugin.onDownloadComplete(localPath, nativeHandle);
      }

      @Override
      public void onDownloadProblem(String message) {
        Log.w(TAG, message);
      }
    }, CONNECT_TIMEOUT_MS, READ_TIMEOUT_MS, FAILED_DOWNLOAD_PAUSE_MS);

    Log.i(TAG, "JavaPlugin created" + (obbArchive != null ? " with expansion archive " + obbArchive : ""));
    synchronized (JavaPlugin.class) {
      if (instance == null) instance = this;
    }
    onCreated(this, this.context.getAssets(), obbArchive != null ? 1 : 0);
  }

  private static File mainObb(Context context) {
    File found = ObbEntries.findMainArchive(context.getObbDir(), context.getPackageName());
    if (found == null) Log.w(TAG, "JavaPlugin: no main expansion archive in " + context.getObbDir());
    return found;
  }

  // ---------------------------------------------------------------------------------------------
  // Video output.

  /**
   * A SurfaceTexture on the player's external GL texture `textureName`. It announces each new
   * frame through onFrameAvailableNative on the "OzmFrameAvailable" thread, so the callbacks never
   * depend on the Looper of the calling thread. (The Handler overload of
   * setOnFrameAvailableListener exists from API level 21, the lowest this plug-in supports.)
   */
  public SurfaceTexture createSurfaceTexture(int textureName) {
    try {
      SurfaceTexture texture = new SurfaceTexture(textureName);
      texture.setOnFrameAvailableListener(frameListener, frameHandler);
      return texture;
    } catch (RuntimeException e) {
      Log.e(TAG, "JavaPlugin: cannot make a SurfaceTexture on texture " + textureName, e);
      return null;
    }
  }

  public void releaseSurfaceTexture(SurfaceTexture surfaceTexture) {
    if (surfaceTexture == null) return;
    surfaceTexture.setOnFrameAvailableListener(null);
    surfaceTexture.release();
  }

  /** The Surface a decoder renders into, feeding `surfaceTexture`. */
  public Surface createSurfaceTextureSurface(SurfaceTexture surfaceTexture) {
    if (surfaceTexture == null) return null;
    try {
      return new Surface(surfaceTexture);
    } catch (RuntimeException e) {
      Log.e(TAG, "JavaPlugin: cannot make a Surface", e);
      return null;
    }
  }

  // ---------------------------------------------------------------------------------------------
  // Audio output.

  /**
   * A streaming AudioTrack for 16-bit stereo PCM at `sampleRate` Hz, with four times the smallest
   * buffer the device accepts (writes block while it is full); null when the device cannot play
   * that rate. The caller starts it.
   */
  public AudioTrack createAudioTrack(int sampleRate) {
    int channels = AudioFormat.CHANNEL_OUT_STEREO;
    int encoding = AudioFormat.ENCODING_PCM_16BIT;
    int minimum = AudioTrack.getMinBufferSize(sampleRate, channels, encoding);
    if (minimum <= 0) {
      Log.e(TAG, "JavaPlugin: no AudioTrack for " + sampleRate + " Hz (getMinBufferSize returned " + minimum + ")");
      return null;
    }
    try {
      AudioAttributes attributes = new AudioAttributes.Builder()
                                       .setUsage(AudioAttributes.USAGE_MEDIA)
                                       .setContentType(AudioAttributes.CONTENT_TYPE_MOVIE)
                                       .build();
      AudioFormat format =
          new AudioFormat.Builder().setSampleRate(sampleRate).setEncoding(encoding).setChannelMask(channels).build();
      AudioTrack track = new AudioTrack(attributes, format, minimum * 4, AudioTrack.MODE_STREAM,
                                        AudioManager.AUDIO_SESSION_ID_GENERATE);
      if (track.getState() != AudioTrack.STATE_INITIALIZED) {
        track.release();
        Log.e(TAG, "JavaPlugin: the AudioTrack for " + sampleRate + " Hz did not initialise");
        return null;
      }
      return track;
    } catch (RuntimeException e) {
      Log.e(TAG, "JavaPlugin: no AudioTrack for " + sampleRate + " Hz", e);
      return null;
    }
  }

  // ---------------------------------------------------------------------------------------------
  // Files.
  //
  // A descriptor handed to the native side stays open while this object, which owns it, is
  // referenced; the native side takes what it needs from it while it still holds the reference.

  /**
   * The whole file at the absolute `path`, opened the way Android 10 and later let an app open a
   * file it may read (scoped storage); null when it cannot be opened.
   */
  public AssetFileDescriptor getAssetFileDescriptorAndroid10(String path) {
    if (path == null || !path.startsWith("/")) {
      Log.w(TAG, "JavaPlugin: not an absolute path: " + path);
      return null;
    }
    File file = new File(path);
    ParcelFileDescriptor descriptor = null;
    try {
      descriptor = ParcelFileDescriptor.open(file, ParcelFileDescriptor.MODE_READ_ONLY);
      long length = descriptor.getStatSize();
      if (length < 0) length = file.length();
      return new AssetFileDescriptor(descriptor, 0, length);
    } catch (IOException | RuntimeException e) {
      closeQuietly(descriptor);
      Log.i(TAG, "JavaPlugin: cannot open " + path + ": " + e.getMessage());
      return null;
    }
  }

  /**
   * The entry `name` of the expansion archive, as a range of the archive file; null when there is
   * no archive or no such entry, or when the entry is compressed (a player can only read stored
   * entries, in place).
   */
  public AssetFileDescriptor getAssetFileDescriptorFromObb(String name) {
    ObbEntries entries = obbEntries();
    if (entries == null || name == null) return null;
    ParcelFileDescriptor descriptor = null;
    try {
      ObbEntries.Entry entry = entries.find(name);
      if (entry == null) {
        Log.e(TAG, "JavaPlugin: no entry " + name + " in the expansion archive " + obbArchive);
        return null;
      }
      if (!entry.stored) {
        Log.e(TAG, "JavaPlugin: " + name + " is compressed in the expansion archive; store it uncompressed");
        return null;
      }
      descriptor = ParcelFileDescriptor.open(obbArchive, ParcelFileDescriptor.MODE_READ_ONLY);
      return new AssetFileDescriptor(descriptor, entry.dataOffset, entry.length);
    } catch (IOException | RuntimeException e) {
      closeQuietly(descriptor);
      Log.e(TAG, "JavaPlugin: cannot read " + name + " from the expansion archive: " + e.getMessage());
      return null;
    }
  }

  private synchronized ObbEntries obbEntries() {
    if (obbEntries == null && obbArchive != null) {
      try {
        obbEntries = new ObbEntries(obbArchive);
      } catch (IOException e) {
        Log.e(TAG, "JavaPlugin: cannot read the expansion archive " + obbArchive + ": " + e.getMessage());
      }
    }
    return obbEntries;
  }

  private static void closeQuietly(ParcelFileDescriptor descriptor) {
    if (descriptor == null) return;
    try {
      descriptor.close();
    } catch (IOException ignored) {
      // Nothing was handed out; the descriptor is gone either way.
    }
  }

  // ---------------------------------------------------------------------------------------------
  // Downloads of streamed clips, into the app's cache folder (see SegmentDownloader).

  /**
   * Starts downloading the segment `url` (named `uri` in the playlist `playlistName`) for the stream
   * `nativeHandle`, and returns at once. Its end is reported with onDownloadComplete: the local
   * file, or null when the download failed.
   */
  public void downloadFileFromUrl(String playlistName, String url, String uri, long nativeHandle) {
    downloader.download(playlistName, url, uri, nativeHandle);
  }

  /** Downloads the playlist `url`; the local file, or null when the download failed. */
  public String downloadFileFromUrlBlocking(String url) {
    return downloader.downloadPlaylist(url);
  }

  /**
   * Abandons the download of `nativeHandle`. Once this returns, no completion for it is being
   * reported or will be: the stream may be freed right after.
   */
  public void cancelDownload(long nativeHandle) {
    downloader.cancel(nativeHandle);
  }
}
