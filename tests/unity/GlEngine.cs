// A minimal engine for the C# tests: an OpenGL ES 3 context on Mesa's surfaceless EGL platform made
// current on the calling thread, which then plays the engine's render thread. It hands its graphics
// device to the plug-in as the engine does at start, makes a texture and vertex and index buffers
// the way the engine makes them for a mesh and a texture, and reads them back.
using System;
using System.Runtime.InteropServices;

namespace OzmTests
{
    public sealed class GlEngine : IDisposable
    {
        const string Egl = "libEGL.so.1";
        const string Gles = "libGLESv2.so.2";

        [DllImport(Egl)] static extern IntPtr eglGetProcAddress(string name);
        [DllImport(Egl)] static extern int eglInitialize(IntPtr display, out int major, out int minor);
        [DllImport(Egl)] static extern int eglBindAPI(int api);
        [DllImport(Egl)] static extern int eglChooseConfig(IntPtr display, int[] attributes, IntPtr[] configs, int size, out int count);
        [DllImport(Egl)] static extern IntPtr eglCreatePbufferSurface(IntPtr display, IntPtr config, int[] attributes);
        [DllImport(Egl)] static extern IntPtr eglCreateContext(IntPtr display, IntPtr config, IntPtr share, int[] attributes);
        [DllImport(Egl)] static extern int eglMakeCurrent(IntPtr display, IntPtr draw, IntPtr read, IntPtr context);
        [DllImport(Egl)] static extern int eglDestroyContext(IntPtr display, IntPtr context);
        [DllImport(Egl)] static extern int eglDestroySurface(IntPtr display, IntPtr surface);
        [DllImport(Egl)] static extern int eglGetError();

        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        delegate IntPtr GetPlatformDisplay(int platform, IntPtr nativeDisplay, IntPtr attributes);

        [DllImport(Gles)] static extern void glGenTextures(int n, out uint texture);
        [DllImport(Gles)] static extern void glDeleteTextures(int n, ref uint texture);
        [DllImport(Gles)] static extern void glBindTexture(int target, uint texture);
        [DllImport(Gles)] static extern void glTexStorage2D(int target, int levels, int format, int width, int height);
        [DllImport(Gles)] static extern void glTexParameteri(int target, int name, int value);
        [DllImport(Gles)] static extern void glGenBuffers(int n, out uint buffer);
        [DllImport(Gles)] static extern void glDeleteBuffers(int n, ref uint buffer);
        [DllImport(Gles)] static extern void glBindBuffer(int target, uint buffer);
        [DllImport(Gles)] static extern void glBufferData(int target, IntPtr size, IntPtr data, int usage);
        [DllImport(Gles)] static extern IntPtr glMapBufferRange(int target, IntPtr offset, IntPtr length, int access);
        [DllImport(Gles)] static extern int glUnmapBuffer(int target);
        [DllImport(Gles)] static extern void glGenFramebuffers(int n, out uint framebuffer);
        [DllImport(Gles)] static extern void glDeleteFramebuffers(int n, ref uint framebuffer);
        [DllImport(Gles)] static extern void glBindFramebuffer(int target, uint framebuffer);
        [DllImport(Gles)] static extern void glFramebufferTexture2D(int target, int attachment, int textarget, uint texture, int level);
        [DllImport(Gles)] static extern void glPixelStorei(int name, int value);
        [DllImport(Gles)] static extern void glReadPixels(int x, int y, int width, int height, int format, int type, byte[] pixels);
        [DllImport(Gles)] static extern int glGetError();

        // The engine's side of the plug-in interface: what the engine itself calls, never a script.
        [DllImport("OzmUnityPlugin")] static extern void UnityPluginLoad(IntPtr interfaces);
        [DllImport("OzmUnityPlugin")] static extern void UnitySetGraphicsDevice(IntPtr device, int deviceType, int eventType);

        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        public delegate void RenderEvent(int eventId);

