package android.media;

/** What a sound is for; the track only keeps it. */
public final class AudioAttributes {
  public static final int USAGE_MEDIA = 1;
  public static final int CONTENT_TYPE_MOVIE = 3;

  private final int usage;
  private final int contentType;

  private AudioAttributes(int usage, int contentType) {
    this.usage = usage;
    this.contentType = contentType;
  }

  public int getUsage() {
    return usage;
  }

  public int getContentType() {
    return contentType;
  }

  public static class Builder {
    private int usage;
    private int contentType;

    public Builder() {}

    public Builder setUsage(int usage) {
      this.usage = usage;
      return this;
    }

    public Builder setContentType(int contentType) {
      this.contentType = contentType;
      return this;
    }

    public AudioAttributes build() {
      return new AudioAttributes(usage, contentType);
    }
  }
}
