package com.OzmUnityPlugin;

import static com.OzmUnityPlugin.JavaPluginLogicTest.check;
import static com.OzmUnityPlugin.JavaPluginLogicTest.checkEquals;

import java.io.File;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.attribute.FileTime;
import java.util.Arrays;
import java.util.Random;
import java.util.zip.CRC32;
import java.util.zip.ZipEntry;
import java.util.zip.ZipOutputStream;

/** Expansion archives: where stored entries lie, and what is refused. */
final class ObbEntriesTest {
  private ObbEntriesTest() {}

  static void runAll() throws Exception {
    File folder = Files.createTempDirectory("ozm-obb-test-").toFile();
    try {
      storedEntriesAreFoundInPlace(folder);
      manyEntriesUseTheZip64Directory(folder);
      brokenArchivesAreRefused(folder);
      theMainArchiveIsTheHighestVersion(folder);
    } finally {
      deleteTree(folder);
    }
  }

  private static final class Content {
    final String name;
    final byte[] bytes;
    final boolean stored;
    final boolean extraTimes;

    Content(String name, byte[] bytes, boolean stored, boolean extraTimes) {
      this.name = name;
      this.bytes = bytes;
      this.stored = stored;
      this.extraTimes = extraTimes;
    }
  }

  private static void storedEntriesAreFoundInPlace(File folder) throws IOException {
    Random random = new Random(7);
    Content[] contents = {
        new Content("clips/a.mp4", randomBytes(random, 10000), true, false),
        // Access and creation times go into the local header's extra field only, so the local
        // extra field is longer than the central directory's copy.
        new Content("clips/b.mp4", randomBytes(random, 3000), true, true),
        new Content("clips/compressed.mp4", new byte[5000], false, false),
        new Content("clips/\u00e9t\u00e9.mp4", randomBytes(random, 777), true, false),
        new Content("empty.bin", new byte[0], true, false),
        new Content("last.mp4", randomBytes(random, 1), true, true),
    };
    File archive = new File(folder, "main.1.test.obb");
    try (ZipOutputStream zip = new ZipOutputStream(new FileOutputStream(archive))) {
      zip.setComment("an archive comment moves the end record away from the file's end");
      zip.putNextEntry(new ZipEntry("clips/"));
      zip.closeEntry();
      for (Content c : contents) {
        ZipEntry entry = new ZipEntry(c.name);
        if (c.stored) {
          CRC32 crc = new CRC32();
          crc.update(c.bytes);
          entry.setMethod(ZipEntry.STORED);
          entry.setSize(c.bytes.length);
          entry.setCompressedSize(c.bytes.length);
          entry.setCrc(crc.getValue());
        }
        if (c.extraTimes) {
          entry.setLastAccessTime(FileTime.fromMillis(1600000000000L));
          entry.setCreationTime(FileTime.fromMillis(1500000000000L));
        }
        zip.putNextEntry(entry);
        zip.write(c.bytes);
        zip.closeEntry();
      }
    }

    try (ObbEntries entries = new ObbEntries(archive); RandomAccessFile file = new RandomAccessFile(archive, "r")) {
      for (Content c : contents) {
        ObbEntries.Entry entry = entries.find(c.name);
        check(entry != null, c.name + " is found");
        if (entry == null) continue;
        checkEquals(c.stored, entry.stored, c.name + " stored");
        if (!c.stored) {
          checkEquals(-1L, entry.dataOffset, c.name + " (compressed) has no data offset");
          continue;
        }
        checkEquals((long) c.bytes.length, entry.length, c.name + " length");
        byte[] inPlace = new byte[c.bytes.length];
        file.seek(entry.dataOffset);
        file.readFully(inPlace);
        check(Arrays.equals(c.bytes, inPlace), c.name + ": the bytes at offset " + entry.dataOffset + " are its content");
      }
      for (String missing : new String[] {"clips/missing.mp4", "clips/", "clips", "/clips/a.mp4", ""}) {
        check(entries.find(missing) == null, "'" + missing + "' is not an entry");
      }
    }
  }

  // More than 65535 entries: the end record defers to the zip64 end record for the count.
  private static void manyEntriesUseTheZip64Directory(File folder) throws IOException {
    File archive = new File(folder, "many.zip");
    byte[] content = "the last entry".getBytes(StandardCharsets.US_ASCII);
    try (ZipOutputStream zip = new ZipOutputStream(new java.io.BufferedOutputStream(new FileOutputStream(archive), 1 << 16))) {
      zip.setLevel(0);
      for (int i = 0; i < 65540; i++) {
        zip.putNextEntry(new ZipEntry(Integer.toString(i, 36)));
        zip.closeEntry();
      }
      CRC32 crc = new CRC32();
      crc.update(content);
      ZipEntry last = new ZipEntry("last");
      last.setMethod(ZipEntry.STORED);
      last.setSize(content.length);
      last.setCrc(crc.getValue());
      zip.putNextEntry(last);
      zip.write(content);
      zip.closeEntry();
    }
    try (ObbEntries entries = new ObbEntries(archive); RandomAccessFile file = new RandomAccessFile(archive, "r")) {
      ObbEntries.Entry entry = entries.find("last");
      check(entry != null && entry.stored, "the stored entry after 65540 others is found");
      if (entry == null) return;
      byte[] inPlace = new byte[content.length];
      file.seek(entry.dataOffset);
      file.readFully(inPlace);
      check(Arrays.equals(content, inPlace), "the stored entry after 65540 others is read in place");
    }
  }

