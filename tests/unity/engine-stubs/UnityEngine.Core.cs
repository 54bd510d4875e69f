// A stand-in for the part of the engine's scripting API that the package uses: objects, components,
// behaviours and their messages, coroutines. Names and signatures are the engine's; the behaviour is
// just enough to run the component in a test.
using System;
using System.Collections;
using System.Collections.Generic;
using EngineStubs;

namespace UnityEngine
{
    public enum HideFlags
    {
        None = 0,
        HideInHierarchy = 1,
        HideInInspector = 2,
        DontSaveInEditor = 4,
        NotEditable = 8,
        DontSaveInBuild = 16,
        DontUnloadUnusedAsset = 32,
        DontSave = 52,
        HideAndDontSave = 61,
    }

    public class Object
    {
        internal bool m_destroyed;

        public string name { get; set; }
        public HideFlags hideFlags { get; set; }

        /// <summary>Destroyed objects compare equal to null, as in the engine.</summary>
        public static bool operator ==(Object x, Object y)
        {
            bool xNull = ReferenceEquals(x, null) || x.m_destroyed;
            bool yNull = ReferenceEquals(y, null) || y.m_destroyed;
            if (xNull || yNull) return xNull && yNull;
            return ReferenceEquals(x, y);
        }

        public static bool operator !=(Object x, Object y)
        {
            return !(x == y);
        }

        public static implicit operator bool(Object exists)
        {
            return exists != null;
        }

        public override bool Equals(object other)
        {
            return this == other as Object;
        }

        public override int GetHashCode()
        {
            return base.GetHashCode();
        }

        public static void Destroy(Object obj)
        {
            if (ReferenceEquals(obj, null) || obj.m_destroyed) return;
            obj.OnDestroyedByEngine();
            obj.m_destroyed = true;
        }

        public static void Destroy(Object obj, float t)
        {
            Destroy(obj);
        }

        public static void DestroyImmediate(Object obj)
        {
            Destroy(obj);
        }

        internal virtual void OnDestroyedByEngine()
        {
        }
    }

    public class Component : Object
    {
        internal GameObject m_gameObject;

        public GameObject gameObject { get { return m_gameObject; } }
        public Transform transform { get { return m_gameObject.transform; } }

        public T GetComponent<T>()
        {
            return m_gameObject.GetComponent<T>();
        }

        public Component GetComponent(Type type)
        {
            return m_gameObject.GetComponent(type);
        }
    }

    public class Behaviour : Component
    {
        bool m_enabled = true;

        public bool enabled
        {
            get { return m_enabled; }
            set
            {
                if (value == m_enabled) return;
                m_enabled = value;
                if (gameObject != null && gameObject.activeInHierarchy) Engine.Send(this, value ? "OnEnable" : "OnDisable");
            }
        }

        public bool isActiveAndEnabled { get { return m_enabled && gameObject != null && gameObject.activeInHierarchy; } }
    }

    public class YieldInstruction
    {
    }

    public sealed class Coroutine : YieldInstruction
    {
        internal readonly IEnumerator m_routine;

        internal Coroutine(IEnumerator routine)
        {
            m_routine = routine;
        }
    }

    public sealed class WaitForEndOfFrame : YieldInstruction
    {
    }

    public class MonoBehaviour : Behaviour
    {
        public Coroutine StartCoroutine(IEnumerator routine)
        {
            return Engine.Start(this, routine);
        }

        public void StopCoroutine(Coroutine routine)
        {
            if (routine != null) Engine.Stop(this, routine.m_routine);
        }

        public void StopAllCoroutines()
        {
            Engine.Stop(this, null);
        }
    }

    public class Transform : Component
    {
        public Vector3 position { get; set; }
        public Vector3 localScale { get; set; }

        public Vector3 TransformPoint(Vector3 position)
        {
            return this.position + position;
        }

        public void LookAt(Vector3 worldPosition)
        {
        }

        public void RotateAround(Vector3 point, Vector3 axis, float angle)
        {
        }
    }

    public sealed class GameObject : Object
    {
        readonly List<Component> m_components = new List<Component>();
        bool m_active = true;

        public GameObject() : this("New Game Object")
        {
        }

        public GameObject(string name)
        {
            this.name = name;
            var t = new Transform();
            t.m_gameObject = this;
            m_components.Add(t);
        }

        public Transform transform { get { return (Transform)m_components[0]; } }
        public bool activeSelf { get { return m_active; } }
        public bool activeInHierarchy { get { return m_active && !m_destroyed; } }

        public void SetActive(bool value)
        {
            if (value == m_active) return;
            m_active = value;
            foreach (Component c in m_components.ToArray())
            {
                var b = c as Behaviour;
                if (b != null && b.enabled) Engine.Send(b, value ? "OnEnable" : "OnDisable");
            }
        }

        public T AddComponent<T>() where T : Component
        {
            var component = (T)Activator.CreateInstance(typeof(T));
            component.m_gameObject = this;
            m_components.Add(component);
            Engine.Send(component, "Awake");
            var behaviour = component as Behaviour;
            if (behaviour != null && activeInHierarchy) Engine.Send(behaviour, "OnEnable");
            return component;
        }

        public T GetComponent<T>()
        {
            foreach (Component c in m_components)
            {
                if (!c.m_destroyed && c is T) return (T)(object)c;
            }
            return default(T);
        }

        public Component GetComponent(Type type)
        {
            foreach (Component c in m_components)
            {
                if (!c.m_destroyed && type.IsInstanceOfType(c)) return c;
            }
            return null;
        }

        internal override void OnDestroyedByEngine()
        {
            foreach (Component c in m_components.ToArray())
            {
                var b = c as Behaviour;
                if (b != null && b.enabled && m_active) Engine.Send(b, "OnDisable");
                Engine.Send(c, "OnDestroy");
                c.m_destroyed = true;
            }
        }
    }
}
