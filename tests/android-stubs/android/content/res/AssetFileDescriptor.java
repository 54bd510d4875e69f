package android.content.res;

import android.os.ParcelFileDescriptor;
import java.io.Closeable;
import java.io.FileDescriptor;
import java.io.IOException;

/** A range of an open file: the descriptor, where the range starts, and its length. */
public class AssetFileDescriptor implements Closeable {
  private final ParcelFileDescriptor fd;
  private final long startOffset;
  private final long length;

  public AssetFileDescriptor(ParcelFileDescriptor fd, long startOffset, long length) {
    if (fd == null) throw new IllegalArgumentException("fd must not be null");
    this.fd = fd;
    this.startOffset = startOffset;
    this.length = length;
  }

  public FileDescriptor getFileDescriptor() {
    return fd.getFileDescriptor();
  }

  public long getStartOffset() {
    return startOffset;
  }

  public long getLength() {
    return length;
  }

  @Override
  public void close() throws IOException {
    fd.close();
  }
}
