// The plug-in's Java object on Android. The native library reaches the video surface, the audio
// output, application assets and downloads through it, so it must exist before the first player
// opens anything; one object serves the whole process.
using System;
using UnityEngine;

namespace Ozm.Volumetric
{
    public static class OzmAndroidPlugin
    {
        public const string JavaClass = "com.OzmUnityPlugin.JavaPlugin";

        static AndroidJavaObject s_plugin;

        public static bool IsAndroid
        {
            get { return Application.platform == RuntimePlatform.Android; }
        }

        /// <summary>
        /// Makes the Java object from the current activity on the first call (main thread only); true
        /// when it exists. Off Android there is nothing to make and the answer is true.
        /// </summary>
        public static bool EnsureCreated()
        {
            if (!IsAndroid || s_plugin != null) return true;
            try
            {
                // Load the library through the engine first, so that the engine's load hook has run
                // before the Java side calls into it.
                OzmNative.PlatformAbi();
                using (var unityPlayer = new AndroidJavaClass("com.unity3d.player.UnityPlayer"))
                using (var activity = unityPlayer.GetStatic<AndroidJavaObject>("currentActivity"))
                using (var pluginClass = new AndroidJavaClass(JavaClass))
                {
                    // JavaPlugin.create(Activity) returns the one object of the process.
                    s_plugin = pluginClass.CallStatic<AndroidJavaObject>("create", activity);
                }
            }
            catch (Exception e)
            {
                Debug.LogError("OzmVolumetricPlayer: cannot create the plug-in's Java object " + JavaClass +
                               " (is its source in Plugins/Android?): " + e.Message);
                s_plugin = null;
            }
            return s_plugin != null;
        }
    }
}
