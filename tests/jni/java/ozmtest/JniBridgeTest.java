package ozmtest;

import android.content.res.AssetFileDescriptor;
import android.content.res.AssetManager;
import android.graphics.SurfaceTexture;
import android.media.AudioTrack;
import com.OzmUnityPlugin.JavaPlugin;
import java.io.RandomAccessFile;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.HashSet;
import java.util.List;
import java.util.Objects;
import java.util.Set;
import java.util.concurrent.CountDownLatch;
import java.util.function.BooleanSupplier;
import java.util.stream.Collectors;

/**
 * The native bridge of the plug-in's Java class on a desktop JVM: every id it looks up, every call
 * it makes through the ports, the frame and download callbacks into the player and the HLS input,
 * and thread attachment. Arguments: an MP4 clip and an HLS playlist of at least two segments, both
 * made by our encoder. Exits non-zero when a check fails; a thread left attached by native code would
 * keep the VM from exiting, which the test's time limit catches.
 */
public final class JniBridgeTest {
  private static int checks;
  private static int failures;
  private static final List<String> nativeLog = new ArrayList<>();

  private static final String PLUGIN = "com/OzmUnityPlugin/JavaPlugin";
  private static final String OBB =
      "getAssetFileDescriptorFromObb (Ljava/lang/String;)Landroid/content/res/AssetFileDescriptor;";
  // The plug-in methods in the order the bridge looks them up; the expansion-archive method only
  // when onCreated is told there is an archive.
  private static final String[] PLUGIN_METHODS = {
      "createSurfaceTexture (I)Landroid/graphics/SurfaceTexture;",
      "releaseSurfaceTexture (Landroid/graphics/SurfaceTexture;)V",
      "createSurfaceTextureSurface (Landroid/graphics/SurfaceTexture;)Landroid/view/Surface;",
      "createAudioTrack (I)Landroid/media/AudioTrack;",
      "getAssetFileDescriptorAndroid10 (Ljava/lang/String;)Landroid/content/res/AssetFileDescriptor;",
      OBB,
      "downloadFileFromUrl (Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;J)V",
      "downloadFileFromUrlBlocking (Ljava/lang/String;)Ljava/lang/String;",
      "cancelDownload (J)V",
  };
  private static final String[] OTHER_MEMBERS = {
      "android/content/res/AssetFileDescriptor getFileDescriptor ()Ljava/io/FileDescriptor; method",
      "android/content/res/AssetFileDescriptor getStartOffset ()J method",
      "android/content/res/AssetFileDescriptor getLength ()J method",
      // Android's java.io.FileDescriptor keeps its number in "descriptor"; a desktop JDK calls it
      // "fd", so on this VM exactly this lookup fails.
      "java/io/FileDescriptor descriptor I field",
  };
  private static final String DESCRIPTOR_MISSING =
      "6 JNI: field java/io/FileDescriptor.descriptor with signature I not found";
  private static final String NOT_FOUND = "6 couldn't find LumoObject for surfaceTexture = ";
  private static final String NATIVE_THREAD = "OzmUnityPlugin native";

  private JniBridgeTest() {}

  public static void main(String[] args) throws Exception {
    if (args.length != 2) {
      System.err.println("usage: JniBridgeTest CLIP.mp4 PLAYLIST.m3u8");
      System.exit(2);
    }
    Path clip = Paths.get(args[0]).toAbsolutePath();
    Path playlist = Paths.get(args[1]).toAbsolutePath();
    System.loadLibrary("ozm_jni_test");
    JniTestNatives.install();

    JavaPlugin plugin = new JavaPlugin();
    AssetManager assets = new AssetManager();
    onCreatedLooksUpEveryMember(plugin, assets);
    mistakesOfThePluginClassAreReportedNotFatal(plugin, assets);
    JavaPlugin.onCreated(plugin, assets, 1);
    takeLog();

    Player[] players = framesReachThePlayerOfTheirTexture(clip);
    surfaceTextureAndAudioTrackPortsCallJavaInOrder();
    assetDescriptorRoutes(clip, plugin, assets);
    downloadCalls();
    downloadCompletionReachesTheStream(playlist);
    for (Player player : players) {
      if (player != null)
        JniTestNatives.destroyPlayer(player.id);
    }
    check(JniTestNatives.tablePlayers().length == 0, "destroyed players leave the surface-texture table");
    threadAttachment();

    System.out.println("jni bridge: " + checks + " checks, " + failures + " failed");
    if (failures > 0 || Boolean.getBoolean("ozmtest.verbose")) {
      takeLog();
      System.err.println("native log:");
      for (String line : nativeLog) System.err.println("  " + line);
      if (failures > 0)
        System.exit(1);
    }
  }

