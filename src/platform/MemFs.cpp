// The in-memory file system and the power-cut simulator (MemFs.h). Portable C++: the same tree
// serves both platforms' paths (Windows keys are folded to lower case, as names compare there).
//
// One lock guards the tree, every file's bytes and every open's state; a mapping's view is the
// file's own vector, stored to by its owner without the lock, as a real view is.
#include "platform/Disposition.h"
#include "platform/MemFs.h"
#include "platform/BlockPool.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>

namespace NSPlatform {
namespace NSMemFs {

namespace NSDetail {
std::atomic<bool> g_bInstalled{false};
}  // namespace NSDetail

namespace {

// A file's bytes. From the pool: a test remakes files of megabytes (an hour's index) at every turn,
// and fresh memory would cost a page fault per page each time.
using TBytes = CPooledBytes;

constexpr size_t kcbPage = 4096;   // what a cut keeps, drops or tears
constexpr size_t kcbSector = 512;  // what a torn page is made of

HRESULT Fail(DWORD dwError) {
  SetLastError(dwError);
  return KvHResultFromWin32(dwError);
}

// The fault seam's answer for an operation on strPath: true, with the failure in *phr, when it
// injects one.
bool InjectedFault(NSFault::EOp eOp, const WString& strPath, HRESULT* phr) {
  DWORD dwInjected = ERROR_SUCCESS;
  if (!NSFault::Intercept(eOp, strPath, nullptr, &dwInjected)) return false;
  *phr = Fail(dwInjected);
  return true;
}

WString PathText(const WCHAR* pszPath) { return pszPath ? WString(pszPath) : WString(); }

struct SOpenFile;

struct SNode {
  bool bDirectory = false;
  bool bReadOnly = false;
  WString strName;                  // as created (the key may be folded)
  TBytes vData;                     // a file's bytes
  TBytes vDurable;                  // with tracking: what a power cut keeps for certain
  ULONGLONG ullCreated = 0;         // FILETIME values
  ULONGLONG ullWritten = 0;
  unsigned cMappings = 0;
  std::vector<SOpenFile*> vOpens;   // for share modes and locks
};
using TNodePtr = std::shared_ptr<SNode>;

struct SLockRange {
  ULONGLONG ullOffset;
  ULONGLONG cb;
};

struct SOpenFile {
  TNodePtr pNode;
  WString strPath;  // as opened, for the fault seam
  DWORD dwAccess;
  DWORD dwShare;
  bool bDelete;        // delete-on-close: holds delete access
  bool bWriteThrough;  // every write durable at once
  ULONGLONG ullPosition = 0;
  std::vector<SLockRange> vLocks;
};

struct SMapping {
  TNodePtr pNode;
  WString strPath;
};

// A name in a directory as the disk holds it.
struct SDurableName {
  WString strName;  // as created
  TNodePtr pNode;
};
// A directory's names by folded name.
using TDurableNames = std::map<WString, SDurableName>;

// A change of names not yet durable: a creation (no pFromDirectory), a deletion (no pToDirectory)
// or a rename. Directories are named by their nodes, so that a change inside a directory renamed
// since still lands in it.
struct SNameChange {
  TNodePtr pFromDirectory;
  WString strFromKey;  // the folded name in pFromDirectory
  TNodePtr pToDirectory;
  WString strToKey;    // the folded name in pToDirectory
  SDurableName to;     // the node named, with its new name
};

// The tree: keys are canonical paths without trailing separators (folded on Windows). Roots ("/",
// "c:") are not kept: they always exist.
struct SState {
  std::map<WString, TNodePtr> mapNodes;
  WString strTempDirectory;  // the disk's, with its trailing separator
  ULONGLONG ullCapacity = 0;
  ULONGLONG ullUsed = 0;
  unsigned cOpen = 0;  // files and mappings open
  // Power cut.
  bool bTracking = false;
  unsigned cChanging = 0;
  unsigned nCutAt = 0;  // 0: not armed
  uint64_t ullSeed = 0;
  bool bCut = false;
  std::map<WString, TNodePtr> mapImage;  // what the cut left
  SCutStats stats;
  // Names as the disk holds them: each directory's durable names (a root's under its node in
  // mapRoots), and the changes made since, in order.
  std::map<WString, TNodePtr> mapRoots;
  std::map<TNodePtr, TDurableNames> mapDurableNames;
  std::vector<SNameChange> vPendingNames;
};

std::mutex g_mutex;
SState* g_pState = nullptr;  // guarded by g_mutex; set while installed

ULONGLONG Now() {
  FILETIME ft;
  GetUtcFileTime(&ft);
  return FileTimeToU64(ft);
}

bool IsRootKey(const WString& strKey) {
  if (strKey.size() == 1 && IsPathSeparator(strKey[0])) return true;
  return strKey.size() == 2 && strKey[1] == u':';
}

WString KeyOf(const WCHAR* pszPath) {
  if (!pszPath || !*pszPath) return WString();
  WString strFull;
  if (FAILED(GetFullPath(pszPath, &strFull))) return WString();
#ifdef _WIN32
  std::replace(strFull.begin(), strFull.end(), u'/', u'\\');
#endif
  while (strFull.size() > 1 && IsPathSeparator(strFull.back()) && !(strFull.size() == 3 && strFull[1] == u':')) {
    strFull.pop_back();
  }
  if (strFull.size() == 3 && strFull[1] == u':') strFull.pop_back();  // "c:\" is the root "c:"
  return FoldPathCase(strFull);
}

WString ParentKey(const WString& strKey) {
  size_t i = strKey.size();
  while (i > 0 && !IsPathSeparator(strKey[i - 1])) --i;
  if (i == 0) return WString();
  if (i == 1) return strKey.substr(0, 1);  // the root "/"
  return strKey.substr(0, i - 1);
}

WString NameOf(const WCHAR* pszPath) {
  WString str(pszPath);
  while (!str.empty() && IsPathSeparator(str.back())) str.pop_back();
  size_t i = str.size();
  while (i > 0 && !IsPathSeparator(str[i - 1])) --i;
  return str.substr(i);
}

// A new node under strKey, made and written now (the caller holds g_mutex).
// The node at a key; null for a root and for a missing path.
TNodePtr Find(const WString& strKey) {
  auto it = g_pState->mapNodes.find(strKey);
  return it == g_pState->mapNodes.end() ? nullptr : it->second;
}

// The last segment of a key: a name as its directory folds it.
WString LastSegment(const WString& strKey) {
  size_t i = strKey.size();
  while (i > 0 && !IsPathSeparator(strKey[i - 1])) --i;
  return strKey.substr(i);
}

// The node that holds a directory's names; a root's is kept apart from the tree.
TNodePtr DirectoryNode(const WString& strKey) {
  if (!IsRootKey(strKey)) return Find(strKey);
  TNodePtr& pRoot = g_pState->mapRoots[strKey];
  if (!pRoot) {
    pRoot = std::make_shared<SNode>();
    pRoot->bDirectory = true;
  }
  return pRoot;
}

bool TracksNames() { return g_pState->bTracking && !g_pState->bCut; }

// Notes a change of names, not durable until its directory is flushed. strFromKey and strToKey are
// the full keys before and after (one of them empty for a creation or a deletion).
void NoteNameChange(const WString& strFromKey, const WString& strToKey, const TNodePtr& pNode) {
  if (!TracksNames()) return;
  SNameChange change;
  if (!strFromKey.empty()) {
    change.pFromDirectory = DirectoryNode(ParentKey(strFromKey));
    change.strFromKey = LastSegment(strFromKey);
  }
  if (!strToKey.empty()) {
    change.pToDirectory = DirectoryNode(ParentKey(strToKey));
    change.strToKey = LastSegment(strToKey);
  }
  change.to = SDurableName{pNode->strName, pNode};
  g_pState->vPendingNames.push_back(std::move(change));
}

// A new node under strKey, made and written now (the caller holds g_mutex).
TNodePtr AddNode(const WString& strKey, const WString& strName, bool bDirectory) {
  auto pNode = std::make_shared<SNode>();
  pNode->bDirectory = bDirectory;
  pNode->strName = strName;
  pNode->ullCreated = pNode->ullWritten = Now();
  g_pState->mapNodes.emplace(strKey, pNode);
  NoteNameChange(WString(), strKey, pNode);
  return pNode;
}

bool IsExistingDirectory(const WString& strKey) {
  if (IsRootKey(strKey)) return true;
  const TNodePtr p = Find(strKey);
  return p && p->bDirectory;
}

// ERROR_FILE_NOT_FOUND when the parent exists, else ERROR_PATH_NOT_FOUND, as for a missing file.
DWORD MissingError(const WString& strKey) {
  return IsExistingDirectory(ParentKey(strKey)) ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
}

bool HasChildren(const WString& strKey) {
  const WString strPrefix = IsRootKey(strKey) && strKey.size() == 1 ? strKey : strKey + chPathSeparator;
  auto it = g_pState->mapNodes.lower_bound(strPrefix);
  return it != g_pState->mapNodes.end() && it->first.compare(0, strPrefix.size(), strPrefix) == 0;
}

// ---------------------------------------------------------------------------------------------
// The power cut
// ---------------------------------------------------------------------------------------------

// Bytes [iBegin, iEnd) of vSource into the image, zeros past its end.
void CopyRange(const TBytes& vSource, size_t iBegin, size_t iEnd, TBytes* pvImage) {
  const size_t iCopyEnd = std::max(iBegin, std::min(iEnd, vSource.size()));
  if (iCopyEnd > iBegin) std::memcpy(pvImage->data() + iBegin, vSource.data() + iBegin, iCopyEnd - iBegin);
  std::fill(pvImage->begin() + static_cast<std::ptrdiff_t>(iCopyEnd), pvImage->begin() + static_cast<std::ptrdiff_t>(iEnd), BYTE(0));
}

bool RangesEqual(const TBytes& a, const TBytes& b, size_t iBegin, size_t iEnd) {
  if (iEnd <= a.size() && iEnd <= b.size()) return std::memcmp(a.data() + iBegin, b.data() + iBegin, iEnd - iBegin) == 0;
  auto byteOf = [](const TBytes& v, size_t i) -> BYTE { return i < v.size() ? v[i] : 0; };
  for (size_t i = iBegin; i < iEnd; ++i)
    if (byteOf(a, i) != byteOf(b, i)) return false;
  return true;
}

// One page of a file as the cut leaves it: the durable page, the new one, or sectors of each.
void CutPage(const SNode& node, size_t iPage, std::mt19937_64& rng, TBytes* pvImage, SCutStats* pStats) {
  const size_t iBegin = iPage * kcbPage;
  const size_t iEnd = std::min(pvImage->size(), iBegin + kcbPage);
  if (RangesEqual(node.vData, node.vDurable, iBegin, iEnd)) {
    CopyRange(node.vDurable, iBegin, iEnd, pvImage);
    return;
  }
  const unsigned nChoice = static_cast<unsigned>(rng() % 3);
  for (size_t iSector = iBegin; iSector < iEnd; iSector += kcbSector) {
    const bool bNew = nChoice == 1 || (nChoice == 2 && (rng() & 1));
    CopyRange(bNew ? node.vData : node.vDurable, iSector, std::min(iEnd, iSector + kcbSector), pvImage);
  }
  ++(nChoice == 0 ? pStats->cPagesDropped : nChoice == 1 ? pStats->cPagesKept : pStats->cPagesTorn);
}

// Applies a change of names to the names the disk holds; a rename changes both directories at once.
void ApplyNameChange(const SNameChange& change, std::map<TNodePtr, TDurableNames>* pmapNames) {
  if (change.pFromDirectory) {
    TDurableNames& names = (*pmapNames)[change.pFromDirectory];
    auto it = names.find(change.strFromKey);
    if (it != names.end() && it->second.pNode == change.to.pNode) names.erase(it);
  }
  if (change.pToDirectory) (*pmapNames)[change.pToDirectory][change.strToKey] = change.to;
}

// Every directory's names as they are now: what a flush of every directory would make durable.
std::map<TNodePtr, TDurableNames> CurrentNames() {
  std::map<TNodePtr, TDurableNames> mapNames;
  for (const auto& [strKey, pNode] : g_pState->mapNodes) {
    if (pNode->bDirectory) mapNames[pNode];
    const TNodePtr pParent = DirectoryNode(ParentKey(strKey));
    if (pParent) mapNames[pParent][LastSegment(strKey)] = SDurableName{pNode->strName, pNode};
  }
  return mapNames;
}

// Makes every name durable as it stands.
void MarkAllNamesDurable() {
  g_pState->mapRoots.clear();
  g_pState->mapDurableNames = CurrentNames();
  g_pState->vPendingNames.clear();
}

// The tree a machine finds under the names in mapNames, each node a copy of the file as the cut
// left it. A directory already walked is not walked again.
struct SImageBuilder {
  const std::map<TNodePtr, TDurableNames>& mapNames;
  std::mt19937_64& rng;
  bool bOnlyDurable;  // the bytes flushed alone, no page of the rest
  std::map<WString, TNodePtr> mapImage;
  std::map<SNode*, TNodePtr> mapCopies;
  SCutStats stats;

