package com.OzmUnityPlugin;

import static com.OzmUnityPlugin.JavaPluginLogicTest.check;
import static com.OzmUnityPlugin.JavaPluginLogicTest.checkEquals;

import com.sun.net.httpserver.HttpExchange;
import com.sun.net.httpserver.HttpServer;
import java.io.File;
import java.io.IOException;
import java.io.OutputStream;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.ServerSocket;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.locks.LockSupport;

/** Segment and playlist downloads from a server on 127.0.0.1, and cancelling them. */
final class SegmentDownloaderTest {
  private SegmentDownloaderTest() {}

  private static final int CONNECT_TIMEOUT_MS = 2000;
  // Longer than any wait below: a download that only ends by timing out shows as a failed wait.
  private static final int READ_TIMEOUT_MS = 8000;

  // ---------------------------------------------------------------------------------------------
  // The loopback server.

  private static final class Server implements AutoCloseable {
    final HttpServer http;
    final ExecutorService threads = Executors.newCachedThreadPool();
    final Map<String, byte[]> files = new HashMap<>();
    /** Counted down when /slow has sent its first bytes; every /slow then waits for `release`. */
    volatile CountDownLatch slowStarted = new CountDownLatch(1);
    final CountDownLatch release = new CountDownLatch(1);

    Server() throws IOException {
      http = HttpServer.create(new InetSocketAddress(InetAddress.getByName("127.0.0.1"), 0), 16);
      http.setExecutor(threads);
      http.createContext("/", this::handle);
      http.start();
    }

    String url(String path) {
      return "http://127.0.0.1:" + http.getAddress().getPort() + path;
    }

    private void handle(HttpExchange exchange) throws IOException {
      String path = exchange.getRequestURI().getPath();
      String file = path.startsWith("/files/") ? path.substring("/files/".length()) : "";
      boolean truncate = false;
      OutputStream out = exchange.getResponseBody();
      try {
        if (files.containsKey(file)) {
          exchange.sendResponseHeaders(200, files.get(file).length);
          out.write(files.get(file));
        } else if (path.startsWith("/status/")) {
          byte[] body = "error page".getBytes(StandardCharsets.US_ASCII);
          exchange.sendResponseHeaders(Integer.parseInt(path.substring("/status/".length())), body.length);
          out.write(body);
        } else if (path.equals("/redirect") || path.equals("/redirect-loop")) {
          exchange.getResponseHeaders().set("Location", path.equals("/redirect") ? "/files/a.ts" : path);
          exchange.sendResponseHeaders(302, -1);
        } else if (path.equals("/empty")) {
          exchange.sendResponseHeaders(200, -1);
        } else if (path.equals("/truncated")) {
          exchange.sendResponseHeaders(200, 1000);
          out.write(new byte[500]);
          out.flush();
          truncate = true;
        } else if (path.equals("/slow")) {
          exchange.sendResponseHeaders(200, 1 << 20);
          out.write(new byte[1024]);
          out.flush();
          slowStarted.countDown();
          release.await(10, TimeUnit.SECONDS);
        } else {
          exchange.sendResponseHeaders(404, -1);
        }
      } catch (IOException | InterruptedException e) {
        truncate = true;
      }
      // An exception out of the handler makes the server drop the connection: a body cut short.
      if (truncate) throw new IOException("response cut short on purpose");
      exchange.close();
    }

    @Override
    public void close() {
      release.countDown();
      http.stop(0);
      threads.shutdownNow();
      try {
        threads.awaitTermination(5, TimeUnit.SECONDS);
      } catch (InterruptedException e) {
        Thread.currentThread().interrupt();
      }
    }
  }

  // ---------------------------------------------------------------------------------------------
  // What the downloader reports.

  interface Hook {
    void inReport(String path, long handle) throws Exception;
  }

  private static final class Recorder implements SegmentDownloader.Listener {
    private final Map<Long, List<String>> reports = new HashMap<>();
    private int problems;
    /** Runs inside each report, before it is recorded. */
    volatile Hook hook;

