// The plug-in's C functions and the three records that cross them, as C# declarations.
//
// This file uses no engine type, so it builds on its own (the tests compile it with Mono's compiler
// alone). Everything here is a thin, blittable mirror of plugin/OzmPluginApi.h:
//  - players are addressed by the int id that CreateLumoObject hands out;
//  - the records are fixed-layout structs marshalled by address, byte for byte;
//  - strings go in as NUL-terminated UTF-8 byte arrays, which every runtime (Mono, IL2CPP, .NET)
//    passes the same way; the string overload of OpenLumoObject does the encoding.
//
// The engine itself calls UnityPluginLoad and UnitySetGraphicsDevice, and the render-event bodies
// (UnityRenderEvent, OnUnityRenderModeEvent, OnUnrealRenderEvent) are reached through the function
// pointers below; none of them is declared here.
using System;
using System.Runtime.InteropServices;
using System.Text;

namespace Ozm.Volumetric
{
    /// <summary>Player states as GetLumoState returns them.</summary>
    public enum OzmPlayerState
    {
        Empty = 0,
        Initialized = 1,
        Opened = 2,
        Playing = 3,
        Paused = 4,
        Closed = 5,
        /// <summary>Not a state: the id names no player.</summary>
        UnknownId = 6,
    }

    /// <summary>Options of OpenLumoObject: 4124 bytes, of which the player reads two.</summary>
    [StructLayout(LayoutKind.Explicit, Size = 4124)]
    public struct OzmOpenInfo
    {
        /// <summary>Non-zero: the audio track is neither selected nor decoded.</summary>
        [FieldOffset(0)] public byte audioDisabled;
        /// <summary>Non-zero: at the end of the clip the player starts over by itself.</summary>
        [FieldOffset(5)] public byte autoLooping;

        public static OzmOpenInfo Create(bool disableAudio, bool loop)
        {
            var info = new OzmOpenInfo();
            info.audioDisabled = (byte)(disableAudio ? 1 : 0);
            info.autoLooping = (byte)(loop ? 1 : 0);
            return info;
        }
    }

    /// <summary>What the player knows of an opened clip: 104 bytes.</summary>
    [StructLayout(LayoutKind.Explicit, Size = 104)]
    public struct OzmFileInfo
    {
        [FieldOffset(0)] public byte hasAudio;
        /// <summary>In 100 ns units.</summary>
        [FieldOffset(8)] public long duration;
        [FieldOffset(16)] public uint frameCount;
        [FieldOffset(20)] public uint maxVertexCount;
        [FieldOffset(24)] public uint maxIndexCount;
        /// <summary>Mbit/s over the whole file.</summary>
        [FieldOffset(28)] public float bitrate;
        /// <summary>File size in MiB.</summary>
        [FieldOffset(32)] public float fileSizeMB;
        [FieldOffset(40)] public double bboxMinX;
        [FieldOffset(48)] public double bboxMinY;
        [FieldOffset(56)] public double bboxMinZ;
        [FieldOffset(64)] public double bboxMaxX;
        [FieldOffset(72)] public double bboxMaxY;
        [FieldOffset(80)] public double bboxMaxZ;
        [FieldOffset(88)] public int textureWidth;
        [FieldOffset(92)] public int textureHeight;
        [FieldOffset(96)] public byte hasNormals;

        public bool HasAudio { get { return hasAudio != 0; } }
        public bool HasNormals { get { return hasNormals != 0; } }
        public double DurationSeconds { get { return duration * 1e-7; } }

        /// <summary>
        /// GetLumoObjectFileInfo returns 0 whether or not it filled the record; a record is usable when
        /// it names the mesh capacities and the texture size.
        /// </summary>
        public bool IsUsable
        {
            get { return frameCount > 0 && maxVertexCount > 0 && maxIndexCount > 0 && textureWidth > 0 && textureHeight > 0; }
        }
    }

    /// <summary>The mesh frame that the last render event made current: 80 bytes.</summary>
    [StructLayout(LayoutKind.Explicit, Size = 80)]
    public struct OzmFrameInfo
    {
        /// <summary>In 100 ns units.</summary>
        [FieldOffset(0)] public long timestamp;
        [FieldOffset(8)] public double bboxMinX;
        [FieldOffset(16)] public double bboxMinY;
        [FieldOffset(24)] public double bboxMinZ;
        [FieldOffset(32)] public double bboxMaxX;
        [FieldOffset(40)] public double bboxMaxY;
        [FieldOffset(48)] public double bboxMaxZ;
        [FieldOffset(56)] public uint frameId;
        [FieldOffset(60)] public uint vertexCount;
        [FieldOffset(64)] public uint indexCount;
        [FieldOffset(68)] public uint textureWidth;
        [FieldOffset(72)] public uint textureHeight;
        /// <summary>1 in exactly one read after the end of the clip was reached.</summary>
        [FieldOffset(76)] public byte endOfStream;
        /// <summary>1 when the frame has been drawn two or more times.</summary>
        [FieldOffset(77)] public byte repeated;
        [FieldOffset(78)] public byte keyFrame;

        public bool EndOfStream { get { return endOfStream != 0; } }
        public bool Repeated { get { return repeated != 0; } }
        public bool KeyFrame { get { return keyFrame != 0; } }
        /// <summary>False until a render event has made a frame current.</summary>
        public bool HasFrame { get { return frameId != 0 || vertexCount != 0 || indexCount != 0; } }
        public double TimeSeconds { get { return timestamp * 1e-7; } }
    }

