package android.os;

/**
 * A thread with a Looper. Unlike Android's, a daemon thread, so that a desktop JVM can end while
 * one is still running.
 */
public class HandlerThread extends Thread {
  private Looper looper;

  public HandlerThread(String name) {
    super(name);
    setDaemon(true);
  }

  @Override
  public void run() {
    Looper mine = new Looper(this);
    synchronized (this) {
      looper = mine;
      notifyAll();
    }
    mine.run();
  }

  /** Waits until the thread has made its Looper; null when the thread is not running. */
  public Looper getLooper() {
    boolean interrupted = false;
    Looper result;
    synchronized (this) {
      while (looper == null && isAlive()) {
        try {
          wait();
        } catch (InterruptedException e) {
          interrupted = true;
        }
      }
      result = looper;
    }
    if (interrupted) Thread.currentThread().interrupt();
    return result;
  }

  public boolean quit() {
    Looper current = getLooper();
    if (current == null) return false;
    current.quit();
    return true;
  }
}
