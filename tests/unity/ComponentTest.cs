// The player component (unity/Runtime/OzmVolumetricPlayer.cs) run in a stand-in engine: the engine's
// scripting API from tests/unity/engine-stubs, whose textures, mesh buffers and render events are real
// OpenGL ES objects and calls (GlEngine), and the built host library. The test plays the engine's
// loop itself: Update on the component, then the end of the frame, where the component's coroutine
// issues the render event.
//
//   mono ComponentTest.exe <clip.mp4> <work folder>
// The clip is 30 frames at 30 fps with 256x256 pictures and no audio.
using System;
using System.Collections.Generic;
using System.Diagnostics;
using System.IO;
using System.Linq;
using System.Threading;
using EngineStubs;
using Ozm.Volumetric;
using UnityEngine;
using UnityEngine.Rendering;

namespace OzmTests
{
    static class ComponentTest
    {
        const int Frames = 30;

        sealed class GlGraphics : IGraphics
        {
            public readonly GlEngine Gl;
            public GlGraphics(GlEngine gl) { Gl = gl; }
            public uint CreateTexture(int width, int height) { return Gl.CreateTexture(width, height); }
            public uint CreateBuffer(bool index, int bytes) { return Gl.CreateBuffer(index, bytes); }
            public void DeleteTexture(uint name) { Gl.DeleteTexture(name); }
            public void DeleteBuffer(uint name) { Gl.DeleteBuffer(name); }
            public void IssuePluginEvent(IntPtr callback, int eventId) { Gl.IssuePluginEvent(callback, eventId); }
        }

        // One object with a player on it, as a scene would hold it.
        sealed class Scene
        {
            public GameObject Object;
            public OzmVolumetricPlayer Player;
            public MeshFilter Filter;
            public MeshRenderer Renderer;
            public int OpenedEvents;
            public int Ends;
            public readonly List<uint> FrameIds = new List<uint>();

            public static Scene Make(string clip, bool loop, bool playOnEnable)
            {
                var s = new Scene { Object = new GameObject("volumetric") };
                s.Object.SetActive(false);
                s.Filter = s.Object.AddComponent<MeshFilter>();
                s.Renderer = s.Object.AddComponent<MeshRenderer>();
                s.Renderer.sharedMaterial = new Material(Shader.Find("Unlit/Texture"));
                s.Player = s.Object.AddComponent<OzmVolumetricPlayer>();
                s.Player.Path = clip;
                s.Player.Loop = loop;
                s.Player.PlayOnEnable = playOnEnable;
                s.Player.DisableAudio = true;
                s.Player.Opened.AddListener(() => s.OpenedEvents++);
                s.Player.EndOfClip.AddListener(() => s.Ends++);
                s.Object.SetActive(true);
                return s;
            }

            // One engine frame: Update, then the end of the frame.
            public void Frame()
            {
                Engine.Send(Player, "Update");
                Engine.EndOfFrame();
                uint id = Player.FrameInfo.frameId;
                if (id != 0 && (FrameIds.Count == 0 || FrameIds[FrameIds.Count - 1] != id)) FrameIds.Add(id);
                Thread.Sleep(16);
            }

            public bool RunUntil(Func<bool> done, double seconds)
            {
                var clock = Stopwatch.StartNew();
                while (clock.Elapsed.TotalSeconds < seconds)
                {
                    Frame();
                    if (done()) return true;
                }
                return false;
            }

            public void RunFrames(int count)
            {
                for (int i = 0; i < count; ++i) Frame();
            }

            public string Ids()
            {
                return string.Join(" ", FrameIds.Select(i => i.ToString()).ToArray());
            }
        }

        static NativeLog s_log;
        static GlEngine s_gl;
        static string s_clip;

        static int Main(string[] args)
        {
            if (args.Length != 2)
            {
                Console.WriteLine("usage: ComponentTest.exe <clip.mp4> <work folder>");
                return 2;
            }
            s_clip = Path.GetFullPath(args[0]);
            string work = Path.GetFullPath(args[1]);
            Directory.CreateDirectory(work);
            using (s_log = new NativeLog(Path.Combine(work, "plugin.log")))
            {
                Check.Run("clip paths: what the plug-in is given", ClipPaths);
                Check.Run("an OpenGL ES context stands in for the engine's", () =>
                {
                    s_gl = new GlEngine(OzmNative.GetUnityRenderModeEventFunc());
                    Engine.Graphics = new GlGraphics(s_gl);
                });
                if (s_gl != null)
                {
                    Engine.StreamingAssetsPath = Path.GetDirectoryName(s_clip);
                    Check.Run("plays a clip through the engine's mesh and texture and stops at its end", PlaysAndStops);
                    Check.Run("looping: the player's own, turned on and turned off while open", Looping);
                    Check.Run("a change of computed normals makes a new native player", NormalsMakeANewPlayer);
                    Check.Run("bad input gives a clear error and makes nothing", BadInput);
                    Check.Run("on Android: one Java object from the activity, clips as asset paths", Android);
                    Engine.Graphics = null;
                    s_gl.Dispose();
                }
            }
            if (Check.Failures > 0) Console.WriteLine("the plug-in's last log lines:\n" + s_log.Tail(40));
            return Check.Summary("ComponentTest");
        }

