package android.graphics;

import android.os.Handler;

/**
 * A surface texture on a GL texture name. It remembers the name and its frame-available listener;
 * produceFrame (stand-in only) plays the producer and announces a frame the way Android does: on
 * the listener's Handler when one was given, else on the calling thread.
 */
public class SurfaceTexture {
  public interface OnFrameAvailableListener {
    void onFrameAvailable(SurfaceTexture surfaceTexture);
  }

  private final int texName;
  private OnFrameAvailableListener listener;
  private Handler handler;
  private long pendingTimestamp;
  private long timestamp;
  private int updates;
  private boolean released;

  public SurfaceTexture(int texName) {
    this.texName = texName;
  }

  public void setOnFrameAvailableListener(OnFrameAvailableListener listener) {
    setOnFrameAvailableListener(listener, null);
  }

  public synchronized void setOnFrameAvailableListener(OnFrameAvailableListener listener, Handler handler) {
    this.listener = listener;
    this.handler = handler;
  }

  /** Latches the newest produced frame: its timestamp becomes getTimestamp's answer. */
  public synchronized void updateTexImage() {
    if (released) throw new IllegalStateException("updateTexImage on a released SurfaceTexture");
    timestamp = pendingTimestamp;
    updates++;
  }

  public synchronized long getTimestamp() {
    return timestamp;
  }

  public synchronized void release() {
    released = true;
  }

  public synchronized boolean isReleased() {
    return released;
  }

  /** Stand-in only: the GL texture name given to the constructor. */
  public int textureName() {
    return texName;
  }

  /** Stand-in only: how often updateTexImage was called. */
  public synchronized int updateCount() {
    return updates;
  }

  /** Stand-in only: the listener and handler set last (null when none). */
  public synchronized OnFrameAvailableListener frameListener() {
    return listener;
  }

  public synchronized Handler frameHandler() {
    return handler;
  }

  /**
   * Stand-in only: a producer queued a frame with this timestamp (nanoseconds). The listener is
   * told on its Handler's thread, or at once on this thread when it was set without one.
   */
  public void produceFrame(long timestampNs) {
    final OnFrameAvailableListener target;
    final Handler via;
    synchronized (this) {
      pendingTimestamp = timestampNs;
      target = listener;
      via = handler;
    }
    if (target == null) return;
    Runnable announce = new Runnable() {
      @Override
      public void run() {
        target.onFrameAvailable(SurfaceTexture.this);
      }
    };
    if (via != null) {
      via.post(announce);
    } else {
      announce.run();
    }
  }
}
