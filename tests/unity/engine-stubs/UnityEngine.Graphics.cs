// The engine's textures, meshes, materials, renderers and render events, as far as the package uses
// them. Native pointers come from the test's graphics backend when it has one (real GL names), else
// they are made-up numbers. The mesh keeps what it was told, so a test can read the layout back.
using System;
using System.Collections.Generic;
using EngineStubs;
using UnityEngine.Rendering;

namespace UnityEngine
{
    public enum TextureFormat
    {
        Alpha8 = 1,
        ARGB4444 = 2,
        RGB24 = 3,
        RGBA32 = 4,
        ARGB32 = 5,
        RGB565 = 7,
        R16 = 9,
        BGRA32 = 14,
        RGBAHalf = 17,
        RGBAFloat = 20,
    }

    public enum TextureWrapMode
    {
        Repeat = 0,
        Clamp = 1,
        Mirror = 2,
        MirrorOnce = 3,
    }

    public enum FilterMode
    {
        Point = 0,
        Bilinear = 1,
        Trilinear = 2,
    }

    public enum MeshTopology
    {
        Triangles = 0,
        Quads = 2,
        Lines = 3,
        LineStrip = 4,
        Points = 5,
    }

    public class Texture : Object
    {
        internal uint m_nativeName;

        public virtual int width { get; set; }
        public virtual int height { get; set; }
        public TextureWrapMode wrapMode { get; set; }
        public FilterMode filterMode { get; set; }

        public IntPtr GetNativeTexturePtr()
        {
            if (m_nativeName == 0)
            {
                m_nativeName = Engine.Graphics != null ? Engine.Graphics.CreateTexture(width, height) : Engine.FakeName();
            }
            return new IntPtr(m_nativeName);
        }

        internal override void OnDestroyedByEngine()
        {
            if (m_nativeName != 0 && Engine.Graphics != null) Engine.Graphics.DeleteTexture(m_nativeName);
            m_nativeName = 0;
        }
    }

    public sealed class Texture2D : Texture
    {
        public Texture2D(int width, int height, TextureFormat textureFormat, bool mipChain)
        {
            if (width <= 0 || height <= 0) throw new ArgumentException("Texture2D: width and height must be positive");
            this.width = width;
            this.height = height;
            format = textureFormat;
            isReadable = true;
        }

        public TextureFormat format { get; private set; }
        public bool isReadable { get; private set; }

        public void Apply(bool updateMipmaps, bool makeNoLongerReadable)
        {
            if (makeNoLongerReadable) isReadable = false;
        }
    }

    public sealed class Shader : Object
    {
        public static Shader Find(string name)
        {
            return new Shader { name = name };
        }
    }

    public class Material : Object
    {
        /// <summary>Texture properties of this stand-in material (the engine knows them from the shader).</summary>
        internal readonly HashSet<string> m_properties = new HashSet<string> { "_MainTex" };

        public Material(Shader shader)
        {
        }

        public bool HasProperty(string name)
        {
            return m_properties.Contains(name);
        }
    }

    public sealed class MaterialPropertyBlock
    {
        readonly Dictionary<string, Texture> m_textures = new Dictionary<string, Texture>();

        public bool isEmpty { get { return m_textures.Count == 0; } }

        public void SetTexture(string name, Texture value)
        {
            if (value == null) throw new ArgumentNullException("value");
            m_textures[name] = value;
        }

        public Texture GetTexture(string name)
        {
            Texture texture;
            return m_textures.TryGetValue(name, out texture) ? texture : null;
        }

        public void Clear()
        {
            m_textures.Clear();
        }

        internal void CopyFrom(MaterialPropertyBlock other)
        {
            m_textures.Clear();
            foreach (var pair in other.m_textures) m_textures[pair.Key] = pair.Value;
        }
    }

    public class Renderer : Component
    {
        readonly MaterialPropertyBlock m_block = new MaterialPropertyBlock();

        public Material sharedMaterial { get; set; }
        public bool enabled { get; set; }

        public void GetPropertyBlock(MaterialPropertyBlock properties)
        {
            properties.CopyFrom(m_block);
        }

        public void SetPropertyBlock(MaterialPropertyBlock properties)
        {
            m_block.CopyFrom(properties);
        }
    }