        static void ClipPaths()
        {
            const string desktop = "/game/Data/StreamingAssets";
            const string apk = "jar:file:///data/app/com.example.game/base.apk!/assets";
            var cases = new[]
            {
                new { Clip = "clip.mp4", Android = false, Root = desktop, Expected = desktop + "/clip.mp4" },
                new { Clip = "  clips/a.mp4 ", Android = false, Root = desktop, Expected = desktop + "/clips/a.mp4" },
                new { Clip = "/data/clip.mp4", Android = false, Root = desktop, Expected = "/data/clip.mp4" },
                new { Clip = "file:///data/clip.mp4", Android = false, Root = desktop, Expected = "/data/clip.mp4" },
                new { Clip = "https://cdn.example/v1/clip.m3u8", Android = false, Root = desktop, Expected = "https://cdn.example/v1/clip.m3u8" },
                new { Clip = "HTTP://cdn.example/clip.m3u8", Android = true, Root = apk, Expected = "HTTP://cdn.example/clip.m3u8" },
                new { Clip = "clip.mp4", Android = true, Root = apk, Expected = "clip.mp4" },
                new { Clip = "clips\\a.mp4", Android = true, Root = apk, Expected = "clips/a.mp4" },
                new { Clip = "./clips/a.mp4", Android = true, Root = apk, Expected = "clips/a.mp4" },
                new { Clip = apk + "/clips/a.mp4", Android = true, Root = apk, Expected = "clips/a.mp4" },
                new { Clip = "/sdcard/Movies/clip.mp4", Android = true, Root = apk, Expected = "/sdcard/Movies/clip.mp4" },
                new { Clip = "file:///sdcard/clip.mp4", Android = true, Root = apk, Expected = "/sdcard/clip.mp4" },
                new { Clip = "", Android = false, Root = desktop, Expected = (string)null },
                new { Clip = "   ", Android = true, Root = apk, Expected = (string)null },
                new { Clip = (string)null, Android = false, Root = desktop, Expected = (string)null },
            };
            foreach (var c in cases)
            {
                Check.Equal(c.Expected, OzmVolumetricPlayer.ResolvePath(c.Clip, c.Android, c.Root),
                            "\"" + c.Clip + "\" on " + (c.Android ? "Android" : "the desktop"));
            }
        }

        static int Errors()
        {
            return Engine.Count(LogType.Error) + Engine.Count(LogType.Exception);
        }

