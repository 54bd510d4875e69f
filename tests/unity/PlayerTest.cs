// Players driven through the C# binding (unity/Runtime/OzmNative.cs) and the built host library, the
// way an engine script drives them: ids, unknown ids, bad paths, file and frame information, states,
// the open options, and then, with an OpenGL ES context of its own standing in for the engine's
// render thread, playback through the render-event function into engine buffers: the frames and
// what the buffers hold, the end of the clip, rewind, close and destroy.
//
//   mono PlayerTest.exe <clip.mp4> <clip with audio.mp4> <work folder>
// The clips are 30 frames at 30 fps with 256x256 pictures, made by `ozm encode --sample`.
using System;
using System.Collections.Generic;
using System.Diagnostics;
using System.IO;
using System.Linq;
using System.Threading;
using Ozm.Volumetric;

namespace OzmTests
{
    static class PlayerTest
    {
        const int Frames = 30;
        const int TextureSize = 256;
        const long FrameTicks = 10000000 / 30;  // 100 ns units

        static NativeLog s_log;
        static string s_clip, s_audioClip, s_work;

        static int Main(string[] args)
        {
            if (args.Length != 3)
            {
                Console.WriteLine("usage: PlayerTest.exe <clip.mp4> <clip with audio.mp4> <work folder>");
                return 2;
            }
            s_clip = Path.GetFullPath(args[0]);
            s_audioClip = Path.GetFullPath(args[1]);
            s_work = Path.GetFullPath(args[2]);
            Directory.CreateDirectory(s_work);
            using (s_log = new NativeLog(Path.Combine(s_work, "plugin.log")))
            {
                Check.Run("ids count up from 0 and are never reused; a new player is Initialized", Ids);
                Check.Run("unknown ids: every function's result and log", UnknownIds);
                Check.Run("bad paths fail with a log line and leave the player usable", BadPaths);
                Check.Run("file and frame information, and the states of an opened clip", Information);
                Check.Run("byte 0 of the open options declines the audio track", AudioOption);
                GlEngine engine = null;
                Check.Run("an OpenGL ES context stands in for the engine's", () =>
                {
                    engine = new GlEngine(OzmNative.GetUnityRenderModeEventFunc());
                });
                if (engine != null)
                {
                    Check.Run("plays to the end through render events into engine buffers", () => PlaysToTheEnd(engine));
                    engine.Dispose();
                }
                Check.True(OzmNative.PlatformAbi().Contains("%s"), "the ABI text keeps its unexpanded %s");
            }
            if (Check.Failures > 0)
            {
                Console.WriteLine("the plug-in's last log lines:\n" + s_log.Tail(40));
            }
            return Check.Summary("PlayerTest");
        }

        static void Ids()
        {
            int first = OzmNative.CreateLumoObject();
            int second = OzmNative.CreateLumoObject();
            Check.Equal(0, first, "the first id");
            Check.Equal(1, second, "the second id");
            Check.Equal(OzmPlayerState.Initialized, OzmNative.GetState(first), "state of a new player");
            Check.Equal(1, OzmNative.DestroyLumoObject(first), "destroy");
            Check.Equal(OzmPlayerState.UnknownId, OzmNative.GetState(first), "state of a destroyed player");
            int third = OzmNative.CreateLumoObject();
            Check.Equal(2, third, "the id after a destroy");
            OzmNative.DestroyLumoObject(second);
            OzmNative.DestroyLumoObject(third);
        }

        struct UnknownIdCase
        {
            public string Name;
            public Func<int, int> Call;
            public int? Result;  // null: the result has no meaning
            public bool Logs;    // logs "<Name>: player object with id = <id> not found"
        }

