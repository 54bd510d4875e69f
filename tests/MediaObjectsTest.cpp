#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "OzmCore/CComPtr.h"
#include "OzmCore/OzmAttributes.h"
#include "OzmCore/OzmMediaObjects.h"
#include "platform/host/LogCapture.h"

using OzmCrossPlatform::Buffer;
using OzmCrossPlatform::BufferAllocator;
using OzmCrossPlatform::Stream;

namespace {

OZMCORE::CComPtr<IOzmBuffer> Allocate(unsigned int size) {
  OZMCORE::CComPtr<BufferAllocator> allocator(new BufferAllocator);
  OZMCORE::CComPtr<IOzmBuffer> buffer;
  EXPECT_EQ(allocator->AllocateBuffer(size, 4, 0, &buffer), S_OK);
  // AllocateBuffer hands out one reference, which the smart pointer now owns.
  return buffer;
}

uint64_t Bits(double d) {
  uint64_t bits;
  std::memcpy(&bits, &d, 8);
  return bits;
}

TEST(Buffer, LockReportsSizeAndSixteenByteAlignedWritableMemory) {
  for (unsigned int size : {0u, 1u, 15u, 16u, 17u, 1000u, 65536u}) {
    OZMCORE::CComPtr<IOzmBuffer> buffer = Allocate(size);
    OzmLockedMemory locked{};
    ASSERT_EQ(buffer->LockBuffer(&locked), S_OK);
    EXPECT_NE(locked.pData, nullptr) << size;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(locked.pData) % 16, 0u) << size;
    EXPECT_EQ(locked.size, size);
    EXPECT_EQ(locked.reserved0, 0u);
    EXPECT_EQ(locked.reserved1, 0u);
    std::memset(locked.pData, 0xAB, size);
    unsigned int reported = 1234;
    EXPECT_EQ(buffer->GetSize(&reported), S_OK);
    EXPECT_EQ(reported, size);
    EXPECT_EQ(buffer->UnlockBuffer(), S_OK);
  }
}

TEST(Buffer, LockWithoutTargetFailsWithAnAssertion) {
  OzmPlatform::ScopedLogCapture log;
  OZMCORE::CComPtr<IOzmBuffer> buffer = Allocate(8);
  EXPECT_EQ(buffer->LockBuffer(nullptr), E_POINTER);
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0].text.rfind("ASSERT FAILED: 'pLockedMemory' at OzmCore/OzmMediaObjects line ", 0), 0u);
}

// Attribute values are untagged: a getter reinterprets whatever bytes the setter stored.
TEST(Buffer, AttributeValuesAreUntaggedEightByteSlots) {
  const _GUID g = OzmAttrib_FrameCount;
  struct Case {
    const char* name;
    std::function<void(IOzmAttributesCore*)> set;
    uint64_t expected64;
  };
  const std::vector<Case> cases = {
      {"u32 alone", [&](IOzmAttributesCore* a) { a->SetUINT32(g, 0xDEADBEEF); }, 0xDEADBEEFull},
      {"u64 alone", [&](IOzmAttributesCore* a) { a->SetUINT64(g, 0x0123456789ABCDEFull); }, 0x0123456789ABCDEFull},
      {"double then u32 overwrites the low half",
       [&](IOzmAttributesCore* a) {
         a->SetDouble(g, 1.0);
         a->SetUINT32(g, 0);
       },
       Bits(1.0)},
      {"u64 then u32 keeps the high half",
       [&](IOzmAttributesCore* a) {
         a->SetUINT64(g, 0x100000001ull);
         a->SetUINT32(g, 7);
       },
       0x100000007ull},
      {"double", [&](IOzmAttributesCore* a) { a->SetDouble(g, -2.5); }, Bits(-2.5)},
  };
  for (const Case& c : cases) {
    OZMCORE::CComPtr<IOzmBuffer> buffer = Allocate(0);
    IOzmAttributesCore* attributes = nullptr;
    ASSERT_EQ(buffer->QueryInterface(IID_IOzmAttributesCore, reinterpret_cast<void**>(&attributes)), S_OK);
    c.set(attributes);
    unsigned long long v64 = 0;
    EXPECT_EQ(attributes->GetUINT64(g, &v64), S_OK) << c.name;
    EXPECT_EQ(v64, c.expected64) << c.name;
    // The buffer's own accessors see the same map.
    unsigned int v32 = 0;
    EXPECT_EQ(buffer->GetUINT32(g, &v32), S_OK);
    EXPECT_EQ(v32, static_cast<uint32_t>(c.expected64)) << c.name;
    attributes->Release();
  }
}