    public class MeshRenderer : Renderer
    {
    }

    public sealed class MeshFilter : Component
    {
        public Mesh sharedMesh { get; set; }
    }

    public sealed class Mesh : Object
    {
        VertexAttributeDescriptor[] m_layout = new VertexAttributeDescriptor[0];
        readonly List<SubMeshDescriptor> m_subMeshes = new List<SubMeshDescriptor> { new SubMeshDescriptor(0, 0) };
        uint m_vertexBuffer, m_indexBuffer;

        public Mesh()
        {
            isReadable = true;
        }

        public int vertexCount { get; private set; }
        public IndexFormat indexFormat { get; set; }
        public Bounds bounds { get; set; }
        public bool isReadable { get; private set; }
        /// <summary>Not in the engine: how many indices the index buffer holds.</summary>
        internal int m_indexCount;
        internal bool m_dynamic;
        internal MeshUpdateFlags m_lastSubMeshFlags;

        public int subMeshCount
        {
            get { return m_subMeshes.Count; }
            set
            {
                while (m_subMeshes.Count < value) m_subMeshes.Add(new SubMeshDescriptor(0, 0));
                if (m_subMeshes.Count > value) m_subMeshes.RemoveRange(value, m_subMeshes.Count - value);
            }
        }

        public void MarkDynamic()
        {
            m_dynamic = true;
        }

        public void SetVertexBufferParams(int vertexCount, params VertexAttributeDescriptor[] attributes)
        {
            if (vertexCount < 0) throw new ArgumentOutOfRangeException("vertexCount");
            this.vertexCount = vertexCount;
            m_layout = (VertexAttributeDescriptor[])attributes.Clone();
        }

        public void SetIndexBufferParams(int indexCount, IndexFormat format)
        {
            if (indexCount < 0) throw new ArgumentOutOfRangeException("indexCount");
            m_indexCount = indexCount;
            indexFormat = format;
        }

        public VertexAttributeDescriptor[] GetVertexAttributes()
        {
            return (VertexAttributeDescriptor[])m_layout.Clone();
        }

        public int GetVertexBufferStride(int stream)
        {
            int stride = 0;
            foreach (VertexAttributeDescriptor a in m_layout)
            {
                if (a.stream == stream) stride += a.dimension * FormatBytes(a.format);
            }
            return stride;
        }

        public void SetSubMesh(int index, SubMeshDescriptor desc, MeshUpdateFlags flags = MeshUpdateFlags.Default)
        {
            if (index < 0 || index >= m_subMeshes.Count) throw new IndexOutOfRangeException("SetSubMesh: no sub-mesh " + index);
            if (desc.indexStart < 0 || desc.indexCount < 0 || desc.indexStart + desc.indexCount > m_indexCount)
            {
                throw new ArgumentException("SetSubMesh: indices " + desc.indexStart + " + " + desc.indexCount + " beyond the index buffer of " + m_indexCount);
            }
            m_subMeshes[index] = desc;
            m_lastSubMeshFlags = flags;
        }

        public SubMeshDescriptor GetSubMesh(int index)
        {
            return m_subMeshes[index];
        }

        public void UploadMeshData(bool markNoLongerReadable)
        {
            if (markNoLongerReadable) isReadable = false;
        }

        public IntPtr GetNativeVertexBufferPtr(int index)
        {
            if (index != 0) throw new ArgumentOutOfRangeException("index");
            if (m_vertexBuffer == 0)
            {
                int bytes = vertexCount * GetVertexBufferStride(0);
                m_vertexBuffer = Engine.Graphics != null ? Engine.Graphics.CreateBuffer(false, bytes) : Engine.FakeName();
            }
            return new IntPtr(m_vertexBuffer);
        }

        public IntPtr GetNativeIndexBufferPtr()
        {
            if (m_indexBuffer == 0)
            {
                int bytes = m_indexCount * (indexFormat == IndexFormat.UInt32 ? 4 : 2);
                m_indexBuffer = Engine.Graphics != null ? Engine.Graphics.CreateBuffer(true, bytes) : Engine.FakeName();
            }
            return new IntPtr(m_indexBuffer);
        }

