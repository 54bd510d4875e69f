package com.OzmUnityPlugin;

import android.content.res.AssetFileDescriptor;
import android.content.res.AssetManager;
import android.graphics.SurfaceTexture;
import android.media.AudioTrack;
import android.view.Surface;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ConcurrentHashMap;

/**
 * Stand-in of the plug-in's Java class for the desktop-JVM test of the native bridge: the same
 * natives and the same methods with the same signatures, each of which records its call and answers
 * from tables the test fills.
 */
public class JavaPlugin {
  public static native void onCreated(JavaPlugin plugin, AssetManager assetManager, int useObb);

  public static native void onFrameAvailableNative(SurfaceTexture surfaceTexture);

  public static native void onDownloadComplete(String localPath, long nativeHandle);

  /** Every call native code made, in order: the method's name and its arguments. */
  public static final List<String> calls = Collections.synchronizedList(new ArrayList<>());

  public static final List<SurfaceTexture> textures = Collections.synchronizedList(new ArrayList<>());
  public static final List<AudioTrack> tracks = Collections.synchronizedList(new ArrayList<>());
  /** Descriptors by path; a path that is not here gets null. */
  public static final Map<String, AssetFileDescriptor> descriptors = new ConcurrentHashMap<>();
  public static final Map<String, AssetFileDescriptor> obbDescriptors = new ConcurrentHashMap<>();
  /** Blocking downloads: a fixed answer, or a file handed out as a fresh copy (the caller deletes it). */
  public static final Map<String, String> answers = new ConcurrentHashMap<>();
  public static final Map<String, Path> files = new ConcurrentHashMap<>();

  /** An argument that makes any method throw. */
  public static final String THROW = "throw";

  public SurfaceTexture createSurfaceTexture(int texName) {
    SurfaceTexture texture = new SurfaceTexture(texName);
    textures.add(texture);
    calls.add("createSurfaceTexture " + texName + " " + texture);
    return texture;
  }

  public void releaseSurfaceTexture(SurfaceTexture texture) {
    calls.add("releaseSurfaceTexture " + texture);
    texture.release();
  }

  public Surface createSurfaceTextureSurface(SurfaceTexture texture) {
    calls.add("createSurfaceTextureSurface " + texture);
    return new Surface(texture);
  }

  public AudioTrack createAudioTrack(int sampleRate) {
    calls.add("createAudioTrack " + sampleRate);
    AudioTrack track = new AudioTrack(sampleRate);
    tracks.add(track);
    return track;
  }

  public AssetFileDescriptor getAssetFileDescriptorAndroid10(String path) {
    calls.add("getAssetFileDescriptorAndroid10 " + path);
    if (path.equals(THROW))
      throw new IllegalArgumentException("no such asset");
    return descriptors.get(path);
  }

  public AssetFileDescriptor getAssetFileDescriptorFromObb(String path) {
    calls.add("getAssetFileDescriptorFromObb " + path);
    if (path.equals(THROW))
      throw new IllegalArgumentException("no such entry");
    return obbDescriptors.get(path);
  }

  public void downloadFileFromUrl(String playlistName, String url, String uri, long nativeHandle) {
    calls.add("downloadFileFromUrl " + playlistName + "|" + url + "|" + uri + "|" + nativeHandle);
    if (url.equals(THROW))
      throw new IllegalStateException("download refused");
  }

  public String downloadFileFromUrlBlocking(String url) {
    calls.add("downloadFileFromUrlBlocking " + url);
    if (url.equals(THROW))
      throw new IllegalStateException("download refused");
    Path file = files.get(url);
    if (file != null)
      return copy(file).toString();
    return answers.get(url);
  }

  public void cancelDownload(long nativeHandle) { calls.add("cancelDownload " + nativeHandle); }

  /** A copy of `file` in a folder of its own, as a download would leave it. */
  public static Path copy(Path file) {
    try {
      Path folder = Files.createTempDirectory("ozm-jni-download");
      return Files.copy(file, folder.resolve(file.getFileName()));
    } catch (IOException e) {
      throw new UncheckedIOException(e);
    }
  }

  /** The calls recorded since `from`. */
  public static List<String> callsSince(int from) {
    synchronized (calls) { return new ArrayList<>(calls.subList(from, calls.size())); }
  }
}
