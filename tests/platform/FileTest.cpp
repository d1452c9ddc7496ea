// CFile, CFileMapping and whole-file calls: the Win32 answers Linux reproduces (error codes, share
// modes, read-only files, delete-on-close, byte-range locks) and the exact bytes that land on disk.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>

#include "common/TempDir.h"
#include "platform/os.h"

using namespace NSPlatform;
using NSTest::CTempDir;
using NSTest::FileContents;
using NSTest::WriteFileBytes;

namespace {

constexpr DWORD dwReadWrite = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD dwShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

ULONGLONG SizeOf(CFile& file) {
  ULONGLONG ull = ~0ull;
  EXPECT_EQ(file.GetSize(&ull), S_OK);
  return ull;
}

}  // namespace

TEST(File, OpenErrorsAndCreationDispositions) {
  CTempDir dir;
  CFile file;
  const WString strFile = dir.Sub(KV_W("f.bin"));
  EXPECT_EQ(file.Open(strFile.c_str(), GENERIC_READ, 0, OPEN_EXISTING, 0), static_cast<HRESULT>(0x80070002));
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  const WString strDeep = dir.Sub(KV_W("missing")) + chPathSeparator + KV_W("f.bin");
  EXPECT_EQ(file.Open(strDeep.c_str(), dwReadWrite, 0, OPEN_ALWAYS, 0), static_cast<HRESULT>(0x80070003));
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(file.Open(dir.Path().c_str(), GENERIC_READ, dwShareAll, OPEN_EXISTING, 0), E_ACCESSDENIED);
  EXPECT_FALSE(file.IsOpen());

  bool bExisted = true;
  ASSERT_EQ(file.Open(strFile.c_str(), dwReadWrite, 0, OPEN_ALWAYS, 0, &bExisted), S_OK);
  EXPECT_FALSE(bExisted);
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_SUCCESS));
  ASSERT_EQ(file.Write("hello", 5, nullptr), S_OK);
  file.Close();
  file.Close();  // closing twice is harmless

  EXPECT_EQ(file.Open(strFile.c_str(), dwReadWrite, 0, CREATE_NEW, 0), static_cast<HRESULT>(0x80070050));
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_FILE_EXISTS));
  ASSERT_EQ(file.Open(strFile.c_str(), dwReadWrite, 0, OPEN_ALWAYS, 0, &bExisted), S_OK);
  EXPECT_TRUE(bExisted);
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  EXPECT_EQ(SizeOf(file), 5u);
  file.Close();
  ASSERT_EQ(file.Open(strFile.c_str(), dwReadWrite, 0, CREATE_ALWAYS, 0, &bExisted), S_OK);
  EXPECT_TRUE(bExisted);
  EXPECT_EQ(SizeOf(file), 0u);
  EXPECT_EQ(file.GetPath(), strFile);
}