        static void PlaysAndStops()
        {
            int errors = Errors();
            int eventsBefore = Engine.PluginEvents.Count;
            int mark = s_log.Mark();
            Scene s = Scene.Make(Path.GetFileName(s_clip), false, true);
            OzmVolumetricPlayer p = s.Player;
            Check.True(p.IsOpening, "enabling starts opening");
            Check.True(s.RunUntil(() => s.Ends > 0, 20), "the end of the clip (frames " + s.Ids() + ")");
            s.RunFrames(20);
            Check.Equal(1, s.OpenedEvents, "opened events");
            Check.Equal(1, s.Ends, "end-of-clip events, also after more frames");
            Check.True(p.IsOpen && !p.IsPlaying, "open and no longer playing at the end");
            Check.Equal(errors, Errors(), "errors logged");

            OzmFileInfo file = p.FileInfo;
            Check.Equal((uint)Frames, file.frameCount, "frame count");
            Texture2D texture = p.Texture;
            Mesh mesh = p.Mesh;
            if (!Check.True(texture != null && mesh != null, "a texture and a mesh")) return;
            Check.True(texture.width == 256 && texture.height == 256 && texture.format == TextureFormat.RGBA32 && !texture.isReadable,
                       "texture " + texture.width + "x" + texture.height + " " + texture.format + ", readable " + texture.isReadable);

            // The mesh as the plug-in fills it: 32-byte vertices (position, normal, uv floats), 32-bit
            // indices, as many as the clip's largest frame.
            VertexAttributeDescriptor[] layout = mesh.GetVertexAttributes();
            var expected = new[]
            {
                new { Attribute = VertexAttribute.Position, Dimension = 3 },
                new { Attribute = VertexAttribute.Normal, Dimension = 3 },
                new { Attribute = VertexAttribute.TexCoord0, Dimension = 2 },
            };
            if (Check.Equal(expected.Length, layout.Length, "vertex attributes"))
            {
                for (int i = 0; i < layout.Length; ++i)
                {
                    Check.True(layout[i].attribute == expected[i].Attribute && layout[i].dimension == expected[i].Dimension &&
                               layout[i].format == VertexAttributeFormat.Float32 && layout[i].stream == 0,
                               "attribute " + i + ": " + layout[i].attribute + " " + layout[i].format + " x" + layout[i].dimension + " in stream " + layout[i].stream);
                }
            }
            Check.Equal(OzmNative.VertexStride, mesh.GetVertexBufferStride(0), "vertex stride");
            Check.Equal((int)file.maxVertexCount, mesh.vertexCount, "vertices");
            Check.Equal(IndexFormat.UInt32, mesh.indexFormat, "index format");
            Check.Equal((int)file.maxIndexCount, mesh.m_indexCount, "indices");
            Check.True(s.Filter.sharedMesh == mesh, "the mesh filter shows the mesh");
            var block = new MaterialPropertyBlock();
            s.Renderer.GetPropertyBlock(block);
            Check.True(block.GetTexture("_MainTex") == texture, "the material shows the texture");

            // The engine's objects went to the plug-in, and it drew into them.
            string registered = "[" + p.PlayerId + "] SetUnityBuffers, vb = " + mesh.GetNativeVertexBufferPtr(0) + ", ib = " +
                                mesh.GetNativeIndexBufferPtr() + ", tex = " + texture.GetNativeTexturePtr();
            Check.Equal(1, NativeLog.Count(s_log.Since(mark), registered), "the plug-in logs \"" + registered + "\"");
            List<PluginEvent> events = Engine.PluginEvents.Skip(eventsBefore).ToList();
            Check.True(events.All(e => e.Callback == OzmNative.GetUnityRenderModeEventFunc() && e.EventId == p.PlayerId),
                       "every render event is the plug-in's, for this player");
            Check.Equal(p.RenderEvents, events.Count, "one render event per frame while open");
            Check.True(s.FrameIds.Count >= Frames / 3 && s.FrameIds.Last() == Frames, "frames drawn: " + s.Ids());
            for (int i = 1; i < s.FrameIds.Count; ++i) Check.True(s.FrameIds[i] > s.FrameIds[i - 1], "frame ids ascend: " + s.Ids());
            byte[] pixels = s_gl.ReadTexture((uint)texture.GetNativeTexturePtr().ToInt64(), texture.width, texture.height);
            Check.True(pixels.Any(b => b != 0), "the texture holds a picture");

            // The index count and box drawn follow the frame.
            SubMeshDescriptor subMesh = mesh.GetSubMesh(0);
            OzmFrameInfo last = p.FrameInfo;
            Check.True(subMesh.indexCount >= last.indexCount && subMesh.indexCount <= file.maxIndexCount && subMesh.indexCount % 3 == 0,
                       "sub-mesh of " + subMesh.indexCount + " indices for a frame of " + last.indexCount);
            Check.True((mesh.m_lastSubMeshFlags & MeshUpdateFlags.DontRecalculateBounds) != 0 &&
                       (mesh.m_lastSubMeshFlags & MeshUpdateFlags.DontValidateIndices) != 0, "the engine neither validates nor recomputes");
            Bounds box = mesh.bounds;
            const float slack = 1e-3f;
            Check.True(box.size.x > 0 && box.min.x >= file.bboxMinX - slack && box.max.x <= file.bboxMaxX + slack &&
                       box.min.y >= file.bboxMinY - slack && box.max.y <= file.bboxMaxY + slack &&
                       box.min.z >= file.bboxMinZ - slack && box.max.z <= file.bboxMaxZ + slack &&
                       box.min.y <= last.bboxMinY + slack && box.max.y >= last.bboxMaxY - slack,
                       "mesh bounds " + box + " hold the last frame's and lie in the clip's");

            // Play after the end starts over; a pause holds the frame.
            s.FrameIds.Clear();
            s.FrameIds.Add(p.FrameInfo.frameId);
            p.Play();
            Check.True(s.RunUntil(() => s.FrameIds.Count > 2 && s.FrameIds.Last() >= 10, 10), "frames after the end: " + s.Ids());
            Check.True(s.FrameIds.Count > 1 && s.FrameIds[1] < 10, "Play after the end starts over: " + s.Ids());
            p.Pause();
            Check.True(!p.IsPlaying && p.State == OzmPlayerState.Paused, "paused");
            s.RunFrames(10);
            uint held = p.FrameInfo.frameId;
            s.RunFrames(20);
            Check.Equal(held, p.FrameInfo.frameId, "the frame while paused");
            p.Play();
            Check.True(s.RunUntil(() => s.Ends == 2, 10), "the second end: " + s.Ids());

            // Disabling releases everything: no player, texture, mesh or render event is left.
            int id = p.PlayerId;
            p.enabled = false;
            Check.Equal(OzmPlayerState.UnknownId, OzmNative.GetState(id), "the native player after disabling");
            Check.True(texture == null && mesh == null && p.Texture == null && p.Mesh == null, "texture and mesh destroyed");
            Check.True(s.Filter.sharedMesh == null, "the mesh filter lets go of the mesh");
            Check.Equal(-1, p.PlayerId, "player id after disabling");
            int eventsNow = Engine.PluginEvents.Count;
            s.RunFrames(3);
            Check.Equal(eventsNow, Engine.PluginEvents.Count, "render events after disabling");

            // Enabling again opens the clip with a new player; destroying the object releases it.
            p.enabled = true;
            Check.True(s.RunUntil(() => p.IsOpen, 10), "open again after enabling");
            int again = p.PlayerId;
            Check.True(again >= 0 && again != id, "a new native player");
            UnityEngine.Object.Destroy(s.Object);
            Check.Equal(OzmPlayerState.UnknownId, OzmNative.GetState(again), "the native player after destroying the object");
            Check.Equal(errors, Errors(), "errors logged");
        }

