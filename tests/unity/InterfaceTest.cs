// The C# declarations of unity/Runtime/OzmNative.cs against the C interface as the C++ compiler sees
// it (the table printed by CInterfaceTable.cpp from plugin/OzmPluginApi.h) and against the list of
// exports (plugin/exported-symbols.txt):
//  - every record has the C size, is blittable, and has every named C field at the C offset with a
//    type of the C width and kind, and no field that C lacks;
//  - every C function a script calls is declared once, from the plug-in's library, with matching
//    result and argument types; nothing else is declared; the functions the engine calls by itself
//    are not;
//  - the exports and the table name the same C functions.
// Compiled with OzmNative.cs alone: the binding needs no engine to build.
//
//   mono InterfaceTest.exe <table file> <exported-symbols.txt>
using System;
using System.Collections.Generic;
using System.IO;
using System.Linq;
using System.Reflection;
using System.Runtime.InteropServices;
using Ozm.Volumetric;

namespace OzmTests
{
    static class InterfaceTest
    {
        // Called by the engine itself (load, graphics device) or reached through a function pointer
        // the binding hands to the engine: a script never calls them by name.
        static readonly HashSet<string> EngineOnly = new HashSet<string>
        {
            "UnityPluginLoad", "UnitySetGraphicsDevice", "UnityRenderEvent", "OnUnityRenderModeEvent", "OnUnrealRenderEvent",
        };

        static readonly Dictionary<Type, string> FieldKinds = new Dictionary<Type, string>
        {
            { typeof(byte), "u8" }, { typeof(int), "i32" }, { typeof(uint), "u32" },
            { typeof(long), "i64" }, { typeof(float), "f32" }, { typeof(double), "f64" },
        };

        static readonly Type[] Records = { typeof(OzmOpenInfo), typeof(OzmFileInfo), typeof(OzmFrameInfo) };

        static int Main(string[] args)
        {
            if (args.Length != 2)
            {
                Console.WriteLine("usage: InterfaceTest.exe <table file> <exported-symbols.txt>");
                return 2;
            }
            string[] table = File.ReadAllLines(args[0]);
            Check.Run("the table describes the three records and the C functions", () =>
            {
                foreach (Type record in Records)
                {
                    Check.True(Rows(table, "record").Any(r => r[1] == record.Name), "the table has no record " + record.Name);
                }
                Check.True(Rows(table, "function").Count() >= 20, "the table lists fewer than 20 functions");
            });
            Check.Run("records: size, blittable, every field at the C offset with the C type", () => CheckRecords(table));
            Check.Run("functions: every C function a script calls, with the C types", () => CheckFunctions(table));
            Check.Run("the exports and the table name the same C functions", () => CheckExports(table, args[1]));
            return Check.Summary("InterfaceTest");
        }

        static IEnumerable<string[]> Rows(string[] table, string kind)
        {
            return table.Select(line => line.Split(' ')).Where(parts => parts[0] == kind);
        }

        static void CheckRecords(string[] table)
        {
            foreach (Type record in Records)
            {
                string[] row = Rows(table, "record").FirstOrDefault(r => r[1] == record.Name);
                if (row == null) continue;
                Check.Equal(int.Parse(row[2]), Marshal.SizeOf(record), record.Name + " size");
                Check.True(record.IsExplicitLayout, record.Name + " has an explicit layout");
                // A blittable record is passed by address without copies; pinning fails for any other.
                try
                {
                    GCHandle.Alloc(Activator.CreateInstance(record), GCHandleType.Pinned).Free();
                }
                catch (ArgumentException)
                {
                    Check.True(false, record.Name + " is not blittable");
                }

                var csharpFields = record.GetFields(BindingFlags.Instance | BindingFlags.Public | BindingFlags.NonPublic)
                                         .ToDictionary(f => f.Name);
                var cFields = new HashSet<string>();
                foreach (string[] field in Rows(table, "field").Where(r => r[1] == record.Name))
                {
                    string name = field[2];
                    cFields.Add(name);
                    FieldInfo mine;
                    if (!Check.True(csharpFields.TryGetValue(name, out mine), record.Name + " lacks the field " + name)) continue;
                    Check.Equal(int.Parse(field[3]), (int)Marshal.OffsetOf(record, name), record.Name + "." + name + " offset");
                    string kind;
                    FieldKinds.TryGetValue(mine.FieldType, out kind);
                    Check.Equal(field[4], kind ?? mine.FieldType.Name, record.Name + "." + name + " type");
                }
                foreach (string name in csharpFields.Keys)
                {
                    Check.True(cFields.Contains(name), record.Name + "." + name + " is no field of the C record");
                }
            }
        }

