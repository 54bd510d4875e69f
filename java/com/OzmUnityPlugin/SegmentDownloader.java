package com.OzmUnityPlugin;

import java.io.File;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.InterruptedIOException;
import java.io.OutputStream;
import java.net.HttpURLConnection;
import java.net.URL;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.RejectedExecutionException;
import java.util.concurrent.ScheduledExecutorService;
import java.util.concurrent.ScheduledThreadPoolExecutor;
import java.util.concurrent.ThreadFactory;
import java.util.concurrent.TimeUnit;

/**
 * Downloads for streamed clips. Segments are fetched one at a time on a single background thread
 * and their end is reported to the Listener with the stream's handle; a playlist is fetched on the
 * caller's thread.
 *
 * Files go under `root`: a playlist as "NAME-RANDOM.m3u8" directly in it, the segments of one
 * stream in the folder "PLAYLIST-HANDLE" (the playlist's name and the stream's handle in hex, so
 * two players of one playlist never share a file), each named after the last part of its URI.
 * The stream deletes the files it was given. Every file is written under a temporary name and
 * renamed once complete, so a reported path always holds a whole body.
 *
 * A download fails (null path) on a connection error or time-out, an address that is not http or
 * https, an HTTP status that is not 2xx after at most five redirects, an empty body or one shorter
 * than its Content-Length, or a body over the size limit. A failed segment is reported after a
 * pause: the stream asks again at once, and the pause keeps a dead server from being hammered.
 */
final class SegmentDownloader {
  interface Listener {
    /** The end of a segment download: its local file, or null when it failed. */
    void onDownloadComplete(String localPath, long nativeHandle);

    /** Why a download failed, for the log. */
    void onDownloadProblem(String message);
  }

  static final int MAX_REDIRECTS = 5;
  static final long MAX_SEGMENT_BYTES = 1L << 30;
  static final long MAX_PLAYLIST_BYTES = 16L << 20;

  private final File root;
  private final Listener listener;
  private final int connectTimeoutMs;
  private final int readTimeoutMs;
  private final long failurePauseMs;
  private final ScheduledExecutorService executor;

  // Cancelling and reporting are made mutually exclusive with `lock` and two maps, without calling
  // the listener under the lock:
  // - `pending` holds the current request of each handle. A report first checks under the lock
  //   that its job is still the handle's current one, removes it and marks the handle as
  //   `reporting` by its thread; then it calls the listener without the lock, and finally clears
  //   the mark and wakes waiters.
  // - cancel removes the handle's job under the lock (a job that is no longer current never
  //   reports), then waits while another thread is reporting for that handle, removing again any
  //   job the report may have started meanwhile (the listener asks for the next segment from
  //   inside the report). It returns only when the handle has neither a current job nor a report
  //   in progress, so from then on nothing is reported for it.
  // A cancel from inside the listener, on the reporting thread, does not wait for itself.
  private final Object lock = new Object();
  private final Map<Long, Job> pending = new HashMap<>();
  private final Map<Long, Thread> reporting = new HashMap<>();
  private boolean stopping;

  SegmentDownloader(File root, Listener listener, int connectTimeoutMs, int readTimeoutMs, long failurePauseMs) {
    this.root = root;
    this.listener = listener;
    this.connectTimeoutMs = connectTimeoutMs;
    this.readTimeoutMs = readTimeoutMs;
    this.failurePauseMs = failurePauseMs;
    ScheduledThreadPoolExecutor pool = new ScheduledThreadPoolExecutor(1, new ThreadFactory() {
      @Override
      public Thread newThread(Runnable r) {
        Thread thread = new Thread(r, "OzmDownloads");
        thread.setDaemon(true);
        return thread;
      }
    });
    pool.setExecuteExistingDelayedTasksAfterShutdownPolicy(false);
    this.executor = pool;
  }

  /** One requested segment. `cancelled` and `connection` are shared with cancel's thread. */
  private static final class Job {
    final long handle;
    volatile boolean cancelled;
    private volatile HttpURLConnection connection;