  // ---------------------------------------------------------------------------------------------

  private static void check(boolean ok, String what) {
    ++checks;
    if (!ok) {
      ++failures;
      System.err.println("FAIL: " + what);
    }
  }

  private static void checkEquals(Object expected, Object actual, String what) {
    boolean ok = Objects.equals(expected, actual);
    check(ok, what + (ok ? "" : "\n    expected: " + expected + "\n    actual:   " + actual));
  }

  private static List<String> takeLog() {
    List<String> lines = Arrays.asList(JniTestNatives.takeLog());
    nativeLog.addAll(lines);
    return lines;
  }

  private static long countStartingWith(List<String> lines, String prefix) {
    return lines.stream().filter(line -> line.startsWith(prefix)).count();
  }

  private static boolean waitFor(BooleanSupplier condition, long timeoutMs) throws InterruptedException {
    long deadline = System.nanoTime() + timeoutMs * 1_000_000L;
    while (!condition.getAsBoolean()) {
      if (System.nanoTime() > deadline)
        return false;
      Thread.sleep(5);
    }
    return true;
  }

  private static List<String> expectedLookups(String owner, boolean obb, Set<String> missing) {
    List<String> rows = new ArrayList<>();
    for (String method : PLUGIN_METHODS) {
      if (method.equals(OBB) && !obb)
        continue;
      String name = method.substring(0, method.indexOf(' '));
      rows.add(owner + " " + method + " method " + (missing.contains(name) ? "missing" : "found"));
    }
    for (String member : OTHER_MEMBERS) {
      rows.add(member + (member.endsWith(" field") ? " missing" : " found"));
    }
    return rows;
  }

  // ---------------------------------------------------------------------------------------------

  private static void onCreatedLooksUpEveryMember(JavaPlugin plugin, AssetManager assets) {
    for (int useObb : new int[] {0, 1, 0}) {
      JavaPlugin replacement = new JavaPlugin();
      AssetManager replacementAssets = new AssetManager();
      String row = "onCreated(useObb = " + useObb + ")";
      takeLog();
      try {
        JavaPlugin.onCreated(replacement, replacementAssets, useObb);
      } catch (Throwable t) {
        check(false, row + " left an exception pending: " + t);
      }
      List<String> log = takeLog();
      checkEquals(expectedLookups(PLUGIN, useObb != 0, Collections.emptySet()), Arrays.asList(JniTestNatives.lookups()),
          row + ": lookups");
      check(JniTestNatives.hasObbRoute() == (useObb != 0), row + ": expansion-archive route");
      check(JniTestNatives.pluginIs(replacement) && JniTestNatives.assetManagerIs(replacementAssets),
          row + ": the global references are replaced");
      check(log.contains("4 OzmUnityPlugin_JavaPlugin_onCreated") && log.contains("4 Got JavaVM from JNIEnv"),
          row + ": start-up lines " + log);
      checkEquals(Collections.singletonList(DESCRIPTOR_MISSING),
          log.stream().filter(line -> line.startsWith("6 ")).collect(Collectors.toList()), row + ": errors");
    }
    JavaPlugin.onCreated(plugin, assets, 1);
  }