    @Override
    public void onDownloadComplete(String localPath, long nativeHandle) {
      Hook h = hook;
      if (h != null) {
        try {
          h.inReport(localPath, nativeHandle);
        } catch (Exception e) {
          check(false, "the report hook threw " + e);
        }
      }
      synchronized (this) {
        List<String> list = reports.get(nativeHandle);
        if (list == null) reports.put(nativeHandle, list = new ArrayList<>());
        list.add(localPath == null ? "<null>" : localPath);
        notifyAll();
      }
    }

    @Override
    public synchronized void onDownloadProblem(String message) {
      System.out.println("  (logged: " + message + ")");
      problems++;
      notifyAll();
    }

    /** Report number `index` for `handle` ("<null>" for a failure), or "<none>" after `timeoutMs`. */
    synchronized String await(long handle, int index, long timeoutMs) throws InterruptedException {
      long deadline = System.currentTimeMillis() + timeoutMs;
      while (reportCount(handle) <= index) {
        long left = deadline - System.currentTimeMillis();
        if (left <= 0) return "<none>";
        wait(left);
      }
      return reports.get(handle).get(index);
    }

    synchronized int reportCount(long handle) {
      List<String> list = reports.get(handle);
      return list == null ? 0 : list.size();
    }

    synchronized int problemCount() {
      return problems;
    }

    synchronized boolean awaitProblems(int count, long timeoutMs) throws InterruptedException {
      long deadline = System.currentTimeMillis() + timeoutMs;
      while (problems < count) {
        long left = deadline - System.currentTimeMillis();
        if (left <= 0) return false;
        wait(left);
      }
      return true;
    }
  }

  static void runAll() throws Exception {
    File root = Files.createTempDirectory("ozm-downloads-test-").toFile();
    try (Server server = new Server()) {
      Random random = new Random(11);
      server.files.put("a.ts", bytes(random, 50000));
      server.files.put("b.ts", bytes(random, 1234));
      server.files.put("list.m3u8", "#EXTM3U\n#EXTINF:2.0,\na.ts\n".getBytes(StandardCharsets.US_ASCII));
      segmentsAreDownloadedOrFail(server, root);
      segmentsOfOneStreamKeepTheirOwnFiles(server, root);
      playlistsGetFilesOfTheirOwn(server, root);
      cancellingStopsASlowDownloadAtOnce(server, root);
      cancelWaitsForAReportInProgressAndItsFollowUp(server, root);
      failuresAreReportedAfterAPauseThatCancelEnds(server, root);
      noReportAfterCancelReturnsUnderRaces(server, root);
      check(noTemporaryFiles(root), "no temporary files are left behind");
    } finally {
      ObbEntriesTest.deleteTree(root);
    }
  }

  private static SegmentDownloader downloader(File root, Recorder recorder, long failurePauseMs) {
    return new SegmentDownloader(root, recorder, CONNECT_TIMEOUT_MS, READ_TIMEOUT_MS, failurePauseMs);
  }