  TNodePtr CopyOf(const SNode& node) {
    auto pImage = std::make_shared<SNode>();
    pImage->bDirectory = node.bDirectory;
    pImage->bReadOnly = node.bReadOnly;
    pImage->ullCreated = node.ullCreated;
    pImage->ullWritten = node.ullWritten;
    if (!node.bDirectory) {
      ++stats.cFiles;
      // The size is metadata written with the data: either the old or the new one arrived.
      const bool bNewSize = !bOnlyDurable && node.vData.size() != node.vDurable.size() && (rng() & 1);
      const size_t cbSize = bNewSize ? node.vData.size() : node.vDurable.size();
      pImage->vData.resize(cbSize);
      for (size_t iPage = 0; iPage * kcbPage < cbSize; ++iPage) {
        if (bOnlyDurable)
          CopyRange(node.vDurable, iPage * kcbPage, std::min(cbSize, (iPage + 1) * kcbPage), &pImage->vData);
        else
          CutPage(node, iPage, rng, &pImage->vData, &stats);
      }
    }
    return pImage;
  }

  void Walk(const WString& strDirectoryKey, const TNodePtr& pDirectory) {
    auto itNames = mapNames.find(pDirectory);
    if (itNames == mapNames.end()) return;
    for (const auto& [strName, name] : itNames->second) {
      const bool bWalked = mapCopies.count(name.pNode.get()) != 0;
      TNodePtr& pImage = mapCopies[name.pNode.get()];
      if (!pImage) pImage = CopyOf(*name.pNode);
      if (bWalked && name.pNode->bDirectory) continue;  // a directory has one name
      pImage->strName = name.strName;
      const WString strKey =
          strDirectoryKey.size() == 1 ? strDirectoryKey + strName : strDirectoryKey + chPathSeparator + strName;
      mapImage.emplace(strKey, pImage);
      if (name.pNode->bDirectory && !bWalked) Walk(strKey, name.pNode);
    }
  }
};

// Freezes the image a power cut now would leave: each change of names not yet durable is kept or
// lost, then each file's pages; with bOnlyDurable nothing that was not durable survives. Caller
// holds g_mutex.
void FreezeImage(bool bOnlyDurable) {
  SState& state = *g_pState;
  std::mt19937_64 rng(state.ullSeed);
  std::map<TNodePtr, TDurableNames> mapNames = state.mapDurableNames;
  unsigned cKept = 0, cLost = 0;
  for (const SNameChange& change : state.vPendingNames) {
    if (!bOnlyDurable && (rng() & 1)) {
      ApplyNameChange(change, &mapNames);
      ++cKept;
    } else {
      ++cLost;
    }
  }
  SImageBuilder builder{mapNames, rng, bOnlyDurable, {}, {}, {}};
  for (const auto& [strRootKey, pRoot] : state.mapRoots) builder.Walk(strRootKey, pRoot);
  state.mapImage = std::move(builder.mapImage);
  state.stats = builder.stats;
  state.stats.cNamesKept = cKept;
  state.stats.cNamesLost = cLost;
  state.bCut = true;
}

// Every call that changes the file system ends here, after its work: the armed cut happens now.
void Changed() {
  SState& state = *g_pState;
  if (!state.bTracking || state.bCut) return;
  ++state.cChanging;
  if (state.nCutAt != 0 && state.cChanging == state.nCutAt) FreezeImage(false);
}

void MarkDurable(SNode& node) {
  if (g_pState->bTracking) node.vDurable = node.vData;
}

// ---------------------------------------------------------------------------------------------
// Files
// ---------------------------------------------------------------------------------------------

bool Conflicts(const SOpenFile& existing, DWORD dwAccess, DWORD dwShare, bool bDelete) {
  return SharesConflict({existing.dwAccess, existing.dwShare, existing.bDelete}, {dwAccess, dwShare, bDelete});
}

bool IsOpenWithoutShareDelete(const SNode& node) {
  return std::any_of(node.vOpens.begin(), node.vOpens.end(),
                     [](const SOpenFile* p) { return !(p->dwShare & FILE_SHARE_DELETE); });
}

// Resizes a file's bytes, counting them against the capacity; a mapped file keeps its size.
HRESULT Resize(SNode& node, ULONGLONG ullSize) {
  if (ullSize == node.vData.size()) return S_OK;
  if (node.cMappings != 0) return Fail(ERROR_USER_MAPPED_FILE);
  if (ullSize > node.vData.size() && ullSize - node.vData.size() > g_pState->ullCapacity - std::min(g_pState->ullCapacity, g_pState->ullUsed)) {
    return Fail(ERROR_DISK_FULL);
  }
  g_pState->ullUsed = g_pState->ullUsed - node.vData.size() + ullSize;
  node.vData.resize(static_cast<size_t>(ullSize));
  return S_OK;
}

void ReleaseNode(const TNodePtr& pNode) {
  // The last reference of a deleted file frees its bytes.
  if (pNode.use_count() == 1) g_pState->ullUsed -= pNode->vData.size();
}

HRESULT RemoveNode(const WString& strKey) {
  auto it = g_pState->mapNodes.find(strKey);
  TNodePtr pNode = it->second;
  NoteNameChange(strKey, WString(), pNode);
  g_pState->mapNodes.erase(it);
  ReleaseNode(pNode);
  Changed();
  return S_OK;
}

ULONGLONG RangeEnd(ULONGLONG ullOffset, ULONGLONG cb) {
  return cb > ULLONG_MAX - ullOffset ? ULLONG_MAX : ullOffset + cb;
}

bool Overlaps(const SLockRange& a, ULONGLONG ullOffset, ULONGLONG cb) {
  if (a.cb == 0 || cb == 0) return false;
  return a.ullOffset < RangeEnd(ullOffset, cb) && ullOffset < RangeEnd(a.ullOffset, a.cb);
}

bool IsFullPath(const WString& strPath) {
  if (strPath.empty()) return false;
#ifdef _WIN32
  if (strPath.size() >= 3 && strPath[1] == u':' && IsPathSeparator(strPath[2])) return true;
  return strPath.size() >= 2 && IsPathSeparator(strPath[0]) && IsPathSeparator(strPath[1]);
#else
  return IsPathSeparator(strPath[0]);
#endif
}

SOpenFile& OpenOf(void* pFile) { return *static_cast<SOpenFile*>(pFile); }

HRESULT CopyNode(const WString& strFromKey, const TNodePtr& pFrom, const WString& strToKey, const WString& strName) {
  TNodePtr pTo = Find(strToKey);
  if (pFrom->bDirectory) {
    if (!pTo) {
      pTo = AddNode(strToKey, strName, true);
      Changed();
    } else if (!pTo->bDirectory) {
      return Fail(ERROR_ALREADY_EXISTS);
    }
    std::vector<std::pair<WString, TNodePtr>> vChildren;
    const WString strPrefix = strFromKey + chPathSeparator;
    for (auto it = g_pState->mapNodes.lower_bound(strPrefix);
         it != g_pState->mapNodes.end() && it->first.compare(0, strPrefix.size(), strPrefix) == 0; ++it) {
      if (it->first.find(chPathSeparator, strPrefix.size()) == WString::npos) vChildren.push_back(*it);
    }
    for (const auto& [strKey, pChild] : vChildren) {
      const WString strChildName = strKey.substr(strPrefix.size());
      HRESULT hr = CopyNode(strKey, pChild, strToKey + chPathSeparator + strChildName, pChild->strName);
      if (FAILED(hr)) return hr;
    }
    pTo->bReadOnly = pFrom->bReadOnly;
    return S_OK;
  }
  if (pTo && (pTo->bDirectory || pTo->bReadOnly)) return Fail(ERROR_ACCESS_DENIED);
  if (!pTo) pTo = AddNode(strToKey, strName, false);
  HRESULT hr = Resize(*pTo, pFrom->vData.size());
  if (FAILED(hr)) return hr;
  std::copy(pFrom->vData.begin(), pFrom->vData.end(), pTo->vData.begin());
  pTo->bReadOnly = pFrom->bReadOnly;
  pTo->ullWritten = pFrom->ullWritten;
  Changed();
  return S_OK;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Installation
// ---------------------------------------------------------------------------------------------

void Install(ULONGLONG ullCapacity) {
  // The disk's temporary directory (or the one already served), asked before the lock is taken.
  WString strTemp;
  NSPlatform::GetTempDirectory(&strTemp);
  std::lock_guard<std::mutex> lock(g_mutex);
  delete g_pState;
  g_pState = new SState;
  g_pState->ullCapacity = ullCapacity;
  g_pState->strTempDirectory = strTemp;
  NSDetail::g_bInstalled.store(true);
  // The temporary directory exists, as it does on every machine.
  WString strKey = KeyOf(strTemp.c_str());
  while (!strKey.empty() && !IsRootKey(strKey)) {
    AddNode(strKey, NameOf(strKey.c_str()), true);
    strKey = ParentKey(strKey);
  }
}

void Uninstall() {
  std::lock_guard<std::mutex> lock(g_mutex);
  NSDetail::g_bInstalled.store(false);
  delete g_pState;
  g_pState = nullptr;
}

bool IsInstalled() { return Serves(); }

void SetCapacity(ULONGLONG ullCapacity) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_pState) g_pState->ullCapacity = ullCapacity;
}

unsigned GetOpenCount() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_pState ? g_pState->cOpen : 0;
}

ULONGLONG GetUsedBytes() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_pState ? g_pState->ullUsed : 0;
}