TEST(Buffer, SetDoubleThenGetUint32ReturnsTheLowHalfOfTheBits) {
  OZMCORE::CComPtr<IOzmBuffer> buffer = Allocate(0);
  buffer->SetDouble(OzmAttrib_BBoxMinX, 1.0);
  unsigned int v = 99;
  EXPECT_EQ(buffer->GetUINT32(OzmAttrib_BBoxMinX, &v), S_OK);
  EXPECT_EQ(v, 0u);
}

TEST(Buffer, MissingAttributeFailsAndLeavesTheOutputAlone) {
  OZMCORE::CComPtr<IOzmBuffer> buffer = Allocate(0);
  buffer->SetUINT32(OzmAttrib_FrameCount, 5);
  unsigned int v32 = 77;
  unsigned long long v64 = 77;
  double d = 77;
  EXPECT_EQ(buffer->GetUINT32(OzmAttrib_MaxIndexCount, &v32), E_FAIL);
  EXPECT_EQ(buffer->GetUINT64(OzmAttrib_MaxIndexCount, &v64), E_FAIL);
  EXPECT_EQ(buffer->GetDouble(OzmAttrib_MaxIndexCount, &d), E_FAIL);
  EXPECT_EQ(v32, 77u);
  EXPECT_EQ(v64, 77u);
  EXPECT_EQ(d, 77);
}

TEST(Buffer, GuidsAreOrderedAndDistinguishedByEveryByte) {
  // Keys that differ in one byte only, at each position, are distinct entries.
  OZMCORE::CComPtr<IOzmBuffer> buffer = Allocate(0);
  std::vector<_GUID> keys;
  for (int byte = 0; byte < 16; ++byte) {
    _GUID g = OzmAttrib_FrameCount;
    reinterpret_cast<uint8_t*>(&g)[byte] ^= 0x80;
    keys.push_back(g);
  }
  for (size_t i = 0; i < keys.size(); ++i) buffer->SetUINT32(keys[i], static_cast<unsigned>(i));
  for (size_t i = 0; i < keys.size(); ++i) {
    unsigned int v = 0;
    ASSERT_EQ(buffer->GetUINT32(keys[i], &v), S_OK);
    EXPECT_EQ(v, i);
  }
  EXPECT_EQ(buffer->GetUINT32(OzmAttrib_FrameCount, nullptr), E_FAIL);
}

TEST(MediaObjects, QueryInterfaceHandsOutTheRightBaseWithAReference) {
  Buffer* raw = new Buffer(4);
  OZMCORE::CComPtr<IOzmBuffer> buffer(raw);
  struct Case {
    const _GUID* iid;
    HRESULT result;
    void* expected;
  };
  const Case cases[] = {
      {&IID_IOzmBuffer, S_OK, static_cast<IOzmBuffer*>(raw)},
      {&IID_IOzmAttributesCore, S_OK, static_cast<IOzmAttributesCore*>(raw)},
      {&IID_IUnknown, E_NOINTERFACE, nullptr},
      {&OzmAttrib_FrameCount, E_NOINTERFACE, nullptr},
  };
  for (const Case& c : cases) {
    void* out = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(buffer->QueryInterface(*c.iid, &out), c.result);
    EXPECT_EQ(out, c.expected);
    if (c.result == S_OK) {
      EXPECT_EQ(buffer->Release(), 1u);  // the reference QueryInterface added
    }
  }
  EXPECT_EQ(buffer->QueryInterface(IID_IOzmBuffer, nullptr), E_POINTER);

  OZMCORE::CComPtr<Stream> stream(new Stream(nullptr, 0, 0));
  void* out = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(stream->QueryInterface(IID_IOzmBuffer, &out), E_NOINTERFACE);
  EXPECT_EQ(out, nullptr);
}

