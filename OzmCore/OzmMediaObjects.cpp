#include "OzmCore/OzmMediaObjects.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>

#include "platform/Log.h"

namespace OzmCrossPlatform {

std::string GuidToString(const _GUID& g) {
  char text[39];
  std::snprintf(text, sizeof(text), "{%08" PRIX32 "-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g.Data1,
                static_cast<unsigned>(g.Data2), static_cast<unsigned>(g.Data3), g.Data4[0], g.Data4[1], g.Data4[2],
                g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
  return text;
}

// --- RefCounted ------------------------------------------------------------------------------------

uint32_t RefCounted::AddRefImpl() {
  OZM_ASSERT_MSG(m_DestructionFlag.load() == 0, "m_DestructionFlag == 0");
  return m_refCount.fetch_add(1) + 1;
}

uint32_t RefCounted::ReleaseImpl() {
  const uint32_t count = m_refCount.fetch_sub(1) - 1;
  if (count != 0) return count;
  uint8_t expected = 0;
  if (m_DestructionFlag.compare_exchange_strong(expected, 1)) delete this;
  return 0;
}

// --- Buffer ----------------------------------------------------------------------------------------

Buffer::Buffer(unsigned int size) : m_memory(new (std::nothrow) uint8_t[static_cast<size_t>(size) + 15]), m_size(size) {
  if (!m_memory) OZM_LOGE("Buffer: could not allocate %u bytes", size);
}

Buffer::~Buffer() = default;

uint8_t* Buffer::Data() const {
  if (!m_memory) return nullptr;
  const uintptr_t address = reinterpret_cast<uintptr_t>(m_memory.get());
  return m_memory.get() + ((16 - (address & 15)) & 15);
}

HRESULT Buffer::QueryInterface(const _GUID& iid, void** out) {
  if (!out) return E_POINTER;
  if (iid == IID_IOzmAttributesCore) {
    *out = static_cast<IOzmAttributesCore*>(this);
  } else if (iid == IID_IOzmBuffer) {
    *out = static_cast<IOzmBuffer*>(this);
  } else {
    *out = nullptr;
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

HRESULT Buffer::LockBuffer(OzmLockedMemory* locked) {
  if (!OZM_ASSERT_MSG(locked != nullptr, "pLockedMemory")) return E_POINTER;
  locked->pData = Data();
  locked->reserved0 = 0;
  locked->size = m_size;
  locked->reserved1 = 0;
  return S_OK;
}

HRESULT Buffer::GetSize(unsigned int* size) {
  if (!size) return E_POINTER;
  *size = m_size;
  return S_OK;
}

HRESULT Buffer::GetBytes(const _GUID& key, void* value, size_t n) const {
  const auto it = m_attributes.find(key);
  if (it == m_attributes.end()) return E_FAIL;
  if (!value) return E_POINTER;
  std::memcpy(value, it->second.bytes, n);
  return S_OK;
}

HRESULT Buffer::SetBytes(const _GUID& key, const void* value, size_t n) {
  // A new entry starts as eight zero bytes; a 32-bit set writes only the low four.
  var& slot = m_attributes.emplace(key, var{}).first->second;
  std::memcpy(slot.bytes, value, n);
  return S_OK;
}

HRESULT Buffer::GetUINT32(const _GUID& key, unsigned int* value) { return GetBytes(key, value, 4); }
HRESULT Buffer::GetUINT64(const _GUID& key, unsigned long long* value) { return GetBytes(key, value, 8); }
HRESULT Buffer::GetDouble(const _GUID& key, double* value) { return GetBytes(key, value, 8); }

HRESULT Buffer::SetUINT32(const _GUID& key, unsigned int value) {
  const uint32_t v = value;
  return SetBytes(key, &v, 4);
}

HRESULT Buffer::SetUINT64(const _GUID& key, unsigned long long value) {
  const uint64_t v = value;
  return SetBytes(key, &v, 8);
}

HRESULT Buffer::SetDouble(const _GUID& key, double value) { return SetBytes(key, &value, 8); }

// --- BufferAllocator -------------------------------------------------------------------------------

HRESULT BufferAllocator::QueryInterface(const _GUID&, void** out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  return E_NOINTERFACE;
}

HRESULT BufferAllocator::AllocateBuffer(unsigned int size, unsigned int, unsigned int, IOzmBuffer** out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  Buffer* buffer = new (std::nothrow) Buffer(size);
  if (!buffer || !buffer->Valid()) {
    delete buffer;
    return E_FAIL;
  }
  buffer->AddRef();
  *out = buffer;
  return S_OK;
}

HRESULT BufferAllocator::ReleaseBuffer(IOzmBuffer* buffer) {
  if (!buffer) return E_POINTER;
  buffer->Release();
  return S_OK;
}

// --- Stream ----------------------------------------------------------------------------------------

Stream::Stream(std::unique_ptr<uint8_t[]> data, uint32_t size, uint32_t position)
    : m_data(std::move(data)), m_position(position), m_size(size) {}

Stream* Stream::CopyOf(const uint8_t* data, uint32_t size) {
  std::unique_ptr<uint8_t[]> copy(new (std::nothrow) uint8_t[size > 0 ? size : 1]);
  if (!copy) return nullptr;
  if (size > 0) std::memcpy(copy.get(), data, size);
  return new (std::nothrow) Stream(std::move(copy), size, 0);
}

HRESULT Stream::QueryInterface(const _GUID& iid, void** out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  if (!(iid == IID_IOzmMemoryStream)) return E_NOINTERFACE;
  *out = static_cast<IOzmMemoryStream*>(this);
  return S_OK;
}

const uint8_t* Stream::UnreadBytes(uint32_t* count) const {
  const uint32_t available = m_position < m_size ? m_size - m_position : 0;
  if (count) *count = available;
  return m_data.get() + (available ? m_position : 0);
}

void Stream::SkipBytes(uint32_t n) {
  const uint32_t available = m_position < m_size ? m_size - m_position : 0;
  m_position += n < available ? n : available;
}

HRESULT Stream::Read(void* dst, unsigned int n, unsigned int* got) {
  // A position past the end (a payload shorter than its 8-byte prefix) reads nothing.
  const uint32_t available = m_position < m_size ? m_size - m_position : 0;
  const uint32_t count = n < available ? n : available;
  if (count > 0) {
    std::memcpy(dst, m_data.get() + m_position, count);
    m_position += count;
  }
  if (got) *got = count;
  return S_OK;
}

}  // namespace OzmCrossPlatform
