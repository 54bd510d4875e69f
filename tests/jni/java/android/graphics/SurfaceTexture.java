package android.graphics;

import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.concurrent.atomic.AtomicInteger;

/** Stand-in: records the calls native code makes on it. */
public class SurfaceTexture {
  private static final AtomicInteger serial = new AtomicInteger();

  public final int texName;
  public final String name;
  public final List<String> calls = Collections.synchronizedList(new ArrayList<>());
  public final AtomicInteger updates = new AtomicInteger();
  public volatile long timestamp;

  public SurfaceTexture(int texName) {
    this.texName = texName;
    this.name = "st" + serial.incrementAndGet();
    this.timestamp = 1_000_000_000L + texName;
  }

  public void updateTexImage() {
    updates.incrementAndGet();
    calls.add("updateTexImage");
  }

  public long getTimestamp() {
    calls.add("getTimestamp");
    return timestamp;
  }

  public void release() { calls.add("release"); }

  @Override
  public String toString() {
    return name;
  }
}
