// Records for tests: a real archive object in a scratch directory that hands out writer and reader
// records, frames written and read back through IRecord, and times written as text.
#pragma once

#include <gtest/gtest.h>

#include <kronvale/kronvale.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "archive/ArchiveImpl.h"
#include "com/ComKit.h"
#include "common/LogCapture.h"
#include "common/TempDir.h"
#include "hours/KronvaleUtils.h"
#include "platform/os.h"
#include "records/Record.h"

namespace NSTest {


inline WString W(const char* psz) { return NSPlatform::Utf8ToWide(psz); }

// "a/b/c" with the platform's separator.
inline WString Native(const char* psz) {
  WString str = W(psz);
  std::replace(str.begin(), str.end(), WCHAR(u'/'), NSPlatform::chPathSeparator);
  return str;
}

// A UTC time.
inline FILETIME Ft(WORD wYear, WORD wMonth, WORD wDay, WORD wHour, WORD wMinute = 0, WORD wSecond = 0, WORD wMs = 0) {
  const SYSTEMTIME st = {wYear, wMonth, 0, wDay, wHour, wMinute, wSecond, wMs};
  FILETIME ft = {};
  NSPlatform::SysTimeToFileTime(&st, &ft);
  return ft;
}
inline ULONGLONG U(const FILETIME& ft) { return NSPlatform::FileTimeToU64(ft); }
inline FILETIME Plus(const FILETIME& ft, LONGLONG llTicks) { return NSPlatform::U64ToFileTime(U(ft) + llTicks); }
constexpr LONGLONG kllMs = 10000;

// "2021-03-07 12:34:56.780" for failure messages.
inline std::string Show(const FILETIME& ft) {
  SYSTEMTIME st = {};
  if (!NSPlatform::FileTimeToSysTime(&ft, &st)) return "(bad time)";
  char sz[64];
  std::snprintf(sz, sizeof(sz), "%04d-%02d-%02d %02d:%02d:%02d.%03d", st.wYear, st.wMonth, st.wDay, st.wHour,
                st.wMinute, st.wSecond, st.wMilliseconds);
  return sz;
}

// A filter with any mode word, the ones the enumeration does not name included.
inline SFrameFilter Filter(DWORD dwMask, DWORD dwMode) {
  SFrameFilter filter = {dwMask, efmAny};
  std::memcpy(&filter.eMode, &dwMode, sizeof(dwMode));
  return filter;
}

inline HRESULT WriteFrame(IRecord* pRecord, const FILETIME& ft, DWORD dwFlags, const std::vector<std::string>& vBuffers) {
  std::vector<SFrameBuffer> v;
  for (const std::string& str : vBuffers)
    v.push_back({reinterpret_cast<BYTE*>(const_cast<char*>(str.data())), static_cast<DWORD>(str.size())});
  return pRecord->Write(ft, dwFlags, v.data(), static_cast<DWORD>(v.size()));
}

// The frame's buffers (read into task memory), or one "hr=..." string when the read fails.
inline std::vector<std::string> ReadFrame(IRecord* pRecord, const FILETIME& ft, DWORD dwCount, DWORD* pdwFlags = nullptr) {
  std::vector<SFrameBuffer> v(dwCount, SFrameBuffer{nullptr, 0});
  DWORD dwFlags = 0;
  const HRESULT hr = pRecord->Read(ft, &dwFlags, v.data(), dwCount);
  std::vector<std::string> vOut;
  if (FAILED(hr)) {
    char sz[24];
    std::snprintf(sz, sizeof(sz), "hr=%08X", static_cast<unsigned>(hr));
    return {sz};
  }
  for (SFrameBuffer& buffer : v) {
    vOut.emplace_back(reinterpret_cast<const char*>(buffer.pData), buffer.dwDataSize);
    CoTaskMemFree(buffer.pData);
  }
  if (pdwFlags) *pdwFlags = dwFlags;
  return vOut;
}

// Every frame time GetNext walks from the start of time.
inline std::vector<ULONGLONG> WalkForward(IRecord* pRecord, const SFrameFilter* pFilter = nullptr) {
  std::vector<ULONGLONG> v;
  FILETIME ft = {0, 0};
  while (SUCCEEDED(pRecord->GetNext(ft, pFilter, &ft))) v.push_back(U(ft));
  return v;
}

// Everything a reader can learn from an extract or a record through IRecord, as text: each frame
// with its flags and buffers, the walks both ways under a filter, and statistics at several
// resolutions and join flags.
inline std::string Describe(IRecord* p, DWORD dwCount) {
  std::string str;
  FILETIME ft = {0, 0};
  while (SUCCEEDED(p->GetNext(ft, nullptr, &ft))) {
    DWORD dwFlags = 0;
    str += Show(ft) + " ";
    for (const std::string& strBuffer : ReadFrame(p, ft, dwCount, &dwFlags)) str += "[" + strBuffer + "]";
    str += " flags=" + std::to_string(dwFlags) + "\n";
  }
  const SFrameFilter odd = {1, efmAny};
  ft = Ft(9999, 1, 1, 0);
  while (SUCCEEDED(p->GetPrev(ft, &odd, &ft))) str += "odd<" + Show(ft) + "\n";
  for (ULONGLONG ullResolution : {10 * 10000ull, 1000 * 10000ull, 60000 * 10000ull, 3600000 * 10000ull}) {
    for (LONG lFlags : {0, 4, 8}) {
      for (const SFrameFilter* pFilter : {static_cast<const SFrameFilter*>(nullptr), &odd}) {
        DWORD cRuns = 0;
        SRecordStatistic* pRuns = nullptr;
        const HRESULT hr = p->GetStatistic(Ft(2000, 1, 1, 0), Ft(2100, 1, 1, 0), NSPlatform::U64ToFileTime(ullResolution),
                                           pFilter, lFlags, &cRuns, &pRuns);
        str += "stat hr=" + std::to_string(hr) + ":";
        for (DWORD i = 0; i < cRuns; ++i)
          str += " " + Show(pRuns[i].ftBegin) + ".." + Show(pRuns[i].ftEnd) + "/" + std::to_string(pRuns[i].dwFlags) + "/" +
                 std::to_string(pRuns[i].dwCount);
        CoTaskMemFree(pRuns);
        str += "\n";
      }
    }
  }
  return str;
}

inline std::vector<WString> Texts(const NSTest::CLogCapture& capture, const char* pszCategory) {
  std::vector<WString> v;
  for (const NSTest::SLoggedReport& r : capture.Reports(W(pszCategory))) v.push_back(r.strText);
  return v;
}

inline bool Logged(const NSTest::CLogCapture& capture, const char* pszCategory, const WString& strText) {
  const std::vector<WString> v = Texts(capture, pszCategory);
  return std::find(v.begin(), v.end(), strText) != v.end();
}

// An archive object on a scratch directory (made there, or opened when it is an archive already;
// a directory of records without settings gets them). Free runs at the end, which lets the archive and its
// records go (they hold each other until then).
class CTestArchive {
 public:
  explicit CTestArchive(const WString& strPath, DWORD dwFlushTimeout = 0) {
    NSPlatform::CreateDirTree(strPath.c_str());
    NSCom::CComObject<NSArchive::CArchiveImpl>* p = nullptr;
    EXPECT_EQ(S_OK, NSCom::CComObject<NSArchive::CArchiveImpl>::CreateInstance(&p));
    m_pArchive = p;
    // A directory with settings is an archive already; otherwise one is made there.
    if (NSPlatform::PathExists(NSPlatform::CombinePath(strPath, KV_W("settings.als")).c_str()))
      EXPECT_EQ(S_OK, p->Open(strPath, 0));
    else
      EXPECT_EQ(S_OK, p->Create(strPath));
    EXPECT_EQ(S_OK, p->SetFlushTimeout(dwFlushTimeout));
  }
  ~CTestArchive() {
    if (m_pArchive) m_pArchive->Free();
  }
  CTestArchive(const CTestArchive&) = delete;
  CTestArchive& operator=(const CTestArchive&) = delete;

