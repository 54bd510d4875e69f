package android.app;

import android.content.Context;

/** The engine's activity; on Android a Context through ContextThemeWrapper and ContextWrapper. */
public class Activity extends Context {
  public Activity() {}
}