        static void Looping()
        {
            int errors = Errors();
            // Opened without looping; turned on while open: the component starts the clip over.
            Scene s = Scene.Make(s_clip, false, true);
            OzmVolumetricPlayer p = s.Player;
            Check.True(s.RunUntil(() => p.IsOpen && p.FrameInfo.frameId >= 5, 10), "playing: " + s.Ids());
            p.Loop = true;
            Check.True(s.RunUntil(() => s.Ends >= 2 && s.FrameIds.Last() < 20, 20), "two ends and a new pass: " + s.Ids());
            Check.True(p.IsPlaying, "still playing");
            Check.True(Restarts(s.FrameIds) >= 2, "the frame ids start over at every end: " + s.Ids());
            UnityEngine.Object.Destroy(s.Object);

            // Opened with the player's own looping; turned off while open: it stops at the start.
            s = Scene.Make(s_clip, true, true);
            p = s.Player;
            Check.True(s.RunUntil(() => s.Ends >= 1 && s.FrameIds.Last() < 20, 20), "an end and a new pass: " + s.Ids());
            Check.True(p.IsPlaying, "playing after the player's own restart");
            p.Loop = false;
            int ends = s.Ends;
            Check.True(s.RunUntil(() => s.Ends > ends, 20), "the next end: " + s.Ids());
            s.RunFrames(15);
            Check.True(!p.IsPlaying && p.State == OzmPlayerState.Paused, "stopped at the end, state " + p.State);
            Check.Equal(ends + 1, s.Ends, "no further end");
            UnityEngine.Object.Destroy(s.Object);
            Check.Equal(errors, Errors(), "errors logged");
        }

        static int Restarts(List<uint> ids)
        {
            int restarts = 0;
            for (int i = 1; i < ids.Count; ++i) restarts += ids[i] < ids[i - 1] ? 1 : 0;
            return restarts;
        }

        static void NormalsMakeANewPlayer()
        {
            Scene s = Scene.Make(s_clip, false, false);
            OzmVolumetricPlayer p = s.Player;
            Check.True(p.Open(), "open");
            Check.True(s.RunUntil(() => p.IsOpen, 10), "opened");
            int first = p.PlayerId;
            p.Close();
            Check.Equal(first, p.PlayerId, "Close keeps the native player");
            Check.True(p.Open(), "open again");
            Check.True(s.RunUntil(() => p.IsOpen, 10), "opened again");
            Check.Equal(first, p.PlayerId, "the same settings keep the native player");
            int mark = s_log.Mark();
            p.ComputeNormals = true;
            Check.True(p.Open(), "open with computed normals");
            Check.True(s.RunUntil(() => p.IsOpen, 10), "opened with computed normals");
            int second = p.PlayerId;
            Check.True(second != first, "a new native player");
            Check.Equal(OzmPlayerState.UnknownId, OzmNative.GetState(first), "the old native player is gone");
            Check.Equal(1, NativeLog.Count(s_log.Since(mark), "[" + second + "] SetComputeNormals called with computeNormals = 1"),
                        "the new player computes normals");
            UnityEngine.Object.Destroy(s.Object);
        }