  private static void mistakesOfThePluginClassAreReportedNotFatal(JavaPlugin plugin, AssetManager assets) {
    final class Row {
      final String name;
      final Class<?> type;
      final Object object;
      final Set<String> missing;
      final String error;

      Row(String name, Class<?> type, Object object, Set<String> missing, String error) {
        this.name = name;
        this.type = type;
        this.object = object;
        this.missing = missing;
        this.error = error;
      }
    }
    Row[] rows = {
        new Row("a signature typo and a missing method", PluginWithTypo.class, new PluginWithTypo(),
            new HashSet<>(Arrays.asList("createAudioTrack", "cancelDownload")),
            "6 JNI: method ozmtest/PluginWithTypo.createAudioTrack with signature (I)Landroid/media/AudioTrack; not found"),
        new Row("an object of another class", JavaPlugin.class, new Object(), Collections.emptySet(),
            "6 onCreated: the plug-in object is not a com/OzmUnityPlugin/JavaPlugin"),
        new Row("no object", JavaPlugin.class, null, Collections.emptySet(), "6 onCreated: no plug-in object"),
    };
    for (Row row : rows) {
      takeLog();
      int from = JavaPlugin.calls.size();
      boolean clean = false;
      try {
        clean = JniTestNatives.onCreatedWith(row.type, row.object, assets, 1);
      } catch (Throwable t) {
        check(false, row.name + ": an exception escaped: " + t);
      }
      check(clean, row.name + ": no exception pending after onCreated");
      String owner = row.type.getName().replace('.', '/');
      checkEquals(
          expectedLookups(owner, true, row.missing), Arrays.asList(JniTestNatives.lookups()), row.name + ": lookups");
      List<String> log = takeLog();
      check(log.contains(row.error), row.name + ": logged " + row.error + " in " + log);
      // The VM is still usable and the bridge refuses what it has no id for.
      check(JniTestNatives.audioScenario(48000, 2, new byte[4], new byte[4], true) == null,
          row.name + ": no audio track without createAudioTrack");
      String refusal = row.object == null ? "6 JavaPlugin.createAudioTrack: no plug-in object (onCreated has not run)"
                                          : "6 JavaPlugin.createAudioTrack is not available";
      check(takeLog().contains(refusal), row.name + ": says why");
      checkEquals(Collections.emptyList(), JavaPlugin.callsSince(from), row.name + ": nothing reached the stand-in");
    }
    JavaPlugin.onCreated(plugin, assets, 1);
    check(JniTestNatives.pluginIs(plugin), "onCreated again restores the plug-in");
  }

  // ---------------------------------------------------------------------------------------------

  private static final class Player {
    final int id;
    final SurfaceTexture texture;

    Player(int id, SurfaceTexture texture) {
      this.id = id;
      this.texture = texture;
    }
  }

  // Which textures the render step latched after one frame callback for `texture`: the frame raises
  // the flag of one player, and that player's next render event calls updateTexImage on its own
  // texture (and nobody else's does).
  private static List<String> latchedAfterFrame(Object texture, List<Player> live) {
    int[] before = live.stream().mapToInt(p -> p.texture.updates.get()).toArray();
    JavaPlugin.onFrameAvailableNative((SurfaceTexture) texture);
    for (Player player : live) JniTestNatives.renderEvent(player.id);
    List<String> latched = new ArrayList<>();
    for (int i = 0; i < live.size(); ++i) {
      if (live.get(i).texture.updates.get() != before[i])
        latched.add(live.get(i).texture.name);
    }
    return latched;
  }