TEST(File, ReadWriteSeekAndEndOfFile) {
  CTempDir dir;
  const WString strFile = dir.Sub(KV_W("rw.bin"));
  CFile file;
  ASSERT_EQ(file.Open(strFile.c_str(), dwReadWrite, 0, CREATE_NEW, 0), S_OK);
  DWORD cb = 0;
  ASSERT_EQ(file.Write("0123456789", 10, &cb), S_OK);
  EXPECT_EQ(cb, 10u);

  char ach[16] = {};
  EXPECT_EQ(file.Read(ach, sizeof(ach), &cb), S_OK);  // at the end: success, nothing read
  EXPECT_EQ(cb, 0u);
  ULONGLONG ullPos = 0;
  ASSERT_EQ(file.Seek(-4, FILE_END, &ullPos), S_OK);
  EXPECT_EQ(ullPos, 6u);
  EXPECT_EQ(file.Read(ach, sizeof(ach), &cb), S_OK);
  EXPECT_EQ(std::string(ach, cb), "6789");

  EXPECT_EQ(file.Seek(-11, FILE_CURRENT, &ullPos), static_cast<HRESULT>(0x80070083));
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_NEGATIVE_SEEK));
  ASSERT_EQ(file.Seek(0, FILE_CURRENT, &ullPos), S_OK);
  EXPECT_EQ(ullPos, 10u);  // a refused seek leaves the position

  ASSERT_EQ(file.Seek(16, FILE_BEGIN, &ullPos), S_OK);  // past the end is allowed
  EXPECT_EQ(SizeOf(file), 10u);
  ASSERT_EQ(file.Write("X", 1, &cb), S_OK);
  EXPECT_EQ(SizeOf(file), 17u);
  ASSERT_EQ(file.Seek(3, FILE_BEGIN, nullptr), S_OK);
  ASSERT_EQ(file.SetEndOfFile(), S_OK);
  EXPECT_EQ(SizeOf(file), 3u);

  // At an offset: a gap before the written bytes reads as zeros; reading past the end reads nothing.
  ASSERT_EQ(file.WriteAt(6, "ab", 2, &cb), S_OK);
  EXPECT_EQ(cb, 2u);
  ASSERT_EQ(file.ReadAt(0, ach, sizeof(ach), &cb), S_OK);
  EXPECT_EQ(std::string(ach, cb), std::string("012\0\0\0ab", 8));
  EXPECT_EQ(file.ReadAt(100, ach, sizeof(ach), &cb), S_OK);
  EXPECT_EQ(cb, 0u);
  file.Close();
  EXPECT_EQ(FileContents(strFile), std::string("012\0\0\0ab", 8));

  // A handle refuses what it was not opened for.
  ASSERT_EQ(file.Open(strFile.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0), S_OK);
  EXPECT_EQ(file.Write("x", 1, &cb), E_ACCESSDENIED);
  EXPECT_EQ(file.WriteAt(0, "x", 1, &cb), E_ACCESSDENIED);
  file.Close();
  ASSERT_EQ(file.Open(strFile.c_str(), GENERIC_WRITE, 0, OPEN_EXISTING, 0), S_OK);
  EXPECT_EQ(file.Read(ach, 1, &cb), E_ACCESSDENIED);
  file.Close();
  EXPECT_EQ(file.Read(ach, 1, &cb), E_HANDLE);
}

TEST(File, WriteGatherWritesTheBuffersInOrder) {
  CTempDir dir;
  const WString strFile = dir.Sub(KV_W("gather.bin"));
  CFile file;
  ASSERT_EQ(file.Open(strFile.c_str(), dwReadWrite, 0, CREATE_NEW, FILE_FLAG_WRITE_THROUGH), S_OK);
  std::string strBig(70000, 'z');
  const SIoBuffer aBuffers[] = {{"head", 4}, {"", 0}, {strBig.data(), static_cast<DWORD>(strBig.size())}, {"tail", 4}};
  DWORD cb = 0;
  ASSERT_EQ(file.WriteGather(aBuffers, 4, &cb), S_OK);
  EXPECT_EQ(cb, 70008u);
  ASSERT_EQ(file.Seek(2, FILE_BEGIN, nullptr), S_OK);
  const SIoBuffer aOver[] = {{"AB", 2}, {"C", 1}};
  ASSERT_EQ(file.WriteGather(aOver, 2, &cb), S_OK);
  EXPECT_EQ(cb, 3u);
  ASSERT_EQ(file.Write("!", 1, &cb), S_OK);  // the position moved past the gathered bytes
  ASSERT_EQ(file.Flush(), S_OK);
  file.Close();
  EXPECT_EQ(FileContents(strFile), "heABC!" + strBig.substr(2) + "tail");

  // At an offset: beyond the end, and inside the big buffer.
  ASSERT_EQ(file.Open(strFile.c_str(), dwReadWrite, 0, OPEN_EXISTING, 0), S_OK);
  ASSERT_EQ(file.WriteGatherAt(70010, aOver, 2, &cb), S_OK);
  EXPECT_EQ(cb, 3u);
  const SIoBuffer aInside[] = {{"12", 2}, {strBig.data(), 3}, {"3", 1}};
  ASSERT_EQ(file.WriteGatherAt(100, aInside, 3, &cb), S_OK);
  EXPECT_EQ(cb, 6u);
  file.Close();
  EXPECT_EQ(FileContents(strFile), "heABC!" + strBig.substr(2, 94) + "12zzz3" + strBig.substr(102) + "tail" +
                                   std::string("\0\0", 2) + "ABC");
}

