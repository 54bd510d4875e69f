// A volumetric clip on a GameObject: the component makes one native player, opens the clip, gives the
// plug-in an engine texture and a mesh whose GPU buffers the plug-in fills every frame, and issues the
// plug-in's render event once per frame.
//
// How a frame reaches the screen: at the end of every engine frame the component issues the render
// event with its player id; on the render thread the plug-in copies the mesh of the picture that is
// due into the mesh's vertex and index buffers and the picture into the texture. In the next Update
// the component reads the frame information and updates the mesh's index count and bounds.
//
// Threads: everything runs on the main thread except the native Open, which can block (a stream
// waits for its first segments), and so runs on a worker thread of its own; the component touches
// the player only after that thread has finished, and cancels it by closing the player.
using System;
using System.Collections;
using System.Diagnostics;
using System.IO;
using System.Threading;
using UnityEngine;
using UnityEngine.Events;
using UnityEngine.Rendering;
using Debug = UnityEngine.Debug;

namespace Ozm.Volumetric
{
    [AddComponentMenu("Volumetric Video/Ozm Volumetric Player")]
    [DisallowMultipleComponent]
    [RequireComponent(typeof(MeshFilter), typeof(MeshRenderer))]
    public class OzmVolumetricPlayer : MonoBehaviour
    {
        [Tooltip("An .mp4 clip: a path under StreamingAssets, an absolute file path, or an http(s) URL of an .m3u8 stream")]
        [SerializeField] string path = "";
        [Tooltip("Open and play the clip when the component is enabled")]
        [SerializeField] bool playOnEnable = true;
        [Tooltip("Start over at the end of the clip")]
        [SerializeField] bool loop = true;
        [Range(0f, 1f)]
        [SerializeField] float volume = 1f;
        [Tooltip("Playback speed: 1 is real time")]
        [Range(0.1f, 4f)]
        [SerializeField] float clockScale = 1f;
        [Tooltip("Compute vertex normals from the triangles (for lit materials). Applies from the next Open")]
        [SerializeField] bool computeNormals = false;
        [Tooltip("Neither select nor decode the clip's audio. Applies from the next Open")]
        [SerializeField] bool disableAudio = false;
        [Tooltip("Material texture properties that receive the clip's picture (built-in and URP names)")]
        [SerializeField] string[] textureProperties = { "_MainTex", "_BaseMap" };
        [SerializeField] UnityEvent opened = new UnityEvent();
        [SerializeField] UnityEvent endOfClip = new UnityEvent();

        const string LogPrefix = "OzmVolumetricPlayer: ";
        // Longest wait for an Open on its worker thread to give up once the player is closed.
        const double CancelSeconds = 10;
        const MeshUpdateFlags NoMeshChecks =
            MeshUpdateFlags.DontValidateIndices | MeshUpdateFlags.DontRecalculateBounds | MeshUpdateFlags.DontResetBoneBounds;

        // The vertex layout the plug-in writes: position, normal, uv, all 32-bit floats in stream 0
        // (OzmNative.PositionOffset, NormalOffset, UvOffset; 32 bytes a vertex).
        static readonly VertexAttributeDescriptor[] VertexLayout =
        {
            new VertexAttributeDescriptor(VertexAttribute.Position, VertexAttributeFormat.Float32, 3),
            new VertexAttributeDescriptor(VertexAttribute.Normal, VertexAttributeFormat.Float32, 3),
            new VertexAttributeDescriptor(VertexAttribute.TexCoord0, VertexAttributeFormat.Float32, 2),
        };

        static IntPtr s_renderEvent;

        // An Open running on its worker thread.
        sealed class PendingOpen
        {
            public readonly string Path;
            public readonly int Id;
            public readonly bool Looping;
            readonly byte[] m_path;
            OzmOpenInfo m_info;
            Thread m_thread;
            volatile bool m_done;
            volatile int m_result;

            public PendingOpen(int id, string path, OzmOpenInfo info)
            {
                Id = id;
                Path = path;
                Looping = info.autoLooping != 0;
                m_path = OzmNative.Utf8(path);
                m_info = info;
            }

