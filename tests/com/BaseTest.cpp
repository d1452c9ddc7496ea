// The COM base: GUID comparison and the system identifiers, BSTR layout, the task allocator and
// CComBSTR. Under Wine the same tests run against the real oleaut32 and ole32, which holds the
// Linux implementation to the real behaviour.
#include <cstring>
#include <memory>

#include <gtest/gtest.h>

#include "com/ComKit.h"

using NSCom::CComBSTR;
using NSCom::CComException;

namespace {

UINT PrefixOf(BSTR bstr) {
  UINT cb;
  std::memcpy(&cb, reinterpret_cast<const char*>(bstr) - sizeof(cb), sizeof(cb));
  return cb;
}

constexpr GUID MakeGuid(uint32_t l, uint16_t w1, uint16_t w2, uint8_t b0, uint8_t b7) {
  return GUID{l, w1, w2, {b0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, b7}};
}

}  // namespace

TEST(ComGuid, EqualityComparesEveryField) {
  const GUID guid = {0x12345678, 0x9ABC, 0xDEF0, {1, 2, 3, 4, 5, 6, 7, 8}};
  GUID other = guid;
  EXPECT_TRUE(IsEqualGUID(guid, other));
  EXPECT_TRUE(IsEqualIID(guid, other));
  EXPECT_TRUE(guid == other);
  // One bit off in any byte of any field.
  for (size_t i = 0; i < sizeof(GUID); ++i) {
    other = guid;
    reinterpret_cast<unsigned char*>(&other)[i] ^= 0x80;
    EXPECT_FALSE(IsEqualGUID(guid, other)) << i;
    EXPECT_TRUE(guid != other) << i;
  }
  EXPECT_FALSE(IsEqualGUID(guid, GUID_NULL));
  EXPECT_EQ(16u, sizeof(GUID));
  const GUID zero = {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};
  EXPECT_TRUE(IsEqualGUID(zero, GUID_NULL));
  EXPECT_TRUE(IsEqualIID(zero, IID_NULL));
}

TEST(ComGuid, UuidofGivesTheSystemIdentifiers) {
  struct SCase {
    GUID guidExpected;
    const IID& riidUuidof;
    const IID& riidLinked;  // the linkable identifier agrees with __uuidof
  } const aCases[] = {
      {MakeGuid(0x00000000, 0x0000, 0x0000, 0xC0, 0x46), __uuidof(IUnknown), IID_IUnknown},
      {MakeGuid(0x00000001, 0x0000, 0x0000, 0xC0, 0x46), __uuidof(IClassFactory), IID_IClassFactory},
      {MakeGuid(0x00000003, 0x0000, 0x0000, 0xC0, 0x46), __uuidof(IMarshal), IID_IMarshal},
      {MakeGuid(0x0000000C, 0x0000, 0x0000, 0xC0, 0x46), __uuidof(IStream), IID_IStream},
      {{0x0C733A30, 0x2A1C, 0x11CE, {0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D}}, __uuidof(ISequentialStream),
       IID_ISequentialStream},
  };
  for (const SCase& c : aCases) {
    EXPECT_TRUE(IsEqualIID(c.guidExpected, c.riidUuidof)) << c.guidExpected.Data1;
    EXPECT_TRUE(IsEqualIID(c.guidExpected, c.riidLinked)) << c.guidExpected.Data1;
  }
  // __uuidof takes an expression too, also of pointer type.
  IStream* pStream = nullptr;
  EXPECT_TRUE(IsEqualIID(aCases[3].guidExpected, __uuidof(pStream)));
  EXPECT_TRUE(IsEqualIID(aCases[3].guidExpected, __uuidof(IStream*)));
}