  IKronvale* operator->() const { return m_pArchive; }
  IKronvale* Get() const { return m_pArchive; }

  NSCom::CComPtr<IRecordEx> Writer(const char* pszName) {
    NSCom::CComPtr<IRecord> p;
    NSCom::CComBSTR bstr(W(pszName).c_str());
    EXPECT_EQ(S_OK, m_pArchive->CreateRecord(bstr, &p));
    return Ex(p);
  }
  NSCom::CComPtr<IRecordEx> Reader(const char* pszName, const char* pszClient = "test") {
    NSCom::CComPtr<IRecord> p;
    NSCom::CComBSTR bstrName(W(pszName).c_str());
    NSCom::CComBSTR bstrClient(W(pszClient).c_str());
    NSCom::CComPtr<IKronvaleEx> pEx;
    EXPECT_EQ(S_OK, m_pArchive->QueryInterface(IID_IKronvaleEx, reinterpret_cast<void**>(&pEx)));
    EXPECT_EQ(S_OK, pEx->OpenRecordEx(bstrClient, bstrName, 1, &p));
    return Ex(p);
  }

 private:
  static NSCom::CComPtr<IRecordEx> Ex(IRecord* p) {
    NSCom::CComPtr<IRecordEx> pEx;
    if (p) {
      EXPECT_EQ(S_OK, p->QueryInterface(IID_IRecordEx, reinterpret_cast<void**>(&pEx)));
    }
    return pEx;
  }

  NSCom::CComPtr<IKronvale> m_pArchive;
};

template <class I>
NSCom::CComPtr<I> Query(IUnknown* p, REFIID riid) {
  NSCom::CComPtr<I> pI;
  EXPECT_EQ(S_OK, p->QueryInterface(riid, reinterpret_cast<void**>(&pI)));
  return pI;
}

inline NSCom::CComPtr<IRecordInternal> Internal(IUnknown* p) {
  return Query<IRecordInternal>(p, __uuidof(IRecordInternal));
}

}  // namespace NSTest