TEST(File, DeleteOnCloseAndTemporaryFiles) {
  CTempDir dir;
  WString strTemp, strTemp2;
  ASSERT_EQ(CreateTempFile(dir.Path().c_str(), KV_W("kvtmp"), &strTemp), S_OK);
  ASSERT_EQ(CreateTempFile(dir.Path().c_str(), KV_W("kvtmp"), &strTemp2), S_OK);
  EXPECT_NE(strTemp, strTemp2);
  // <directory><first three characters of the prefix><hexadecimal number>.tmp, created empty.
  const WString strPrefix = AddTrailingSeparator(dir.Path()) + KV_W("kvt");
  ASSERT_GT(strTemp.size(), strPrefix.size() + 4);
  EXPECT_EQ(FoldPathCase(strTemp.substr(0, strPrefix.size())), FoldPathCase(strPrefix));
  EXPECT_EQ(FoldPathCase(strTemp.substr(strTemp.size() - 4)), KV_W(".tmp"));
  const WString strNumber = strTemp.substr(strPrefix.size(), strTemp.size() - 4 - strPrefix.size());
  EXPECT_GE(strNumber.size(), 1u);
  EXPECT_LE(strNumber.size(), 4u);
  for (WCHAR ch : strNumber) EXPECT_TRUE(std::isxdigit(static_cast<int>(ch))) << WideToUtf8(strTemp);
  EXPECT_EQ(FileContents(strTemp), "");
  EXPECT_EQ(RemoveFile(strTemp2.c_str()), S_OK);
  WString strUnused;
  EXPECT_EQ(CreateTempFile(dir.Sub(KV_W("none")).c_str(), KV_W("kv"), &strUnused), static_cast<HRESULT>(0x8007010B));

  CFile file;
  ASSERT_EQ(file.Open(strTemp.c_str(), dwReadWrite, dwShareAll, CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE), S_OK);
  DWORD cb = 0;
  ASSERT_EQ(file.Write("scratch", 7, &cb), S_OK);
  char ach[8] = {};
  ASSERT_EQ(file.ReadAt(0, ach, 7, &cb), S_OK);
  EXPECT_EQ(std::string(ach, cb), "scratch");
  file.Close();
  EXPECT_FALSE(PathExists(strTemp.c_str()));
  EXPECT_EQ(file.Open(strTemp.c_str(), GENERIC_READ, dwShareAll, OPEN_EXISTING, 0), static_cast<HRESULT>(0x80070002));

  const WString strNew = dir.Sub(KV_W("new.tmp"));
  ASSERT_EQ(file.Open(strNew.c_str(), dwReadWrite, 0, CREATE_NEW, FILE_FLAG_DELETE_ON_CLOSE), S_OK);
  file.Close();
  EXPECT_FALSE(PathExists(strNew.c_str()));
  EXPECT_TRUE(IsDirectoryEmpty(dir.Path().c_str()));
}