  private static Player[] framesReachThePlayerOfTheirTexture(Path clip) throws Exception {
    // Three players open the clip: their mesh threads make the Java surface textures through the
    // stand-in and enter them in the table. Open itself then fails (the test platform has no
    // decoders), which leaves exactly that state. The first player reaches the file through a Java
    // descriptor, the others by path.
    int madeBefore = JavaPlugin.textures.size();
    long size = Files.size(clip);
    Player[] players = new Player[3];
    for (int i = 0; i < players.length; ++i) {
      if (i == 0)
        JavaPlugin.descriptors.put(
            clip.toString(), new AssetFileDescriptor(new RandomAccessFile(clip.toFile(), "r"), 0, size));
      int id = JniTestNatives.createPlayer();
      JniTestNatives.openPlayer(id, clip.toString());
      JavaPlugin.descriptors.remove(clip.toString());
      check(JavaPlugin.textures.size() == madeBefore + i + 1, "player " + id + " made its surface texture");
      if (JavaPlugin.textures.size() != madeBefore + i + 1)
        return players;
      players[i] = new Player(id, JavaPlugin.textures.get(madeBefore + i));
      List<String> log = takeLog();
      String route = i == 0 ? "4 [" + id + "] Got AssetFileDescriptor from Java"
                            : "4 [" + id + "] Opening file with absolute path";
      check(log.contains(route), "player " + id + ": " + route);
      check(JavaPlugin.calls.contains("createSurfaceTextureSurface " + players[i].texture),
          "player " + id + " made the Surface of its texture");
    }
    int[] ids = Arrays.stream(players).mapToInt(p -> p.id).toArray();
    checkEquals(Arrays.toString(ids), Arrays.toString(JniTestNatives.tablePlayers()), "table after three opens");
    check(Arrays.stream(JniTestNatives.lookups()).noneMatch(l -> l.contains(" updateTexImage ")),
        "no SurfaceTexture ids before the first frame");

    // The first frames arrive on several Java threads at once, one of them for a texture no player
    // has: the SurfaceTexture ids are looked up once, every known frame reaches its player.
    SurfaceTexture stranger = new SurfaceTexture(99);
    Object[] targets = {players[0].texture, players[1].texture, players[2].texture, stranger};
    int perThread = 200;
    CountDownLatch start = new CountDownLatch(1);
    List<Thread> threads = new ArrayList<>();
    for (Object target : targets) {
      Thread thread = new Thread(() -> {
        try {
          start.await();
        } catch (InterruptedException e) {
          return;
        }
        for (int k = 0; k < perThread; ++k) JavaPlugin.onFrameAvailableNative((SurfaceTexture) target);
      });
      threads.add(thread);
      thread.start();
    }
    start.countDown();
    for (Thread thread : threads) thread.join(30_000);
    List<String> lookups = Arrays.asList(JniTestNatives.lookups());
    checkEquals(1L,
        lookups.stream().filter("android/graphics/SurfaceTexture updateTexImage ()V method found" ::equals).count(),
        "updateTexImage looked up once");
    checkEquals(1L,
        lookups.stream().filter("android/graphics/SurfaceTexture getTimestamp ()J method found" ::equals).count(),
        "getTimestamp looked up once");
    checkEquals((long) perThread, countStartingWith(takeLog(), NOT_FOUND), "frames of an unknown texture");
    List<Player> live = new ArrayList<>(Arrays.asList(players));
    for (Player player : live) {
      int[] before = live.stream().mapToInt(p -> p.texture.updates.get()).toArray();
      JniTestNatives.renderEvent(player.id);
      JniTestNatives.renderEvent(player.id);
      for (int i = 0; i < live.size(); ++i) {
        int expected = before[i] + (live.get(i) == player ? 1 : 0);
        checkEquals(expected, live.get(i).texture.updates.get(),
            "render event of player " + player.id + ": latches of " + live.get(i).texture);
      }
    }

    // One frame at a time: which texture the render step latches, and what is logged.
    final class Row {
      final String name;
      final Object texture;
      final List<String> latched;
      final String logged;

      Row(String name, Object texture, List<String> latched, String logged) {
        this.name = name;
        this.texture = texture;
        this.latched = latched;
        this.logged = logged;
      }
    }
    int orphan = JniTestNatives.createPlayer();
    Object other = JniTestNatives.addEntry(players[0].id, 42);
    Object orphanTexture = JniTestNatives.addEntry(orphan, 43);
    check(other != null && orphanTexture != null, "test entries added");
    checkEquals(Arrays.toString(new int[] {ids[0], ids[1], ids[2], ids[0], orphan}),
        Arrays.toString(JniTestNatives.tablePlayers()), "table with the test entries");
    List<String> none = Collections.emptyList();
    Row[] rows = {
        new Row("first player's texture", players[0].texture, Collections.singletonList(players[0].texture.name), null),
        new Row(
            "middle player's texture", players[1].texture, Collections.singletonList(players[1].texture.name), null),
        new Row("last player's texture", players[2].texture, Collections.singletonList(players[2].texture.name), null),
        new Row("unknown texture", stranger, none, NOT_FOUND),
        new Row("no texture", null, none, NOT_FOUND),
        // An entry whose texture is not the player's own: the player still gets the frame.
        new Row("another texture of the first player", other, Collections.singletonList(players[0].texture.name),
            "4 ASSERT FAILED: 'env->IsSameObject(surfaceTexture, m_surfaceTexture)' at OzmUnityPluginAndroid line 2017"),
        new Row("entry of a player without a surface texture", orphanTexture, none,
            "6 [" + orphan + "] OnFrameAvailable m_surfaceTexture is null"),
    };
    for (Row row : rows) {
      takeLog();
      checkEquals(row.latched, latchedAfterFrame(row.texture, live), row.name + ": latched");
      List<String> log = takeLog();
      if (row.logged != null)
        check(countStartingWith(log, row.logged) == 1, row.name + ": logged " + row.logged + " in " + log);
      else
        check(log.stream().noneMatch(line -> line.startsWith("6 ")), row.name + ": no error in " + log);
    }
    check(JniTestNatives.removeEntry(other) && JniTestNatives.removeEntry(orphanTexture), "test entries removed");
    check(JavaPlugin.calls.contains("releaseSurfaceTexture " + other), "a removed test entry's texture is released");
    JniTestNatives.destroyPlayer(orphan);

    // The middle player goes: its texture is released and leaves the table, the others keep their
    // order and their frames.
    JniTestNatives.destroyPlayer(players[1].id);
    check(JavaPlugin.calls.contains("releaseSurfaceTexture " + players[1].texture),
        "the destroyed player's texture is released");
    checkEquals(Arrays.toString(new int[] {ids[0], ids[2]}), Arrays.toString(JniTestNatives.tablePlayers()),
        "table after the middle player went");
    live.remove(players[1]);
    Row[] after = {
        new Row("first player's texture", players[0].texture, Collections.singletonList(players[0].texture.name), null),
        new Row("last player's texture", players[2].texture, Collections.singletonList(players[2].texture.name), null),
        new Row("the destroyed player's texture", players[1].texture, none, NOT_FOUND),
    };
    for (Row row : after) {
      takeLog();
      checkEquals(row.latched, latchedAfterFrame(row.texture, live), "after removal, " + row.name + ": latched");
      if (row.logged != null)
        check(countStartingWith(takeLog(), row.logged) == 1, "after removal, " + row.name + ": logged");
    }
    players[1] = null;
    return players;
  }

