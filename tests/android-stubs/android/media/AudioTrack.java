package android.media;

import java.util.ArrayList;
import java.util.List;

/**
 * A PCM track that plays nothing: it keeps its format and buffer size, counts the bytes written
 * and records every other call by name ("play", "setVolume 0.5", ...), for tests to read.
 */
public class AudioTrack {
  public static final int MODE_STREAM = 1;
  public static final int STATE_UNINITIALIZED = 0;
  public static final int STATE_INITIALIZED = 1;
  public static final int SUCCESS = 0;
  public static final int ERROR = -1;
  public static final int ERROR_BAD_VALUE = -2;

  private final AudioAttributes attributes;
  private final AudioFormat format;
  private final int bufferSizeInBytes;
  private final int mode;
  private final List<String> calls = new ArrayList<>();
  private int playbackRate;
  private long bytesWritten;
  private boolean released;

  public AudioTrack(AudioAttributes attributes, AudioFormat format, int bufferSizeInBytes, int mode, int sessionId)
      throws IllegalArgumentException {
    if (attributes == null || format == null) throw new IllegalArgumentException("Illegal null attributes or format");
    if (bufferSizeInBytes <= 0) throw new IllegalArgumentException("Invalid audio buffer size " + bufferSizeInBytes);
    this.attributes = attributes;
    this.format = format;
    this.bufferSizeInBytes = bufferSizeInBytes;
    this.mode = mode;
    this.playbackRate = format.getSampleRate();
  }

  /** A quarter of a second of audio, or ERROR_BAD_VALUE for a rate or format it cannot play. */
  public static int getMinBufferSize(int sampleRateInHz, int channelConfig, int audioFormat) {
    if (sampleRateInHz < 4000 || sampleRateInHz > 192000) return ERROR_BAD_VALUE;
    if (audioFormat != AudioFormat.ENCODING_PCM_16BIT) return ERROR_BAD_VALUE;
    int channels = Integer.bitCount(channelConfig);
    if (channels == 0) return ERROR_BAD_VALUE;
    return sampleRateInHz / 4 * channels * 2;
  }

  public int getState() {
    return STATE_INITIALIZED;
  }

  public int getSampleRate() {
    return format.getSampleRate();
  }

  public int getChannelCount() {
    return Integer.bitCount(format.getChannelMask());
  }

  public int getAudioFormat() {
    return format.getEncoding();
  }

  public synchronized int getPlaybackRate() {
    return playbackRate;
  }

  public int write(byte[] audioData, int offsetInBytes, int sizeInBytes) {
    if (audioData == null || offsetInBytes < 0 || sizeInBytes < 0 || offsetInBytes + sizeInBytes > audioData.length) {
      return ERROR_BAD_VALUE;
    }
    synchronized (this) {
      if (released) return ERROR;
      bytesWritten += sizeInBytes;
    }
    return sizeInBytes;
  }

  public void play() {
    record("play");
  }

  public void pause() {
    record("pause");
  }

  public void stop() {
    record("stop");
  }

  public void flush() {
    record("flush");
  }

  public void release() {
    synchronized (this) {
      released = true;
    }
    record("release");
  }

  public int setVolume(float gain) {
    record("setVolume " + gain);
    return SUCCESS;
  }

  public int setPlaybackRate(int sampleRateInHz) {
    if (sampleRateInHz <= 0) return ERROR_BAD_VALUE;
    synchronized (this) {
      playbackRate = sampleRateInHz;
    }
    record("setPlaybackRate " + sampleRateInHz);
    return SUCCESS;
  }

  /** Stand-in only: the calls so far, in order (writes are counted, not listed). */
  public synchronized List<String> calls() {
    return new ArrayList<>(calls);
  }

  /** Stand-in only: bytes accepted by write. */
  public synchronized long bytesWritten() {
    return bytesWritten;
  }

  /** Stand-in only: what the constructor was given. */
  public AudioAttributes attributes() {
    return attributes;
  }

  public int bufferSizeInBytes() {
    return bufferSizeInBytes;
  }

  public int mode() {
    return mode;
  }

  private synchronized void record(String call) {
    calls.add(call);
  }
}