        static void UnknownIds()
        {
            var open = OzmOpenInfo.Create(false, false);
            var cases = new[]
            {
                new UnknownIdCase { Name = "DestroyLumoObject", Call = id => OzmNative.DestroyLumoObject(id), Result = 0, Logs = true },
                new UnknownIdCase { Name = "OpenLumoObject", Call = id => OzmNative.OpenLumoObject(id, s_clip, ref open), Result = 0, Logs = false },
                new UnknownIdCase { Name = "PlayLumoObject", Call = id => OzmNative.PlayLumoObject(id), Result = 0, Logs = true },
                new UnknownIdCase { Name = "PauseLumoObject", Call = id => OzmNative.PauseLumoObject(id), Result = 0, Logs = true },
                new UnknownIdCase { Name = "RewindLumoObject", Call = id => OzmNative.RewindLumoObject(id), Result = 0, Logs = true },
                new UnknownIdCase { Name = "CloseLumoObject", Call = id => OzmNative.CloseLumoObject(id), Result = 0, Logs = true },
                new UnknownIdCase { Name = "GetLumoState", Call = id => OzmNative.GetLumoState(id), Result = 6, Logs = true },
                new UnknownIdCase { Name = "GetLumoObjectFileInfo", Call = FileInfoUntouched, Result = 0, Logs = true },
                new UnknownIdCase { Name = "GetLumoObjectFrameInfo", Call = FrameInfoOf, Result = 0, Logs = true },
                new UnknownIdCase { Name = "SetClockScale", Call = id => OzmNative.SetClockScale(id, 2), Result = null, Logs = true },
                new UnknownIdCase { Name = "SetAudioVolume", Call = id => OzmNative.SetAudioVolume(id, 0.5f), Result = 0, Logs = true },
                new UnknownIdCase { Name = "SetComputeNormals", Call = id => OzmNative.SetComputeNormals(id, 1), Result = 0, Logs = true },
                new UnknownIdCase { Name = "SetUnityBuffers", Call = id => OzmNative.SetUnityBuffers(id, 1, 16, 16, 2, 10, 3, 30), Result = 0, Logs = false },
                // Kept for the binding only: they accept anything and do nothing.
                new UnknownIdCase { Name = "SetLumoObjectAudio3DPosition", Call = id => OzmNative.SetLumoObjectAudio3DPosition(id, 1, 2, 3), Result = 1, Logs = false },
                new UnknownIdCase { Name = "SetUseGPU", Call = id => OzmNative.SetUseGPU(id, 1), Result = 1, Logs = false },
                new UnknownIdCase { Name = "TestUnityBuffersValid", Call = id => OzmNative.TestUnityBuffersValid(id), Result = 1, Logs = false },
                new UnknownIdCase { Name = "ReleaseUnityBuffers", Call = id => OzmNative.ReleaseUnityBuffers(id), Result = 1, Logs = false },
            };
            int destroyed = OzmNative.CreateLumoObject();
            OzmNative.DestroyLumoObject(destroyed);
            foreach (int id in new[] { 424242, destroyed, -1 })
            {
                foreach (UnknownIdCase c in cases)
                {
                    int mark = s_log.Mark();
                    int result = c.Call(id);
                    string[] lines = s_log.Since(mark);
                    string what = c.Name + "(" + id + ")";
                    if (c.Result.HasValue) Check.Equal(c.Result.Value, result, what + " result");
                    string message = "E/OzmUnityPlugin: " + c.Name + ": player object with id = " + id + " not found";
                    if (c.Logs)
                    {
                        Check.True(lines.Length == 1 && lines[0] == message, what + " logs \"" + message + "\", got: " + string.Join(" | ", lines));
                    }
                    else
                    {
                        Check.Equal(0, lines.Length, what + " log lines");
                    }
                }
            }
        }

        static int FileInfoUntouched(int id)
        {
            var info = new OzmFileInfo { frameCount = 777, textureWidth = 55 };
            int result = OzmNative.GetLumoObjectFileInfo(id, ref info);
            Check.True(info.frameCount == 777 && info.textureWidth == 55, "GetLumoObjectFileInfo(" + id + ") left the record alone");
            return result;
        }

        static int FrameInfoOf(int id)
        {
            var info = new OzmFrameInfo();
            return OzmNative.GetLumoObjectFrameInfo(id, ref info);
        }

        struct BadPath
        {
            public string Name;
            public byte[] Path;  // null: no path at all
            public string Logged;
        }

