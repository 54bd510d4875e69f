// Application, logging, time, serialisation attributes, events, Android's Java bridge and immediate
// mode GUI, as far as the package and its sample use them.
using System;
using System.Collections.Generic;
using EngineStubs;

namespace UnityEngine
{
    public enum RuntimePlatform
    {
        OSXEditor = 0,
        OSXPlayer = 1,
        WindowsPlayer = 2,
        WindowsEditor = 7,
        IPhonePlayer = 8,
        Android = 11,
        LinuxPlayer = 13,
        LinuxEditor = 16,
        WebGLPlayer = 17,
    }

    public enum LogType
    {
        Error = 0,
        Assert = 1,
        Warning = 2,
        Log = 3,
        Exception = 4,
    }

    public sealed class Application
    {
        public static RuntimePlatform platform { get { return Engine.Platform; } }
        public static string streamingAssetsPath { get { return Engine.StreamingAssetsPath; } }
    }

    public sealed class Time
    {
        public static float deltaTime { get { return Engine.DeltaTime; } }
    }

    public sealed class Debug
    {
        static void Add(LogType type, object message, Object context)
        {
            string text = message == null ? "Null" : message.ToString();
            Engine.Log.Add(new LogEntry { Type = type, Message = text, Context = context });
            Console.WriteLine("[engine " + type + "] " + text);
        }

        public static void Log(object message) { Add(LogType.Log, message, null); }
        public static void Log(object message, Object context) { Add(LogType.Log, message, context); }
        public static void LogWarning(object message) { Add(LogType.Warning, message, null); }
        public static void LogWarning(object message, Object context) { Add(LogType.Warning, message, context); }
        public static void LogError(object message) { Add(LogType.Error, message, null); }
        public static void LogError(object message, Object context) { Add(LogType.Error, message, context); }
        public static void LogException(Exception exception) { Add(LogType.Exception, exception, null); }
    }

    public class PropertyAttribute : Attribute
    {
    }

    [AttributeUsage(AttributeTargets.Field)]
    public sealed class SerializeField : Attribute
    {
    }

    [AttributeUsage(AttributeTargets.Field, AllowMultiple = true)]
    public class TooltipAttribute : PropertyAttribute
    {
        public readonly string tooltip;
        public TooltipAttribute(string tooltip) { this.tooltip = tooltip; }
    }

    [AttributeUsage(AttributeTargets.Field, AllowMultiple = true)]
    public sealed class RangeAttribute : PropertyAttribute
    {
        public readonly float min;
        public readonly float max;
        public RangeAttribute(float min, float max) { this.min = min; this.max = max; }
    }

    [AttributeUsage(AttributeTargets.Field, AllowMultiple = true)]
    public class HeaderAttribute : PropertyAttribute
    {
        public readonly string header;
        public HeaderAttribute(string header) { this.header = header; }
    }

    [AttributeUsage(AttributeTargets.Class, AllowMultiple = true)]
    public sealed class RequireComponent : Attribute
    {
        public RequireComponent(Type requiredComponent) { }
        public RequireComponent(Type requiredComponent, Type requiredComponent2) { }
        public RequireComponent(Type requiredComponent, Type requiredComponent2, Type requiredComponent3) { }
    }

    [AttributeUsage(AttributeTargets.Class, Inherited = false)]
    public sealed class DisallowMultipleComponent : Attribute
    {
    }

    [AttributeUsage(AttributeTargets.Class)]
    public sealed class AddComponentMenu : Attribute
    {
        public AddComponentMenu(string menuName) { }
        public AddComponentMenu(string menuName, int order) { }
    }

    /// <summary>Java objects. Off Android the engine's versions throw; these record what was asked
    /// for, and answer a static field or call with a new object of the field's or call's name.</summary>
    public class AndroidJavaObject : IDisposable
    {
        internal readonly string m_className;

        public AndroidJavaObject(string className, params object[] args)
        {
            m_className = className;
            if (GetType() == typeof(AndroidJavaObject)) Engine.JavaCalls.Add(new JavaObjectRecord { ClassName = className, Arguments = args });
        }

        // An object that Java handed back (a field or a result): nothing was constructed.
        internal AndroidJavaObject(string name, bool answer)
        {
            m_className = name;
        }

        public void Dispose()
        {
        }

        public void Call(string methodName, params object[] args)
        {
            Engine.JavaCalls.Add(new JavaObjectRecord { ClassName = m_className + "." + methodName, Arguments = args });
        }

        public ReturnType Call<ReturnType>(string methodName, params object[] args)
        {
            Engine.JavaCalls.Add(new JavaObjectRecord { ClassName = m_className + "." + methodName, Arguments = args });
            return MakeAnswer<ReturnType>(m_className + "." + methodName + "()");
        }

        public ReturnType CallStatic<ReturnType>(string methodName, params object[] args)
        {
            Engine.JavaCalls.Add(new JavaObjectRecord { ClassName = m_className + "." + methodName, Arguments = args });
            return MakeAnswer<ReturnType>(m_className + "." + methodName + "()");
        }

        public FieldType GetStatic<FieldType>(string fieldName)
        {
            return MakeAnswer<FieldType>(m_className + "." + fieldName);
        }

        static T MakeAnswer<T>(string name)
        {
            if (typeof(T) == typeof(AndroidJavaObject)) return (T)(object)new AndroidJavaObject(name, true);
            return default(T);
        }
    }

    public class AndroidJavaClass : AndroidJavaObject
    {
        public AndroidJavaClass(string className) : base(className, true)
        {
        }
    }

    public sealed class GUILayoutOption
    {
    }

    public sealed class GUILayout
    {
        public static void BeginArea(Rect screenRect) { }
        public static void EndArea() { }
        public static void Label(string text, params GUILayoutOption[] options) { }
        public static bool Button(string text, params GUILayoutOption[] options) { return false; }
        public static bool Toggle(bool value, string text, params GUILayoutOption[] options) { return value; }
        public static float HorizontalSlider(float value, float leftValue, float rightValue, params GUILayoutOption[] options) { return value; }
    }
}

namespace UnityEngine.Events
{
    public delegate void UnityAction();

    public abstract class UnityEventBase
    {
    }

    [Serializable]
    public class UnityEvent : UnityEventBase
    {
        readonly List<UnityAction> m_calls = new List<UnityAction>();

        public UnityEvent()
        {
        }

        public void AddListener(UnityAction call) { m_calls.Add(call); }
        public void RemoveListener(UnityAction call) { m_calls.Remove(call); }
        public void RemoveAllListeners() { m_calls.Clear(); }

        public void Invoke()
        {
            foreach (UnityAction call in m_calls.ToArray()) call();
        }
    }
}
