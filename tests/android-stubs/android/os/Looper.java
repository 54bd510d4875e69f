package android.os;

import java.util.ArrayDeque;

/** The message loop of one thread: runnables run in the order they were posted until quit. */
public final class Looper {
  private final Thread thread;
  private final ArrayDeque<Runnable> queue = new ArrayDeque<>();
  private boolean quitting;

  Looper(Thread thread) {
    this.thread = thread;
  }

  public Thread getThread() {
    return thread;
  }

  public void quit() {
    synchronized (queue) {
      quitting = true;
      queue.notifyAll();
    }
  }

  boolean enqueue(Runnable r) {
    synchronized (queue) {
      if (quitting) return false;
      queue.addLast(r);
      queue.notifyAll();
      return true;
    }
  }

  /** Runs posted work on the calling thread until quit; what is left queued then is dropped. */
  void run() {
    for (;;) {
      Runnable next;
      synchronized (queue) {
        while (queue.isEmpty() && !quitting) {
          try {
            queue.wait();
          } catch (InterruptedException e) {
            quitting = true;
          }
        }
        if (quitting) return;
        next = queue.removeFirst();
      }
      next.run();
    }
  }
}