        // The C# type that carries each C kind across the interface.
        static string Kind(Type type, bool result)
        {
            if (type == typeof(void)) return "void";
            if (type == typeof(int)) return "i32";
            if (type == typeof(uint)) return "u32";
            if (type == typeof(float)) return "f32";
            if (type == typeof(byte[])) return "text";  // NUL-terminated UTF-8 in
            if (type == typeof(IntPtr)) return result ? "text|fnptr" : "ptr";
            if (type.IsByRef && type.GetElementType() == typeof(OzmOpenInfo)) return "in:OzmOpenInfo";
            if (type.IsByRef) return "out:" + type.GetElementType().Name;
            return type.Name;
        }

        static bool Matches(string cKind, string csharpKind)
        {
            return csharpKind.Split('|').Contains(cKind);
        }

        static void CheckFunctions(string[] table)
        {
            var imports = typeof(OzmNative).GetMethods(BindingFlags.Static | BindingFlags.Public | BindingFlags.NonPublic)
                                           .Select(m => new { Method = m, Import = m.GetCustomAttributes(typeof(DllImportAttribute), false)
                                                                                     .Cast<DllImportAttribute>().FirstOrDefault() })
                                           .Where(m => m.Import != null)
                                           .ToList();
            var cFunctions = new HashSet<string>();
            foreach (string[] row in Rows(table, "function"))
            {
                string name = row[1];
                cFunctions.Add(name);
                var declared = imports.Where(m => (m.Import.EntryPoint ?? m.Method.Name) == name).ToList();
                if (EngineOnly.Contains(name))
                {
                    Check.Equal(0, declared.Count, name + " is the engine's to call and is not declared");
                    continue;
                }
                if (!Check.Equal(1, declared.Count, "declarations of " + name)) continue;
                MethodInfo method = declared[0].Method;
                Check.Equal(OzmNative.Library, declared[0].Import.Value, name + " library");
                Check.True(Matches(row[2], Kind(method.ReturnType, true)),
                           name + " result: C " + row[2] + ", C# " + method.ReturnType.Name);
                ParameterInfo[] parameters = method.GetParameters();
                if (!Check.Equal(row.Length - 3, parameters.Length, name + " argument count")) continue;
                for (int i = 0; i < parameters.Length; ++i)
                {
                    Check.True(Matches(row[3 + i], Kind(parameters[i].ParameterType, false)),
                               name + " argument " + i + ": C " + row[3 + i] + ", C# " + parameters[i].ParameterType);
                }
            }
            foreach (var import in imports)
            {
                string name = import.Import.EntryPoint ?? import.Method.Name;
                Check.True(cFunctions.Contains(name), "OzmNative declares " + name + ", which is no C function");
            }
        }

        static void CheckExports(string[] table, string exportsPath)
        {
            var exports = new HashSet<string>(File.ReadAllLines(exportsPath)
                                                  .Select(l => l.Trim())
                                                  .Where(l => l.Length > 0 && !l.StartsWith("#") && !l.StartsWith("Java_")));
            var functions = new HashSet<string>(Rows(table, "function").Select(r => r[1]));
            foreach (string name in exports) Check.True(functions.Contains(name), name + " is exported but not in the table");
            foreach (string name in functions) Check.True(exports.Contains(name), name + " is in the table but not exported");
        }
    }
}
