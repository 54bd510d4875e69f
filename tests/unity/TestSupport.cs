// What the C# test programs share: checks that count failures instead of stopping at the first, a
// bounded wait, and a capture of the plug-in's log (the host library writes it to standard error,
// so the descriptor is pointed at a file for the program's run and read back from there).
using System;
using System.Collections.Generic;
using System.Diagnostics;
using System.IO;
using System.Runtime.InteropServices;
using System.Threading;

namespace OzmTests
{
    public static class Check
    {
        static int s_failures;
        static int s_checks;
        static string s_case = "";

        public static int Failures { get { return s_failures; } }

        /// <summary>Names the case that following failures belong to.</summary>
        public static void Case(string name)
        {
            s_case = name;
            Console.WriteLine("[ case ] " + name);
        }

        public static bool True(bool condition, string what)
        {
            s_checks++;
            if (!condition)
            {
                s_failures++;
                Console.WriteLine("FAILED  [" + s_case + "] " + what);
            }
            return condition;
        }

        public static bool Equal<T>(T expected, T actual, string what)
        {
            return True(EqualityComparer<T>.Default.Equals(expected, actual),
                        what + ": expected " + expected + ", got " + actual);
        }

        /// <summary>Runs a case; an exception fails it and the program goes on with the next.</summary>
        public static void Run(string name, Action body)
        {
            Case(name);
            try
            {
                body();
            }
            catch (Exception e)
            {
                s_failures++;
                Console.WriteLine("FAILED  [" + name + "] threw " + e);
            }
        }

        public static int Summary(string program)
        {
            Console.WriteLine(program + ": " + s_checks + " checks, " + s_failures + " failed");
            return s_failures == 0 ? 0 : 1;
        }
    }

    public static class Wait
    {
        /// <summary>Polls until the condition holds or the time is up; says whether it held.</summary>
        public static bool Until(Func<bool> condition, double seconds, int pollMs = 10)
        {
            var clock = Stopwatch.StartNew();
            while (true)
            {
                if (condition()) return true;
                if (clock.Elapsed.TotalSeconds > seconds) return false;
                Thread.Sleep(pollMs);
            }
        }
    }

    /// <summary>The plug-in's log lines, captured from standard error into a file.</summary>
    public sealed class NativeLog : IDisposable
    {
        [DllImport("libc", EntryPoint = "dup")] static extern int Dup(int fd);
        [DllImport("libc", EntryPoint = "dup2")] static extern int Dup2(int fd, int target);
        [DllImport("libc", EntryPoint = "close")] static extern int Close(int fd);
        [DllImport("libc", EntryPoint = "open")] static extern int Open(string path, int flags, int mode);

        const int OpenWriteCreateTruncate = 0x1 | 0x40 | 0x200;  // O_WRONLY | O_CREAT | O_TRUNC
        const int StandardError = 2;

        readonly string m_path;
        int m_saved = -1;

        public NativeLog(string path)
        {
            m_path = path;
            int fd = Open(path, OpenWriteCreateTruncate, Convert.ToInt32("644", 8));
            if (fd < 0) throw new IOException("cannot create the log file " + path);
            m_saved = Dup(StandardError);
            Dup2(fd, StandardError);
            Close(fd);
        }

        /// <summary>Everything logged so far.</summary>
        public string Text()
        {
            using (var stream = new FileStream(m_path, FileMode.Open, FileAccess.Read, FileShare.ReadWrite))
            using (var reader = new StreamReader(stream))
            {
                return reader.ReadToEnd();
            }
        }

        /// <summary>Where the log stands now; pass it to Since.</summary>
        public int Mark()
        {
            return Text().Length;
        }

        /// <summary>The lines logged after a mark.</summary>
        public string[] Since(int mark)
        {
            string text = Text();
            return text.Substring(Math.Min(mark, text.Length)).Split(new[] { '\n' }, StringSplitOptions.RemoveEmptyEntries);
        }

        public static int Count(string[] lines, string part)
        {
            int n = 0;
            foreach (string line in lines) n += line.Contains(part) ? 1 : 0;
            return n;
        }

        /// <summary>The last lines, for a failure message.</summary>
        public string Tail(int count)
        {
            string[] lines = Since(0);
            int start = Math.Max(0, lines.Length - count);
            return string.Join("\n", lines, start, lines.Length - start);
        }

        public void Dispose()
        {
            if (m_saved >= 0)
            {
                Dup2(m_saved, StandardError);
                Close(m_saved);
                m_saved = -1;
            }
        }
    }
}