            public bool Done { get { return m_done; } }
            public bool Succeeded { get { return m_done && m_result == 1; } }

            public void Start()
            {
                m_thread = new Thread(Run) { IsBackground = true, Name = "OzmOpen" };
                m_thread.Start();
            }

            void Run()
            {
                try
                {
                    m_result = OzmNative.OpenLumoObject(Id, m_path, ref m_info);
                }
                finally
                {
                    m_done = true;
                }
            }

            public bool Join(int milliseconds)
            {
                return m_thread.Join(milliseconds);
            }
        }

        int m_id = -1;
        bool m_playerNormals;    // computeNormals of the native player, fixed at its first Open
        bool m_playerOpenedOnce;
        PendingOpen m_opening;
        bool m_open;             // a clip is open and the engine's objects are registered
        bool m_openedLooping;    // the clip was opened with the player's own looping
        bool m_playWanted;       // Play was asked for before the clip was open
        bool m_ended;            // the clip reached its end and stopped there
        bool m_volumePending;
        Coroutine m_renderLoop;
        Texture2D m_texture;
        Mesh m_mesh;
        MaterialPropertyBlock m_properties;
        OzmFileInfo m_fileInfo;
        OzmFrameInfo m_frameInfo;
        uint m_previousIndexCount;
        Bounds m_previousBounds;
        int m_renderEvents;

        // ---- settings ----

        /// <summary>The clip to open; Open(path) sets it too. A change applies at the next Open.</summary>
        public string Path { get { return path; } set { path = value; } }
        public bool PlayOnEnable { get { return playOnEnable; } set { playOnEnable = value; } }

        /// <summary>Start over at the end. Takes effect at once, also on an open clip.</summary>
        public bool Loop { get { return loop; } set { loop = value; } }

        public float Volume
        {
            get { return volume; }
            set
            {
                volume = Mathf.Clamp01(value);
                m_volumePending = true;
                ApplyVolume();
            }
        }

        public float ClockScale
        {
            get { return clockScale; }
            set
            {
                value = Mathf.Max(0.01f, value);
                if (value == clockScale) return;
                clockScale = value;
                if (m_open) OzmNative.SetClockScale(m_id, clockScale);
            }
        }

        /// <summary>Applies from the next Open (a native player keeps the choice of its first Open;
        /// the component makes a new one when it changed).</summary>
        public bool ComputeNormals { get { return computeNormals; } set { computeNormals = value; } }
        /// <summary>Applies from the next Open.</summary>
        public bool DisableAudio { get { return disableAudio; } set { disableAudio = value; } }

        public UnityEvent Opened { get { return opened; } }
        /// <summary>Raised at every end of the clip, also when it loops.</summary>
        public UnityEvent EndOfClip { get { return endOfClip; } }

        // ---- what the player shows ----

        /// <summary>The native player's id, or -1.</summary>
        public int PlayerId { get { return m_id; } }
        public bool IsOpening { get { return m_opening != null; } }
        public bool IsOpen { get { return m_open; } }
        public bool IsPlaying { get { return m_open && !m_ended && State == OzmPlayerState.Playing; } }
        /// <summary>The native player's state; UnknownId without a player and while it opens (the
        /// player is not asked then).</summary>
        public OzmPlayerState State { get { return m_id >= 0 && m_opening == null ? OzmNative.GetState(m_id) : OzmPlayerState.UnknownId; } }
        public OzmFileInfo FileInfo { get { return m_fileInfo; } }
        /// <summary>The last frame drawn (all zero before the first).</summary>
        public OzmFrameInfo FrameInfo { get { return m_frameInfo; } }
        public Texture2D Texture { get { return m_texture; } }
        public Mesh Mesh { get { return m_mesh; } }
        /// <summary>Render events issued since the clip was opened.</summary>
        public int RenderEvents { get { return m_renderEvents; } }

        /// <summary>The plug-in's render-event function, for GL.IssuePluginEvent.</summary>
        public static IntPtr RenderEventFunction
        {
            get
            {
                if (s_renderEvent == IntPtr.Zero) s_renderEvent = OzmNative.GetUnityRenderModeEventFunc();
                return s_renderEvent;
            }
        }