// Every way to allocate: a prefix holding the byte length, the bytes given (none given: room for
// them), and a zero after them, which is a whole zero character when the length is even.
TEST(ComBstr, EveryAllocationHasItsByteLengthPrefixItsBytesAndAZeroAfterThem) {
  const WCHAR achText[] = {'a', 0, 'b', 0, 'c'};  // embedded zeros are kept
  struct SCase {
    const char* pszHow;
    BSTR bstr;
    UINT cbExpected;
    const void* pvBytes;  // null: not checked
  };
  const SCase aCases[] = {
      {"SysAllocString", SysAllocString(KV_W("abc")), 6, KV_W("abc")},
      {"SysAllocString, empty", SysAllocString(KV_W("")), 0, nullptr},
      {"SysAllocStringLen", SysAllocStringLen(achText, 5), 10, achText},
      {"SysAllocStringLen, no source", SysAllocStringLen(nullptr, 7), 14, nullptr},
      {"SysAllocStringLen, no characters", SysAllocStringLen(KV_W("xyz"), 0), 0, nullptr},
      {"SysAllocStringByteLen, odd", SysAllocStringByteLen("abc", 3), 3, "abc"},
      {"SysAllocStringByteLen, no source", SysAllocStringByteLen(nullptr, 4), 4, nullptr},
  };
  for (const SCase& c : aCases) {
    SCOPED_TRACE(c.pszHow);
    if (!c.bstr) {
      ADD_FAILURE() << "no string";
      continue;
    }
    EXPECT_EQ(c.cbExpected, PrefixOf(c.bstr));
    EXPECT_EQ(c.cbExpected, SysStringByteLen(c.bstr));
    EXPECT_EQ(c.cbExpected / 2, SysStringLen(c.bstr));
    if (c.pvBytes) {
      EXPECT_EQ(0, std::memcmp(c.pvBytes, c.bstr, c.cbExpected));
    }
    EXPECT_EQ(0, reinterpret_cast<const char*>(c.bstr)[c.cbExpected]);
    if (c.cbExpected % 2 == 0) {
      EXPECT_EQ(0, c.bstr[c.cbExpected / 2]);
    }
    SysFreeString(c.bstr);
  }

  EXPECT_EQ(nullptr, SysAllocString(nullptr));
  EXPECT_EQ(0u, SysStringLen(nullptr));
  EXPECT_EQ(0u, SysStringByteLen(nullptr));
  SysFreeString(nullptr);
}

TEST(ComBstr, ReallocationReplacesTheString) {
  BSTR bstr = SysAllocString(KV_W("short"));
  ASSERT_TRUE(SysReAllocString(&bstr, KV_W("a much longer text")));
  EXPECT_EQ(WString(KV_W("a much longer text")), WString(bstr, SysStringLen(bstr)));
  ASSERT_TRUE(SysReAllocStringLen(&bstr, KV_W("ab\0cd"), 5));
  EXPECT_EQ(5u, SysStringLen(bstr));
  EXPECT_EQ(WString(KV_W("ab\0cd"), 5), WString(bstr, 5));
  SysFreeString(bstr);

  // From nothing.
  bstr = nullptr;
  ASSERT_TRUE(SysReAllocString(&bstr, KV_W("new")));
  EXPECT_EQ(3u, SysStringLen(bstr));
  SysFreeString(bstr);
}

TEST(ComTaskMem, AllocReallocFree) {
  void* pv = CoTaskMemAlloc(0);
  EXPECT_NE(nullptr, pv);
  CoTaskMemFree(pv);

  char* pch = static_cast<char*>(CoTaskMemAlloc(16));
  ASSERT_NE(nullptr, pch);
  std::memcpy(pch, "0123456789abcdef", 16);
  pch = static_cast<char*>(CoTaskMemRealloc(pch, 4096));
  ASSERT_NE(nullptr, pch);
  EXPECT_EQ(0, std::memcmp(pch, "0123456789abcdef", 16));
  // Size 0 frees the block.
  EXPECT_EQ(nullptr, CoTaskMemRealloc(pch, 0));

  pch = static_cast<char*>(CoTaskMemRealloc(nullptr, 8));
  EXPECT_NE(nullptr, pch);
  CoTaskMemFree(pch);
  CoTaskMemFree(nullptr);
}

