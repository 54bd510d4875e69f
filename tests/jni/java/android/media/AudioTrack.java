package android.media;

import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.zip.CRC32;

/** Stand-in: records every call with its arguments (writes with a checksum of the bytes written). */
public class AudioTrack {
  /** A write of exactly this many bytes throws, as a track in a bad state does. */
  public static volatile int throwOnWriteOf = -1;

  public final int sampleRate;
  public final List<String> calls = Collections.synchronizedList(new ArrayList<>());

  public AudioTrack(int sampleRate) { this.sampleRate = sampleRate; }

  public static String describeWrite(byte[] data, int offset, int size) {
    CRC32 crc = new CRC32();
    crc.update(data, offset, size);
    return "write " + offset + " " + size + " " + Long.toHexString(crc.getValue());
  }

  public int write(byte[] audioData, int offsetInBytes, int sizeInBytes) {
    if (sizeInBytes == throwOnWriteOf)
      throw new IllegalStateException("write of " + sizeInBytes + " bytes refused");
    calls.add(describeWrite(audioData, offsetInBytes, sizeInBytes));
    return sizeInBytes;
  }

  public void play() { calls.add("play"); }

  public void pause() { calls.add("pause"); }

  public void stop() { calls.add("stop"); }

  public void flush() { calls.add("flush"); }

  public void release() { calls.add("release"); }

  public int setVolume(float gain) {
    calls.add("setVolume " + gain);
    return 0;
  }

  public int setPlaybackRate(int sampleRateInHz) {
    calls.add("setPlaybackRate " + sampleRateInHz);
    return 0;
  }
}