  // ---------------------------------------------------------------------------------------------

  private static byte[] pcm(int size, int seed) {
    byte[] bytes = new byte[size];
    for (int i = 0; i < size; ++i) bytes[i] = (byte) (i * 31 + seed);
    return bytes;
  }

  private static void surfaceTextureAndAudioTrackPortsCallJavaInOrder() {
    int from = JavaPlugin.calls.size();
    int made = JavaPlugin.textures.size();
    long timestamp = JniTestNatives.surfaceScenario(5);
    check(JavaPlugin.textures.size() == made + 1, "surface texture made through the plug-in");
    if (JavaPlugin.textures.size() == made + 1) {
      SurfaceTexture texture = JavaPlugin.textures.get(made);
      checkEquals(texture.timestamp, timestamp, "surface texture: the timestamp Java gave");
      checkEquals(Arrays.asList("createSurfaceTexture 5 " + texture, "createSurfaceTextureSurface " + texture,
                      "releaseSurfaceTexture " + texture),
          JavaPlugin.callsSince(from), "surface texture: plug-in calls");
      // Nothing reaches a released texture.
      checkEquals(Arrays.asList("updateTexImage", "getTimestamp", "release"), new ArrayList<>(texture.calls),
          "surface texture: its own calls");
    }

    final class Row {
      final String name;
      final int rate;
      final int channels;
      final byte[] first;
      final byte[] second;
      final boolean tearDown;

      Row(String name, int rate, byte[] first, byte[] second, boolean tearDown) {
        this(name, rate, 2, first, second, tearDown);
      }

      Row(String name, int rate, int channels, byte[] first, byte[] second, boolean tearDown) {
        this.name = name;
        this.rate = rate;
        this.channels = channels;
        this.first = first;
        this.second = second;
        this.tearDown = tearDown;
      }
    }
    AudioTrack.throwOnWriteOf = 13;
    Row[] rows = {
        new Row("torn down by the player", 48000, pcm(4096, 1), pcm(1000, 2), true),
        // A smaller buffer after a larger one: only its own bytes reach Java.
        new Row("dropped without a teardown", 44100, pcm(3000, 3), pcm(10, 4), false),
        new Row("a write that throws", 22050, pcm(13, 5), pcm(7, 6), true),
        // The Java tracks are stereo: mono is doubled, a third channel dropped; the caller is told
        // its own byte counts.
        new Row("mono made stereo", 24000, 1, pcm(2000, 7), pcm(6, 8), true),
        new Row("three channels made stereo", 32000, 3, pcm(1200, 9), pcm(12, 10), true),
    };
    for (Row row : rows) {
      int tracks = JavaPlugin.tracks.size();
      from = JavaPlugin.calls.size();
      takeLog();
      int[] results = JniTestNatives.audioScenario(row.rate, row.channels, row.first, row.second, row.tearDown);
      check(results != null && JavaPlugin.tracks.size() == tracks + 1, row.name + ": track made");
      if (results == null || JavaPlugin.tracks.size() != tracks + 1)
        continue;
      checkEquals(Collections.singletonList("createAudioTrack " + row.rate), JavaPlugin.callsSince(from),
          row.name + ": plug-in calls");
      boolean throwing = row.first.length == AudioTrack.throwOnWriteOf;
      List<String> expected = new ArrayList<>();
      expected.add("play");
      byte[] first = stereo(row.first, row.channels);
      byte[] second = stereo(row.second, row.channels);
      if (!throwing)
        expected.add(AudioTrack.describeWrite(first, 0, first.length));
      expected.add(AudioTrack.describeWrite(second, 0, second.length));
      expected.addAll(
          Arrays.asList("setVolume 0.5", "setPlaybackRate " + row.rate / 2, "pause", "stop", "flush", "release"));
      checkEquals(expected, new ArrayList<>(JavaPlugin.tracks.get(tracks).calls), row.name + ": track calls");
      checkEquals(Arrays.toString(new int[] {throwing ? -1 : row.first.length, row.second.length, 0, 0}),
          Arrays.toString(results), row.name + ": results");
      if (throwing)
        check(takeLog().contains("6 JNI: AudioTrack.write threw an exception"), row.name + ": logged");
    }
    AudioTrack.throwOnWriteOf = -1;
    checkEquals(1L,
        Arrays.stream(JniTestNatives.lookups())
            .filter("android/media/AudioTrack write ([BII)I method found" ::equals)
            .count(),
        "AudioTrack ids looked up once, from the first track");
    checkEquals(8L,
        Arrays.stream(JniTestNatives.lookups())
            .filter(l -> l.startsWith("android/media/AudioTrack ") && l.endsWith(" found"))
            .count(),
        "every AudioTrack method found");
  }

