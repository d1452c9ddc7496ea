#include "common/TempDir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>

namespace NSTest {

using namespace NSPlatform;

namespace {

WString Hex(unsigned long long ull) {
  static const char s_szDigits[] = "0123456789abcdef";
  WString str;
  do {
    str.insert(str.begin(), static_cast<WCHAR>(s_szDigits[ull & 0xF]));
    ull >>= 4;
  } while (ull);
  return str;
}

}  // namespace

CTempDir::CTempDir() {
  WString strBase;
  if (FAILED(GetTempDirectory(&strBase))) return;
  static std::atomic<unsigned> s_nSerial{0};
  std::random_device random;
  const unsigned long long ullSeed =
      (static_cast<unsigned long long>(random()) << 32) ^
      static_cast<unsigned long long>(std::chrono::steady_clock::now().time_since_epoch().count());
  for (int nAttempt = 0; nAttempt < 100; ++nAttempt) {
    WString strCandidate = strBase + KV_W("kvtest-") + Hex(ullSeed + nAttempt) + KV_W("-") + Hex(s_nSerial++);
    if (SUCCEEDED(CreateDir(strCandidate.c_str()))) {
      m_strPath = strCandidate;
      return;
    }
  }
}

CTempDir::~CTempDir() {
  if (m_strPath.empty()) return;
  // A test that armed the fault seam and stopped early must not leave its tree behind.
  NSFault::Reset();
  DeleteTree(m_strPath);
}

WString CTempDir::Sub(WStringView strRelative) const { return CombinePath(m_strPath, strRelative); }

HRESULT WriteFileBytes(const WString& strPath, std::string_view bytes) {
  CFile file;
  HRESULT hr = file.Open(strPath.c_str(), GENERIC_WRITE, 0, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL);
  if (FAILED(hr)) return hr;
  DWORD cbWritten = 0;
  hr = file.Write(bytes.data(), static_cast<DWORD>(bytes.size()), &cbWritten);
  if (SUCCEEDED(hr) && cbWritten != bytes.size()) hr = E_FAIL;
  return hr;
}

HRESULT ReadFileBytes(const WString& strPath, std::string* pBytes) {
  pBytes->clear();
  CFile file;
  HRESULT hr = file.Open(strPath.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING,
                         FILE_ATTRIBUTE_NORMAL);
  ULONGLONG ullSize = 0;
  if (SUCCEEDED(hr)) hr = file.GetSize(&ullSize);
  if (FAILED(hr)) return hr;
  pBytes->resize(static_cast<size_t>(ullSize));
  DWORD cbRead = 0;
  hr = file.Read(pBytes->data(), static_cast<DWORD>(ullSize), &cbRead);
  pBytes->resize(cbRead);
  return hr;
}

HRESULT DeleteTree(const WString& strPath) {
  DWORD dwAttributes = 0;
  HRESULT hr = GetAttributes(strPath.c_str(), &dwAttributes);
  if (FAILED(hr)) return hr;
  if (dwAttributes & FILE_ATTRIBUTE_READONLY) {
    hr = SetAttributes(strPath.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (FAILED(hr)) return hr;
  }
  if (!(dwAttributes & FILE_ATTRIBUTE_DIRECTORY)) return RemoveFile(strPath.c_str());
  std::vector<SDirEntry> vEntries;
  hr = ListDir(strPath.c_str(), &vEntries);
  for (size_t i = 0; SUCCEEDED(hr) && i < vEntries.size(); ++i) {
    hr = DeleteTree(CombinePath(strPath, vEntries[i].strName));
  }
  return SUCCEEDED(hr) ? RemoveDir(strPath.c_str()) : hr;
}

std::string FileContents(const WString& strPath) {
  std::string str;
  EXPECT_EQ(ReadFileBytes(strPath, &str), S_OK) << WideToUtf8(strPath);
  return str;
}

}  // namespace NSTest