        static void BadInput()
        {
            string missing = Path.Combine(Path.GetDirectoryName(s_clip), "no-such-clip.mp4");
            string junk = Path.Combine(Path.GetTempPath(), "ozm-component-junk-" + Process.GetCurrentProcess().Id + ".mp4");
            File.WriteAllBytes(junk, Enumerable.Range(0, 50000).Select(i => (byte)(i * 7919 >> 3)).ToArray());
            var cases = new[]
            {
                new { Name = "no path", Clip = "", Device = GraphicsDeviceType.OpenGLES3, Starts = false, Error = "no clip to open" },
                new { Name = "a missing file", Clip = missing, Device = GraphicsDeviceType.OpenGLES3, Starts = true, Error = "cannot open " + missing },
                new { Name = "not a clip", Clip = junk, Device = GraphicsDeviceType.OpenGLES3, Starts = true, Error = "cannot open " + junk },
                new { Name = "Vulkan", Clip = s_clip, Device = GraphicsDeviceType.Vulkan, Starts = false, Error = "OpenGLES3" },
                new { Name = "desktop OpenGL", Clip = s_clip, Device = GraphicsDeviceType.OpenGLCore, Starts = false, Error = "OpenGLES3" },
            };
            foreach (var c in cases)
            {
                Engine.GraphicsDevice = c.Device;
                int errors = Engine.Count(LogType.Error);
                int exceptions = Engine.Count(LogType.Exception);
                int events = Engine.PluginEvents.Count;
                Scene s = Scene.Make(c.Clip, false, false);
                OzmVolumetricPlayer p = s.Player;
                Check.Equal(c.Starts, p.Open(), c.Name + ": Open starts");
                s.RunUntil(() => !p.IsOpening, 10);
                s.RunFrames(3);
                Check.True(!p.IsOpen && !p.IsOpening && p.Texture == null && p.Mesh == null && s.Filter.sharedMesh == null,
                           c.Name + ": nothing open, no texture or mesh");
                Check.Equal(events, Engine.PluginEvents.Count, c.Name + ": render events");
                Check.Equal(errors + 1, Engine.Count(LogType.Error), c.Name + ": one error");
                Check.True(Engine.Log.Last(e => e.Type == LogType.Error).Message.Contains(c.Error), c.Name + ": the error says \"" + c.Error + "\"");
                Check.Equal(exceptions, Engine.Count(LogType.Exception), c.Name + ": exceptions");
                if (!c.Starts) Check.Equal(-1, p.PlayerId, c.Name + ": no native player");
                UnityEngine.Object.Destroy(s.Object);
            }
            Engine.GraphicsDevice = GraphicsDeviceType.OpenGLES3;
            File.Delete(junk);
        }

        static void Android()
        {
            Engine.Platform = RuntimePlatform.Android;
            Engine.StreamingAssetsPath = "jar:file:///data/app/com.example.game/base.apk!/assets";
            int mark = s_log.Mark();
            int errors = Engine.Count(LogType.Error);
            var scenes = new[] { Scene.Make("clips/clip.mp4", false, true), Scene.Make("clips/clip.mp4", false, true) };
            foreach (Scene s in scenes) s.RunUntil(() => !s.Player.IsOpening, 10);
            List<JavaObjectRecord> made = Engine.JavaCalls.Where(j => j.ClassName.StartsWith(OzmAndroidPlugin.JavaClass)).ToList();
            if (Check.Equal(1, made.Count, "calls on the plug-in's Java class"))
            {
                Check.Equal(OzmAndroidPlugin.JavaClass + ".create", made[0].ClassName, "the Java object's factory");
                var activity = made[0].Arguments.Length == 1 ? made[0].Arguments[0] as AndroidJavaObject : null;
                Check.True(activity != null && activity.m_className == "com.unity3d.player.UnityPlayer.currentActivity",
                           "the factory is given the current activity");
            }
            Check.Equal(2, NativeLog.Count(s_log.Since(mark), "LumoObject::Open called with path = clips/clip.mp4"),
                        "the plug-in is given the asset path");
            // The host library has no application assets: both fail, clearly.
            Check.Equal(errors + 2, Engine.Count(LogType.Error), "errors");
            foreach (Scene s in scenes) UnityEngine.Object.Destroy(s.Object);
            Engine.Platform = RuntimePlatform.LinuxEditor;
        }
    }
}