  private static void segmentsAreDownloadedOrFail(Server server, File root) throws Exception {
    int closedPort;
    try (ServerSocket socket = new ServerSocket(0, 1, InetAddress.getByName("127.0.0.1"))) {
      closedPort = socket.getLocalPort();
    }
    Object[][] cases = {
        // what, playlist name, address, uri, served file (null: a failure), file under the root
        {"a served body", "clip", server.url("/files/a.ts"), "a.ts", "a.ts", "clip-11/a.ts"},
        {"a redirect", "clip", server.url("/redirect"), "r.ts", "a.ts", "clip-12/r.ts"},
        {"a uri with folders and a query", "clip", server.url("/files/b.ts"), "x/y/b.ts?token=1#t", "b.ts", "clip-13/b.ts"},
        {"names that try to leave the folder", "..", server.url("/files/b.ts"), "../../../evil.ts", "b.ts", "stream-14/evil.ts"},
        {"a playlist name with separators", "a/../../b", server.url("/files/b.ts"), "c.ts", "b.ts", "a_.._.._b-15/c.ts"},
        {"an HTTP 500", "clip", server.url("/status/500"), "e.ts", null, null},
        {"an HTTP 404", "clip", server.url("/status/404"), "e.ts", null, null},
        {"a body shorter than its length", "clip", server.url("/truncated"), "e.ts", null, null},
        {"an empty body", "clip", server.url("/empty"), "e.ts", null, null},
        {"endless redirects", "clip", server.url("/redirect-loop"), "e.ts", null, null},
        {"no server", "clip", "http://127.0.0.1:" + closedPort + "/a.ts", "e.ts", null, null},
        {"not http", "clip", "ftp://127.0.0.1/a.ts", "e.ts", null, null},
        {"not an address", "clip", "::not a url::", "e.ts", null, null},
        {"no address", "clip", null, "e.ts", null, null},
    };
    Recorder recorder = new Recorder();
    SegmentDownloader downloads = downloader(root, recorder, 0);
    long handle = 0x11;
    int failures = 0;
    for (Object[] c : cases) {
      String what = (String) c[0];
      downloads.download((String) c[1], (String) c[2], (String) c[3], handle);
      String path = recorder.await(handle, 0, 5000);
      if (c[4] == null) {
        failures++;
        checkEquals("<null>", path, what + ": reported as a failure");
        check(recorder.problemCount() >= failures, what + ": the reason is logged");
      } else if (check(path.startsWith("/"), what + ": a path is reported (got " + path + ")")) {
        File file = new File(path);
        check(Arrays.equals(server.files.get((String) c[4]), Files.readAllBytes(file.toPath())), what + ": the body");
        checkEquals(new File(root, (String) c[5]).getCanonicalPath(), file.getCanonicalPath(), what + ": the file");
      }
      handle++;
    }
    check(downloads.shutdown(2000), "the download thread ends");
  }

  private static void segmentsOfOneStreamKeepTheirOwnFiles(Server server, File root) throws Exception {
    Recorder recorder = new Recorder();
    SegmentDownloader downloads = downloader(root, recorder, 0);
    downloads.download("same", server.url("/files/a.ts"), "one/seg.ts", 0x21);
    String first = recorder.await(0x21, 0, 5000);
    downloads.download("same", server.url("/files/b.ts"), "two/seg.ts", 0x21);
    String second = recorder.await(0x21, 1, 5000);
    downloads.download("same", server.url("/files/b.ts"), "one/seg.ts", 0x22);
    String other = recorder.await(0x22, 0, 5000);
    check(first.endsWith("/seg.ts") && second.endsWith("/seg-2.ts"), "two URIs ending alike get two files: " + first + ", " + second);
    check(!new File(other).getParent().equals(new File(first).getParent()), "two streams of one playlist get two folders");
    check(Arrays.equals(server.files.get("a.ts"), Files.readAllBytes(new File(first).toPath())), "the first file keeps its body");
    check(Arrays.equals(server.files.get("b.ts"), Files.readAllBytes(new File(second).toPath())), "the second file has its body");
    check(downloads.shutdown(2000), "the download thread ends");
  }

  private static void playlistsGetFilesOfTheirOwn(Server server, File root) throws Exception {
    Recorder recorder = new Recorder();
    SegmentDownloader downloads = downloader(root, recorder, 0);
    String first = downloads.downloadPlaylist(server.url("/files/list.m3u8"));
    String second = downloads.downloadPlaylist(server.url("/files/list.m3u8?session=2"));
    for (String path : new String[] {first, second}) {
      if (!check(path != null, "the playlist is downloaded")) continue;
      File file = new File(path);
      check(file.getParentFile().equals(root) && file.getName().startsWith("list-") && file.getName().endsWith(".m3u8"),
            "the playlist is a list-*.m3u8 file in the root: " + path);
      check(Arrays.equals(server.files.get("list.m3u8"), Files.readAllBytes(file.toPath())), "the playlist's body");
    }
    check(first != null && !first.equals(second), "two downloads of one playlist get two files");
    for (String bad : new String[] {"/status/404", "/status/500", "/truncated", "/empty"}) {
      checkEquals(null, downloads.downloadPlaylist(server.url(bad)), "playlist at " + bad);
    }
    checkEquals(null, downloads.downloadPlaylist(null), "playlist without an address");
    check(downloads.shutdown(2000), "the download thread ends");
  }