TEST(ComBstr, OwnerCopiesAttachesAndDetaches) {
  CComBSTR str(KV_W("hello"));
  EXPECT_EQ(5u, str.Length());
  EXPECT_EQ(10u, str.ByteLength());
  CComBSTR copy(str);
  EXPECT_NE(static_cast<BSTR>(copy), static_cast<BSTR>(str));
  EXPECT_TRUE(copy == str);

  // Copy keeps the bytes exactly, odd length and embedded zeros included.
  CComBSTR odd;
  odd.Attach(SysAllocStringByteLen("a\0b", 3));
  BSTR bstrCopy = odd.Copy();
  ASSERT_NE(nullptr, bstrCopy);
  EXPECT_EQ(3u, SysStringByteLen(bstrCopy));
  EXPECT_EQ(0, std::memcmp(bstrCopy, "a\0b", 3));
  SysFreeString(bstrCopy);

  BSTR bstrOut = reinterpret_cast<BSTR>(1);
  EXPECT_EQ(E_POINTER, str.CopyTo(nullptr));
  EXPECT_EQ(S_OK, str.CopyTo(&bstrOut));
  EXPECT_EQ(WString(KV_W("hello")), WString(bstrOut, SysStringLen(bstrOut)));
  SysFreeString(bstrOut);
  CComBSTR empty;
  EXPECT_TRUE(!empty);
  EXPECT_EQ(0u, empty.Length());
  EXPECT_EQ(S_OK, empty.CopyTo(&bstrOut));
  EXPECT_EQ(nullptr, bstrOut);
  EXPECT_EQ(nullptr, empty.Copy());
  EXPECT_TRUE(empty == CComBSTR(KV_W("")));

  BSTR bstrDetached = str.Detach();
  EXPECT_TRUE(!str);
  str.Attach(bstrDetached);
  EXPECT_EQ(bstrDetached, static_cast<BSTR>(str));

  // Assignment from its own characters.
  str = static_cast<LPCOLESTR>(str) + 1;
  EXPECT_EQ(WString(KV_W("ello")), str.ToWString());
  str += KV_W(" world");
  str.Append(KV_W("\0!"), 2);
  EXPECT_EQ(WString(KV_W("ello world\0!"), 12), str.ToWString());

  CComBSTR fromView(WStringView(KV_W("a\0b"), 3));
  EXPECT_EQ(3u, fromView.Length());
  CComBSTR moved(std::move(fromView));
  EXPECT_TRUE(!fromView);
  EXPECT_EQ(3u, moved.Length());
  moved = copy;
  EXPECT_TRUE(moved == copy);
  moved.Empty();
  EXPECT_TRUE(!moved);
  CComBSTR* pSelf = std::addressof(copy);
  copy = *pSelf;
  EXPECT_EQ(WString(KV_W("hello")), copy.ToWString());

  BSTR* pbstr = &empty;
  *pbstr = SysAllocString(KV_W("out"));
  EXPECT_EQ(3u, empty.Length());
}

TEST(ComBstr, AllocationFailureThrowsOutOfMemory) {
  try {
    CComBSTR huge(0x7FFFFFFFu, nullptr);
    FAIL() << "a string of 2^31 characters was allocated";
  } catch (const CComException& e) {
    EXPECT_EQ(E_OUTOFMEMORY, e.GetHResult());
  }
  CComBSTR str(KV_W("x"));
  EXPECT_THROW(str.Append(nullptr, 0x7FFFFFFFu), CComException);
  EXPECT_EQ(1u, str.Length());

  // The boundary helper maps what the engine throws.
  auto fnMap = [](auto fnThrow) {
    try {
      fnThrow();
    } catch (...) {
      return NSCom::HResultFromCurrentException();
    }
    return S_OK;
  };
  EXPECT_EQ(E_HANDLE, fnMap([] { NSCom::ThrowHResult(E_HANDLE); }));
  EXPECT_EQ(E_OUTOFMEMORY, fnMap([] { throw std::bad_alloc(); }));
  EXPECT_EQ(E_FAIL, fnMap([] { throw 42; }));
  EXPECT_EQ(E_FAIL, fnMap([] { throw CComException(S_FALSE); }));
  EXPECT_STREQ("HRESULT 0x8007000E", CComException(E_OUTOFMEMORY).what());
}