        const int EglPlatformSurfacelessMesa = 0x31DD;
        const int EglOpenGlEsApi = 0x30A0;
        const int EglNone = 0x3038;
        const int GlTexture2D = 0x0DE1, GlRgba8 = 0x8058, GlRgba = 0x1908, GlUnsignedByte = 0x1401;
        const int GlArrayBuffer = 0x8892, GlElementArrayBuffer = 0x8893, GlCopyReadBuffer = 0x8F36, GlDynamicDraw = 0x88E8;
        const int GlFramebuffer = 0x8D40, GlColorAttachment0 = 0x8CE0, GlPackAlignment = 0x0D05, GlMapReadBit = 0x1;
        const int DeviceTypeGles3 = 8, DeviceEventInitialize = 0, DeviceEventShutdown = 1;

        IntPtr m_display, m_surface, m_context;
        readonly System.Collections.Generic.Dictionary<IntPtr, RenderEvent> m_events = new System.Collections.Generic.Dictionary<IntPtr, RenderEvent>();

        /// <summary>The plug-in's render event, as GL.IssuePluginEvent would call it.</summary>
        public RenderEvent Render { get; private set; }

        /// <summary>Makes the context current on this thread and hands it to the plug-in; throws with
        /// the EGL error when the platform has no such context.</summary>
        public GlEngine(IntPtr renderEventFunction)
        {
            var getDisplay = (GetPlatformDisplay)Marshal.GetDelegateForFunctionPointer(
                Required(eglGetProcAddress("eglGetPlatformDisplayEXT"), "eglGetPlatformDisplayEXT"), typeof(GetPlatformDisplay));
            m_display = Required(getDisplay(EglPlatformSurfacelessMesa, IntPtr.Zero, IntPtr.Zero), "a surfaceless display");
            int major, minor, count;
            Required(eglInitialize(m_display, out major, out minor), "eglInitialize");
            Required(eglBindAPI(EglOpenGlEsApi), "eglBindAPI");
            var configs = new IntPtr[1];
            int[] configAttributes = { 0x3033 /* SURFACE_TYPE */, 0x1 /* PBUFFER */, 0x3040 /* RENDERABLE_TYPE */, 0x40 /* ES3 */,
                                       0x3024, 8, 0x3023, 8, 0x3022, 8, 0x3021, 8 /* R, G, B, A sizes */, EglNone };
            Required(eglChooseConfig(m_display, configAttributes, configs, 1, out count) != 0 && count > 0 ? 1 : 0, "a GLES 3 pbuffer config");
            m_surface = Required(eglCreatePbufferSurface(m_display, configs[0], new[] { 0x3057, 16, 0x3056, 16, EglNone }), "a pbuffer");
            m_context = Required(eglCreateContext(m_display, configs[0], IntPtr.Zero, new[] { 0x3098, 3, EglNone }), "a GLES 3 context");
            Required(eglMakeCurrent(m_display, m_surface, m_surface, m_context), "eglMakeCurrent");
            UnityPluginLoad(IntPtr.Zero);
            UnitySetGraphicsDevice(IntPtr.Zero, DeviceTypeGles3, DeviceEventInitialize);
            Render = (RenderEvent)Marshal.GetDelegateForFunctionPointer(renderEventFunction, typeof(RenderEvent));
        }

        static IntPtr Required(IntPtr value, string what)
        {
            if (value == IntPtr.Zero) throw new InvalidOperationException("EGL gives no " + what + " (error 0x" + eglGetError().ToString("x") + ")");
            return value;
        }

        static void Required(int ok, string what)
        {
            if (ok == 0) throw new InvalidOperationException(what + " failed (EGL error 0x" + eglGetError().ToString("x") + ")");
        }

        /// <summary>What the engine makes for a mesh and its texture: GL names and capacities.</summary>
        public sealed class Targets
        {
            public uint Texture, VertexBuffer, IndexBuffer, Framebuffer;
            public int Width, Height;
            public uint VertexCapacity, IndexCapacity;
        }

        public Targets MakeTargets(int width, int height, uint vertexCapacity, uint indexCapacity, int vertexStride)
        {
            var t = new Targets { Width = width, Height = height, VertexCapacity = vertexCapacity, IndexCapacity = indexCapacity };
            t.Texture = CreateTexture(width, height);
            t.VertexBuffer = CreateBuffer(false, (long)vertexCapacity * vertexStride);
            t.IndexBuffer = CreateBuffer(true, (long)indexCapacity * 4);
            glGenFramebuffers(1, out t.Framebuffer);
            return t;
        }

