// Prints the C interface as the compiler sees plugin/OzmPluginApi.h: the size of each record, the
// offset and kind of every named field, and the result and argument kinds of every exported C
// function. The C# binding is checked against this table, so the two sides cannot drift apart.
// Padding is not printed but counted: the fields and the padding must cover every byte of a record
// exactly once, so a member added to the header and missing here fails the program.
//
//   c_interface_table [output file]      (standard output without one)
//
//   record <name> <size>
//   field <record> <name> <offset> <kind>     kinds: u8 i32 u32 i64 f32 f64
//   function <name> <result> <argument>...    kinds above, plus void, text (const char*),
//                                             in:<record> / out:<record> (pointers to records),
//                                             fnptr (a function pointer), ptr (any other pointer)
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>

#include "engine/PluginApi.h"
#include "plugin/OzmPluginApi.h"

namespace {

template <class T>
std::string Kind() {
  using U = std::remove_cv_t<T>;
  if constexpr (std::is_same_v<U, void>) {
    return "void";
  } else if constexpr (std::is_same_v<U, const char*>) {
    return "text";
  } else if constexpr (std::is_same_v<U, const OzmOpenInfo*>) {
    return "in:OzmOpenInfo";
  } else if constexpr (std::is_same_v<U, OzmFileInfo*>) {
    return "out:OzmFileInfo";
  } else if constexpr (std::is_same_v<U, OzmFrameInfo*>) {
    return "out:OzmFrameInfo";
  } else if constexpr (std::is_pointer_v<U> && std::is_function_v<std::remove_pointer_t<U>>) {
    return "fnptr";
  } else if constexpr (std::is_pointer_v<U>) {
    return "ptr";
  } else if constexpr (std::is_floating_point_v<U>) {
    return "f" + std::to_string(sizeof(U) * 8);
  } else if constexpr (std::is_integral_v<U>) {
    return std::string(std::is_signed_v<U> ? "i" : "u") + std::to_string(sizeof(U) * 8);
  } else {
    static_assert(sizeof(U) == 0, "a type the table has no kind for");
  }
}

// Takes the function's type only (a null pointer of it): the table needs no plug-in to link.
template <class R, class... A>
void PrintFunction(const char* name, R (*)(A...)) {
  std::string line = std::string("function ") + name + " " + Kind<R>();
  ((line += " " + Kind<A>()), ...);
  std::printf("%s\n", line.c_str());
}

// Bytes of the record being printed that a field or a padding member covers: every byte exactly
// once, or the table is incomplete (a member was added to the header but not here).
std::string g_record;
size_t g_size = 0;
std::string g_covered;
bool g_ok = true;

void Cover(const std::string& name, size_t offset, size_t size) {
  for (size_t i = offset; i < offset + size; ++i) {
    if (i >= g_size || g_covered[i] != 0) {
      std::fprintf(stderr, "%s.%s: byte %zu lies outside the record or in another member\n", g_record.c_str(),
                   name.c_str(), i);
      g_ok = false;
      return;
    }
    g_covered[i] = 1;
  }
}

void EndRecord() {
  if (!g_record.empty() && g_covered.find('\0') != std::string::npos) {
    std::fprintf(stderr, "%s: byte %zu belongs to no member in the table\n", g_record.c_str(), g_covered.find('\0'));
    g_ok = false;
  }
}

template <class Record>
void PrintRecord(const char* name) {
  EndRecord();
  g_record = name;
  g_size = sizeof(Record);
  g_covered.assign(g_size, '\0');
  std::printf("record %s %zu\n", name, sizeof(Record));
}

// A field, or one element of an array field (a box corner is three doubles: bboxMin -> bboxMinX ...).
template <class Field>
void PrintField(const char* record, const std::string& name, size_t offset) {
  if constexpr (std::is_array_v<Field>) {
    using Element = std::remove_extent_t<Field>;
    static_assert(std::extent_v<Field> == 3, "only three-element arrays (x, y, z) are named");
    for (size_t i = 0; i < 3; ++i) {
      PrintField<Element>(record, name + "XYZ"[i], offset + i * sizeof(Element));
    }
  } else {
    Cover(name, offset, sizeof(Field));
    std::printf("field %s %s %zu %s\n", record, name.c_str(), offset, Kind<Field>().c_str());
  }
}

// Padding and reserved bytes: not part of the interface, only counted.
template <class Field>
void CoverPadding(const std::string& name, size_t offset) {
  Cover(name, offset, sizeof(Field));
}

}  // namespace

#define OZM_FIELD(Record, member) \
  PrintField<decltype(Record::member)>(#Record, #member, offsetof(Record, member))
#define OZM_PADDING(Record, member) CoverPadding<decltype(Record::member)>(#member, offsetof(Record, member))

int main(int argc, char** argv) {
  if (argc > 2 || (argc == 2 && !std::freopen(argv[1], "w", stdout))) {
    std::fprintf(stderr, "usage: %s [output file]\n", argv[0]);
    return 2;
  }
  PrintRecord<OzmOpenInfo>("OzmOpenInfo");
  OZM_FIELD(OzmOpenInfo, audioDisabled);
  OZM_PADDING(OzmOpenInfo, reserved1);
  OZM_FIELD(OzmOpenInfo, autoLooping);
  OZM_PADDING(OzmOpenInfo, reserved6);

  PrintRecord<OzmFileInfo>("OzmFileInfo");
  OZM_FIELD(OzmFileInfo, hasAudio);
  OZM_PADDING(OzmFileInfo, pad1);
  OZM_FIELD(OzmFileInfo, duration);
  OZM_FIELD(OzmFileInfo, frameCount);
  OZM_FIELD(OzmFileInfo, maxVertexCount);
  OZM_FIELD(OzmFileInfo, maxIndexCount);
  OZM_FIELD(OzmFileInfo, bitrate);
  OZM_FIELD(OzmFileInfo, fileSizeMB);
  OZM_PADDING(OzmFileInfo, pad36);
  OZM_FIELD(OzmFileInfo, bboxMin);
  OZM_FIELD(OzmFileInfo, bboxMax);
  OZM_FIELD(OzmFileInfo, textureWidth);
  OZM_FIELD(OzmFileInfo, textureHeight);
  OZM_FIELD(OzmFileInfo, hasNormals);
  OZM_PADDING(OzmFileInfo, pad97);

  PrintRecord<OzmFrameInfo>("OzmFrameInfo");
  OZM_FIELD(OzmFrameInfo, timestamp);
  OZM_FIELD(OzmFrameInfo, bboxMin);
  OZM_FIELD(OzmFrameInfo, bboxMax);
  OZM_FIELD(OzmFrameInfo, frameId);
  OZM_FIELD(OzmFrameInfo, vertexCount);
  OZM_FIELD(OzmFrameInfo, indexCount);
  OZM_FIELD(OzmFrameInfo, textureWidth);
  OZM_FIELD(OzmFrameInfo, textureHeight);
  OZM_FIELD(OzmFrameInfo, endOfStream);
  OZM_FIELD(OzmFrameInfo, repeated);
  OZM_FIELD(OzmFrameInfo, keyFrame);
  OZM_PADDING(OzmFrameInfo, pad79);
  EndRecord();

#define OZM_PRINT_FUNCTION(name) PrintFunction(#name, static_cast<decltype(&::name)>(nullptr));
  OZM_ENGINE_PLUGIN_FUNCTIONS(OZM_PRINT_FUNCTION)
#undef OZM_PRINT_FUNCTION
  return g_ok && std::fflush(stdout) == 0 ? 0 : 1;
}
