package android.view;

import android.graphics.SurfaceTexture;

/** Stand-in: the Surface of a SurfaceTexture. */
public class Surface {
  public final SurfaceTexture texture;

  public Surface(SurfaceTexture texture) { this.texture = texture; }
}
