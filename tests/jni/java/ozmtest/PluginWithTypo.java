package ozmtest;

import android.content.res.AssetFileDescriptor;
import android.graphics.SurfaceTexture;
import android.media.AudioTrack;
import android.view.Surface;

/**
 * A plug-in class as it would be with two mistakes: createAudioTrack takes a long, and
 * cancelDownload is missing. The bridge must report both and go on.
 */
public class PluginWithTypo {
  public SurfaceTexture createSurfaceTexture(int texName) { return new SurfaceTexture(texName); }

  public void releaseSurfaceTexture(SurfaceTexture texture) {}

  public Surface createSurfaceTextureSurface(SurfaceTexture texture) { return new Surface(texture); }

  public AudioTrack createAudioTrack(long sampleRate) { return new AudioTrack((int) sampleRate); }

  public AssetFileDescriptor getAssetFileDescriptorAndroid10(String path) { return null; }

  public AssetFileDescriptor getAssetFileDescriptorFromObb(String path) { return null; }

  public void downloadFileFromUrl(String playlistName, String url, String uri, long nativeHandle) {}

  public String downloadFileFromUrlBlocking(String url) { return null; }
}