        static void BadPaths()
        {
            string noExtension = Path.Combine(s_work, "clip-without-extension");
            string empty = Path.Combine(s_work, "empty.mp4");
            string junk = Path.Combine(s_work, "junk.mp4");
            string text = Path.Combine(s_work, "clip.txt");
            File.Copy(s_clip, noExtension, true);
            File.Copy(s_clip, text, true);
            File.WriteAllBytes(empty, new byte[0]);
            var random = new Random(7);
            var bytes = new byte[64 * 1024];
            random.NextBytes(bytes);
            File.WriteAllBytes(junk, bytes);

            int id = OzmNative.CreateLumoObject();
            var cases = new[]
            {
                new BadPath { Name = "no such file", Path = OzmNative.Utf8(Path.Combine(s_work, "missing", "clip.mp4")), Logged = "failed to open file" },
                new BadPath { Name = "no such asset", Path = OzmNative.Utf8("missing/clip.mp4"), Logged = "AAssetManager_open returned null" },
                new BadPath { Name = "no extension", Path = OzmNative.Utf8(noExtension), Logged = "No file extension found" },
                new BadPath { Name = "an extension that is no clip", Path = OzmNative.Utf8(text), Logged = "[" + id + "]" },
                new BadPath { Name = "an empty file", Path = OzmNative.Utf8(empty), Logged = "[" + id + "]" },
                new BadPath { Name = "random bytes", Path = OzmNative.Utf8(junk), Logged = "[" + id + "]" },
                new BadPath { Name = "a stream outside the accepted addresses", Path = OzmNative.Utf8("https://streams.invalid/clip.m3u8"), Logged = "[" + id + "]" },
                new BadPath { Name = "no path", Path = null, Logged = "no path" },
            };
            foreach (BadPath c in cases)
            {
                var open = OzmOpenInfo.Create(true, false);
                int mark = s_log.Mark();
                var clock = Stopwatch.StartNew();
                Check.Equal(0, OzmNative.OpenLumoObject(id, c.Path, ref open), c.Name + ": open");
                Check.True(clock.Elapsed.TotalSeconds < 5, c.Name + ": open took " + clock.Elapsed.TotalSeconds + " s");
                // A stream that failed stays with the player until the next Open closes it: the state is
                // Initialized or, after that, Closed, and a next Open is accepted in both.
                OzmPlayerState state = OzmNative.GetState(id);
                Check.True(state == OzmPlayerState.Initialized || state == OzmPlayerState.Closed, c.Name + ": state " + state);
                Check.True(NativeLog.Count(s_log.Since(mark), c.Logged) > 0, c.Name + ": the log says \"" + c.Logged + "\"");
            }
            var good = OzmOpenInfo.Create(true, false);
            Check.Equal(1, OzmNative.OpenLumoObject(id, s_clip, ref good), "the clip opens after the failures");
            Check.Equal(1, OzmNative.DestroyLumoObject(id), "destroy");
        }

