package android.content.res;

/** Stand-in: only its identity matters to native code. */
public class AssetManager {}
