package android.view;

import android.graphics.SurfaceTexture;

/** A producer surface over a SurfaceTexture (a decoder's output). */
public class Surface {
  private final SurfaceTexture surfaceTexture;
  private boolean released;

  public Surface(SurfaceTexture surfaceTexture) {
    if (surfaceTexture == null) throw new IllegalArgumentException("surfaceTexture must not be null");
    this.surfaceTexture = surfaceTexture;
  }

  public synchronized void release() {
    released = true;
  }

  /** Stand-in only: whether release was called. */
  public synchronized boolean isReleased() {
    return released;
  }

  /** Stand-in only: the texture this surface feeds. */
  public SurfaceTexture surfaceTexture() {
    return surfaceTexture;
  }
}