        /// <summary>
        /// What the plug-in is given for a clip path: URLs and absolute paths as they are; other paths
        /// are under StreamingAssets, which on Android are the application's assets (the plug-in opens
        /// them by their path inside the assets) and elsewhere a folder. Null for an empty path.
        /// </summary>
        public static string ResolvePath(string clip, bool android, string streamingAssetsPath)
        {
            if (clip == null || clip.Trim().Length == 0) return null;
            clip = clip.Trim();
            if (IsUrl(clip)) return clip;
            if (android)
            {
                // The StreamingAssets path of an Android build points into the package:
                // jar:file:///data/app/.../base.apk!/assets/<asset path>
                const string assetsInPackage = "!/assets/";
                int inPackage = clip.IndexOf(assetsInPackage, StringComparison.Ordinal);
                if (clip.StartsWith("jar:", StringComparison.OrdinalIgnoreCase) && inPackage >= 0)
                {
                    return clip.Substring(inPackage + assetsInPackage.Length);
                }
                if (clip.StartsWith("file://", StringComparison.OrdinalIgnoreCase)) clip = clip.Substring(7);
                if (clip.StartsWith("/", StringComparison.Ordinal)) return clip;
                clip = clip.Replace('\\', '/');
                while (clip.StartsWith("./", StringComparison.Ordinal)) clip = clip.Substring(2);
                return clip;
            }
            if (clip.StartsWith("file://", StringComparison.OrdinalIgnoreCase)) clip = clip.Substring(7);
            if (System.IO.Path.IsPathRooted(clip)) return clip;
            return System.IO.Path.Combine(streamingAssetsPath ?? "", clip);
        }

        static bool IsUrl(string clip)
        {
            return clip.StartsWith("http://", StringComparison.OrdinalIgnoreCase) ||
                   clip.StartsWith("https://", StringComparison.OrdinalIgnoreCase);
        }

        // ---- control ----

        /// <summary>
        /// Closes what is open and starts opening a clip (or the clip of Path when none is given). The
        /// clip is open when Opened is raised; false when it cannot even start (the reason is logged).
        /// </summary>
        public bool Open(string clip = null)
        {
            Close();
            if (clip != null) path = clip;
            string resolved = ResolvePath(path, OzmAndroidPlugin.IsAndroid, Application.streamingAssetsPath);
            if (resolved == null)
            {
                Debug.LogError(LogPrefix + "no clip to open: set a path", this);
                return false;
            }
            if (SystemInfo.graphicsDeviceType != GraphicsDeviceType.OpenGLES3)
            {
                Debug.LogError(LogPrefix + "the plug-in draws with OpenGL ES 3 and the engine runs on " + SystemInfo.graphicsDeviceType +
                               "; select OpenGLES3 as the graphics API", this);
                return false;
            }
            if (!OzmAndroidPlugin.EnsureCreated() || !MakeNativePlayer()) return false;
            m_opening = new PendingOpen(m_id, resolved, OzmOpenInfo.Create(disableAudio, loop));
            m_playerOpenedOnce = true;
            m_opening.Start();
            return true;
        }

        /// <summary>Plays the open clip (from the start when it had ended), or opens Path and plays.</summary>
        public void Play()
        {
            if (m_opening != null)
            {
                m_playWanted = true;
                return;
            }
            if (!m_open)
            {
                if (Open()) m_playWanted = true;
                return;
            }
            if (m_ended)
            {
                OzmNative.RewindLumoObject(m_id);
                m_ended = false;
            }
            else if (State == OzmPlayerState.Playing)
            {
                return;
            }
            if (OzmNative.PlayLumoObject(m_id) != 1)
            {
                Debug.LogWarning(LogPrefix + "the player does not play in state " + State, this);
            }
            m_volumePending = true;
            ApplyVolume();
        }

        public void Pause()
        {
            m_playWanted = false;
            if (m_open) OzmNative.PauseLumoObject(m_id);
        }

