// Vectors, boxes and the few math functions the package uses, with the engine's names.
using System;

namespace UnityEngine
{
    public struct Vector3
    {
        public float x;
        public float y;
        public float z;

        public Vector3(float x, float y, float z)
        {
            this.x = x;
            this.y = y;
            this.z = z;
        }

        public static Vector3 zero { get { return new Vector3(0, 0, 0); } }
        public static Vector3 one { get { return new Vector3(1, 1, 1); } }
        public static Vector3 up { get { return new Vector3(0, 1, 0); } }

        public float magnitude { get { return (float)Math.Sqrt(x * x + y * y + z * z); } }

        public Vector3 normalized
        {
            get
            {
                float m = magnitude;
                return m > 1e-5f ? this / m : zero;
            }
        }

        public static Vector3 Min(Vector3 a, Vector3 b)
        {
            return new Vector3(Math.Min(a.x, b.x), Math.Min(a.y, b.y), Math.Min(a.z, b.z));
        }

        public static Vector3 Max(Vector3 a, Vector3 b)
        {
            return new Vector3(Math.Max(a.x, b.x), Math.Max(a.y, b.y), Math.Max(a.z, b.z));
        }

        public static Vector3 operator +(Vector3 a, Vector3 b) { return new Vector3(a.x + b.x, a.y + b.y, a.z + b.z); }
        public static Vector3 operator -(Vector3 a, Vector3 b) { return new Vector3(a.x - b.x, a.y - b.y, a.z - b.z); }
        public static Vector3 operator *(Vector3 a, float d) { return new Vector3(a.x * d, a.y * d, a.z * d); }
        public static Vector3 operator *(float d, Vector3 a) { return a * d; }
        public static Vector3 operator /(Vector3 a, float d) { return new Vector3(a.x / d, a.y / d, a.z / d); }

        public override string ToString()
        {
            return "(" + x.ToString("0.00") + ", " + y.ToString("0.00") + ", " + z.ToString("0.00") + ")";
        }
    }

    public struct Bounds
    {
        Vector3 m_center;
        Vector3 m_extents;

        public Bounds(Vector3 center, Vector3 size)
        {
            m_center = center;
            m_extents = size * 0.5f;
        }

        public Vector3 center { get { return m_center; } set { m_center = value; } }
        public Vector3 extents { get { return m_extents; } set { m_extents = value; } }
        public Vector3 size { get { return m_extents * 2; } set { m_extents = value * 0.5f; } }
        public Vector3 min { get { return m_center - m_extents; } }
        public Vector3 max { get { return m_center + m_extents; } }

        public void SetMinMax(Vector3 min, Vector3 max)
        {
            m_extents = (max - min) * 0.5f;
            m_center = min + m_extents;
        }

        public void Encapsulate(Vector3 point)
        {
            SetMinMax(Vector3.Min(min, point), Vector3.Max(max, point));
        }

        public void Encapsulate(Bounds bounds)
        {
            Encapsulate(bounds.min);
            Encapsulate(bounds.max);
        }

        public override string ToString()
        {
            return "Center: " + m_center + ", Extents: " + m_extents;
        }
    }

    public struct Rect
    {
        public Rect(float x, float y, float width, float height)
        {
            this.x = x;
            this.y = y;
            this.width = width;
            this.height = height;
        }

        public float x;
        public float y;
        public float width;
        public float height;
    }

    public struct Mathf
    {
        public const float Deg2Rad = (float)(Math.PI / 180);

        public static float Clamp01(float value) { return value < 0 ? 0 : value > 1 ? 1 : value; }
        public static float Max(float a, float b) { return a > b ? a : b; }
        public static float Min(float a, float b) { return a < b ? a : b; }
        public static float Sin(float f) { return (float)Math.Sin(f); }
        public static float Cos(float f) { return (float)Math.Cos(f); }

        public static bool Approximately(float a, float b)
        {
            return Math.Abs(b - a) < Math.Max(1e-6f * Math.Max(Math.Abs(a), Math.Abs(b)), float.Epsilon * 8);
        }
    }
}