void StartPowerCutTracking() {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (!g_pState) return;
  for (auto& [strKey, pNode] : g_pState->mapNodes) pNode->vDurable = pNode->vData;
  MarkAllNamesDurable();
  g_pState->bTracking = true;
  g_pState->cChanging = 0;
  g_pState->nCutAt = 0;
  g_pState->bCut = false;
}

void ArmPowerCut(unsigned nCall, uint64_t ullSeed) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (!g_pState) return;
  g_pState->nCutAt = g_pState->cChanging + nCall;
  g_pState->ullSeed = ullSeed;
  g_pState->bCut = false;
}

bool HasPowerBeenCut() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_pState && g_pState->bCut;
}

unsigned GetChangingCallCount() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_pState ? g_pState->cChanging : 0;
}

HRESULT Reboot(SCutStats* pStats) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (!g_pState) return Fail(ERROR_INVALID_FUNCTION);
  if (g_pState->cOpen != 0) return Fail(ERROR_BUSY);
  SState& state = *g_pState;
  // With no cut, a cut now that loses everything not durable.
  if (!state.bCut) FreezeImage(true);
  state.mapNodes = std::move(state.mapImage);
  state.mapImage.clear();
  state.ullUsed = 0;
  for (auto& [strKey, pNode] : state.mapNodes) {
    pNode->vDurable = pNode->vData;
    state.ullUsed += pNode->vData.size();
  }
  if (pStats) *pStats = state.stats;
  state.nCutAt = 0;
  state.bCut = false;
  state.cChanging = 0;
  if (state.bTracking) MarkAllNamesDurable();
  return S_OK;
}