        /// <summary>Back to the first frame, paused: Play goes on from there.</summary>
        public void Rewind()
        {
            m_playWanted = false;
            if (!m_open) return;
            OzmNative.RewindLumoObject(m_id);
            m_ended = false;
        }

        /// <summary>Closes the clip and frees the texture and mesh; the native player stays for the
        /// next Open.</summary>
        public void Close()
        {
            m_playWanted = false;
            CancelOpen();
            if (m_open)
            {
                OzmNative.CloseLumoObject(m_id);
                OzmNative.ReleaseUnityBuffers(m_id);
            }
            m_open = false;
            m_ended = false;
            ReleaseEngineObjects();
        }

        // ---- engine messages ----

        void OnEnable()
        {
            m_renderLoop = StartCoroutine(RenderLoop());
            if (playOnEnable && !string.IsNullOrEmpty(path)) Play();
        }

        void OnDisable()
        {
            if (m_renderLoop != null) StopCoroutine(m_renderLoop);
            m_renderLoop = null;
            Close();
            DestroyNativePlayer();
        }

        void OnDestroy()
        {
            Close();
            DestroyNativePlayer();
        }

        // Inspector edits of an open clip's speed and volume reach the player.
        void OnValidate()
        {
            if (!m_open) return;
            OzmNative.SetClockScale(m_id, Mathf.Max(0.01f, clockScale));
            m_volumePending = true;
        }

        void Update()
        {
            if (m_opening != null && m_opening.Done) FinishOpen();
            if (!m_open) return;
            if (m_volumePending) ApplyVolume();
            OzmFrameInfo info;
            if (!OzmNative.TryGetFrameInfo(m_id, out info)) return;
            if (info.HasFrame && (info.frameId != m_frameInfo.frameId || info.timestamp != m_frameInfo.timestamp))
            {
                ShowFrame(info);
            }
            if (info.HasFrame) m_frameInfo = info;
            if (info.EndOfStream) ReachedEnd();
        }

        IEnumerator RenderLoop()
        {
            var endOfFrame = new WaitForEndOfFrame();
            while (true)
            {
                yield return endOfFrame;
                // Opened, playing or paused: a paused player still takes its pictures off the decoder.
                if (m_open)
                {
                    GL.IssuePluginEvent(RenderEventFunction, m_id);
                    m_renderEvents++;
                }
            }
        }

        // ---- inside ----

        bool MakeNativePlayer()
        {
            // The native player fixes its vertex format at its first Open.
            if (m_id >= 0 && m_playerOpenedOnce && m_playerNormals != computeNormals) DestroyNativePlayer();
            if (m_id >= 0) return true;
            m_id = OzmNative.CreateLumoObject();
            if (m_id < 0)
            {
                Debug.LogError(LogPrefix + "the plug-in made no player", this);
                return false;
            }
            OzmNative.SetComputeNormals(m_id, computeNormals ? 1 : 0);
            m_playerNormals = computeNormals;
            m_playerOpenedOnce = false;
            return true;
        }

        void DestroyNativePlayer()
        {
            CancelOpen();
            if (m_id >= 0) OzmNative.DestroyLumoObject(m_id);
            m_id = -1;
        }

        // Closing the player makes an Open that waits (for a stream's first segments) give up; a
        // Close that came before the Open began changes nothing, so it is repeated until the worker
        // thread is done.
        void CancelOpen()
        {
            PendingOpen pending = m_opening;
            if (pending == null) return;
            m_opening = null;
            var clock = Stopwatch.StartNew();
            while (!pending.Done && clock.Elapsed.TotalSeconds < CancelSeconds)
            {
                OzmNative.CloseLumoObject(pending.Id);
                pending.Join(20);
            }
            if (!pending.Done)
            {
                Debug.LogError(LogPrefix + "opening " + pending.Path + " did not stop within " + CancelSeconds + " s", this);
                return;
            }
            if (pending.Succeeded) OzmNative.CloseLumoObject(pending.Id);
        }

