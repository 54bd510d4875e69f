package android.util;

/** Android's log, written to standard error as "I/tag: message". */
public final class Log {
  private Log() {}

  public static int i(String tag, String msg) {
    return print('I', tag, msg, null);
  }

  public static int w(String tag, String msg) {
    return print('W', tag, msg, null);
  }

  public static int w(String tag, String msg, Throwable tr) {
    return print('W', tag, msg, tr);
  }

  public static int e(String tag, String msg) {
    return print('E', tag, msg, null);
  }

  public static int e(String tag, String msg, Throwable tr) {
    return print('E', tag, msg, tr);
  }

  private static int print(char level, String tag, String msg, Throwable tr) {
    String line = level + "/" + tag + ": " + msg + (tr != null ? ": " + tr : "");
    System.err.println(line);
    return line.length();
  }
}