        internal override void OnDestroyedByEngine()
        {
            if (Engine.Graphics != null)
            {
                if (m_vertexBuffer != 0) Engine.Graphics.DeleteBuffer(m_vertexBuffer);
                if (m_indexBuffer != 0) Engine.Graphics.DeleteBuffer(m_indexBuffer);
            }
            m_vertexBuffer = m_indexBuffer = 0;
        }

        static int FormatBytes(VertexAttributeFormat format)
        {
            switch (format)
            {
                case VertexAttributeFormat.Float32:
                case VertexAttributeFormat.UInt32:
                case VertexAttributeFormat.SInt32:
                    return 4;
                case VertexAttributeFormat.Float16:
                case VertexAttributeFormat.UNorm16:
                case VertexAttributeFormat.SNorm16:
                case VertexAttributeFormat.UInt16:
                case VertexAttributeFormat.SInt16:
                    return 2;
                default:
                    return 1;
            }
        }
    }

    public sealed class GL
    {
        public static void IssuePluginEvent(IntPtr callback, int eventID)
        {
            Engine.PluginEvents.Add(new PluginEvent { Callback = callback, EventId = eventID });
            if (Engine.Graphics != null) Engine.Graphics.IssuePluginEvent(callback, eventID);
        }
    }

    public sealed class SystemInfo
    {
        public static GraphicsDeviceType graphicsDeviceType { get { return Engine.GraphicsDevice; } }
    }
}

namespace UnityEngine.Rendering
{
    public enum IndexFormat
    {
        UInt16 = 0,
        UInt32 = 1,
    }

    [Flags]
    public enum MeshUpdateFlags
    {
        Default = 0,
        DontValidateIndices = 1,
        DontResetBoneBounds = 2,
        DontNotifyMeshUsers = 4,
        DontRecalculateBounds = 8,
    }

    public enum VertexAttribute
    {
        Position = 0,
        Normal = 1,
        Tangent = 2,
        Color = 3,
        TexCoord0 = 4,
        TexCoord1 = 5,
        TexCoord2 = 6,
        TexCoord3 = 7,
        TexCoord4 = 8,
        TexCoord5 = 9,
        TexCoord6 = 10,
        TexCoord7 = 11,
        BlendWeight = 12,
        BlendIndices = 13,
    }

    public enum VertexAttributeFormat
    {
        Float32 = 0,
        Float16 = 1,
        UNorm8 = 2,
        SNorm8 = 3,
        UNorm16 = 4,
        SNorm16 = 5,
        UInt8 = 6,
        SInt8 = 7,
        UInt16 = 8,
        SInt16 = 9,
        UInt32 = 10,
        SInt32 = 11,
    }

    public enum GraphicsDeviceType
    {
        Direct3D11 = 2,
        Null = 4,
        OpenGLES2 = 8,
        OpenGLES3 = 11,
        Metal = 16,
        OpenGLCore = 17,
        Direct3D12 = 18,
        Vulkan = 21,
    }

    public struct VertexAttributeDescriptor
    {
        public VertexAttributeDescriptor(VertexAttribute attribute = VertexAttribute.Position, VertexAttributeFormat format = VertexAttributeFormat.Float32,
                                         int dimension = 3, int stream = 0)
        {
            if (dimension < 1 || dimension > 4) throw new ArgumentException("dimension must be 1 to 4");
            this.attribute = attribute;
            this.format = format;
            this.dimension = dimension;
            this.stream = stream;
        }

        public VertexAttribute attribute { get; set; }
        public VertexAttributeFormat format { get; set; }
        public int dimension { get; set; }
        public int stream { get; set; }
    }

    public struct SubMeshDescriptor
    {
        public SubMeshDescriptor(int indexStart, int indexCount, MeshTopology topology = MeshTopology.Triangles)
        {
            this.indexStart = indexStart;
            this.indexCount = indexCount;
            this.topology = topology;
            bounds = new Bounds();
            baseVertex = 0;
            firstVertex = 0;
            vertexCount = 0;
        }

        public Bounds bounds { get; set; }
        public MeshTopology topology { get; set; }
        public int indexStart { get; set; }
        public int indexCount { get; set; }
        public int baseVertex { get; set; }
        public int firstVertex { get; set; }
        public int vertexCount { get; set; }
    }
}