  // 16-bit PCM of `channels` channels as the stereo the Java track is given.
  private static byte[] stereo(byte[] pcm, int channels) {
    if (channels == 2)
      return pcm;
    int frames = pcm.length / (2 * channels);
    byte[] out = new byte[frames * 4];
    for (int i = 0; i < frames; ++i) {
      int in = i * 2 * channels;
      System.arraycopy(pcm, in, out, i * 4, 2);
      System.arraycopy(pcm, channels == 1 ? in : in + 2, out, i * 4 + 2, 2);
    }
    return out;
  }

  // ---------------------------------------------------------------------------------------------

  private static void assetDescriptorRoutes(Path clip, JavaPlugin plugin, AssetManager assets) throws Exception {
    byte[] content = Files.readAllBytes(clip);
    final class Row {
      final String name;
      final byte[] path;
      final boolean obb;
      final int useObb; // onCreated's flag
      final boolean fdField; // false: the bridge's own field, which a desktop JDK lacks
      final long start;
      final long length; // 0: Java has no descriptor for the path
      final boolean reachesJava;
      final String logged;

      Row(String name, byte[] path, boolean obb, int useObb, boolean fdField, long start, long length,
          boolean reachesJava, String logged) {
        this.name = name;
        this.path = path;
        this.obb = obb;
        this.useObb = useObb;
        this.fdField = fdField;
        this.start = start;
        this.length = length;
        this.reachesJava = reachesJava;
        this.logged = logged;
      }
    }
    byte[] absolute = "/data/clips/clip.mp4".getBytes(StandardCharsets.UTF_8);
    byte[] entry = "clips/clip.mp4".getBytes(StandardCharsets.UTF_8);
    Row[] rows = {
        new Row("absolute path with a descriptor", absolute, false, 1, true, 100, 2000, true, null),
        new Row("expansion-archive entry", entry, true, 1, true, 7, 50, true, null),
        new Row("path outside the basic plane", "/data/\uD83D\uDE00/clip.mp4".getBytes(StandardCharsets.UTF_8), false,
            1, true, 1, 10, true, null),
        new Row("no descriptor for the path", "/data/none.mp4".getBytes(StandardCharsets.UTF_8), false, 1, true, 0, 0,
            true, null),
        new Row("the Java side throws", JavaPlugin.THROW.getBytes(StandardCharsets.UTF_8), false, 1, true, 0, 0, true,
            "6 JNI: getAssetFileDescriptorAndroid10 threw an exception"),
        new Row("path that is not UTF-8", new byte[] {'/', (byte) 0xff, 'x'}, false, 1, true, 0, 0, false,
            "6 JNI: text is not valid UTF-8 at byte 1"),
        new Row("no expansion archive", entry, true, 0, true, 7, 50, false,
            "6 JavaPlugin.getAssetFileDescriptorFromObb is not available"),
        new Row("Android's descriptor field", absolute, false, 1, false, 100, 2000, true,
            "6 java/io/FileDescriptor.descriptor is not available"),
    };
    for (Row row : rows) {
      JavaPlugin.onCreated(plugin, assets, row.useObb);
      takeLog();
      String path = new String(row.path, StandardCharsets.UTF_8);
      RandomAccessFile file = new RandomAccessFile(clip.toFile(), "r");
      if (row.length > 0) {
        (row.obb ? JavaPlugin.obbDescriptors : JavaPlugin.descriptors)
            .put(path, new AssetFileDescriptor(file, row.start, row.length));
      }
      int from = JavaPlugin.calls.size();
      boolean expectOk = row.length > 0 && row.reachesJava && row.fdField;
      long[] result = JniTestNatives.descriptorRoute(row.path, row.obb, row.fdField);
      JavaPlugin.descriptors.clear();
      JavaPlugin.obbDescriptors.clear();
      // Java's descriptor goes away (as it does when the object is collected); the native copy stays.
      file.close();
      checkEquals(expectOk, result[0] == 1, row.name + ": result");
      if (expectOk && result[0] == 1) {
        checkEquals(row.start + " " + row.length, result[2] + " " + result[3], row.name + ": range");
        int fd = (int) result[1];
        checkEquals(content[(int) row.start] & 0xff, JniTestNatives.readByteAt(fd, row.start),
            row.name + ": the native descriptor reads the file after Java closed its own");
        JniTestNatives.closeFd(fd);
      }
      String method = row.obb ? "getAssetFileDescriptorFromObb " : "getAssetFileDescriptorAndroid10 ";
      checkEquals(row.reachesJava ? Collections.singletonList(method + path) : Collections.emptyList(),
          JavaPlugin.callsSince(from), row.name + ": Java calls");
      if (row.logged != null)
        check(takeLog().contains(row.logged), row.name + ": logged " + row.logged);
    }
    JavaPlugin.onCreated(plugin, assets, 1);
    takeLog();
  }

