#include "Maintenance.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "ToolArgs.h"
#include "hours/HourFormat.h"
#include "hours/HourManager.h"
#include "support/Lock.h"

#include <kronvale/KronvaleResults.h>

namespace NSTool {
namespace {

using namespace NSHours;

constexpr DWORD kdwShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// The sub-directories of strPath whose names are nDigits decimal digits, sorted (and so in time
// order, the names having fixed widths).
std::vector<WString> DigitDirs(const WString& strPath, size_t nDigits) {
  std::vector<NSPlatform::SDirEntry> vEntries;
  std::vector<WString> vNames;
  if (FAILED(NSPlatform::ListDir(strPath.c_str(), &vEntries))) return vNames;
  for (const auto& entry : vEntries) {
    if (!entry.IsDirectory() || entry.strName.size() != nDigits) continue;
    if (std::all_of(entry.strName.begin(), entry.strName.end(), [](WCHAR ch) { return ch >= u'0' && ch <= u'9'; }))
      vNames.push_back(entry.strName);
  }
  std::sort(vNames.begin(), vNames.end());
  return vNames;
}

unsigned ToNumber(const WString& str) {
  unsigned n = 0;
  for (const WCHAR ch : str) n = n * 10 + static_cast<unsigned>(ch - u'0');
  return n;
}

// Reads exactly cb bytes at ullOffset; false on any failure or a short read.
bool ReadExactly(NSPlatform::CFile& file, ULONGLONG ullOffset, void* pv, DWORD cb) {
  DWORD cbRead = 0;
  return SUCCEEDED(file.ReadAt(ullOffset, pv, cb, &cbRead)) && cbRead == cb;
}

// The offset in data.al of a last frame that reaches past the file's end.
bool FindTornTail(const SHourDir& hour, ULONGLONG* pullOffset) {
  NSPlatform::CFile data, descriptor;
  ULONGLONG ullData = 0, ullDescriptor = 0;
  SFrameInfo info = {};
  if (FAILED(data.Open(NSPlatform::CombinePath(hour.strPath, kszDataFileName).c_str(), GENERIC_READ, kdwShareAll,
                       OPEN_EXISTING, 0)) ||
      FAILED(data.GetSize(&ullData)) ||
      FAILED(descriptor.Open(NSPlatform::CombinePath(hour.strPath, kszDescriptorFileName).c_str(), GENERIC_READ,
                             kdwShareAll, OPEN_EXISTING, 0)) ||
      FAILED(descriptor.GetSize(&ullDescriptor)) || ullDescriptor < 2 * sizeof(SFrameInfo) ||
      !ReadExactly(descriptor, ullDescriptor / sizeof(SFrameInfo) * sizeof(SFrameInfo) - sizeof(SFrameInfo), &info,
                   sizeof(info)))
    return false;
  if (info.ullOffset + info.dwSize <= ullData || info.ullOffset > ullData) return false;
  *pullOffset = info.ullOffset;
  return true;
}

HRESULT CutDataFile(const SHourDir& hour, ULONGLONG ullSize) {
  NSPlatform::CFile data;
  HRESULT hr = data.Open(NSPlatform::CombinePath(hour.strPath, kszDataFileName).c_str(), GENERIC_READ | GENERIC_WRITE,
                         kdwShareAll, OPEN_EXISTING, 0);
  if (SUCCEEDED(hr)) hr = data.Seek(static_cast<LONGLONG>(ullSize), FILE_BEGIN, nullptr);
  if (SUCCEEDED(hr)) hr = data.SetEndOfFile();
  return hr;
}

}  // namespace

HRESULT ListHours(const WString& strRecordPath, ULONGLONG ullFrom, ULONGLONG ullTo, std::vector<SHourDir>* pvHours) {
  pvHours->clear();
  if (!NSPlatform::IsDirectory(strRecordPath.c_str())) return NSKronvale::khrPathNotFound;
  for (const WString& strYear : DigitDirs(strRecordPath, 4)) {
    const WString strYearPath = NSPlatform::CombinePath(strRecordPath, strYear);
    for (const WString& strMonth : DigitDirs(strYearPath, 2)) {
      const WString strMonthPath = NSPlatform::CombinePath(strYearPath, strMonth);
      for (const WString& strDay : DigitDirs(strMonthPath, 2)) {
        const WString strDayPath = NSPlatform::CombinePath(strMonthPath, strDay);
        for (const WString& strHour : DigitDirs(strDayPath, 2)) {
          SYSTEMTIME st = {static_cast<WORD>(ToNumber(strYear)), static_cast<WORD>(ToNumber(strMonth)), 0,
                           static_cast<WORD>(ToNumber(strDay)), static_cast<WORD>(ToNumber(strHour)), 0, 0, 0};
          FILETIME ft = {};
          if (st.wHour > 23 || !NSPlatform::SysTimeToFileTime(&st, &ft)) continue;  // not an hour's name
          const ULONGLONG ullStart = NSPlatform::FileTimeToU64(ft);
          if (ullStart + kullTicksPerHour <= ullFrom || ullStart > ullTo) continue;
          WString strRelative = NSPlatform::CombinePath(
              NSPlatform::CombinePath(NSPlatform::CombinePath(strYear, strMonth), strDay), strHour);
          pvHours->push_back({NSPlatform::CombinePath(strDayPath, strHour), std::move(strRelative), ullStart});
        }
      }
    }
  }
  return S_OK;
}

HRESULT ListRecords(const WString& strArchivePath, std::vector<WString>* pvNames) {
  pvNames->clear();
  std::vector<NSPlatform::SDirEntry> vEntries;
  const HRESULT hr = NSPlatform::ListDir(strArchivePath.c_str(), &vEntries);
  if (FAILED(hr)) return hr;
  for (const auto& entry : vEntries) {
    if (entry.IsDirectory() && entry.strName != KV_W(".") && entry.strName != KV_W("..")) pvNames->push_back(entry.strName);
  }
  std::sort(pvNames->begin(), pvNames->end());
  return S_OK;
}

ULONGLONG MeasureTree(const WString& strPath) {
  std::vector<NSPlatform::SDirEntry> vEntries;
  if (FAILED(NSPlatform::ListDir(strPath.c_str(), &vEntries))) return 0;
  ULONGLONG ullBytes = 0;
  for (const auto& entry : vEntries) {
    if (entry.strName == KV_W(".") || entry.strName == KV_W("..")) continue;
    if (entry.IsDirectory()) ullBytes += MeasureTree(NSPlatform::CombinePath(strPath, entry.strName));
    else ullBytes += entry.ullSize;
  }
  return ullBytes;
}

SHourCheck CheckHour(const SHourDir& hour) {
  SHourCheck check;
  auto corrupt = [&check](std::string strReason) {
    check.bCorrupt = true;
    check.strReason = std::move(strReason);
    return check;
  };
  NSPlatform::CFile data, descriptor, hash;
  const struct {
    NSPlatform::CFile* pFile;
    const WCHAR* pszName;
  } aFiles[] = {{&data, kszDataFileName}, {&descriptor, kszDescriptorFileName}, {&hash, kszHashFileName}};
  ULONGLONG aullSizes[3] = {};
  for (size_t i = 0; i < 3; ++i) {
    const WString strFile = NSPlatform::CombinePath(hour.strPath, aFiles[i].pszName);
    HRESULT hr = aFiles[i].pFile->Open(strFile.c_str(), GENERIC_READ, kdwShareAll, OPEN_EXISTING, 0);
    if (SUCCEEDED(hr)) hr = aFiles[i].pFile->GetSize(&aullSizes[i]);
    if (FAILED(hr))
      return corrupt("cannot read " + NSPlatform::WideToUtf8(aFiles[i].pszName) + ": " + DescribeResult(hr));
    check.ullBytes += aullSizes[i];
  }
  const ULONGLONG ullData = aullSizes[0], ullDescriptor = aullSizes[1], ullHash = aullSizes[2];
  if (ullHash != sizeof(SHashFile))
    return corrupt("descriptor.alh has " + std::to_string(ullHash) + " bytes instead of " +
                   std::to_string(sizeof(SHashFile)));
  if (ullDescriptor < sizeof(SFrameInfo) || ullDescriptor % sizeof(SFrameInfo) != 0)
    return corrupt("descriptor.ald has " + std::to_string(ullDescriptor) + " bytes, not a whole number of entries");
  check.cFrames = FrameCountFromDescriptorSize(ullDescriptor);
  // 1. An hour without frames has an empty data file.
  if (check.cFrames == 0) {
    if (ullData != 0) return corrupt("descriptor has no indices, but data file is not empty");
    return check;
  }
  // 2. Every entry's frame, in write order: contiguous from offset 0, the last ending data.al.
  ULONGLONG ullExpected = 0;
  SFrameHeader header = {};
  SFrameInfo info = {};
  for (ULONGLONG k = 1; k <= check.cFrames; ++k) {
    const std::string strEntry = "entry " + std::to_string(k);
    if (!ReadExactly(descriptor, k * sizeof(SFrameInfo), &info, sizeof(info)))
      return corrupt("cannot read " + strEntry + " of descriptor.ald");
    if (info.ullOffset != ullExpected)
      return corrupt(strEntry + " starts at byte " + std::to_string(info.ullOffset) + " of data.al instead of " +
                     std::to_string(ullExpected));
    if (info.dwSize < sizeof(SFrameHeader) || info.ullOffset + info.dwSize > ullData)
      return corrupt(strEntry + " reaches past the end of data.al (a torn frame)");
    if (!ReadExactly(data, info.ullOffset, &header, sizeof(header)))
      return corrupt("cannot read the frame header of " + strEntry);
    if (header.ullSignature != SFrameHeader::MakeSignature())
      return corrupt(strEntry + " points at a frame without the frame signature");
    if (FrameSize(header.dwFullSize) != info.dwSize || header.dwFlags != info.dwFlags)
      return corrupt(strEntry + " disagrees with its frame header (size or flags)");
    const ULONGLONG ullTime = NSPlatform::FileTimeToU64(header.ftTime);
    if (ullTime < hour.ullStart || ullTime >= hour.ullStart + kullTicksPerHour)
      return corrupt(strEntry + " holds a frame of " + FormatTime(ullTime) + ", outside this hour");
    if (k == 1) check.ullFirst = ullTime;
    check.ullFirst = std::min(check.ullFirst, ullTime);
    check.ullLast = std::max(check.ullLast, ullTime);
    ullExpected = info.ullOffset + info.dwSize;
  }
  if (ullExpected != ullData) return corrupt("Last record must be at the end of file");
  // 3. The last frame owns its 10 ms slot in the hash file (a crash between the index and the slot
  // leaves it unclaimed).
  const ULONGLONG ullSlot = (NSPlatform::FileTimeToU64(header.ftTime) - hour.ullStart) / kullTicksPerSlot;
  SFrameInfoHash slot = {};
  if (!ReadExactly(hash, SlotOffset(static_cast<DWORD>(ullSlot)), &slot, sizeof(slot)))
    return corrupt("cannot read the hash slot of the last frame");
  if (slot.GetIndex() != check.cFrames)
    return corrupt("the last frame's 10 ms slot names entry " + std::to_string(slot.GetIndex()) + " instead of " +
                   std::to_string(check.cFrames));
  return check;
}

HRESULT RepairHour(const SHourDir& hour, SRepairResult* pResult) {
  pResult->cBefore = 0;
  pResult->cAfter = 0;
  ULONGLONG ullDescriptor = 0;
  NSPlatform::CFile descriptor;
  if (SUCCEEDED(descriptor.Open(NSPlatform::CombinePath(hour.strPath, kszDescriptorFileName).c_str(), GENERIC_READ,
                                kdwShareAll, OPEN_EXISTING, 0)) &&
      SUCCEEDED(descriptor.GetSize(&ullDescriptor)))
    pResult->cBefore = FrameCountFromDescriptorSize(ullDescriptor);
  descriptor.Close();
  CHourManager manager(std::make_shared<NSSystem::SFakeLock>());
  // The repair works on the hour of the last open, closed: an open that fails half-way (a missing
  // index file) still names the hour.
  manager.Open(hour.strPath, false, true);
  manager.Close();
  HRESULT hr = manager.Repair(nullptr);
  if (FAILED(hr)) return hr;
  if (!NSPlatform::IsDirectory(hour.strPath.c_str())) return S_OK;  // nothing was left to keep
  // The hour repair's walk keeps a last frame that lost no more than its header's size (it compares
  // the buffers' size alone with what is left), and that frame stays torn. Such a frame is cut off
  // here and the hour rebuilt once more, so that a repaired hour passes the check.
  ULONGLONG ullCut = 0;
  if (CheckHour(hour).bCorrupt && FindTornTail(hour, &ullCut)) {
    hr = CutDataFile(hour, ullCut);
    if (SUCCEEDED(hr)) {
      manager.Open(hour.strPath, false, true);
      manager.Close();
      hr = manager.Repair(nullptr);
    }
    if (FAILED(hr)) return hr;
    if (!NSPlatform::IsDirectory(hour.strPath.c_str())) return S_OK;
  }
  hr = manager.Open(hour.strPath, false, true);
  if (SUCCEEDED(hr)) pResult->cAfter = manager.GetFrameCount();
  manager.Close();
  return hr;
}

}  // namespace NSTool
