package android.media;

/** Sample rate, encoding and channel mask of PCM audio. */
public final class AudioFormat {
  public static final int ENCODING_PCM_16BIT = 2;
  public static final int CHANNEL_OUT_STEREO = 12;

  private final int sampleRate;
  private final int encoding;
  private final int channelMask;

  private AudioFormat(int sampleRate, int encoding, int channelMask) {
    this.sampleRate = sampleRate;
    this.encoding = encoding;
    this.channelMask = channelMask;
  }

  public int getSampleRate() {
    return sampleRate;
  }

  public int getEncoding() {
    return encoding;
  }

  public int getChannelMask() {
    return channelMask;
  }

  public static class Builder {
    private int sampleRate;
    private int encoding = ENCODING_PCM_16BIT;
    private int channelMask;

    public Builder() {}

    public Builder setSampleRate(int sampleRate) {
      if (sampleRate < 4000 || sampleRate > 192000) throw new IllegalArgumentException("Invalid sample rate " + sampleRate);
      this.sampleRate = sampleRate;
      return this;
    }

    public Builder setEncoding(int encoding) {
      this.encoding = encoding;
      return this;
    }

    public Builder setChannelMask(int channelMask) {
      this.channelMask = channelMask;
      return this;
    }

    public AudioFormat build() {
      return new AudioFormat(sampleRate, encoding, channelMask);
    }
  }
}