  // A download that waits for bytes which never come. Cancel returns at once; the download thread
  // is free again when the connection is closed, which Android does at once and the desktop JDK
  // only when the read times out (hence the short read timeout here).
  private static void cancellingStopsASlowDownloadAtOnce(Server server, File root) throws Exception {
    Recorder recorder = new Recorder();
    int readTimeoutMs = 1500;
    SegmentDownloader downloads = new SegmentDownloader(root, recorder, CONNECT_TIMEOUT_MS, readTimeoutMs, 0);
    server.slowStarted = new CountDownLatch(1);
    downloads.download("slow", server.url("/slow"), "slow.ts", 0x31);
    check(server.slowStarted.await(5, TimeUnit.SECONDS), "the slow download starts");
    // By now the download has read the first bytes and waits for more.
    Thread.sleep(200);
    long start = System.nanoTime();
    downloads.cancel(0x31);
    long cancelMs = (System.nanoTime() - start) / 1000000;
    check(cancelMs < 500, "cancel returns at once (took " + cancelMs + " ms)");
    downloads.download("slow", server.url("/files/b.ts"), "b.ts", 0x32);
    check(recorder.await(0x32, 0, readTimeoutMs + 3000).startsWith("/"), "the next download runs after the cancelled one");

    // A request still queued behind a running one is dropped too.
    server.slowStarted = new CountDownLatch(1);
    downloads.download("slow", server.url("/slow"), "slow.ts", 0x33);
    downloads.download("slow", server.url("/files/a.ts"), "a.ts", 0x34);
    check(server.slowStarted.await(5, TimeUnit.SECONDS), "the second slow download starts");
    downloads.cancel(0x34);
    downloads.cancel(0x33);
    downloads.download("slow", server.url("/files/b.ts"), "b.ts", 0x35);
    check(recorder.await(0x35, 0, readTimeoutMs + 3000).startsWith("/"), "a download after two cancels runs");
    check(recorder.reportCount(0x31) + recorder.reportCount(0x33) + recorder.reportCount(0x34) == 0,
          "cancelled downloads are never reported");
    check(downloads.shutdown(2000), "the download thread ends");
  }

  // The stream asks for its next segment from inside the report of the last one, and may be
  // destroyed (cancel) meanwhile: cancel must wait for the report, and the follow-up must never be
  // reported. A cancel from inside the report itself must not wait for itself.
  private static void cancelWaitsForAReportInProgressAndItsFollowUp(Server server, File root) throws Exception {
    final Recorder recorder = new Recorder();
    final SegmentDownloader downloads = downloader(root, recorder, 0);
    final CountDownLatch inReport = new CountDownLatch(1);
    final CountDownLatch letGo = new CountDownLatch(1);
    final AtomicBoolean firstReport = new AtomicBoolean(true);
    final AtomicBoolean selfCancelReturned = new AtomicBoolean(false);
    recorder.hook = (path, handle) -> {
      if (handle == 0x41 && firstReport.getAndSet(false)) {
        inReport.countDown();
        letGo.await(5, TimeUnit.SECONDS);
        // Asked for while cancel is already waiting.
        downloads.download("chain", server.url("/files/b.ts"), "next.ts", 0x41);
      } else if (handle == 0x42) {
        downloads.download("chain", server.url("/files/b.ts"), "next.ts", 0x42);
        downloads.cancel(0x42);
        selfCancelReturned.set(true);
      }
    };
    downloads.download("chain", server.url("/files/a.ts"), "a.ts", 0x41);
    check(inReport.await(5, TimeUnit.SECONDS), "the report starts");
    Thread canceller = new Thread(() -> downloads.cancel(0x41), "canceller");
    canceller.start();
    canceller.join(300);
    check(canceller.isAlive(), "cancel waits while a report for its stream is in progress");
    letGo.countDown();
    canceller.join(3000);
    check(!canceller.isAlive(), "cancel returns once the report has ended");

    downloads.download("chain", server.url("/files/a.ts"), "a.ts", 0x42);
    recorder.await(0x42, 0, 5000);
    check(selfCancelReturned.get(), "a cancel from inside the report returns");

    // Time enough for the follow-ups (small files on loopback) to arrive if they were not dropped.
    downloads.download("chain", server.url("/files/b.ts"), "b.ts", 0x43);
    recorder.await(0x43, 0, 3000);
    Thread.sleep(100);
    checkEquals(1, recorder.reportCount(0x41), "reports for the stream cancelled during a report");
    checkEquals(1, recorder.reportCount(0x42), "reports for the stream cancelled from inside its report");
    check(downloads.shutdown(2000), "the download thread ends");
  }

