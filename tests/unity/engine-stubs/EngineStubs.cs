// The control side of the engine stand-in: what a test sets (platform, paths, graphics API, a
// graphics backend) and what it reads back (log, plug-in events, Java objects made), and the engine's
// own loop steps (messages to behaviours, the end of a frame). Nothing in the runtime package may
// use this namespace: the real engine has none of it.
using System;
using System.Collections;
using System.Collections.Generic;
using System.Reflection;
using UnityEngine;
using UnityEngine.Rendering;

namespace EngineStubs
{
    /// <summary>GPU objects and render events, when a test gives the engine a real context.</summary>
    public interface IGraphics
    {
        uint CreateTexture(int width, int height);
        uint CreateBuffer(bool index, int bytes);
        void DeleteTexture(uint name);
        void DeleteBuffer(uint name);
        void IssuePluginEvent(IntPtr callback, int eventId);
    }

    public struct LogEntry
    {
        public LogType Type;
        public string Message;
        public UnityEngine.Object Context;
    }

    public struct PluginEvent
    {
        public IntPtr Callback;
        public int EventId;
    }

    public sealed class JavaObjectRecord
    {
        public string ClassName;
        public object[] Arguments;
    }

    public static class Engine
    {
        public static RuntimePlatform Platform = RuntimePlatform.LinuxEditor;
        public static string StreamingAssetsPath = "/stub/StreamingAssets";
        public static GraphicsDeviceType GraphicsDevice = GraphicsDeviceType.OpenGLES3;
        public static IGraphics Graphics;
        public static float DeltaTime = 1f / 60;

        public static readonly List<LogEntry> Log = new List<LogEntry>();
        public static readonly List<PluginEvent> PluginEvents = new List<PluginEvent>();
        /// <summary>Static Java calls and objects made through AndroidJavaClass/AndroidJavaObject.</summary>
        public static readonly List<JavaObjectRecord> JavaCalls = new List<JavaObjectRecord>();

        static readonly List<KeyValuePair<MonoBehaviour, IEnumerator>> s_coroutines = new List<KeyValuePair<MonoBehaviour, IEnumerator>>();
        static uint s_nextFakeName = 1000;

        internal static uint FakeName()
        {
            return s_nextFakeName++;
        }

        internal static Coroutine Start(MonoBehaviour owner, IEnumerator routine)
        {
            s_coroutines.Add(new KeyValuePair<MonoBehaviour, IEnumerator>(owner, routine));
            // As in the engine, a coroutine runs up to its first yield at once.
            if (!routine.MoveNext()) s_coroutines.RemoveAt(s_coroutines.Count - 1);
            return new Coroutine(routine);
        }

        internal static void Stop(MonoBehaviour owner, IEnumerator routine)
        {
            s_coroutines.RemoveAll(c => c.Key == owner && (routine == null || c.Value == routine));
        }

        /// <summary>The end of an engine frame: coroutines waiting for it go on.</summary>
        public static void EndOfFrame()
        {
            foreach (var c in s_coroutines.ToArray())
            {
                if (!s_coroutines.Contains(c)) continue;
                if (!(c.Value.Current is WaitForEndOfFrame) && c.Value.Current != null) continue;
                if (!c.Value.MoveNext()) s_coroutines.Remove(c);
            }
        }

        /// <summary>Sends an engine message (Update, OnEnable, ...) the way the engine does: to the
        /// method of that name, whatever its access.</summary>
        public static void Send(Component target, string message)
        {
            for (Type type = target.GetType(); type != null; type = type.BaseType)
            {
                MethodInfo method = type.GetMethod(message, BindingFlags.Instance | BindingFlags.Public | BindingFlags.NonPublic | BindingFlags.DeclaredOnly,
                                                   null, Type.EmptyTypes, null);
                if (method != null)
                {
                    try
                    {
                        method.Invoke(target, null);
                    }
                    catch (TargetInvocationException e)
                    {
                        // The engine logs an exception of a script and goes on.
                        Debug.LogException(e.InnerException);
                    }
                    return;
                }
            }
        }

        public static int Count(LogType type)
        {
            int n = 0;
            foreach (LogEntry entry in Log) n += entry.Type == type ? 1 : 0;
            return n;
        }
    }
}