// ---------------------------------------------------------------------------------------------
// CFile
// ---------------------------------------------------------------------------------------------

HRESULT Open(const WString& strPath, DWORD dwAccess, DWORD dwShare, DWORD dwCreation, DWORD dwFlagsAndAttributes,
             bool* pbExisted, void** ppFile) {
  if (pbExisted) *pbExisted = false;
  HRESULT hrInjected;
  if (InjectedFault(NSFault::EOp::Open, strPath, &hrInjected)) return hrInjected;
  if (strPath.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  SDisposition disposition;
  if (!DecodeDisposition(dwCreation, dwAccess, &disposition)) return Fail(ERROR_INVALID_PARAMETER);
  const bool bMayCreate = disposition.bMayCreate, bMustCreate = disposition.bMustCreate,
             bTruncate = disposition.bTruncate;
  const bool bDelete = (dwFlagsAndAttributes & FILE_FLAG_DELETE_ON_CLOSE) != 0;
  const WString strKey = KeyOf(strPath.c_str());

  std::lock_guard<std::mutex> lock(g_mutex);
  if (strKey.empty() || IsRootKey(strKey)) return Fail(strKey.empty() ? ERROR_PATH_NOT_FOUND : ERROR_ACCESS_DENIED);
  TNodePtr pNode = Find(strKey);
  const bool bCreated = !pNode;
  if (pNode) {
    if (bMustCreate) return Fail(ERROR_FILE_EXISTS);
    if (pNode->bDirectory) return Fail(ERROR_ACCESS_DENIED);
    if (pNode->bReadOnly && ((dwAccess & GENERIC_WRITE) || bTruncate || bDelete)) return Fail(ERROR_ACCESS_DENIED);
    for (const SOpenFile* pOpen : pNode->vOpens) {
      if (Conflicts(*pOpen, dwAccess, dwShare, bDelete)) return Fail(ERROR_SHARING_VIOLATION);
    }
    if (bTruncate && !pNode->vData.empty()) {
      HRESULT hr = Resize(*pNode, 0);
      if (FAILED(hr)) return hr;
      pNode->vDurable.clear();  // a truncation is journaled
      Changed();
    }
  } else {
    if (!bMayCreate && !bMustCreate) return Fail(MissingError(strKey));
    if (!IsExistingDirectory(ParentKey(strKey))) return Fail(ERROR_PATH_NOT_FOUND);
    pNode = AddNode(strKey, NameOf(strPath.c_str()), false);
    pNode->bReadOnly = (dwFlagsAndAttributes & FILE_ATTRIBUTE_READONLY) != 0;
    Changed();
  }
  auto* pOpen = new SOpenFile{pNode, strPath, dwAccess, dwShare, bDelete,
                              (dwFlagsAndAttributes & FILE_FLAG_WRITE_THROUGH) != 0, 0, {}};
  pNode->vOpens.push_back(pOpen);
  ++g_pState->cOpen;
  *ppFile = pOpen;
  if (pbExisted) *pbExisted = !bCreated;
  const bool bReportExisting = !bCreated && (dwCreation == OPEN_ALWAYS || dwCreation == CREATE_ALWAYS);
  SetLastError(bReportExisting ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
  return S_OK;
}

void Close(void* pFile) {
  std::unique_ptr<SOpenFile> pOpen(static_cast<SOpenFile*>(pFile));
  std::lock_guard<std::mutex> lock(g_mutex);
  SNode& node = *pOpen->pNode;
  node.vOpens.erase(std::find(node.vOpens.begin(), node.vOpens.end(), pOpen.get()));
  if (!g_pState) return;  // uninstalled under an open file: nothing left to account
  --g_pState->cOpen;
  if (pOpen->bDelete) {
    const WString strKey = KeyOf(pOpen->strPath.c_str());
    const TNodePtr pNamed = Find(strKey);
    if (pNamed == pOpen->pNode) {
      NoteNameChange(strKey, WString(), pNamed);
      g_pState->mapNodes.erase(strKey);
      Changed();
    }
  }
  ReleaseNode(pOpen->pNode);
}

HRESULT Read(void* pFile, void* pv, DWORD cb, DWORD* pcbRead) {
  SOpenFile& open = OpenOf(pFile);
  DWORD cbRead = 0;
  const ULONGLONG ullPosition = open.ullPosition;
  HRESULT hr = ReadAt(pFile, ullPosition, pv, cb, &cbRead);
  if (SUCCEEDED(hr)) open.ullPosition = ullPosition + cbRead;
  if (pcbRead) *pcbRead = cbRead;
  return hr;
}

HRESULT ReadAt(void* pFile, ULONGLONG ullOffset, void* pv, DWORD cb, DWORD* pcbRead) {
  if (pcbRead) *pcbRead = 0;
  SOpenFile& open = OpenOf(pFile);
  HRESULT hrInjected;
  if (InjectedFault(NSFault::EOp::Read, open.strPath, &hrInjected)) return hrInjected;
  if (!(open.dwAccess & GENERIC_READ)) return Fail(ERROR_ACCESS_DENIED);
  if (ullOffset > static_cast<ULONGLONG>(LLONG_MAX)) return Fail(ERROR_INVALID_PARAMETER);
  if (cb != 0 && !pv) return Fail(ERROR_NOACCESS);
  std::lock_guard<std::mutex> lock(g_mutex);
  const TBytes& vData = open.pNode->vData;
  if (ullOffset >= vData.size()) return S_OK;
  const DWORD cbRead = static_cast<DWORD>(std::min<ULONGLONG>(cb, vData.size() - ullOffset));
  std::memcpy(pv, vData.data() + ullOffset, cbRead);
  if (pcbRead) *pcbRead = cbRead;
  return S_OK;
}

HRESULT WriteGatherAt(void* pFile, ULONGLONG ullOffset, const SIoBuffer* pBuffers, size_t cBuffers,
                      DWORD* pcbWritten) {
  if (pcbWritten) *pcbWritten = 0;
  SOpenFile& open = OpenOf(pFile);
  if (cBuffers != 0 && !pBuffers) return Fail(ERROR_INVALID_PARAMETER);
  ULONGLONG ullTotal = 0;
  for (size_t i = 0; i < cBuffers; ++i) ullTotal += pBuffers[i].cb;
  if (ullTotal > 0xFFFFFFFFull) return Fail(ERROR_INVALID_PARAMETER);
  DWORD cbTotal = static_cast<DWORD>(ullTotal);
  if (!(open.dwAccess & GENERIC_WRITE)) return Fail(ERROR_ACCESS_DENIED);
  if (ullOffset != kullAtPosition &&
      (ullOffset > static_cast<ULONGLONG>(LLONG_MAX) || ullOffset + cbTotal > static_cast<ULONGLONG>(LLONG_MAX))) {
    return Fail(ERROR_INVALID_PARAMETER);
  }
  for (size_t i = 0; i < cBuffers; ++i) {
    if (pBuffers[i].cb != 0 && !pBuffers[i].pv) return Fail(ERROR_NOACCESS);
  }
  DWORD dwInjected = ERROR_SUCCESS;
  const bool bInjected = NSFault::Intercept(NSFault::EOp::Write, open.strPath, &cbTotal, &dwInjected);

  std::lock_guard<std::mutex> lock(g_mutex);
  SNode& node = *open.pNode;
  const ULONGLONG ullAt = ullOffset == kullAtPosition ? open.ullPosition : ullOffset;
  // What fits: a disk that fills up stores the first bytes of the write.
  DWORD cbStored = cbTotal;
  DWORD dwError = bInjected ? dwInjected : ERROR_SUCCESS;
  if (ullAt + cbTotal > node.vData.size()) {
    const ULONGLONG ullFree = g_pState->ullCapacity - std::min(g_pState->ullCapacity, g_pState->ullUsed);
    const ULONGLONG ullGrowth = ullAt + cbTotal - node.vData.size();
    if (node.cMappings != 0) {
      cbStored = ullAt >= node.vData.size() ? 0 : static_cast<DWORD>(node.vData.size() - ullAt);
      dwError = ERROR_USER_MAPPED_FILE;
    } else if (ullGrowth > ullFree) {
      const ULONGLONG ullEnd = node.vData.size() + ullFree;
      cbStored = ullEnd > ullAt ? static_cast<DWORD>(ullEnd - ullAt) : 0;
      dwError = ERROR_DISK_FULL;
    }
    const ULONGLONG ullNewSize = std::max<ULONGLONG>(node.vData.size(), ullAt + cbStored);
    if (node.cMappings == 0 && ullNewSize > node.vData.size()) {
      g_pState->ullUsed += ullNewSize - node.vData.size();
      // The bytes stored below are not zeroed first.
      node.vData.resize_for_write(static_cast<size_t>(ullNewSize), static_cast<size_t>(ullAt));
    }
  }
  DWORD cbDone = 0;
  for (size_t i = 0; i < cBuffers && cbDone < cbStored; ++i) {
    const DWORD cb = std::min(pBuffers[i].cb, cbStored - cbDone);
    std::memcpy(node.vData.data() + ullAt + cbDone, pBuffers[i].pv, cb);
    cbDone += cb;
  }
  if (cbDone != 0) node.ullWritten = Now();
  if (ullOffset == kullAtPosition) open.ullPosition = ullAt + cbDone;
  // A write-through write is durable when it returns, and not before: a cut during it tears it.
  const bool bDurableNow = open.bWriteThrough && g_pState->bTracking;
  if (cbDone != 0 || dwError != ERROR_SUCCESS) Changed();
  if (bDurableNow && !g_pState->bCut) {
    TBytes& vDurable = node.vDurable;
    if (vDurable.size() < node.vData.size()) vDurable.resize(node.vData.size());
    std::memcpy(vDurable.data() + ullAt, node.vData.data() + ullAt, cbDone);
  }
  if (dwError != ERROR_SUCCESS) return Fail(dwError);
  if (pcbWritten) *pcbWritten = cbDone;
  return S_OK;
}

HRESULT Seek(void* pFile, LONGLONG llDistance, DWORD dwMethod, ULONGLONG* pullNewPosition) {
  SOpenFile& open = OpenOf(pFile);
  std::lock_guard<std::mutex> lock(g_mutex);
  LONGLONG llBase;
  switch (dwMethod) {
    case FILE_BEGIN: llBase = 0; break;
    case FILE_CURRENT: llBase = static_cast<LONGLONG>(open.ullPosition); break;
    case FILE_END: llBase = static_cast<LONGLONG>(open.pNode->vData.size()); break;
    default: return Fail(ERROR_INVALID_PARAMETER);
  }
  if (llDistance < 0 && llBase + llDistance < 0) return Fail(ERROR_NEGATIVE_SEEK);
  if (llDistance > 0 && llBase > LLONG_MAX - llDistance) return Fail(ERROR_INVALID_PARAMETER);
  open.ullPosition = static_cast<ULONGLONG>(llBase + llDistance);
  if (pullNewPosition) *pullNewPosition = open.ullPosition;
  return S_OK;
}

HRESULT GetSize(void* pFile, ULONGLONG* pullSize) {
  if (!pullSize) return Fail(ERROR_INVALID_PARAMETER);
  std::lock_guard<std::mutex> lock(g_mutex);
  *pullSize = OpenOf(pFile).pNode->vData.size();
  return S_OK;
}

HRESULT GetTimes(void* pFile, FILETIME* pftCreation, FILETIME* pftLastAccess, FILETIME* pftLastWrite) {
  if (!pftCreation || !pftLastAccess || !pftLastWrite) return Fail(ERROR_INVALID_PARAMETER);
  std::lock_guard<std::mutex> lock(g_mutex);
  const SNode& node = *OpenOf(pFile).pNode;
  *pftCreation = U64ToFileTime(node.ullCreated);
  *pftLastAccess = *pftLastWrite = U64ToFileTime(node.ullWritten);
  return S_OK;
}

HRESULT SetEndOfFile(void* pFile) {
  SOpenFile& open = OpenOf(pFile);
  if (!(open.dwAccess & GENERIC_WRITE)) return Fail(ERROR_ACCESS_DENIED);
  std::lock_guard<std::mutex> lock(g_mutex);
  SNode& node = *open.pNode;
  HRESULT hr = Resize(node, open.ullPosition);
  if (FAILED(hr)) return hr;
  // A cut is journaled (it reaches the disk in order); an extension is data still to be written.
  if (g_pState->bTracking && !g_pState->bCut && node.vDurable.size() > node.vData.size()) {
    node.vDurable.resize(node.vData.size());
  }
  node.ullWritten = Now();
  Changed();
  return S_OK;
}

HRESULT Flush(void* pFile) {
  SOpenFile& open = OpenOf(pFile);
  HRESULT hrInjected;
  if (InjectedFault(NSFault::EOp::Flush, open.strPath, &hrInjected)) return hrInjected;
  if (!(open.dwAccess & GENERIC_WRITE)) return Fail(ERROR_ACCESS_DENIED);
  std::lock_guard<std::mutex> lock(g_mutex);
  Changed();
  if (!g_pState->bCut) MarkDurable(*open.pNode);
  return S_OK;
}

HRESULT LockRange(void* pFile, ULONGLONG ullOffset, ULONGLONG cb) {
  SOpenFile& open = OpenOf(pFile);
  std::lock_guard<std::mutex> lock(g_mutex);
  for (const SOpenFile* pOther : open.pNode->vOpens) {
    for (const SLockRange& held : pOther->vLocks) {
      if (Overlaps(held, ullOffset, cb)) return Fail(ERROR_LOCK_VIOLATION);
    }
  }
  open.vLocks.push_back(SLockRange{ullOffset, cb});
  return S_OK;
}

HRESULT UnlockRange(void* pFile, ULONGLONG ullOffset, ULONGLONG cb) {
  SOpenFile& open = OpenOf(pFile);
  std::lock_guard<std::mutex> lock(g_mutex);
  auto it = std::find_if(open.vLocks.begin(), open.vLocks.end(), [&](const SLockRange& held) {
    return held.ullOffset == ullOffset && held.cb == cb;
  });
  if (it == open.vLocks.end()) return Fail(ERROR_NOT_LOCKED);
  open.vLocks.erase(it);
  return S_OK;
}

// ---------------------------------------------------------------------------------------------
// CFileMapping
// ---------------------------------------------------------------------------------------------

HRESULT Map(void* pFile, void** ppMapping, void** ppView, ULONGLONG* pullSize) {
  SOpenFile& open = OpenOf(pFile);
  std::lock_guard<std::mutex> lock(g_mutex);
  SNode& node = *open.pNode;
  if (node.vData.empty()) return Fail(ERROR_FILE_INVALID);
  if ((open.dwAccess & (GENERIC_READ | GENERIC_WRITE)) != (GENERIC_READ | GENERIC_WRITE)) {
    return Fail(ERROR_ACCESS_DENIED);
  }
  ++node.cMappings;
  ++g_pState->cOpen;
  *ppMapping = new SMapping{open.pNode, open.strPath};
  *ppView = node.vData.data();
  *pullSize = node.vData.size();
  return S_OK;
}

HRESULT FlushMapping(void* pMapping) {
  SMapping& mapping = *static_cast<SMapping*>(pMapping);
  HRESULT hrInjected;
  if (InjectedFault(NSFault::EOp::Flush, mapping.strPath, &hrInjected)) return hrInjected;
  std::lock_guard<std::mutex> lock(g_mutex);
  Changed();
  if (!g_pState->bCut) MarkDurable(*mapping.pNode);
  return S_OK;
}

void Unmap(void* pMapping) {
  std::unique_ptr<SMapping> p(static_cast<SMapping*>(pMapping));
  std::lock_guard<std::mutex> lock(g_mutex);
  --p->pNode->cMappings;
  if (!g_pState) return;
  --g_pState->cOpen;
  ReleaseNode(p->pNode);
}

// ---------------------------------------------------------------------------------------------
// Whole files and directories
// ---------------------------------------------------------------------------------------------

HRESULT RemoveFile(const WCHAR* pszPath) {
  HRESULT hrInjected;
  if (InjectedFault(NSFault::EOp::Directory, PathText(pszPath), &hrInjected)) return hrInjected;
  const WString strKey = KeyOf(pszPath);
  if (strKey.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  std::lock_guard<std::mutex> lock(g_mutex);
  const TNodePtr pNode = Find(strKey);
  if (!pNode) return Fail(IsRootKey(strKey) ? ERROR_ACCESS_DENIED : MissingError(strKey));
  if (pNode->bDirectory || pNode->bReadOnly) return Fail(ERROR_ACCESS_DENIED);
  if (IsOpenWithoutShareDelete(*pNode)) return Fail(ERROR_SHARING_VIOLATION);
  return RemoveNode(strKey);
}

HRESULT RenameFile(const WCHAR* pszFrom, const WCHAR* pszTo) {
  HRESULT hrInjected;
  if (InjectedFault(NSFault::EOp::Directory, PathText(pszFrom), &hrInjected)) return hrInjected;
  const WString strFrom = KeyOf(pszFrom), strTo = KeyOf(pszTo);
  if (strFrom.empty() || strTo.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  std::lock_guard<std::mutex> lock(g_mutex);
  const TNodePtr pFrom = Find(strFrom);
  if (!pFrom) return Fail(MissingError(strFrom));
  if (IsOpenWithoutShareDelete(*pFrom)) return Fail(ERROR_SHARING_VIOLATION);
  if (!IsExistingDirectory(ParentKey(strTo))) return Fail(ERROR_PATH_NOT_FOUND);
  if (strTo == strFrom) {
    pFrom->strName = NameOf(pszTo);
    return S_OK;
  }
  if (pFrom->bDirectory && strTo.compare(0, strFrom.size() + 1, strFrom + chPathSeparator) == 0) {
    return Fail(ERROR_SHARING_VIOLATION);  // into itself
  }
  if (const TNodePtr pTo = Find(strTo)) {
    if (pFrom->bDirectory || pTo->bDirectory || pTo->bReadOnly) return Fail(ERROR_ACCESS_DENIED);
    if (IsOpenWithoutShareDelete(*pTo)) return Fail(ERROR_SHARING_VIOLATION);
    g_pState->mapNodes.erase(strTo);
    ReleaseNode(pTo);
  }
  pFrom->strName = NameOf(pszTo);
  // One change: the disk holds the old name or the new one, never both or neither.
  NoteNameChange(strFrom, strTo, pFrom);
  // The node and, for a directory, everything under it move to the new name.
  std::vector<std::pair<WString, TNodePtr>> vMoved;
  const WString strPrefix = strFrom + chPathSeparator;
  vMoved.emplace_back(strTo, pFrom);
  g_pState->mapNodes.erase(strFrom);
  for (auto it = g_pState->mapNodes.lower_bound(strPrefix);
       it != g_pState->mapNodes.end() && it->first.compare(0, strPrefix.size(), strPrefix) == 0;) {
    vMoved.emplace_back(strTo + it->first.substr(strFrom.size()), it->second);
    it = g_pState->mapNodes.erase(it);
  }
  for (auto& [strKey, pNode] : vMoved) g_pState->mapNodes.emplace(strKey, pNode);
  Changed();
  return S_OK;
}

HRESULT GetTempDirectory(WString* pstrDirectory) {
  if (!pstrDirectory) return Fail(ERROR_INVALID_PARAMETER);
  std::lock_guard<std::mutex> lock(g_mutex);
  *pstrDirectory = g_pState->strTempDirectory;
  return S_OK;
}

HRESULT CreateTempFile(const WCHAR* pszDirectory, const WCHAR* pszPrefix, WString* pstrPath) {
  if (!pszDirectory || !pstrPath) return Fail(ERROR_INVALID_PARAMETER);
  WString strBase = AddTrailingSeparator(pszDirectory);
  strBase.append(WStringView(pszPrefix ? pszPrefix : KV_W("")).substr(0, 3));
  std::lock_guard<std::mutex> lock(g_mutex);
  if (!IsExistingDirectory(KeyOf(pszDirectory))) return Fail(ERROR_DIRECTORY);
  for (unsigned uUnique = 1; uUnique <= 0xFFFF; ++uUnique) {
    char szName[16];
    std::snprintf(szName, sizeof(szName), "%X.tmp", uUnique);
    const WString strCandidate = strBase + Utf8ToWide(szName);
    const WString strKey = KeyOf(strCandidate.c_str());
    if (Find(strKey)) continue;
    AddNode(strKey, NameOf(strCandidate.c_str()), false);
    Changed();
    return GetFullPath(strCandidate.c_str(), pstrPath);
  }
  return Fail(ERROR_FILE_EXISTS);
}

HRESULT GetAttributes(const WCHAR* pszPath, DWORD* pdwAttributes) {
  if (!pdwAttributes) return Fail(ERROR_INVALID_PARAMETER);
  *pdwAttributes = INVALID_FILE_ATTRIBUTES;
  const WString strKey = KeyOf(pszPath);
  if (strKey.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  std::lock_guard<std::mutex> lock(g_mutex);
  if (IsRootKey(strKey)) {
    *pdwAttributes = FILE_ATTRIBUTE_DIRECTORY;
    return S_OK;
  }
  const TNodePtr pNode = Find(strKey);
  if (!pNode) return Fail(MissingError(strKey));
  DWORD dwAttributes = (pNode->bDirectory ? FILE_ATTRIBUTE_DIRECTORY : 0) | (pNode->bReadOnly ? FILE_ATTRIBUTE_READONLY : 0);
  *pdwAttributes = dwAttributes ? dwAttributes : FILE_ATTRIBUTE_NORMAL;
  return S_OK;
}

HRESULT SetAttributes(const WCHAR* pszPath, DWORD dwAttributes) {
  HRESULT hrInjected;
  if (InjectedFault(NSFault::EOp::Directory, PathText(pszPath), &hrInjected)) return hrInjected;
  const WString strKey = KeyOf(pszPath);
  if (strKey.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  std::lock_guard<std::mutex> lock(g_mutex);
  const TNodePtr pNode = Find(strKey);
  if (!pNode) return Fail(IsRootKey(strKey) ? ERROR_ACCESS_DENIED : MissingError(strKey));
  pNode->bReadOnly = (dwAttributes & FILE_ATTRIBUTE_READONLY) != 0;
  Changed();
  return S_OK;
}

HRESULT CreateDir(const WCHAR* pszPath) {
  HRESULT hrInjected;
  if (InjectedFault(NSFault::EOp::Directory, PathText(pszPath), &hrInjected)) return hrInjected;
  const WString strKey = KeyOf(pszPath);
  if (strKey.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  std::lock_guard<std::mutex> lock(g_mutex);
  if (IsRootKey(strKey) || Find(strKey)) return Fail(ERROR_ALREADY_EXISTS);
  if (!IsExistingDirectory(ParentKey(strKey))) return Fail(ERROR_PATH_NOT_FOUND);
  AddNode(strKey, NameOf(pszPath), true);
  Changed();
  return S_OK;
}

HRESULT CreateDirTree(const WCHAR* pszPath) {
  const WString strPath = PathText(pszPath);
  HRESULT hrInjected;
  if (InjectedFault(NSFault::EOp::Directory, strPath, &hrInjected)) return hrInjected;
  // SHCreateDirectoryExW takes full paths only.
  if (!IsFullPath(strPath)) return Fail(ERROR_BAD_PATHNAME);
  const WString strKey = KeyOf(strPath.c_str());
  std::lock_guard<std::mutex> lock(g_mutex);
  if (IsRootKey(strKey)) return Fail(ERROR_ALREADY_EXISTS);
  if (const TNodePtr p = Find(strKey)) return Fail(p->bDirectory ? ERROR_ALREADY_EXISTS : ERROR_FILE_EXISTS);
  std::vector<WString> vMissing;
  for (WString str = strKey; !str.empty() && !IsRootKey(str); str = ParentKey(str)) {
    if (const TNodePtr p = Find(str)) {
      if (!p->bDirectory) return Fail(ERROR_PATH_NOT_FOUND);
      break;
    }
    vMissing.push_back(str);
  }
  // The names as given (the keys may be folded): the last segments of the canonical full path.
  const WString strNames = CanonicalizePath(strPath);
  for (size_t i = 0; i < vMissing.size(); ++i) {
    const WString& strMissing = vMissing[vMissing.size() - 1 - i];
    AddNode(strMissing, NameOf(strNames.substr(0, strMissing.size()).c_str()), true);
    Changed();
  }
  return S_OK;
}

HRESULT RemoveDir(const WCHAR* pszPath) {
  HRESULT hrInjected;
  if (InjectedFault(NSFault::EOp::Directory, PathText(pszPath), &hrInjected)) return hrInjected;
  const WString strKey = KeyOf(pszPath);
  if (strKey.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  std::lock_guard<std::mutex> lock(g_mutex);
  if (IsRootKey(strKey)) return Fail(ERROR_ACCESS_DENIED);
  const TNodePtr pNode = Find(strKey);
  if (!pNode) return Fail(MissingError(strKey));
  if (!pNode->bDirectory) return Fail(ERROR_DIRECTORY);
  if (pNode->bReadOnly) return Fail(ERROR_ACCESS_DENIED);
  if (HasChildren(strKey)) return Fail(ERROR_DIR_NOT_EMPTY);
  return RemoveNode(strKey);
}

HRESULT ListDir(const WCHAR* pszDirectory, std::vector<SDirEntry>* pvEntries, const WCHAR* pszSpec) {
  if (!pvEntries) return Fail(ERROR_INVALID_PARAMETER);
  pvEntries->clear();
  HRESULT hrInjected;
  if (InjectedFault(NSFault::EOp::Directory, PathText(pszDirectory), &hrInjected)) return hrInjected;
  const WString strKey = KeyOf(pszDirectory);
  if (strKey.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  std::lock_guard<std::mutex> lock(g_mutex);
  if (!IsRootKey(strKey)) {
    const TNodePtr pNode = Find(strKey);
    if (!pNode) return Fail(ERROR_PATH_NOT_FOUND);
    if (!pNode->bDirectory) return Fail(ERROR_DIRECTORY);
  }
  const WString strPrefix = strKey.size() == 1 ? strKey : strKey + chPathSeparator;
  for (auto it = g_pState->mapNodes.lower_bound(strPrefix);
       it != g_pState->mapNodes.end() && it->first.compare(0, strPrefix.size(), strPrefix) == 0; ++it) {
    if (it->first.find(chPathSeparator, strPrefix.size()) != WString::npos) continue;
    const SNode& node = *it->second;
    if (pszSpec && !MatchSpec(node.strName.c_str(), pszSpec)) continue;
    SDirEntry entry;
    entry.strName = node.strName;
    entry.dwAttributes = (node.bDirectory ? FILE_ATTRIBUTE_DIRECTORY : 0) | (node.bReadOnly ? FILE_ATTRIBUTE_READONLY : 0);
    if (entry.dwAttributes == 0) entry.dwAttributes = FILE_ATTRIBUTE_NORMAL;
    entry.ullSize = node.bDirectory ? 0 : node.vData.size();
    entry.ftLastWrite = U64ToFileTime(node.ullWritten);
    pvEntries->push_back(std::move(entry));
  }
  std::sort(pvEntries->begin(), pvEntries->end(),
            [](const SDirEntry& a, const SDirEntry& b) { return a.strName < b.strName; });
  return S_OK;
}

bool PathExists(const WCHAR* pszPath) {
  const WString strKey = KeyOf(pszPath);
  if (strKey.empty()) return false;
  std::lock_guard<std::mutex> lock(g_mutex);
  return IsRootKey(strKey) || Find(strKey) != nullptr;
}

bool IsDirectory(const WCHAR* pszPath) {
  const WString strKey = KeyOf(pszPath);
  if (strKey.empty()) return false;
  std::lock_guard<std::mutex> lock(g_mutex);
  return IsExistingDirectory(strKey);
}

bool IsDirectoryEmpty(const WCHAR* pszPath) {
  const WString strKey = KeyOf(pszPath);
  if (strKey.empty()) return false;
  std::lock_guard<std::mutex> lock(g_mutex);
  return IsExistingDirectory(strKey) && !HasChildren(strKey);
}

HRESULT FlushDirectory(const WCHAR* pszPath) {
  HRESULT hrInjected;
  if (InjectedFault(NSFault::EOp::Directory, PathText(pszPath), &hrInjected)) return hrInjected;
  const WString strKey = KeyOf(pszPath);
  if (strKey.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  std::lock_guard<std::mutex> lock(g_mutex);
  const TNodePtr pDirectory = DirectoryNode(strKey);
  if (!pDirectory) return Fail(MissingError(strKey));
  if (!pDirectory->bDirectory) return Fail(ERROR_DIRECTORY);
  Changed();
  if (!TracksNames()) return S_OK;
  // The directory's names as they stand; a rename into it or out of it is durable whole, so the
  // other directory's name follows.
  SState& state = *g_pState;
  TDurableNames& names = state.mapDurableNames[pDirectory];
  names.clear();
  const WString strPrefix = strKey.size() == 1 ? strKey : strKey + chPathSeparator;
  for (auto it = state.mapNodes.lower_bound(strPrefix);
       it != state.mapNodes.end() && it->first.compare(0, strPrefix.size(), strPrefix) == 0; ++it) {
    if (it->first.find(chPathSeparator, strPrefix.size()) != WString::npos) continue;
    names[it->first.substr(strPrefix.size())] = SDurableName{it->second->strName, it->second};
  }
  std::vector<SNameChange> vStillPending;
  for (SNameChange& change : state.vPendingNames) {
    if (change.pFromDirectory != pDirectory && change.pToDirectory != pDirectory) {
      vStillPending.push_back(std::move(change));
      continue;
    }
    // The flushed directory holds its names as they stand; only a rename from or to another
    // directory has a half left to make durable there.
    if (change.pFromDirectory && change.pToDirectory && change.pFromDirectory != change.pToDirectory) {
      SNameChange other = change;
      (change.pFromDirectory == pDirectory ? other.pFromDirectory : other.pToDirectory) = nullptr;
      ApplyNameChange(other, &state.mapDurableNames);
    }
  }
  state.vPendingNames = std::move(vStillPending);
  return S_OK;
}

HRESULT CopyTree(const WCHAR* pszFrom, const WCHAR* pszTo) {
  WString strFromFull, strToFull;
  HRESULT hr = GetFullPath(pszFrom, &strFromFull);
  if (SUCCEEDED(hr)) hr = GetFullPath(pszTo, &strToFull);
  if (FAILED(hr)) return hr;
  const WString strFrom = KeyOf(strFromFull.c_str());
  WString strTo = KeyOf(strToFull.c_str());
  std::lock_guard<std::mutex> lock(g_mutex);
  const TNodePtr pFrom = Find(strFrom);
  if (!pFrom) return Fail(MissingError(strFrom));
  WString strName = NameOf(strToFull.c_str());
  if (IsExistingDirectory(strTo)) {
    strName = pFrom->strName;
    strTo = (strTo.size() == 1 ? strTo : strTo + chPathSeparator) + FoldPathCase(strName);
  } else {
    // Missing parents are made, as the shell makes them.
    std::vector<WString> vMissing;
    for (WString str = ParentKey(strTo); !str.empty() && !IsRootKey(str) && !Find(str); str = ParentKey(str)) {
      vMissing.push_back(str);
    }
    for (auto it = vMissing.rbegin(); it != vMissing.rend(); ++it) {
      AddNode(*it, NameOf(it->c_str()), true);
    }
    if (!IsExistingDirectory(ParentKey(strTo))) return Fail(ERROR_PATH_NOT_FOUND);
  }
  if (strTo == strFrom || strTo.compare(0, strFrom.size() + 1, strFrom + chPathSeparator) == 0) {
    return Fail(ERROR_INVALID_PARAMETER);
  }
  return CopyNode(strFrom, pFrom, strTo, strName);
}

HRESULT GetFreeDiskSpace(const WCHAR* pszPath, ULONGLONG* pullFreeToCaller, ULONGLONG* pullTotal,
                         ULONGLONG* pullTotalFree) {
  const WString strKey = KeyOf(pszPath);
  if (strKey.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  std::lock_guard<std::mutex> lock(g_mutex);
  if (!IsRootKey(strKey) && !Find(strKey)) return Fail(ERROR_PATH_NOT_FOUND);
  ULONGLONG ullFree = g_pState->ullCapacity - std::min(g_pState->ullCapacity, g_pState->ullUsed);
  NSFault::GetFreeSpaceOverride(&ullFree);
  if (pullFreeToCaller) *pullFreeToCaller = ullFree;
  if (pullTotal) *pullTotal = g_pState->ullCapacity;
  if (pullTotalFree) *pullTotalFree = ullFree;
  return S_OK;
}

}  // namespace NSMemFs
}  // namespace NSPlatform
