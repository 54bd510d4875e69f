package com.OzmUnityPlugin;

import java.io.Closeable;
import java.io.EOFException;
import java.io.File;
import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.charset.StandardCharsets;
import java.util.HashMap;
import java.util.Map;
import java.util.zip.ZipEntry;
import java.util.zip.ZipFile;

/**
 * The entries of an expansion archive (a zip file) and where the bytes of the uncompressed ones lie
 * in the archive, so that a reader can be handed the archive's own descriptor with an offset and a
 * length instead of a copy.
 *
 * java.util.zip finds an entry and says whether it is stored, but not where its bytes start; that
 * comes from the entry's local file header, which the central directory points to. This class
 * reads the central directory once (names to local-header offsets, with the zip64 forms), and for
 * each stored entry reads its local header: the data follow its 30 fixed bytes, the name and the
 * local extra field, whose length may differ from the central directory's copy.
 */
final class ObbEntries implements Closeable {
  /** One entry: whether it is stored (uncompressed) and, if so, where its bytes are. */
  static final class Entry {
    final String name;
    final boolean stored;
    /** Offset of the entry's first byte in the archive file; -1 when it is compressed. */
    final long dataOffset;
    /** Bytes of data in the archive (the entry's size when it is stored). */
    final long length;

    Entry(String name, boolean stored, long dataOffset, long length) {
      this.name = name;
      this.stored = stored;
      this.dataOffset = dataOffset;
      this.length = length;
    }
  }

  private static final int LOCAL_HEADER = 0x04034b50;
  private static final int CENTRAL_HEADER = 0x02014b50;
  private static final int END_OF_CENTRAL_DIRECTORY = 0x06054b50;
  private static final int ZIP64_END_LOCATOR = 0x07064b50;
  private static final int ZIP64_END = 0x06064b50;
  private static final int ZIP64_EXTRA = 0x0001;
  private static final long U32_MAX = 0xFFFFFFFFL;
  /** A central directory larger than this is not an archive we were built for. */
  private static final long MAX_CENTRAL_DIRECTORY = 64L << 20;

  private final File archive;
  private final ZipFile zip;
  /** Entry name to local-header offset, read on the first lookup. */
  private Map<String, Long> localHeaders;

  ObbEntries(File archive) throws IOException {
    this.archive = archive;
    this.zip = new ZipFile(archive);
  }

  File archive() {
    return archive;
  }

  /** The entry called `name`, or null when the archive has no such file. */
  synchronized Entry find(String name) throws IOException {
    ZipEntry entry = zip.getEntry(name);
    if (entry == null || entry.isDirectory()) return null;
    if (entry.getMethod() != ZipEntry.STORED) return new Entry(name, false, -1, entry.getCompressedSize());
    if (localHeaders == null) localHeaders = readCentralDirectory();
    Long header = localHeaders.get(name);
    if (header == null) throw new IOException("the central directory of " + archive + " does not list " + name);
    try (RandomAccessFile file = new RandomAccessFile(archive, "r")) {
      byte[] fixed = new byte[30];
      file.seek(header);
      file.readFully(fixed);
      if (int32(fixed, 0) != LOCAL_HEADER) throw new IOException("no local header for " + name + " at " + header);
      long dataOffset = header + 30 + uint16(fixed, 26) + uint16(fixed, 28);
      long size = entry.getSize();
      if (size < 0 || dataOffset + size > file.length()) {
        throw new IOException("the data of " + name + " run past the end of " + archive);
      }
      return new Entry(name, true, dataOffset, size);
    } catch (EOFException e) {
      throw new IOException("the local header of " + name + " runs past the end of " + archive, e);
    }
  }

  @Override
  public synchronized void close() throws IOException {
    zip.close();
  }

  /**
   * The main expansion archive in `obbDir`: the file "main.VERSION.PACKAGE.obb" with the highest
   * VERSION (a number), or null when there is none.
   */
  static File findMainArchive(File obbDir, String packageName) {
    File[] files = obbDir != null ? obbDir.listFiles() : null;
    if (files == null || packageName == null) return null;
    String suffix = "." + packageName + ".obb";
    File best = null;
    long bestVersion = -1;
    for (File file : files) {
      String name = file.getName();
      if (!file.isFile() || !name.startsWith("main.") || !name.endsWith(suffix)) continue;
      String version = name.substring("main.".length(), name.length() - suffix.length());
      long value;
      try {
        value = Long.parseLong(version);
      } catch (NumberFormatException e) {
        continue;
      }
      if (value >= 0 && value > bestVersion) {
        bestVersion = value;
        best = file;
      }
    }
    return best;
  }