TEST(File, ReadOnlyFilesRefuseWritersAndDeletion) {
  CTempDir dir;
  const WString strFile = dir.Sub(KV_W("ro.bin"));
  ASSERT_EQ(WriteFileBytes(strFile, "keep"), S_OK);
  DWORD dwAttributes = 0;
  ASSERT_EQ(GetAttributes(strFile.c_str(), &dwAttributes), S_OK);
  EXPECT_EQ(dwAttributes, static_cast<DWORD>(FILE_ATTRIBUTE_NORMAL));
  ASSERT_EQ(SetAttributes(strFile.c_str(), FILE_ATTRIBUTE_READONLY), S_OK);
  ASSERT_EQ(GetAttributes(strFile.c_str(), &dwAttributes), S_OK);
  EXPECT_EQ(dwAttributes, static_cast<DWORD>(FILE_ATTRIBUTE_READONLY));

  CFile file;
  EXPECT_EQ(file.Open(strFile.c_str(), GENERIC_WRITE, 0, OPEN_EXISTING, 0), E_ACCESSDENIED);
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_EQ(file.Open(strFile.c_str(), dwReadWrite, 0, OPEN_ALWAYS, 0), E_ACCESSDENIED);
  EXPECT_EQ(file.Open(strFile.c_str(), GENERIC_READ, 0, CREATE_ALWAYS, 0), E_ACCESSDENIED);
  EXPECT_EQ(RemoveFile(strFile.c_str()), E_ACCESSDENIED);
  EXPECT_EQ(FileContents(strFile), "keep");
  ASSERT_EQ(file.Open(strFile.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0), S_OK);
  file.Close();

  ASSERT_EQ(SetAttributes(strFile.c_str(), FILE_ATTRIBUTE_NORMAL), S_OK);
  ASSERT_EQ(GetAttributes(strFile.c_str(), &dwAttributes), S_OK);
  EXPECT_EQ(dwAttributes, static_cast<DWORD>(FILE_ATTRIBUTE_NORMAL));
  ASSERT_EQ(file.Open(strFile.c_str(), GENERIC_WRITE, 0, OPEN_EXISTING, 0), S_OK);
  file.Close();
  EXPECT_EQ(RemoveFile(strFile.c_str()), S_OK);
  EXPECT_FALSE(PathExists(strFile.c_str()));
  EXPECT_EQ(GetAttributes(strFile.c_str(), &dwAttributes), static_cast<HRESULT>(0x80070002));
}

TEST(File, ShareModesConflictWithinTheProcess) {
  CTempDir dir;
  const WString strFile = dir.Sub(KV_W("shared.bin"));
  ASSERT_EQ(WriteFileBytes(strFile, "data"), S_OK);
  const HRESULT hrSharing = static_cast<HRESULT>(0x80070020);

  CFile reader, other;
  ASSERT_EQ(reader.Open(strFile.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0), S_OK);
  // The new access must be allowed by the existing share mode...
  EXPECT_EQ(other.Open(strFile.c_str(), GENERIC_WRITE, dwShareAll, OPEN_EXISTING, 0), hrSharing);
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  // ...and the existing access by the new share mode.
  EXPECT_EQ(other.Open(strFile.c_str(), GENERIC_READ, FILE_SHARE_WRITE, OPEN_EXISTING, 0), hrSharing);
  ASSERT_EQ(other.Open(strFile.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0), S_OK);
  other.Close();
  // A refused CREATE_ALWAYS must not have truncated the file.
  EXPECT_EQ(other.Open(strFile.c_str(), GENERIC_WRITE, dwShareAll, CREATE_ALWAYS, 0), hrSharing);
  EXPECT_EQ(SizeOf(reader), 4u);
  EXPECT_EQ(RemoveFile(strFile.c_str()), hrSharing);
  EXPECT_EQ(RenameFile(strFile.c_str(), dir.Sub(KV_W("moved.bin")).c_str()), hrSharing);
  reader.Close();

  CFile exclusive;
  ASSERT_EQ(exclusive.Open(strFile.c_str(), dwReadWrite, 0, OPEN_EXISTING, 0), S_OK);
  EXPECT_EQ(other.Open(strFile.c_str(), GENERIC_READ, dwShareAll, OPEN_EXISTING, 0), hrSharing);
  exclusive.Close();
  ASSERT_EQ(other.Open(strFile.c_str(), GENERIC_READ, dwShareAll, OPEN_EXISTING, 0), S_OK);
  other.Close();

  // Opened with FILE_SHARE_DELETE, a file may be renamed and deleted while open.
  CFile deletable;
  ASSERT_EQ(deletable.Open(strFile.c_str(), GENERIC_READ, dwShareAll, OPEN_EXISTING, 0), S_OK);
  const WString strMoved = dir.Sub(KV_W("moved.bin"));
  EXPECT_EQ(RenameFile(strFile.c_str(), strMoved.c_str()), S_OK);
  EXPECT_EQ(RemoveFile(strMoved.c_str()), S_OK);
  deletable.Close();
  EXPECT_FALSE(PathExists(strMoved.c_str()));
  EXPECT_FALSE(PathExists(strFile.c_str()));
}