        static void Information()
        {
            // A path beyond ASCII reaches the library as UTF-8.
            string clip = Path.Combine(s_work, "clïp ünïcode.mp4");
            File.Copy(s_clip, clip, true);
            int id = OzmNative.CreateLumoObject();
            var open = OzmOpenInfo.Create(true, false);
            Check.Equal(1, OzmNative.OpenLumoObject(id, clip, ref open), "open " + clip);
            Check.Equal(OzmPlayerState.Opened, OzmNative.GetState(id), "state after open");

            // The frame information takes its texture size from the file information, once asked for.
            OzmFrameInfo frame;
            Check.True(OzmNative.TryGetFrameInfo(id, out frame), "frame information before the file information");
            Check.True(frame.textureWidth == 0 && frame.textureHeight == 0 && !frame.HasFrame, "no texture size and no frame yet");

            OzmFileInfo info;
            Check.True(OzmNative.TryGetFileInfo(id, out info), "the file information is usable");
            Check.Equal(0, OzmNative.GetLumoObjectFileInfo(id, ref info), "GetLumoObjectFileInfo returns 0 also on success");
            Check.Equal((uint)Frames, info.frameCount, "frame count");
            Check.Equal(TextureSize, info.textureWidth, "texture width");
            Check.Equal(TextureSize, info.textureHeight, "texture height");
            Check.True(info.maxVertexCount > 3 && info.maxIndexCount >= 3 && info.maxIndexCount % 3 == 0,
                       "mesh capacities " + info.maxVertexCount + " vertices, " + info.maxIndexCount + " indices");
            Check.True(BoxIsSane(info.bboxMinX, info.bboxMaxX) && BoxIsSane(info.bboxMinY, info.bboxMaxY) && BoxIsSane(info.bboxMinZ, info.bboxMaxZ),
                       "bounding box " + Box(info));
            Check.Equal(10000000L, info.duration, "duration of 30 frames at 30 fps, 100 ns units");
            Check.Equal(false, info.HasAudio, "has audio");
            Check.Equal(false, info.HasNormals, "has normals");
            double megabytes = new FileInfo(s_clip).Length / 1048576.0;
            Check.True(Math.Abs(info.fileSizeMB - megabytes) < 1e-3, "file size " + info.fileSizeMB + " MiB, expected " + megabytes);
            Check.True(Math.Abs(info.bitrate - megabytes * 8 / info.DurationSeconds) < 1e-2 * info.bitrate,
                       "bit rate " + info.bitrate + " Mbit/s");

            Check.True(OzmNative.TryGetFrameInfo(id, out frame), "frame information after the file information");
            Check.Equal((uint)TextureSize, frame.textureWidth, "frame texture width");
            Check.Equal((uint)TextureSize, frame.textureHeight, "frame texture height");
            Check.True(!frame.HasFrame && frame.timestamp == 0 && !frame.EndOfStream && frame.bboxMaxX == 0,
                       "nothing else before a render event");

            // The states, without a render loop.
            var steps = new[]
            {
                new { Step = "pause before play", Call = (Func<int, int>)OzmNative.PauseLumoObject, Result = 0, State = OzmPlayerState.Opened },
                new { Step = "play", Call = (Func<int, int>)OzmNative.PlayLumoObject, Result = 1, State = OzmPlayerState.Playing },
                new { Step = "play when playing", Call = (Func<int, int>)OzmNative.PlayLumoObject, Result = 0, State = OzmPlayerState.Playing },
                new { Step = "pause", Call = (Func<int, int>)OzmNative.PauseLumoObject, Result = 1, State = OzmPlayerState.Paused },
                new { Step = "pause when paused", Call = (Func<int, int>)OzmNative.PauseLumoObject, Result = 0, State = OzmPlayerState.Paused },
                new { Step = "play after pause", Call = (Func<int, int>)OzmNative.PlayLumoObject, Result = 1, State = OzmPlayerState.Playing },
                new { Step = "rewind", Call = (Func<int, int>)OzmNative.RewindLumoObject, Result = 1, State = OzmPlayerState.Paused },
                new { Step = "play after rewind", Call = (Func<int, int>)OzmNative.PlayLumoObject, Result = 1, State = OzmPlayerState.Playing },
                new { Step = "close", Call = (Func<int, int>)OzmNative.CloseLumoObject, Result = 1, State = OzmPlayerState.Closed },
                new { Step = "close again", Call = (Func<int, int>)OzmNative.CloseLumoObject, Result = 1, State = OzmPlayerState.Closed },
            };
            foreach (var step in steps)
            {
                Check.Equal(step.Result, step.Call(id), step.Step + ": result");
                Check.Equal(step.State, OzmNative.GetState(id), step.Step + ": state");
            }
            Check.Equal(1, OzmNative.OpenLumoObject(id, s_clip, ref open), "open again after close");
            Check.True(OzmNative.TryGetFileInfo(id, out info) && info.frameCount == Frames, "file information after the second open");
            Check.Equal(1, OzmNative.DestroyLumoObject(id), "destroy");
        }

        static bool BoxIsSane(double min, double max)
        {
            return !double.IsNaN(min) && !double.IsInfinity(min) && !double.IsNaN(max) && !double.IsInfinity(max) && min < max && max - min < 1e6;
        }

