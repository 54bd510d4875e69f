package android.media;

public class AudioManager {
  public static final int AUDIO_SESSION_ID_GENERATE = 0;

  private AudioManager() {}
}