    /// <summary>The plug-in's exported C functions. Call them from the engine's main thread only.</summary>
    public static class OzmNative
    {
        public const string Library = "OzmUnityPlugin";

        /// <summary>Bytes a vertex takes in the engine's vertex buffer: position x, y, z, normal x, y, z
        /// and texture u, v, all 32-bit floats, in this order.</summary>
        public const int VertexStride = 32;
        public const int PositionOffset = 0;
        public const int NormalOffset = 12;
        public const int UvOffset = 24;
        /// <summary>Bytes an index takes in the engine's index buffer (32-bit, triangle list).</summary>
        public const int IndexStride = 4;

        // ---- players ----

        /// <summary>A new player in state Initialized; its id, or -1.</summary>
        [DllImport(Library)] public static extern int CreateLumoObject();
        [DllImport(Library)] public static extern int DestroyLumoObject(int id);

        /// <summary>Opens a clip; path is NUL-terminated UTF-8. Blocks until the clip is ready (a
        /// stream: until its first segments are in). 1 on success, 0 on failure.</summary>
        [DllImport(Library)] public static extern int OpenLumoObject(int id, byte[] utf8Path, ref OzmOpenInfo info);

        [DllImport(Library)] public static extern int PlayLumoObject(int id);
        [DllImport(Library)] public static extern int PauseLumoObject(int id);
        [DllImport(Library)] public static extern int RewindLumoObject(int id);
        [DllImport(Library)] public static extern int CloseLumoObject(int id);
        /// <summary>An <see cref="OzmPlayerState"/> number; 6 for an unknown id.</summary>
        [DllImport(Library)] public static extern int GetLumoState(int id);

        /// <summary>Fills info when the player has a clip; returns 0 in every case (see
        /// <see cref="OzmFileInfo.IsUsable"/>).</summary>
        [DllImport(Library)] public static extern int GetLumoObjectFileInfo(int id, ref OzmFileInfo info);
        [DllImport(Library)] public static extern int GetLumoObjectFrameInfo(int id, ref OzmFrameInfo info);

        // ---- settings ----

        [DllImport(Library)] public static extern int SetClockScale(int id, float scale);
        /// <summary>1 when the player has an audio track and took the volume.</summary>
        [DllImport(Library)] public static extern int SetAudioVolume(int id, float volume);
        /// <summary>Must be set before the player's first Open, and not changed after it.</summary>
        [DllImport(Library)] public static extern int SetComputeNormals(int id, int computeNormals);
        [DllImport(Library)] public static extern int SetLumoObjectAudio3DPosition(int id, float x, float y, float z);
        [DllImport(Library)] public static extern int SetUseGPU(int id, int useGpu);

        // ---- engine buffers ----

        [DllImport(Library)] public static extern int TestUnityBuffersValid(int id);
        [DllImport(Library)] public static extern int ReleaseUnityBuffers(int id);
        /// <summary>Registers the engine's GL texture and GL vertex and index buffers of a player;
        /// capacities count vertices and indices.</summary>
        [DllImport(Library)]
        public static extern int SetUnityBuffers(int id, uint texture, int textureWidth, int textureHeight,
                                                 uint vertexBuffer, uint vertexCapacity,
                                                 uint indexBuffer, uint indexCapacity);

        // ---- render events ----

        /// <summary>The function to issue once per engine frame and player, with the player id as event
        /// id, on the render thread (GL.IssuePluginEvent).</summary>
        [DllImport(Library)] public static extern IntPtr GetUnityRenderModeEventFunc();
        /// <summary>A render-event function that only logs.</summary>
        [DllImport(Library)] public static extern IntPtr GetRenderEventFunc();

        [DllImport(Library, EntryPoint = "getPlatformABI")] private static extern IntPtr GetPlatformAbiText();

        // ---- conveniences ----

        /// <summary>NUL-terminated UTF-8 bytes of a string, as the C functions take text.</summary>
        public static byte[] Utf8(string text)
        {
            if (text == null) throw new ArgumentNullException("text");
            int length = Encoding.UTF8.GetByteCount(text);
            var bytes = new byte[length + 1];
            Encoding.UTF8.GetBytes(text, 0, text.Length, bytes, 0);
            return bytes;
        }

        /// <summary>OpenLumoObject with a path given as a string.</summary>
        public static int OpenLumoObject(int id, string path, ref OzmOpenInfo info)
        {
            return OpenLumoObject(id, Utf8(path), ref info);
        }

        public static OzmPlayerState GetState(int id)
        {
            return (OzmPlayerState)GetLumoState(id);
        }

        /// <summary>The file information of an opened player; false when the record stays unusable.</summary>
        public static bool TryGetFileInfo(int id, out OzmFileInfo info)
        {
            info = new OzmFileInfo();
            GetLumoObjectFileInfo(id, ref info);
            return info.IsUsable;
        }

        /// <summary>The current frame's information; false for an unknown id. Reading it consumes the
        /// end-of-stream report.</summary>
        public static bool TryGetFrameInfo(int id, out OzmFrameInfo info)
        {
            info = new OzmFrameInfo();
            return GetLumoObjectFrameInfo(id, ref info) == 1;
        }

        /// <summary>The text that describes the library's build ABI (returned as the library has it).</summary>
        public static string PlatformAbi()
        {
            IntPtr text = GetPlatformAbiText();
            return text == IntPtr.Zero ? "" : Marshal.PtrToStringAnsi(text);
        }
    }
}
