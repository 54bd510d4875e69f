// Reference-counted media objects of the mesh layer: buffers carrying GUID-keyed attributes, the
// buffer allocator, and the read-only memory stream over one mesh payload.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>

#include "OzmCore/OzmTypes.h"

// Interface identifiers.
constexpr _GUID IID_IOzmBuffer = {0xD83BA762, 0x145B, 0x489D, {0xBA, 0x08, 0xE7, 0x65, 0x78, 0x39, 0x8F, 0xDB}};
constexpr _GUID IID_IOzmAttributesCore = {0xE73F1728, 0xAE2D, 0x45BF, {0x9F, 0xC7, 0xFC, 0xDE, 0x72, 0x3F, 0xB6, 0x67}};
constexpr _GUID IID_IOzmMemoryStream = {0x5C1E9A47, 0x3B2D, 0x4F80, {0x9E, 0x61, 0x2A, 0x7D, 0xC4, 0x18, 0x93, 0x0B}};
constexpr _GUID IID_IUnknown = {0x00000000, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

// Filled by IOzmBuffer::LockBuffer.
struct OzmLockedMemory {
  uint8_t* pData;  // aligned to 16 bytes
  uint32_t reserved0;
  uint32_t size;  // bytes
  uint32_t reserved1;
};

// Locked memory as 32-bit words. pData is 16-byte aligned, so this is safe on CPUs that fault on
// unaligned loads too; going through void* tells compilers that check casts there (gcc on 32-bit
// ARM) that the alignment is known.
inline uint32_t* LockedWords(uint8_t* data) { return static_cast<uint32_t*>(static_cast<void*>(data)); }

class IOzmAttributesCore {
 public:
  virtual HRESULT QueryInterface(const _GUID& iid, void** out) = 0;
  virtual uint32_t AddRef() = 0;
  virtual uint32_t Release() = 0;
  virtual HRESULT OnGetAttribute() = 0;
  virtual HRESULT GetUINT32(const _GUID& key, unsigned int* value) = 0;
  virtual HRESULT GetUINT64(const _GUID& key, unsigned long long* value) = 0;
  virtual HRESULT GetDouble(const _GUID& key, double* value) = 0;
  virtual HRESULT SetUINT32(const _GUID& key, unsigned int value) = 0;
  virtual HRESULT SetUINT64(const _GUID& key, unsigned long long value) = 0;
  virtual HRESULT SetDouble(const _GUID& key, double value) = 0;

 protected:
  ~IOzmAttributesCore() = default;
};

class IOzmBuffer {
 public:
  virtual HRESULT QueryInterface(const _GUID& iid, void** out) = 0;
  virtual uint32_t AddRef() = 0;
  virtual uint32_t Release() = 0;
  virtual HRESULT LockBuffer(OzmLockedMemory* locked) = 0;
  virtual HRESULT UnlockBuffer() = 0;
  virtual HRESULT GetSize(unsigned int* size) = 0;
  virtual ~IOzmBuffer() = default;
  virtual HRESULT OnGetAttribute() = 0;
  virtual HRESULT GetUINT32(const _GUID& key, unsigned int* value) = 0;
  virtual HRESULT GetUINT64(const _GUID& key, unsigned long long* value) = 0;
  virtual HRESULT GetDouble(const _GUID& key, double* value) = 0;
  virtual HRESULT SetUINT32(const _GUID& key, unsigned int value) = 0;
  virtual HRESULT SetUINT64(const _GUID& key, unsigned long long value) = 0;
  virtual HRESULT SetDouble(const _GUID& key, double value) = 0;
};

class IOzmBufferAllocator {
 public:
  virtual HRESULT QueryInterface(const _GUID& iid, void** out) = 0;
  virtual uint32_t AddRef() = 0;
  virtual uint32_t Release() = 0;
  virtual HRESULT AllocateBuffer(unsigned int size, unsigned int elementSize, unsigned int flags, IOzmBuffer** out) = 0;
  virtual HRESULT ReleaseBuffer(IOzmBuffer* buffer) = 0;

 protected:
  ~IOzmBufferAllocator() = default;
};

class IStream {
 public:
  virtual HRESULT QueryInterface(const _GUID& iid, void** out) = 0;
  virtual uint32_t AddRef() = 0;
  virtual uint32_t Release() = 0;
  // Copies up to n bytes; *got receives the count actually copied. Success also at the end.
  virtual HRESULT Read(void* dst, unsigned int n, unsigned int* got) = 0;

 protected:
  ~IStream() = default;
};

// A stream whose bytes are all in memory, so that a decoder can read them in place and then skip
// those it used. Streams offer it through QueryInterface(IID_IOzmMemoryStream); the pointer is the
// stream itself, valid as long as the stream, and no reference is added for it.
class IOzmMemoryStream {
 public:
  // The bytes not read yet; *count receives how many there are.
  virtual const uint8_t* UnreadBytes(uint32_t* count) const = 0;
  // Moves past n of them (no further than the end).
  virtual void SkipBytes(uint32_t n) = 0;

 protected:
  ~IOzmMemoryStream() = default;
};

namespace OzmCrossPlatform {

// Shared reference counting. The count and the one-shot destruction flag are atomic with full
// barriers because objects travel between the playback, mesh and render threads. Only the caller
// that takes the count to zero *and* wins the flag destroys the object, so a racing AddRef/Release
// pair cannot destroy it twice.
class RefCounted {
 public:
  virtual ~RefCounted() = default;
  uint32_t AddRefImpl();
  uint32_t ReleaseImpl();

 protected:
  RefCounted() = default;
  RefCounted(const RefCounted&) = delete;
  RefCounted& operator=(const RefCounted&) = delete;

 private:
  std::atomic<uint32_t> m_refCount{0};
  std::atomic<uint8_t> m_DestructionFlag{0};
};

// An untagged 8-byte attribute value: getters reinterpret whatever the setter stored.
union var {
  uint32_t u32;
  uint64_t u64;
  double d;
  uint8_t bytes[8];
};
static_assert(sizeof(var) == 8, "attribute values are 8 bytes");

class Buffer final : public IOzmBuffer, public IOzmAttributesCore, public RefCounted {
 public:
  // Allocates size + 15 bytes (not cleared). Check Valid(): a failed allocation leaves no memory.
  explicit Buffer(unsigned int size);
  ~Buffer() override;

  bool Valid() const { return m_memory != nullptr; }

  HRESULT QueryInterface(const _GUID& iid, void** out) override;
  uint32_t AddRef() override { return AddRefImpl(); }
  uint32_t Release() override { return ReleaseImpl(); }
  HRESULT LockBuffer(OzmLockedMemory* locked) override;
  HRESULT UnlockBuffer() override { return S_OK; }
  HRESULT GetSize(unsigned int* size) override;
  HRESULT OnGetAttribute() override { return S_OK; }
  HRESULT GetUINT32(const _GUID& key, unsigned int* value) override;
  HRESULT GetUINT64(const _GUID& key, unsigned long long* value) override;
  HRESULT GetDouble(const _GUID& key, double* value) override;
  HRESULT SetUINT32(const _GUID& key, unsigned int value) override;
  HRESULT SetUINT64(const _GUID& key, unsigned long long value) override;
  HRESULT SetDouble(const _GUID& key, double value) override;

  // The 16-byte aligned start of the memory block.
  uint8_t* Data() const;

 private:
  HRESULT GetBytes(const _GUID& key, void* value, size_t n) const;
  HRESULT SetBytes(const _GUID& key, const void* value, size_t n);

  std::map<_GUID, var> m_attributes;
  std::unique_ptr<uint8_t[]> m_memory;
  uint32_t m_size;
};

class BufferAllocator final : public IOzmBufferAllocator, public RefCounted {
 public:
  HRESULT QueryInterface(const _GUID& iid, void** out) override;
  uint32_t AddRef() override { return AddRefImpl(); }
  uint32_t Release() override { return ReleaseImpl(); }
  // elementSize and flags are accepted for the callers' documentation and otherwise ignored.
  HRESULT AllocateBuffer(unsigned int size, unsigned int elementSize, unsigned int flags, IOzmBuffer** out) override;
  HRESULT ReleaseBuffer(IOzmBuffer* buffer) override;
};

class Stream final : public IStream, public IOzmMemoryStream, public RefCounted {
 public:
  // Takes ownership of data[0..size). The reference count starts at 0: the creator takes the first.
  Stream(std::unique_ptr<uint8_t[]> data, uint32_t size, uint32_t position);
  // A stream over a copy of size bytes, reading from position 0; null when memory runs out. The
  // reference count is 0, as for the constructor.
  static Stream* CopyOf(const uint8_t* data, uint32_t size);

  HRESULT QueryInterface(const _GUID& iid, void** out) override;
  uint32_t AddRef() override { return AddRefImpl(); }
  uint32_t Release() override { return ReleaseImpl(); }
  HRESULT Read(void* dst, unsigned int n, unsigned int* got) override;
  const uint8_t* UnreadBytes(uint32_t* count) const override;
  void SkipBytes(uint32_t n) override;

  int64_t GetTimestamp() const { return m_timestamp; }
  void SetTimestamp(int64_t timestampNs) { m_timestamp = timestampNs; }
  uint32_t GetPosition() const { return m_position; }
  uint32_t GetSize() const { return m_size; }
  const uint8_t* GetData() const { return m_data.get(); }

 private:
  std::unique_ptr<uint8_t[]> m_data;
  int64_t m_timestamp = 0;  // nanoseconds
  uint32_t m_position;
  uint32_t m_size;
};

}  // namespace OzmCrossPlatform