    Job(long handle) {
      this.handle = handle;
    }

    /** Publishes the connection that abort must be able to close; throws if already cancelled. */
    void attach(HttpURLConnection c) throws InterruptedIOException {
      connection = c;
      // Both sides write their field, then read the other's: one of them sees the other.
      if (cancelled) {
        c.disconnect();
        throw new InterruptedIOException("cancelled");
      }
    }

    /**
     * Stops the transfer without waiting for it. Closing the connection ends a read that waits for
     * bytes: Android's HttpURLConnection closes its socket at once, but the desktop JDK's waits for
     * the read to return first. So the close runs on a thread of its own, and cancel never waits
     * for more than marking the job.
     */
    void abort() {
      cancelled = true;
      final HttpURLConnection c = connection;
      if (c == null) return;
      Thread closer = new Thread(new Runnable() {
        @Override
        public void run() {
          c.disconnect();
        }
      }, "OzmDownloadAbort");
      closer.setDaemon(true);
      closer.start();
    }
  }

  /** Starts downloading one segment of the stream `nativeHandle`; returns at once. */
  void download(String playlistName, final String url, String uri, long nativeHandle) {
    final File target = new File(new File(root, safeName(playlistName, "stream") + "-" + Long.toHexString(nativeHandle)),
                                 fileNameOf(uri != null ? uri : url, "segment"));
    final Job job = new Job(nativeHandle);
    Job replaced;
    synchronized (lock) {
      if (stopping) {
        job.cancelled = true;
        replaced = null;
      } else {
        replaced = pending.put(nativeHandle, job);
      }
    }
    if (job.cancelled) {
      listener.onDownloadProblem("downloads have stopped; not downloading " + url);
      return;
    }
    if (replaced != null) replaced.abort();
    try {
      executor.execute(new Runnable() {
        @Override
        public void run() {
          runJob(job, url, target);
        }
      });
    } catch (RejectedExecutionException e) {
      forget(job);
      listener.onDownloadProblem("downloads have stopped; not downloading " + url);
    }
  }

  /** Downloads a playlist into a file of its own; its path, or null when the download failed. */
  String downloadPlaylist(String url) {
    File target = null;
    try {
      if (url == null) throw new IOException("no address");
      makeFolder(root);
      String name = fileNameOf(url, "playlist.m3u8");
      int dot = name.lastIndexOf('.');
      String stem = dot > 0 ? name.substring(0, dot) : name;
      String extension = dot > 0 ? name.substring(dot) : ".m3u8";
      // Reserves a name no other download uses; the body is renamed onto it.
      target = File.createTempFile(padded(stem + "-"), extension, root);
      fetch(url, target, new Job(0), MAX_PLAYLIST_BYTES, false);
      return target.getPath();
    } catch (IOException | RuntimeException e) {
      if (target != null && !target.delete()) target.deleteOnExit();
      listener.onDownloadProblem("download of playlist " + url + " failed: " + e.getMessage());
      return null;
    }
  }

  /**
   * Abandons the download of `nativeHandle`. Once this returns, no completion for it is being
   * reported or will be.
   */
  void cancel(long nativeHandle) {
    List<Job> stopped = new ArrayList<>();
    boolean interrupted = false;
    synchronized (lock) {
      for (;;) {
        Job job = pending.remove(nativeHandle);
        if (job != null) {
          job.cancelled = true;
          stopped.add(job);
        }
        Thread reporter = reporting.get(nativeHandle);
        if (reporter == null || reporter == Thread.currentThread() || stopping) break;
        try {
          lock.wait();
        } catch (InterruptedException e) {
          // The promise above must hold, so keep waiting; the report ends on its own.
          interrupted = true;
        }
      }
    }
    for (Job job : stopped) job.abort();
    if (interrupted) Thread.currentThread().interrupt();
  }

