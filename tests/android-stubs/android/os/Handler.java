package android.os;

/** Posts work to the thread of a Looper. */
public class Handler {
  private final Looper looper;

  public Handler(Looper looper) {
    if (looper == null) throw new NullPointerException("looper must not be null");
    this.looper = looper;
  }

  public final Looper getLooper() {
    return looper;
  }

  /** False when the looper has quit. */
  public final boolean post(Runnable r) {
    return looper.enqueue(r);
  }
}
