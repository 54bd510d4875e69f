package android.content.res;

import java.io.FileDescriptor;
import java.io.IOException;
import java.io.RandomAccessFile;

/** Stand-in: a range of an open file. */
public class AssetFileDescriptor {
  private final RandomAccessFile file;
  private final long startOffset;
  private final long length;

  public AssetFileDescriptor(RandomAccessFile file, long startOffset, long length) {
    this.file = file;
    this.startOffset = startOffset;
    this.length = length;
  }

  public FileDescriptor getFileDescriptor() {
    try {
      return file.getFD();
    } catch (IOException e) {
      throw new IllegalStateException(e);
    }
  }

  public long getStartOffset() { return startOffset; }

  public long getLength() { return length; }

  public void close() throws IOException { file.close(); }
}