        void FinishOpen()
        {
            PendingOpen pending = m_opening;
            m_opening = null;
            bool play = m_playWanted;
            m_playWanted = false;
            if (!pending.Succeeded)
            {
                Debug.LogError(LogPrefix + "cannot open " + pending.Path + " (the plug-in's log, tag OzmUnityPlugin, says why)", this);
                return;
            }
            if (!OzmNative.TryGetFileInfo(m_id, out m_fileInfo))
            {
                Debug.LogError(LogPrefix + pending.Path + " has no usable file information (frame count " + m_fileInfo.frameCount +
                               ", " + m_fileInfo.maxVertexCount + " vertices, " + m_fileInfo.maxIndexCount + " indices, texture " +
                               m_fileInfo.textureWidth + "x" + m_fileInfo.textureHeight + ")", this);
                OzmNative.CloseLumoObject(m_id);
                return;
            }
            if (!MakeEngineObjects())
            {
                OzmNative.CloseLumoObject(m_id);
                ReleaseEngineObjects();
                return;
            }
            m_open = true;
            m_openedLooping = pending.Looping;
            m_ended = false;
            m_frameInfo = new OzmFrameInfo();
            m_previousIndexCount = 0;
            m_renderEvents = 0;
            OzmNative.SetClockScale(m_id, clockScale);
            m_volumePending = true;
            opened.Invoke();
            if (play && m_open) Play();
        }

        bool MakeEngineObjects()
        {
            OzmFileInfo info = m_fileInfo;
            if (info.maxVertexCount > int.MaxValue / OzmNative.VertexStride || info.maxIndexCount > int.MaxValue / OzmNative.IndexStride)
            {
                Debug.LogError(LogPrefix + "the clip's mesh is too large (" + info.maxVertexCount + " vertices, " + info.maxIndexCount + " indices)", this);
                return false;
            }
            int vertices = (int)info.maxVertexCount;
            int indices = (int)info.maxIndexCount;

            m_texture = new Texture2D(info.textureWidth, info.textureHeight, TextureFormat.RGBA32, false);
            m_texture.name = "OzmVolumetricPicture";
            m_texture.wrapMode = TextureWrapMode.Clamp;
            m_texture.filterMode = FilterMode.Bilinear;
            // Makes the GPU texture now and drops the CPU copy, which the engine would otherwise upload
            // over the plug-in's pictures.
            m_texture.Apply(false, true);

            m_mesh = new Mesh();
            m_mesh.name = "OzmVolumetricFrame";
            m_mesh.MarkDynamic();
            m_mesh.SetVertexBufferParams(vertices, VertexLayout);
            m_mesh.SetIndexBufferParams(indices, IndexFormat.UInt32);
            m_mesh.subMeshCount = 1;
            m_mesh.SetSubMesh(0, new SubMeshDescriptor(0, 0, MeshTopology.Triangles), NoMeshChecks);
            m_previousBounds = FileBounds(info);
            m_mesh.bounds = m_previousBounds;
            // Makes the GPU buffers now; their contents come from the plug-in from here on.
            m_mesh.UploadMeshData(false);

            GetComponent<MeshFilter>().sharedMesh = m_mesh;
            ShowTexture(m_texture);

            uint texture = GlName(m_texture.GetNativeTexturePtr());
            uint vertexBuffer = GlName(m_mesh.GetNativeVertexBufferPtr(0));
            uint indexBuffer = GlName(m_mesh.GetNativeIndexBufferPtr());
            if (texture == 0 || vertexBuffer == 0 || indexBuffer == 0)
            {
                Debug.LogError(LogPrefix + "the engine gave no OpenGL ES names for the texture and buffers", this);
                return false;
            }
            if (OzmNative.SetUnityBuffers(m_id, texture, info.textureWidth, info.textureHeight,
                                          vertexBuffer, (uint)vertices, indexBuffer, (uint)indices) != 1)
            {
                Debug.LogError(LogPrefix + "the plug-in did not take the engine's texture and buffers", this);
                return false;
            }
            return true;
        }

        // On OpenGL ES the engine's native pointers are GL object names.
        static uint GlName(IntPtr native)
        {
            long name = native.ToInt64();
            return name > 0 && name <= uint.MaxValue ? (uint)name : 0;
        }

