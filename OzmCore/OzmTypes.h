// Basic types of the mesh layer: result codes and GUIDs.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

typedef int32_t HRESULT;

constexpr HRESULT S_OK = 0;
constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002u);
constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003u);
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);
constexpr HRESULT E_UNEXPECTED = static_cast<HRESULT>(0x8000FFFFu);

inline bool OZM_SUCCEEDED(HRESULT hr) { return hr >= 0; }
inline bool OZM_FAILED(HRESULT hr) { return hr < 0; }

// A 16-byte identifier in the usual in-memory layout (first three groups little-endian on the
// platforms we run on). Identifiers are compared byte for byte.
struct _GUID {
  uint32_t Data1;
  uint16_t Data2;
  uint16_t Data3;
  uint8_t Data4[8];
};
static_assert(sizeof(_GUID) == 16, "a GUID is 16 bytes");

inline bool operator<(const _GUID& a, const _GUID& b) { return std::memcmp(&a, &b, sizeof(_GUID)) < 0; }
inline bool operator==(const _GUID& a, const _GUID& b) { return std::memcmp(&a, &b, sizeof(_GUID)) == 0; }
inline bool operator!=(const _GUID& a, const _GUID& b) { return !(a == b); }

namespace OzmCrossPlatform {

// "{36B53E4E-0A14-42F8-8143-DCA29E480AA8}": 38 characters, upper case, with braces.
std::string GuidToString(const _GUID& guid);

}  // namespace OzmCrossPlatform