        static string Box(OzmFileInfo i)
        {
            return "(" + i.bboxMinX + ", " + i.bboxMinY + ", " + i.bboxMinZ + ") - (" + i.bboxMaxX + ", " + i.bboxMaxY + ", " + i.bboxMaxZ + ")";
        }

        static void AudioOption()
        {
            foreach (bool disable in new[] { false, true })
            {
                string what = disable ? "audio declined" : "audio wanted";
                int id = OzmNative.CreateLumoObject();
                var open = OzmOpenInfo.Create(disable, false);
                int mark = s_log.Mark();
                Check.Equal(1, OzmNative.OpenLumoObject(id, s_audioClip, ref open), what + ": open");
                OzmFileInfo info;
                Check.True(OzmNative.TryGetFileInfo(id, out info) && info.HasAudio, what + ": the file has audio either way");
                Check.Equal(disable ? 0 : 1, NativeLog.Count(s_log.Since(mark), "[" + id + "] configure audio track"), what + ": audio decoders");
                Check.Equal(1, OzmNative.PlayLumoObject(id), what + ": play");
                // The audio output exists once the audio thread has begun; a volume reaches it then.
                bool volume = Wait.Until(() => OzmNative.SetAudioVolume(id, 0.25f) == 1, disable ? 0.5 : 5, 20);
                Check.Equal(!disable, volume, what + ": the volume reaches an audio output");
                Check.Equal(1, OzmNative.DestroyLumoObject(id), what + ": destroy");
            }
        }

        // ---- playback through render events ----

        sealed class Playback
        {
            public readonly List<OzmFrameInfo> Drawn = new List<OzmFrameInfo>();
            public int EndOfStream;
            public int Events;
            public int GlErrors;
        }

        // Issues one render event per engine frame (every 16 ms) and reads the frame information after
        // it, as the engine's scripts do, until the condition holds or the time is up.
        static bool RenderUntil(GlEngine engine, int id, Playback p, Func<bool> done, double seconds, Action<OzmFrameInfo> onNewFrame = null)
        {
            var clock = Stopwatch.StartNew();
            while (clock.Elapsed.TotalSeconds < seconds)
            {
                engine.Render(id);
                p.Events++;
                if (engine.Error() != 0) p.GlErrors++;
                OzmFrameInfo info;
                if (OzmNative.TryGetFrameInfo(id, out info))
                {
                    if (info.EndOfStream) p.EndOfStream++;
                    if (info.HasFrame && (p.Drawn.Count == 0 || p.Drawn[p.Drawn.Count - 1].frameId != info.frameId))
                    {
                        p.Drawn.Add(info);
                        if (onNewFrame != null) onNewFrame(info);
                    }
                }
                if (done()) return true;
                Thread.Sleep(16);
            }
            return false;
        }

        static string Ids(Playback p)
        {
            return string.Join(" ", p.Drawn.Select(f => f.frameId.ToString()).ToArray());
        }