        void ShowTexture(Texture texture)
        {
            var meshRenderer = GetComponent<MeshRenderer>();
            Material material = meshRenderer.sharedMaterial;
            if (m_properties == null) m_properties = new MaterialPropertyBlock();
            meshRenderer.GetPropertyBlock(m_properties);
            bool shown = false;
            foreach (string property in textureProperties)
            {
                if (material == null || string.IsNullOrEmpty(property) || !material.HasProperty(property)) continue;
                if (texture != null) m_properties.SetTexture(property, texture);
                shown = true;
            }
            if (texture == null) m_properties.Clear();
            meshRenderer.SetPropertyBlock(m_properties);
            if (texture != null && !shown)
            {
                Debug.LogWarning(LogPrefix + "the material has none of the texture properties " + string.Join(", ", textureProperties) +
                                 "; the picture is not shown", this);
            }
        }

        void ShowFrame(OzmFrameInfo info)
        {
            // With a render thread the picture drawn this frame can be one render event older or newer
            // than the information read here. Drawing the larger of the last two index counts covers
            // both: the plug-in fills the rest of the index buffer with zeros (degenerate triangles).
            uint count = Math.Max(info.indexCount, m_previousIndexCount);
            count = Math.Min(count, m_fileInfo.maxIndexCount);
            m_previousIndexCount = info.indexCount;
            Bounds frame = FrameBounds(info);
            Bounds both = frame;
            both.Encapsulate(m_previousBounds);
            m_previousBounds = frame;

            var subMesh = new SubMeshDescriptor(0, (int)(count - count % 3), MeshTopology.Triangles);
            subMesh.bounds = both;
            subMesh.firstVertex = 0;
            subMesh.vertexCount = (int)m_fileInfo.maxVertexCount;
            m_mesh.SetSubMesh(0, subMesh, NoMeshChecks);
            m_mesh.bounds = both;
        }

        void ReachedEnd()
        {
            if (loop)
            {
                // Opened with the player's own looping it has started over already.
                if (!m_openedLooping)
                {
                    OzmNative.RewindLumoObject(m_id);
                    OzmNative.PlayLumoObject(m_id);
                }
            }
            else
            {
                // Looping was turned off after the clip opened with it: stop at the start.
                if (m_openedLooping) OzmNative.RewindLumoObject(m_id);
                m_ended = true;
            }
            endOfClip.Invoke();
        }

        void ApplyVolume()
        {
            if (!m_open || !m_volumePending) return;
            // A clip without audio, or with audio declined, has no output to take it; one with audio
            // has it once its audio has begun.
            if (!m_fileInfo.HasAudio || disableAudio || OzmNative.SetAudioVolume(m_id, volume) == 1) m_volumePending = false;
        }

        void ReleaseEngineObjects()
        {
            if (m_mesh != null)
            {
                var filter = GetComponent<MeshFilter>();
                if (filter != null && filter.sharedMesh == m_mesh) filter.sharedMesh = null;
                Destroy(m_mesh);
            }
            if (m_texture != null)
            {
                var meshRenderer = GetComponent<MeshRenderer>();
                if (meshRenderer != null) ShowTexture(null);
                Destroy(m_texture);
            }
            m_mesh = null;
            m_texture = null;
        }

        static Bounds FileBounds(OzmFileInfo i)
        {
            return Box(i.bboxMinX, i.bboxMinY, i.bboxMinZ, i.bboxMaxX, i.bboxMaxY, i.bboxMaxZ);
        }

        static Bounds FrameBounds(OzmFrameInfo i)
        {
            return Box(i.bboxMinX, i.bboxMinY, i.bboxMinZ, i.bboxMaxX, i.bboxMaxY, i.bboxMaxZ);
        }

        static Bounds Box(double minX, double minY, double minZ, double maxX, double maxY, double maxZ)
        {
            var bounds = new Bounds();
            bounds.SetMinMax(new Vector3((float)minX, (float)minY, (float)minZ), new Vector3((float)maxX, (float)maxY, (float)maxZ));
            return bounds;
        }
    }
}