  /**
   * Stops the background thread: running downloads are abandoned and nothing more is reported.
   * Waits at most `timeoutMs` for the thread to end; true when it did.
   */
  boolean shutdown(long timeoutMs) throws InterruptedException {
    List<Job> stopped;
    synchronized (lock) {
      stopping = true;
      stopped = new ArrayList<>(pending.values());
      pending.clear();
      lock.notifyAll();
    }
    for (Job job : stopped) job.abort();
    executor.shutdownNow();
    return executor.awaitTermination(timeoutMs, TimeUnit.MILLISECONDS);
  }

  private void runJob(final Job job, String url, File target) {
    // Only this thread writes into the stream's folder, so a free name stays free until used.
    String path = null;
    if (!job.cancelled) {
      try {
        if (url == null) throw new IOException("no address");
        target = fetch(url, target, job, MAX_SEGMENT_BYTES, true);
        path = target.getPath();
      } catch (IOException | RuntimeException e) {
        if (!job.cancelled) listener.onDownloadProblem("download of " + url + " failed: " + e.getMessage());
      }
    }
    if (path == null && failurePauseMs > 0 && !job.cancelled) {
      try {
        executor.schedule(new Runnable() {
          @Override
          public void run() {
            report(job, null);
          }
        }, failurePauseMs, TimeUnit.MILLISECONDS);
      } catch (RejectedExecutionException e) {
        forget(job);
      }
      return;
    }
    if (!report(job, path) && path != null) {
      // Cancelled after it was complete: nobody will delete the file but us.
      if (target.delete()) target.getParentFile().delete();
    }
  }

  /** Reports the end of `job` unless it was cancelled or replaced; true when it was reported. */
  private boolean report(Job job, String path) {
    synchronized (lock) {
      if (pending.get(job.handle) != job) return false;
      pending.remove(job.handle);
      reporting.put(job.handle, Thread.currentThread());
    }
    try {
      listener.onDownloadComplete(path, job.handle);
    } catch (RuntimeException e) {
      listener.onDownloadProblem("reporting a download failed: " + e);
    } finally {
      synchronized (lock) {
        reporting.remove(job.handle);
        lock.notifyAll();
      }
    }
    return true;
  }

  private void forget(Job job) {
    synchronized (lock) {
      if (pending.get(job.handle) == job) pending.remove(job.handle);
    }
  }

  /**
   * Downloads `address` into `target` through a temporary file beside it, and returns the file
   * written. With `avoidExisting`, a name already taken (two URIs of one stream that end alike)
   * becomes "stem-2.ext", "stem-3.ext", ...
   */
  private File fetch(String address, File target, Job job, long maxBytes, boolean avoidExisting) throws IOException {
    File folder = target.getParentFile();
    makeFolder(folder);
    File temp = File.createTempFile("." + target.getName() + "-", ".part", folder);
    boolean complete = false;
    try {
      HttpURLConnection connection = connect(address, job);
      try (InputStream in = connection.getInputStream(); OutputStream out = new FileOutputStream(temp)) {
        long expected = contentLength(connection);
        if (expected > maxBytes) throw new IOException("body of " + expected + " bytes is over the limit of " + maxBytes);
        byte[] buffer = new byte[64 * 1024];
        long total = 0;
        int n;
        while ((n = in.read(buffer)) != -1) {
          if (job.cancelled) throw new InterruptedIOException("cancelled");
          total += n;
          if (total > maxBytes) throw new IOException("body is over the limit of " + maxBytes + " bytes");
          out.write(buffer, 0, n);
        }
        if (expected >= 0 && total != expected) throw new IOException("short body: " + total + " of " + expected + " bytes");
        if (total == 0) throw new IOException("empty body");
      } catch (IOException e) {
        connection.disconnect();
        throw e;
      }
      if (job.cancelled) throw new InterruptedIOException("cancelled");
      if (avoidExisting) target = freeName(target);
      if (!temp.renameTo(target)) throw new IOException("cannot rename " + temp + " to " + target);
      complete = true;
      return target;
    } finally {
      if (!complete && !temp.delete()) temp.deleteOnExit();
    }
  }