        static void PlaysToTheEnd(GlEngine engine)
        {
            int id = OzmNative.CreateLumoObject();
            Check.Equal(1, OzmNative.SetComputeNormals(id, 1), "compute normals, before the first open");
            var open = OzmOpenInfo.Create(true, false);
            Check.Equal(1, OzmNative.OpenLumoObject(id, s_clip, ref open), "open");
            OzmFileInfo file;
            if (!Check.True(OzmNative.TryGetFileInfo(id, out file), "file information")) return;
            GlEngine.Targets t = engine.MakeTargets(file.textureWidth, file.textureHeight, file.maxVertexCount, file.maxIndexCount, OzmNative.VertexStride);
            int mark = s_log.Mark();
            Check.Equal(1, OzmNative.SetUnityBuffers(id, t.Texture, t.Width, t.Height, t.VertexBuffer, t.VertexCapacity, t.IndexBuffer, t.IndexCapacity),
                        "SetUnityBuffers");
            string registered = "[" + id + "] SetUnityBuffers, vb = " + t.VertexBuffer + ", ib = " + t.IndexBuffer + ", tex = " + t.Texture;
            Check.Equal(1, NativeLog.Count(s_log.Since(mark), registered), "the plug-in logs \"" + registered + "\"");

            Check.Equal(1, OzmNative.PlayLumoObject(id), "play");
            Check.Equal(OzmPlayerState.Playing, OzmNative.GetState(id), "state after play");
            var pass = new Playback();
            bool inspected = false;
            bool ended = RenderUntil(engine, id, pass, () => pass.EndOfStream > 0, 20, frame =>
            {
                if (!inspected && frame.frameId >= 5)
                {
                    inspected = true;
                    InspectFrame(engine, t, frame, file);
                }
            });
            Check.True(ended, "the end of the clip is reported (" + pass.Events + " render events, frames " + Ids(pass) + ")");
            // The end is reported when the decoder's output ends, which can be a little before the last
            // picture is drawn.
            RenderUntil(engine, id, pass, () => false, 0.3);
            Check.True(inspected, "a frame was read back");
            CheckPass(pass, file, "first pass");
            Check.Equal(1, pass.EndOfStream, "end-of-clip reports after more render events");
            Check.Equal(OzmPlayerState.Playing, OzmNative.GetState(id), "state at the end of the clip");

            // Rewind starts the clip over.
            Check.Equal(1, OzmNative.RewindLumoObject(id), "rewind");
            Check.Equal(1, OzmNative.PlayLumoObject(id), "play after rewind");
            var second = new Playback();
            Check.True(RenderUntil(engine, id, second, () => second.EndOfStream > 0, 20), "the end after rewind: " + Ids(second));
            RenderUntil(engine, id, second, () => false, 0.3);
            CheckPass(second, file, "after rewind");
            Check.Equal(0, second.GlErrors + pass.GlErrors, "GL errors after render events");

            Check.Equal(1, OzmNative.CloseLumoObject(id), "close");
            Check.Equal(OzmPlayerState.Closed, OzmNative.GetState(id), "state after close");
            var closed = new Playback();
            RenderUntil(engine, id, closed, () => false, 0.1);
            Check.Equal(0, closed.Drawn.Count + closed.EndOfStream, "nothing drawn after close");
            Check.Equal(1, OzmNative.DestroyLumoObject(id), "destroy");
            int gone = s_log.Mark();
            engine.Render(id);
            Check.Equal(0, s_log.Since(gone).Length, "a render event for a destroyed player does nothing");
            engine.DeleteTargets(t);
        }

        // One pass over the clip: ascending frame ids up to the last one, most frames drawn, and frame
        // information that agrees with the file.
        static void CheckPass(Playback p, OzmFileInfo file, string what)
        {
            List<OzmFrameInfo> drawn = p.Drawn;
            if (!Check.True(drawn.Count > 0, what + ": frames drawn")) return;
            Check.True(drawn.Count >= Frames / 3, what + ": " + drawn.Count + " of " + Frames + " frames drawn: " + Ids(p));
            Check.Equal((uint)Frames, drawn.Last().frameId, what + ": the last frame id");
            for (int i = 0; i < drawn.Count; ++i)
            {
                OzmFrameInfo f = drawn[i];
                string frame = what + ", frame " + f.frameId;
                if (i > 0) Check.True(f.frameId > drawn[i - 1].frameId, frame + ": ids ascend");
                // The encoder numbers frames from 1 and times them from 0.
                Check.True(Math.Abs(f.timestamp - (f.frameId - 1) * FrameTicks) < FrameTicks / 10,
                           frame + ": timestamp " + f.timestamp);
                Check.True(f.vertexCount > 0 && f.vertexCount <= file.maxVertexCount, frame + ": vertex count " + f.vertexCount);
                Check.True(f.indexCount > 0 && f.indexCount <= file.maxIndexCount && f.indexCount % 3 == 0, frame + ": index count " + f.indexCount);
                Check.True(f.textureWidth == TextureSize && f.textureHeight == TextureSize, frame + ": texture size");
                // One key frame every 30 frames: the first.
                Check.Equal(f.frameId == 1, f.KeyFrame, frame + ": key frame");
                const double slack = 1e-3;
                Check.True(f.bboxMinX >= file.bboxMinX - slack && f.bboxMaxX <= file.bboxMaxX + slack && f.bboxMinX < f.bboxMaxX &&
                           f.bboxMinY >= file.bboxMinY - slack && f.bboxMaxY <= file.bboxMaxY + slack && f.bboxMinY < f.bboxMaxY &&
                           f.bboxMinZ >= file.bboxMinZ - slack && f.bboxMaxZ <= file.bboxMaxZ + slack && f.bboxMinZ < f.bboxMaxZ,
                           frame + ": its box lies in the file's");
            }
        }