        public void DeleteTargets(Targets t)
        {
            DeleteTexture(t.Texture);
            DeleteBuffer(t.VertexBuffer);
            DeleteBuffer(t.IndexBuffer);
            glDeleteFramebuffers(1, ref t.Framebuffer);
        }

        /// <summary>An RGBA8 texture, as the engine makes for an RGBA32 texture.</summary>
        public uint CreateTexture(int width, int height)
        {
            uint texture;
            glGenTextures(1, out texture);
            glBindTexture(GlTexture2D, texture);
            glTexStorage2D(GlTexture2D, 1, GlRgba8, width, height);
            glTexParameteri(GlTexture2D, 0x2801 /* MIN_FILTER */, 0x2601 /* LINEAR */);
            glBindTexture(GlTexture2D, 0);
            return texture;
        }

        /// <summary>A vertex or index buffer of the given size, contents undefined.</summary>
        public uint CreateBuffer(bool index, long bytes)
        {
            int target = index ? GlElementArrayBuffer : GlArrayBuffer;
            uint buffer;
            glGenBuffers(1, out buffer);
            glBindBuffer(target, buffer);
            glBufferData(target, new IntPtr(bytes), IntPtr.Zero, GlDynamicDraw);
            glBindBuffer(target, 0);
            return buffer;
        }

        public void DeleteTexture(uint texture)
        {
            glDeleteTextures(1, ref texture);
        }

        public void DeleteBuffer(uint buffer)
        {
            glDeleteBuffers(1, ref buffer);
        }

        /// <summary>Calls a render-event function of the plug-in, as GL.IssuePluginEvent does.</summary>
        public void IssuePluginEvent(IntPtr function, int eventId)
        {
            RenderEvent call;
            if (!m_events.TryGetValue(function, out call))
            {
                call = (RenderEvent)Marshal.GetDelegateForFunctionPointer(function, typeof(RenderEvent));
                m_events[function] = call;
            }
            call(eventId);
        }

        /// <summary>The bytes of a texture, read through a framebuffer.</summary>
        public byte[] ReadTexture(uint texture, int width, int height)
        {
            uint framebuffer;
            glGenFramebuffers(1, out framebuffer);
            var t = new Targets { Texture = texture, Width = width, Height = height, Framebuffer = framebuffer };
            byte[] pixels = ReadTexture(t);
            glDeleteFramebuffers(1, ref framebuffer);
            return pixels;
        }

        /// <summary>The first bytes of a buffer; null when it cannot be mapped.</summary>
        public byte[] ReadBuffer(uint buffer, int bytes)
        {
            var data = new byte[bytes];
            if (bytes == 0) return data;
            glBindBuffer(GlCopyReadBuffer, buffer);
            IntPtr mapped = glMapBufferRange(GlCopyReadBuffer, IntPtr.Zero, new IntPtr(bytes), GlMapReadBit);
            if (mapped != IntPtr.Zero)
            {
                Marshal.Copy(mapped, data, 0, bytes);
                glUnmapBuffer(GlCopyReadBuffer);
            }
            glBindBuffer(GlCopyReadBuffer, 0);
            return mapped == IntPtr.Zero ? null : data;
        }

        /// <summary>The texture's pixels, RGBA rows from the bottom up.</summary>
        public byte[] ReadTexture(Targets t)
        {
            var pixels = new byte[t.Width * t.Height * 4];
            glBindFramebuffer(GlFramebuffer, t.Framebuffer);
            glFramebufferTexture2D(GlFramebuffer, GlColorAttachment0, GlTexture2D, t.Texture, 0);
            glPixelStorei(GlPackAlignment, 1);
            glReadPixels(0, 0, t.Width, t.Height, GlRgba, GlUnsignedByte, pixels);
            glBindFramebuffer(GlFramebuffer, 0);
            return pixels;
        }

        public int Error()
        {
            return glGetError();
        }

        public void Dispose()
        {
            if (m_context == IntPtr.Zero) return;
            UnitySetGraphicsDevice(IntPtr.Zero, DeviceTypeGles3, DeviceEventShutdown);
            eglMakeCurrent(m_display, IntPtr.Zero, IntPtr.Zero, IntPtr.Zero);
            eglDestroyContext(m_display, m_context);
            eglDestroySurface(m_display, m_surface);
            m_context = IntPtr.Zero;
        }
    }
}