  private static File freeName(File file) throws IOException {
    if (!file.exists()) return file;
    String name = file.getName();
    int dot = name.lastIndexOf('.');
    String stem = dot > 0 ? name.substring(0, dot) : name;
    String extension = dot > 0 ? name.substring(dot) : "";
    for (int n = 2; n <= 1000; n++) {
      File candidate = new File(file.getParentFile(), stem + "-" + n + extension);
      if (!candidate.exists()) return candidate;
    }
    throw new IOException("no free file name for " + file);
  }

  /** Opens `address`, following redirects (also between http and https); a 2xx response. */
  private HttpURLConnection connect(String address, Job job) throws IOException {
    URL url = new URL(address);
    for (int redirects = 0;; redirects++) {
      String scheme = url.getProtocol();
      if (!"http".equals(scheme) && !"https".equals(scheme)) throw new IOException("not an http(s) address: " + url);
      HttpURLConnection c = (HttpURLConnection) url.openConnection();
      c.setConnectTimeout(connectTimeoutMs);
      c.setReadTimeout(readTimeoutMs);
      c.setInstanceFollowRedirects(false);
      c.setUseCaches(false);
      // Bodies as sent, so that Content-Length counts the bytes we read.
      c.setRequestProperty("Accept-Encoding", "identity");
      job.attach(c);
      int status;
      try {
        status = c.getResponseCode();
      } catch (IOException e) {
        c.disconnect();
        throw e;
      }
      if (status >= 200 && status < 300) return c;
      String location = c.getHeaderField("Location");
      c.disconnect();
      boolean redirect = status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
      if (!redirect) throw new IOException("HTTP status " + status);
      if (location == null) throw new IOException("HTTP status " + status + " without a Location");
      if (redirects >= MAX_REDIRECTS) throw new IOException("more than " + MAX_REDIRECTS + " redirects");
      url = new URL(url, location);
    }
  }

  /** The Content-Length header, or -1 when there is none that parses. */
  private static long contentLength(HttpURLConnection c) {
    String value = c.getHeaderField("Content-Length");
    if (value == null) return -1;
    try {
      long length = Long.parseLong(value.trim());
      return length >= 0 ? length : -1;
    } catch (NumberFormatException e) {
      return -1;
    }
  }

  private static void makeFolder(File folder) throws IOException {
    if (!folder.isDirectory() && !folder.mkdirs() && !folder.isDirectory()) {
      throw new IOException("cannot create the folder " + folder);
    }
  }

  /** `name` usable as one component of a path: no separators or control characters, not empty, not "." or "..". */
  static String safeName(String name, String fallback) {
    if (name == null) return fallback;
    StringBuilder safe = new StringBuilder(name.length());
    for (int i = 0; i < name.length(); i++) {
      char c = name.charAt(i);
      safe.append(c == '/' || c == '\\' || c < 0x20 || c == 0x7F ? '_' : c);
    }
    String result = safe.length() > 100 ? safe.substring(safe.length() - 100) : safe.toString();
    if (result.isEmpty() || result.equals(".") || result.equals("..")) return fallback;
    return result;
  }

  /** The last path component of a URL or URI, without its query or fragment, made safe. */
  static String fileNameOf(String uri, String fallback) {
    if (uri == null) return fallback;
    int query = uri.length();
    for (int i = 0; i < uri.length(); i++) {
      char c = uri.charAt(i);
      if (c == '?' || c == '#') {
        query = i;
        break;
      }
    }
    String path = uri.substring(0, query);
    return safeName(path.substring(path.lastIndexOf('/') + 1), fallback);
  }

  /** File.createTempFile wants a prefix of three characters at least. */
  private static String padded(String prefix) {
    return prefix.length() >= 3 ? prefix : prefix + "___".substring(prefix.length());
  }
}