TEST(Stream, ReadsAreShortAtTheEndAndAlwaysSucceed) {
  struct Case {
    uint32_t size, position;
    std::vector<unsigned int> requests, counts;
  };
  const Case cases[] = {
      {10, 8, {4, 4}, {2, 0}}, {10, 0, {3, 3, 3, 3, 3}, {3, 3, 3, 1, 0}},
      {8, 8, {1}, {0}},        {5, 8, {4, 0}, {0, 0}},  // a payload shorter than its prefix reads nothing
      {0, 0, {16}, {0}},
  };
  for (const Case& c : cases) {
    std::unique_ptr<uint8_t[]> data(new uint8_t[c.size + 1]);
    for (uint32_t i = 0; i < c.size; ++i) data[i] = static_cast<uint8_t>(i);
    OZMCORE::CComPtr<Stream> stream(new Stream(std::move(data), c.size, c.position));
    uint32_t expectedPosition = c.position;
    for (size_t r = 0; r < c.requests.size(); ++r) {
      uint8_t dst[16] = {};
      unsigned int got = 999;
      EXPECT_EQ(stream->Read(dst, c.requests[r], &got), S_OK);
      EXPECT_EQ(got, c.counts[r]) << "size " << c.size << " read " << r;
      for (unsigned int i = 0; i < got; ++i) EXPECT_EQ(dst[i], expectedPosition + i);
      expectedPosition += got;
    }
  }
}

// Counts destructions; its destructor can re-enter the reference count like a careless owner.
class Probe : public OzmCrossPlatform::RefCounted {
 public:
  Probe(std::atomic<int>* destroyed, bool reenter) : m_destroyed(destroyed), m_reenter(reenter) {}
  ~Probe() override {
    ++*m_destroyed;
    if (m_reenter) {
      AddRefImpl();
      ReleaseImpl();
    }
  }

 private:
  std::atomic<int>* m_destroyed;
  bool m_reenter;
};

TEST(RefCounting, ReachingZeroAgainDuringDestructionDoesNotDestroyTwice) {
  OzmPlatform::ScopedLogCapture log;
  std::atomic<int> destroyed{0};
  Probe* probe = new Probe(&destroyed, true);
  probe->AddRefImpl();
  EXPECT_EQ(probe->ReleaseImpl(), 0u);
  EXPECT_EQ(destroyed, 1);
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0].text.rfind("ASSERT FAILED: 'm_DestructionFlag == 0' at OzmCore/OzmMediaObjects line", 0),
            0u);
}

TEST(RefCounting, ConcurrentAddRefReleaseDestroysExactlyOnce) {
  for (int round = 0; round < 20; ++round) {
    std::atomic<int> destroyed{0};
    Probe* probe = new Probe(&destroyed, false);
    probe->AddRefImpl();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      probe->AddRefImpl();  // each thread owns one reference
      threads.emplace_back([probe] {
        for (int i = 0; i < 1000; ++i) {
          probe->AddRefImpl();
          probe->ReleaseImpl();
        }
        probe->ReleaseImpl();
      });
    }
    probe->ReleaseImpl();
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(destroyed, 1);
  }
}

TEST(CComPtr, HoldsOneReferenceAndChecksMisuse) {
  OzmPlatform::ScopedLogCapture log;
  Buffer* raw = new Buffer(1);
  {
    OZMCORE::CComPtr<IOzmBuffer> a(raw);
    OZMCORE::CComPtr<IOzmBuffer> b = a;
    EXPECT_EQ(raw->AddRef(), 3u);
    EXPECT_EQ(raw->Release(), 2u);
    b.Release();
    EXPECT_EQ(raw->AddRef(), 2u);
    raw->Release();
    EXPECT_TRUE(log.Lines().empty());
    // Taking the address of a non-empty pointer for an out-parameter is a leak in waiting.
    (void)&a;
    EXPECT_EQ(log.Lines().size(), 1u);
  }
  OZMCORE::CComPtr<IOzmBuffer> empty;
  (void)empty.operator->();
  ASSERT_EQ(log.Lines().size(), 2u);
  EXPECT_EQ(log.Lines()[0].text.rfind("ASSERT FAILED: 'p == NULL' at OzmCore/CComPtr line ", 0), 0u);
  EXPECT_EQ(log.Lines()[1].text.rfind("ASSERT FAILED: 'p != NULL' at OzmCore/CComPtr line ", 0), 0u);
}

}  // namespace