  private Map<String, Long> readCentralDirectory() throws IOException {
    try (RandomAccessFile file = new RandomAccessFile(archive, "r")) {
      long fileLength = file.length();
      // The end record is the last 22 bytes, followed by a comment of at most 65535 bytes.
      int tailLength = (int) Math.min(fileLength, 22 + 65535);
      byte[] tail = new byte[tailLength];
      file.seek(fileLength - tailLength);
      file.readFully(tail);
      int end = -1;
      for (int i = tailLength - 22; i >= 0; i--) {
        if (int32(tail, i) == END_OF_CENTRAL_DIRECTORY) {
          end = i;
          break;
        }
      }
      if (end < 0) throw new IOException(archive + " has no end of central directory");
      long count = uint16(tail, end + 10);
      long size = uint32(tail, end + 12);
      long offset = uint32(tail, end + 16);
      if (count == 0xFFFF || size == U32_MAX || offset == U32_MAX) {
        // Zip64: a locator just before the end record points to the zip64 end record.
        long endPosition = fileLength - tailLength + end;
        byte[] locator = new byte[20];
        if (endPosition < 20) throw new IOException(archive + " lacks its zip64 locator");
        file.seek(endPosition - 20);
        file.readFully(locator);
        if (int32(locator, 0) != ZIP64_END_LOCATOR) throw new IOException(archive + " lacks its zip64 locator");
        byte[] zip64End = new byte[56];
        file.seek(int64(locator, 8));
        file.readFully(zip64End);
        if (int32(zip64End, 0) != ZIP64_END) throw new IOException(archive + " has a broken zip64 end record");
        count = int64(zip64End, 32);
        size = int64(zip64End, 40);
        offset = int64(zip64End, 48);
      }
      if (size < 0 || size > MAX_CENTRAL_DIRECTORY || offset < 0 || offset + size > fileLength) {
        throw new IOException(archive + " has a central directory of " + size + " bytes at " + offset);
      }
      byte[] directory = new byte[(int) size];
      file.seek(offset);
      file.readFully(directory);
      Map<String, Long> headers = new HashMap<>();
      int at = 0;
      for (long i = 0; i < count; i++) {
        if (at + 46 > directory.length || int32(directory, at) != CENTRAL_HEADER) {
          throw new IOException(archive + ": central directory entry " + i + " is broken");
        }
        int nameLength = uint16(directory, at + 28);
        int extraLength = uint16(directory, at + 30);
        int commentLength = uint16(directory, at + 32);
        int next = at + 46 + nameLength + extraLength + commentLength;
        if (next > directory.length) throw new IOException(archive + ": central directory entry " + i + " is cut short");
        String name = new String(directory, at + 46, nameLength, StandardCharsets.UTF_8);
        long localHeader = uint32(directory, at + 42);
        if (localHeader == U32_MAX) {
          localHeader = zip64LocalHeader(directory, at, at + 46 + nameLength, extraLength);
        }
        headers.put(name, localHeader);
        at = next;
      }
      return headers;
    }
  }

  /**
   * The local-header offset from a zip64 extra field. Its values come in a fixed order, each only
   * when the central record's own field is 0xFFFFFFFF: size, compressed size, local-header offset.
   */
  private long zip64LocalHeader(byte[] directory, int record, int extra, int extraLength) throws IOException {
    int end = extra + extraLength;
    while (extra + 4 <= end) {
      int id = uint16(directory, extra);
      int length = uint16(directory, extra + 2);
      int data = extra + 4;
      if (data + length > end) break;
      if (id == ZIP64_EXTRA) {
        int skip = 0;
        if (uint32(directory, record + 24) == U32_MAX) skip += 8;
        if (uint32(directory, record + 20) == U32_MAX) skip += 8;
        if (skip + 8 <= length) return int64(directory, data + skip);
        break;
      }
      extra = data + length;
    }
    throw new IOException(archive + ": a central directory entry lacks its zip64 offset");
  }

  private static int uint16(byte[] b, int at) {
    return (b[at] & 0xFF) | (b[at + 1] & 0xFF) << 8;
  }

  private static int int32(byte[] b, int at) {
    return uint16(b, at) | uint16(b, at + 2) << 16;
  }

  private static long uint32(byte[] b, int at) {
    return int32(b, at) & U32_MAX;
  }

  private static long int64(byte[] b, int at) {
    return uint32(b, at) | uint32(b, at + 4) << 32;
  }
}