        // What the engine's buffers and texture hold right after a frame was drawn, read with the vertex
        // layout the binding declares.
        static void InspectFrame(GlEngine engine, GlEngine.Targets t, OzmFrameInfo f, OzmFileInfo file)
        {
            string what = "frame " + f.frameId + " in the engine's buffers";
            byte[] vertices = engine.ReadBuffer(t.VertexBuffer, (int)f.vertexCount * OzmNative.VertexStride);
            int tail = (int)Math.Min(t.IndexCapacity - f.indexCount, 4096);
            byte[] indices = engine.ReadBuffer(t.IndexBuffer, (int)(f.indexCount + tail) * OzmNative.IndexStride);
            if (!Check.True(vertices != null && indices != null, what + ": the buffers map")) return;

            double slackX = 1e-3 * (f.bboxMaxX - f.bboxMinX) + 1e-5, slackY = 1e-3 * (f.bboxMaxY - f.bboxMinY) + 1e-5, slackZ = 1e-3 * (f.bboxMaxZ - f.bboxMinZ) + 1e-5;
            int outside = 0, badUv = 0, unitNormals = 0;
            for (int v = 0; v < f.vertexCount; ++v)
            {
                int at = v * OzmNative.VertexStride;
                float x = BitConverter.ToSingle(vertices, at + OzmNative.PositionOffset);
                float y = BitConverter.ToSingle(vertices, at + OzmNative.PositionOffset + 4);
                float z = BitConverter.ToSingle(vertices, at + OzmNative.PositionOffset + 8);
                float nx = BitConverter.ToSingle(vertices, at + OzmNative.NormalOffset);
                float ny = BitConverter.ToSingle(vertices, at + OzmNative.NormalOffset + 4);
                float nz = BitConverter.ToSingle(vertices, at + OzmNative.NormalOffset + 8);
                float u = BitConverter.ToSingle(vertices, at + OzmNative.UvOffset);
                float w = BitConverter.ToSingle(vertices, at + OzmNative.UvOffset + 4);
                if (!(x >= f.bboxMinX - slackX && x <= f.bboxMaxX + slackX && y >= f.bboxMinY - slackY && y <= f.bboxMaxY + slackY &&
                      z >= f.bboxMinZ - slackZ && z <= f.bboxMaxZ + slackZ)) outside++;
                if (!(u >= -1e-3 && u <= 1.001 && w >= -1e-3 && w <= 1.001)) badUv++;
                if (Math.Abs(Math.Sqrt(nx * nx + ny * ny + nz * nz) - 1) < 1e-3) unitNormals++;
            }
            Check.Equal(0, outside, what + ": positions outside the frame's box");
            Check.Equal(0, badUv, what + ": texture coordinates outside [0, 1]");
            Check.True(unitNormals >= 0.99 * f.vertexCount, what + ": " + unitNormals + " of " + f.vertexCount + " computed normals have unit length");

            int badIndex = 0, nonZeroTail = 0;
            for (int i = 0; i < f.indexCount + tail; ++i)
            {
                uint index = BitConverter.ToUInt32(indices, i * 4);
                if (i < f.indexCount && index >= f.vertexCount) badIndex++;
                if (i >= f.indexCount && index != 0) nonZeroTail++;
            }
            Check.Equal(0, badIndex, what + ": indices beyond the vertex count");
            Check.Equal(0, nonZeroTail, what + ": non-zero indices after the frame's (they must be degenerate)");

            byte[] pixels = engine.ReadTexture(t);
            Check.True(pixels.Any(b => b != 0), what + ": the texture has a picture");
        }
    }
}