  // ---------------------------------------------------------------------------------------------

  private static void downloadCalls() {
    String[][] blocking = {
        {"http://127.0.0.1:1/a/list.m3u8", "/cache/a/list.m3u8"},
        {"http://127.0.0.1:1/\uD83D\uDE00/list.m3u8", "/cache/\uD83D\uDE00/\u00fcn\u00ef/list.m3u8"},
        {"http://127.0.0.1:1/missing.m3u8", null},
        {JavaPlugin.THROW, null},
    };
    for (String[] row : blocking) {
      if (row[1] != null)
        JavaPlugin.answers.put(row[0], row[1]);
      int from = JavaPlugin.calls.size();
      takeLog();
      byte[] path = JniTestNatives.downloadBlocking(row[0].getBytes(StandardCharsets.UTF_8));
      checkEquals(
          row[1], path == null ? null : new String(path, StandardCharsets.UTF_8), "blocking download of " + row[0]);
      checkEquals(Collections.singletonList("downloadFileFromUrlBlocking " + row[0]), JavaPlugin.callsSince(from),
          "blocking download of " + row[0] + ": the address Java got");
      if (row[0].equals(JavaPlugin.THROW)) {
        check(takeLog().contains("6 JNI: JavaPlugin.downloadFileFromUrlBlocking threw an exception"),
            "a throwing download is logged");
      }
    }
    JavaPlugin.answers.clear();
    int from = JavaPlugin.calls.size();
    check(JniTestNatives.downloadBlocking(new byte[] {'h', (byte) 0xc3}) == null, "an address that is not UTF-8 fails");
    checkEquals(
        Collections.emptyList(), JavaPlugin.callsSince(from), "an address that is not UTF-8 never reaches Java");

    long[] handles = {0x7123456789abcdefL, 1L, -2L};
    for (long handle : handles) {
      from = JavaPlugin.calls.size();
      JniTestNatives.download("clip".getBytes(StandardCharsets.UTF_8),
          "http://127.0.0.1:1/clip_00000.ts".getBytes(StandardCharsets.UTF_8),
          "clip_00000.ts".getBytes(StandardCharsets.UTF_8), handle);
      JniTestNatives.cancelDownload(handle);
      checkEquals(Arrays.asList("downloadFileFromUrl clip|http://127.0.0.1:1/clip_00000.ts|clip_00000.ts|" + handle,
                      "cancelDownload " + handle),
          JavaPlugin.callsSince(from), "download and cancel with handle " + handle);
    }
    takeLog();
    JniTestNatives.download("p".getBytes(StandardCharsets.UTF_8), JavaPlugin.THROW.getBytes(StandardCharsets.UTF_8),
        "u".getBytes(StandardCharsets.UTF_8), 3);
    check(takeLog().contains("6 JNI: JavaPlugin.downloadFileFromUrl threw an exception"),
        "a throwing segment download is logged");
  }