  // Broken or foreign files give an IOException (which the plug-in logs and answers with null),
  // never another exception or a hang.
  private static void brokenArchivesAreRefused(File folder) throws IOException {
    File good = new File(folder, "good.zip");
    byte[] content = new byte[4096];
    try (ZipOutputStream zip = new ZipOutputStream(new FileOutputStream(good))) {
      CRC32 crc = new CRC32();
      crc.update(content);
      ZipEntry entry = new ZipEntry("a.mp4");
      entry.setMethod(ZipEntry.STORED);
      entry.setSize(content.length);
      entry.setCrc(crc.getValue());
      zip.putNextEntry(entry);
      zip.write(content);
      zip.closeEntry();
    }
    byte[] whole = Files.readAllBytes(good.toPath());
    int localHeaderNameLength = 26;
    byte[] badLocalHeader = whole.clone();
    badLocalHeader[0] = 'X';
    byte[] longLocalName = whole.clone();
    longLocalName[localHeaderNameLength] = (byte) 0xFF;
    longLocalName[localHeaderNameLength + 1] = (byte) 0xFF;
    Object[][] cases = {
        {"an empty file", new byte[0]},
        {"text", "this is not an archive".getBytes(StandardCharsets.US_ASCII)},
        {"an archive cut before its central directory", Arrays.copyOf(whole, 4000)},
        {"an archive without its last byte", Arrays.copyOf(whole, whole.length - 1)},
        {"a local header without its signature", badLocalHeader},
        {"a local name running past the file's end", longLocalName},
    };
    for (Object[] c : cases) {
      File broken = new File(folder, "broken.zip");
      Files.write(broken.toPath(), (byte[]) c[1]);
      String outcome;
      try (ObbEntries entries = new ObbEntries(broken)) {
        ObbEntries.Entry entry = entries.find("a.mp4");
        outcome = entry == null ? "null" : "an entry at " + entry.dataOffset;
      } catch (IOException e) {
        outcome = "IOException";
      } catch (RuntimeException e) {
        outcome = e.toString();
      }
      check(outcome.equals("IOException") || outcome.equals("null"), c[0] + " is refused (got " + outcome + ")");
    }
  }

  private static void theMainArchiveIsTheHighestVersion(File folder) throws IOException {
    String pkg = "com.example.app";
    Object[][] cases = {
        // files in the obb folder, expected choice (null: none)
        {new String[] {}, null},
        {new String[] {"main.3." + pkg + ".obb"}, "main.3." + pkg + ".obb"},
        // Versions compare as numbers, not as text.
        {new String[] {"main.3." + pkg + ".obb", "main.12." + pkg + ".obb"}, "main.12." + pkg + ".obb"},
        // Patch archives, other packages, other names and a folder are not the main archive.
        {new String[] {"patch.20." + pkg + ".obb", "main.30.com.example.other.obb", "main.x." + pkg + ".obb",
                       "main.5." + pkg + ".obb.part", "dir:main.40." + pkg + ".obb", "main.4." + pkg + ".obb"},
         "main.4." + pkg + ".obb"},
    };
    for (Object[] c : cases) {
      File obbDir = Files.createTempDirectory(folder.toPath(), "obb").toFile();
      for (String name : (String[]) c[0]) {
        if (name.startsWith("dir:")) {
          check(new File(obbDir, name.substring(4)).mkdir(), "made folder " + name);
        } else {
          Files.write(new File(obbDir, name).toPath(), new byte[] {1});
        }
      }
      File found = ObbEntries.findMainArchive(obbDir, pkg);
      checkEquals(c[1], found == null ? null : found.getName(), "main archive among " + Arrays.toString((String[]) c[0]));
    }
    check(ObbEntries.findMainArchive(new File(folder, "no-such-folder"), pkg) == null, "a missing obb folder has no archive");
  }

  private static byte[] randomBytes(Random random, int n) {
    byte[] b = new byte[n];
    random.nextBytes(b);
    return b;
  }

  static void deleteTree(File file) {
    File[] children = file.listFiles();
    if (children != null) {
      for (File child : children) deleteTree(child);
    }
    if (!file.delete() && file.exists()) System.err.println("could not delete " + file);
  }
}
