package android.os;

import java.io.Closeable;
import java.io.File;
import java.io.FileDescriptor;
import java.io.FileNotFoundException;
import java.io.IOException;
import java.io.RandomAccessFile;

/** An open file, here a RandomAccessFile opened for reading. */
public class ParcelFileDescriptor implements Closeable {
  public static final int MODE_READ_ONLY = 0x10000000;

  private final RandomAccessFile file;

  private ParcelFileDescriptor(RandomAccessFile file) {
    this.file = file;
  }

  public static ParcelFileDescriptor open(File file, int mode) throws FileNotFoundException {
    if (mode != MODE_READ_ONLY) throw new IllegalArgumentException("the stand-in opens files read-only");
    return new ParcelFileDescriptor(new RandomAccessFile(file, "r"));
  }

  public FileDescriptor getFileDescriptor() {
    try {
      return file.getFD();
    } catch (IOException e) {
      throw new IllegalStateException(e);
    }
  }

  /** The file's size, or -1 when it cannot be taken (Android's answer for pipes and sockets). */
  public long getStatSize() {
    try {
      return file.length();
    } catch (IOException e) {
      return -1;
    }
  }

  @Override
  public void close() throws IOException {
    file.close();
  }
}