  private static void failuresAreReportedAfterAPauseThatCancelEnds(Server server, File root) throws Exception {
    Recorder recorder = new Recorder();
    SegmentDownloader downloads = downloader(root, recorder, 400);
    long start = System.nanoTime();
    downloads.download("pause", server.url("/status/500"), "e.ts", 0x51);
    checkEquals("<null>", recorder.await(0x51, 0, 3000), "a failure after the pause");
    long ms = (System.nanoTime() - start) / 1000000;
    check(ms >= 350, "the failure is reported after the pause (took " + ms + " ms)");

    int logged = recorder.problemCount();
    downloads.download("pause", server.url("/status/500"), "e.ts", 0x52);
    check(recorder.awaitProblems(logged + 1, 3000), "the second failure is logged");
    downloads.cancel(0x52);
    Thread.sleep(600);
    checkEquals(0, recorder.reportCount(0x52), "reports of a failure cancelled during its pause");
    check(downloads.shutdown(2000), "the download thread ends");
  }

  // Cancels land at every moment of a download's life, before, during and after its report; from
  // the moment cancel returns, no report of that stream may begin or still be running.
  private static void noReportAfterCancelReturnsUnderRaces(Server server, File root) throws Exception {
    final Recorder recorder = new Recorder();
    final SegmentDownloader downloads = downloader(root, recorder, 0);
    final Set<Long> cancelled = ConcurrentHashMap.newKeySet();
    final AtomicInteger late = new AtomicInteger();
    final Random pauses = new Random(3);
    recorder.hook = (path, handle) -> {
      if (cancelled.contains(handle)) late.incrementAndGet();
      LockSupport.parkNanos(pauses.nextInt(1000000));
      if (cancelled.contains(handle)) late.incrementAndGet();
    };
    // Cancels spread over one and a half times what a whole download takes here.
    long slowestNs = 0;
    for (long handle = 0x900; handle < 0x905; handle++) {
      long start = System.nanoTime();
      downloads.download("race", server.url("/files/b.ts"), "b.ts", handle);
      recorder.await(handle, 0, 3000);
      slowestNs = Math.max(slowestNs, System.nanoTime() - start);
    }
    // Bounded, so that a loaded machine cannot stretch the loop beyond a second or so.
    slowestNs = Math.min(slowestNs, 30000000L);
    int rounds = 50;
    for (int i = 0; i < rounds; i++) {
      long handle = 0x1000 + i;
      downloads.download("race", server.url("/files/b.ts"), "b.ts", handle);
      LockSupport.parkNanos(slowestNs * 3 / 2 * i / rounds);
      downloads.cancel(handle);
      cancelled.add(handle);
    }
    Thread.sleep(200);
    int reported = 0;
    for (int i = 0; i < rounds; i++) reported += recorder.reportCount(0x1000 + i);
    System.out.println("  " + reported + " of " + rounds + " downloads were reported before their cancel (a download takes "
                       + slowestNs / 1000 + " us)");
    checkEquals(0, late.get(), "reports begun or still running after cancel returned");
    check(downloads.shutdown(2000), "the download thread ends");
  }

  private static boolean noTemporaryFiles(File folder) {
    File[] children = folder.listFiles();
    if (children == null) return true;
    for (File child : children) {
      if (child.getName().endsWith(".part")) {
        System.err.println("left behind: " + child);
        return false;
      }
      if (!noTemporaryFiles(child)) return false;
    }
    return true;
  }

  private static byte[] bytes(Random random, int n) {
    byte[] b = new byte[n];
    random.nextBytes(b);
    return b;
  }
}
