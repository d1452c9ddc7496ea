// This program runs from a directory without the log engine library: reporting is silent and
// changes no result. Then the library is copied beside it and the next report picks it up.
#include <gtest/gtest.h>

#include <string>

#include "common/LogCapture.h"
#include "platform/os.h"
#include "support/Report.h"

namespace {

// The build puts this program in "<bin>-nolog" next to "<bin>", where the library is built.
WString Widen(const char* psz) { return NSPlatform::Utf8ToWide(psz); }

const WString kstrSeparator = KV_W("/");

HRESULT CopyWholeFile(const WString& strFrom, const WString& strTo) {
  NSPlatform::CFile from;
  HRESULT hr = from.Open(strFrom.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL);
  if (FAILED(hr)) return hr;
  ULONGLONG ullSize = 0;
  if (FAILED(hr = from.GetSize(&ullSize))) return hr;
  std::string bytes(static_cast<size_t>(ullSize), '\0');
  DWORD cb = 0;
  if (FAILED(hr = from.Read(bytes.data(), static_cast<DWORD>(bytes.size()), &cb))) return hr;
  if (cb != bytes.size()) return E_FAIL;
  NSPlatform::CFile to;
  if (FAILED(hr = to.Open(strTo.c_str(), GENERIC_WRITE, 0, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL))) return hr;
  if (FAILED(hr = to.Write(bytes.data(), static_cast<DWORD>(bytes.size()), &cb))) return hr;
  return cb == bytes.size() ? S_OK : E_FAIL;
}

class CRecordLike {
 public:
  HRESULT GetName(WCHAR** ppszName) {
    KV_CHECK_POINTER(ppszName);
    *ppszName = nullptr;
    return S_OK;
  }
  HRESULT Open(HRESULT hrOpen) {
    HRESULT hr = hrOpen;
    if (!KV_SUCCEEDED(hr)) return hr;
    KV_LOG_MESSAGE(KV_W("opened %d\n"), 1);
    return S_OK;
  }
};

TEST(NoLogEngine, SilentWithoutTheLibraryThenPickedUpWhenItAppears) {
  const WString strLibrary = Widen(KV_TEST_BIN_DIR) + KV_W("-nolog") + kstrSeparator + Widen(KV_TEST_XMLLOG_FILE);
  const WString strSource = Widen(KV_TEST_BIN_DIR) + kstrSeparator + Widen(KV_TEST_XMLLOG_FILE);
  NSPlatform::RemoveFile(strLibrary.c_str());  // a copy left by an earlier run

  NSTest::CLogCapture capture;
  CRecordLike record;

  // No library: no engine, the same results, the last error kept, nothing written.
  EXPECT_EQ(NSReport::GetLogEngine(), nullptr);
  NSPlatform::SetLastError(ERROR_LOCK_VIOLATION);
  EXPECT_EQ(record.GetName(nullptr), E_POINTER);
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_LOCK_VIOLATION));
  WCHAR* pszName = nullptr;
  EXPECT_EQ(record.GetName(&pszName), S_OK);
  EXPECT_EQ(record.Open(E_ACCESSDENIED), E_ACCESSDENIED);
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_LOCK_VIOLATION));
  EXPECT_EQ(record.Open(S_OK), S_OK);
  EXPECT_FALSE(KV_ASSERT(1 + 1 == 3));
  KV_LOG(nullptr, KV_W("direct\n"));
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_LOCK_VIOLATION));
  EXPECT_EQ(capture.RawText(), "");

  // The library appears: the next report finds it.
  ASSERT_EQ(CopyWholeFile(strSource, strLibrary), S_OK);
  NSPlatform::SetLastError(ERROR_LOCK_VIOLATION);
  EXPECT_EQ(record.GetName(nullptr), E_POINTER);
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_LOCK_VIOLATION));
  EXPECT_NE(NSReport::GetLogEngine(), nullptr);
  EXPECT_EQ(record.Open(E_ACCESSDENIED), E_ACCESSDENIED);

  NSTest::ExpectReports(capture.Reports(), {{"TRASSDO", "ppszName\n", "CRecordLike::GetName"},
                                            {"TRASSDO", {}, "CRecordLike::Open"}});
  // On Windows the loaded library cannot be deleted now; the next run removes it first.
  NSPlatform::RemoveFile(strLibrary.c_str());
}

}  // namespace