  private static List<String> segmentRequestsSince(int from) {
    return JavaPlugin.callsSince(from)
        .stream()
        .filter(c -> c.startsWith("downloadFileFromUrl "))
        .collect(Collectors.toList());
  }

  private static void downloadCompletionReachesTheStream(Path playlist) throws Exception {
    List<String> segments = Files.readAllLines(playlist)
                                .stream()
                                .filter(line -> !line.isEmpty() && !line.startsWith("#"))
                                .collect(Collectors.toList());
    check(segments.size() >= 2, "the test playlist has two segments or more");
    if (segments.size() < 2)
      return;
    String base = "http://127.0.0.1:9/jni/";
    String name = playlist.getFileName().toString().replace(".m3u8", "");
    JavaPlugin.files.put(base + playlist.getFileName(), playlist);
    final int from = JavaPlugin.calls.size();
    takeLog();
    long handle = JniTestNatives.hlsStart(base + playlist.getFileName());
    String first = "downloadFileFromUrl " + name + "|" + base + segments.get(0) + "|" + segments.get(0) + "|" + handle;
    check(waitFor(() -> segmentRequestsSince(from).size() >= 1, 10_000), "the stream asks for its first segment");
    checkEquals(Collections.singletonList(first), segmentRequestsSince(from), "first segment request");
    checkEquals(-1, JniTestNatives.hlsWait(0), "Open waits for the first segment");

    // A failed download: the stream says so and asks again for the same segment.
    JavaPlugin.onDownloadComplete(null, handle);
    check(takeLog().contains("5 [7] download failed, retrying"), "a failed download is retried");
    checkEquals(Arrays.asList(first, first), segmentRequestsSince(from), "the same segment asked for again");

    // Real files: the stream goes on to the next segment, and Open returns once all are there.
    Path folder = playlist.getParent();
    for (int i = 0; i < segments.size(); ++i) {
      JavaPlugin.onDownloadComplete(JavaPlugin.copy(folder.resolve(segments.get(i))).toString(), handle);
      if (i + 1 < segments.size()) {
        String next =
            "downloadFileFromUrl " + name + "|" + base + segments.get(i + 1) + "|" + segments.get(i + 1) + "|" + handle;
        List<String> requests = segmentRequestsSince(from);
        checkEquals(next, requests.get(requests.size() - 1), "after segment " + i + ", the next is asked for");
      }
    }
    checkEquals(1, JniTestNatives.hlsWait(20_000), "Open returns once the segments are downloaded");
    int beforeDestroy = JavaPlugin.calls.size();
    JniTestNatives.hlsDestroy();
    check(JavaPlugin.callsSince(beforeDestroy).contains("cancelDownload " + handle),
        "destroying the stream cancels its download");
    JavaPlugin.files.clear();
  }

  // ---------------------------------------------------------------------------------------------

  private static long nativeThreadsAlive() {
    return Thread.getAllStackTraces().keySet().stream().filter(t -> t.getName().equals(NATIVE_THREAD)).count();
  }

  private static void threadAttachment() throws Exception {
    // Every thread native code attached so far (mesh threads, the HLS opener) has gone.
    checkEquals(0L, nativeThreadsAlive(), "no native thread is left attached");
    check(JniTestNatives.nativeThreadAttachment(), "a native thread attaches, detaches and attaches again");
    // That thread exited attached: its exit detached it.
    check(waitFor(() -> nativeThreadsAlive() == 0, 2_000), "a native thread that exits attached is detached");
    check(JniTestNatives.detachJavaThread(), "a Java thread stays attached");
  }
}