TEST(File, ByteRangeLocksConflictBetweenHandles) {
  CTempDir dir;
  const WString strFile = dir.Sub(KV_W("locks.bin"));
  ASSERT_EQ(WriteFileBytes(strFile, std::string(256, 'l')), S_OK);
  CFile a, b;
  ASSERT_EQ(a.Open(strFile.c_str(), dwReadWrite, dwShareAll, OPEN_EXISTING, 0), S_OK);
  ASSERT_EQ(b.Open(strFile.c_str(), dwReadWrite, dwShareAll, OPEN_EXISTING, 0), S_OK);
  const HRESULT hrLock = static_cast<HRESULT>(0x80070021);
  const HRESULT hrNotLocked = static_cast<HRESULT>(0x8007009E);

  ASSERT_EQ(a.LockRange(0, 100), S_OK);
  EXPECT_EQ(b.LockRange(50, 10), hrLock);
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_LOCK_VIOLATION));
  EXPECT_EQ(b.LockRange(99, 1), hrLock);
  EXPECT_EQ(a.LockRange(10, 1), hrLock);  // the locking handle itself is refused too
  ASSERT_EQ(b.LockRange(100, 10), S_OK);  // adjacent ranges do not overlap
  ASSERT_EQ(b.LockRange(1000, 10), S_OK);  // beyond the end of the file

  EXPECT_EQ(a.UnlockRange(0, 50), hrNotLocked);  // only the exact range unlocks
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_NOT_LOCKED));
  EXPECT_EQ(b.UnlockRange(0, 100), hrNotLocked);  // nor through another handle
  ASSERT_EQ(a.UnlockRange(0, 100), S_OK);
  EXPECT_EQ(a.UnlockRange(0, 100), hrNotLocked);
  ASSERT_EQ(b.LockRange(50, 10), S_OK);

  b.Close();  // closing a handle releases its locks
  EXPECT_EQ(a.LockRange(0, 200), S_OK);
}

TEST(File, MappingRoundTrip) {
  CTempDir dir;
  const WString strFile = dir.Sub(KV_W("map.bin"));
  std::string strBytes(8192, '\0');
  for (size_t i = 0; i < strBytes.size(); ++i) strBytes[i] = static_cast<char>(i * 7);
  ASSERT_EQ(WriteFileBytes(strFile, strBytes), S_OK);

  CFile file;
  ASSERT_EQ(file.Open(strFile.c_str(), dwReadWrite, FILE_SHARE_READ, OPEN_EXISTING, 0), S_OK);
  {
    CFileMapping mapping;
    ASSERT_EQ(mapping.Map(file), S_OK);
    ASSERT_TRUE(mapping.IsMapped());
    ASSERT_EQ(mapping.GetSize(), 8192u);
    auto* pb = static_cast<unsigned char*>(mapping.GetView());
    EXPECT_EQ(std::memcmp(pb, strBytes.data(), strBytes.size()), 0);
    std::memcpy(pb + 4090, "VIEW", 4);
    ASSERT_EQ(mapping.Flush(), S_OK);
    mapping.Unmap();
    EXPECT_FALSE(mapping.IsMapped());
  }
  file.Close();
  strBytes.replace(4090, 4, "VIEW");
  EXPECT_EQ(FileContents(strFile), strBytes);

  CFileMapping mapping;
  const WString strEmpty = dir.Sub(KV_W("empty.bin"));
  ASSERT_EQ(file.Open(strEmpty.c_str(), dwReadWrite, 0, CREATE_NEW, 0), S_OK);
  EXPECT_EQ(mapping.Map(file), static_cast<HRESULT>(0x800703EE));
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_FILE_INVALID));
  file.Close();
  ASSERT_EQ(file.Open(strFile.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0), S_OK);
  EXPECT_EQ(mapping.Map(file), E_ACCESSDENIED);
  EXPECT_FALSE(mapping.IsMapped());
}
