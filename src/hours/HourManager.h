// One hour of one record on disk: the owner of "data.al", "descriptor.ald" and "descriptor.alh"
// while the hour is open (HourFormat.h fixes their bytes).
//
// The record creates one CHourManager per hour it touches and hands it the record's lock; every
// operation takes that lock for its whole duration, so one hour manager may be shared by the
// record's writer and its readers. Without a lock, operations fail with E_FAIL.
//
// The writer appends through the mapped hash file; readers (Read, GetSibling, GetDescriptorTime,
// flag masks) use a private copy of it taken at open, by GetStatistic and by Refresh. A reader
// therefore sees frames written after the last refresh only after the next one.
//
// A frame is written in a fixed order: its bytes to data.al (one gathered write), its entry to
// descriptor.ald, then its slot and flag counters in the mapped hash file. IsCorrupted looks at the
// last frame for a write cut short by a crash; Repair rebuilds both index files from data.al.
#pragma once

#include <bitset>
#include <memory>
#include <mutex>
#include <vector>

#include "hours/HourFormat.h"
#include "platform/BlockPool.h"
#include "platform/os.h"
#include "support/Lock.h"

namespace NSHours {

// Progress of a long hour operation (the repair). Not COM: never marshaled, no identity.
class IProgress {
 public:
  virtual void SetPercent(BYTE byPercent) = 0;
  virtual bool IsStopped() = 0;

 protected:
  ~IProgress() = default;
};

// One buffer of a frame: the layout of the interfaces' SFrameBuffer (a pointer, then a 32-bit
// size), so the record passes its callers' arrays through unchanged.
struct SHourFrameBuffer {
  BYTE* pData;
  DWORD dwDataSize;
};

// A flag filter: the layout of the interfaces' SFrameFilter (mask, then a 32-bit mode).
struct SHourFrameFilter {
  DWORD dwMask;
  DWORD eMode;
};

// What an hour tells of itself: first and last occupied slot (slot times, 10 ms resolution), how
// many frames descriptor.ald lists, and the hour's flag counters.
struct SHourStatistic {
  FILETIME ftBegin;
  FILETIME ftEnd;
  ULONGLONG ullFrameCount;
  DWORD vFlagCounters[kcFlagBits];
};

// Frames of one cell of an hour (a second, a minute, or a whole range): the first and last occupied
// slot (0 to 359,999 from the hour's start), the union of the flags there, and how many frames pass
// the filter the cells were asked with (all of them without one).
struct SHourCell {
  DWORD dwFirstSlot;
  DWORD dwLastSlot;
  DWORD dwFlags;
  DWORD dwCount;
};

// A reader's private copy of descriptor.alh, taken in pages of kcbCopyPage bytes as they are first
// needed (a random read needs one page of slots; a walk through the hour needs them all), so that
// opening an hour costs no copy of 1.5 MB. A page not loaded yet is taken from the file when first
// needed, while descriptor.ald still has the size the copy stands for; a page taken after the hour
// grew brings the whole copy up to date instead, as a refresh does.
constexpr DWORD kcbCopyPage = 16384;
constexpr DWORD kcCopyPages = (sizeof(SHashFile) + kcbCopyPage - 1) / kcbCopyPage;
// Copies come from the platform's block pool: a reader that walks hour after hour, or a test that
// opens hour after hour, would otherwise take 1.5 MB of fresh memory (a page fault every 4 KiB) at
// each one.
struct SHashCopy {
  SHashFile hash;
  std::bitset<kcCopyPages> loaded;  // pages of hash taken from the file

  static void* operator new(size_t cb) { return NSPlatform::TakeBlock(cb); }
  static void operator delete(void* pv, size_t cb) noexcept { NSPlatform::GiveBackBlock(pv, cb); }
};

// A closed hour's private index copy, kept by its record so that opening the hour again costs no copy
// of the 1.5 MB hash file: the copy (the pages taken so far), the size of descriptor.ald whose every
// frame it shows, and the hour-change epoch (NSKronvaleUtils::HourChangeEpoch) of the open it was
// taken under. Memory only: it holds no file, so nothing stops the hour from being deleted.
// bSettled: the copy was taken (or its last frame read again) after the hour had ended more than
// an hour earlier, when no writer can be half-way through an append to it; such a copy needs no
// second look at its last frame while descriptor.ald keeps its size.
struct SHourSnapshot {
  std::unique_ptr<SHashCopy> pHash;
  ULONGLONG ullDescriptorSize = 0;
  ULONGLONG ullEpoch = 0;
  bool bSettled = false;
};

// Levels of GetFlagMask.
enum EFlagLevel : DWORD { eflSecond = 1, eflMinute = 2, eflHour = 3 };

class CHourManager {
 public:
  explicit CHourManager(NSSystem::ILockPtr pLock);
  ~CHourManager();
  CHourManager(const CHourManager&) = delete;
  CHourManager& operator=(const CHourManager&) = delete;

  // Opens the hour directory strPath, creating it (with its parents) and its files when bCreate is
  // set; without it nothing is created: a missing directory or file answers 0x80070002. bBuffered leaves out write-through on
  // descriptor.ald and data.al. On failure the hour may be half open: the caller closes it.
  HRESULT Open(const WString& strPath, bool bCreate, bool bBuffered);
  // The same, starting from a snapshot this hour left earlier (CloseToSnapshot). It stands for the
  // private copy when no hour has changed in this process since it was taken (same epoch) and
  // descriptor.ald has the size it had; when only frames were appended since, just theirs are copied
  // in; otherwise the copy is taken whole, into the snapshot's memory. The snapshot is used up.
  // bDirectorySeen: the caller has just seen the hour's directory exist, and it is not looked at again.
  HRESULT Open(const WString& strPath, bool bCreate, bool bBuffered, SHourSnapshot&& snapshot,
               bool bDirectorySeen = false);
  // Closes the hour like Close and hands over its private copy as a snapshot; an empty one when the
  // copy is not known to show every listed frame.
  SHourSnapshot CloseToSnapshot();
  // Closes everything (nothing is flushed explicitly: closing hands the data to the system). Safe to
  // call on a closed hour.
  void Close();

  // Appends one frame at the time st (UTC; only its minute, second and millisecond place it in the
  // hour). A later frame in the same 10 ms slot takes the slot over. A buffer with a null pData and a
  // nonzero size is refused with E_POINTER before anything is written. A failed append leaves the
  // files as they were before it (what reached them is cut off again; if even that fails, the hour
  // refuses appends until it succeeds), so a disk that filled up never leaves a torn frame behind.
  HRESULT Write(const SYSTEMTIME& st, DWORD dwFlags, const SHourFrameBuffer* pBuffers, DWORD dwCount);
  // Reads the frame in the slot of st into dwCount buffers (fewer than the frame has is allowed).
  // A buffer with a null pData receives task memory the caller frees with CoTaskMemFree; otherwise
  // dwDataSize is its capacity on input and the stored size on output. A null pData following a
  // caller's block is laid out inside that block, after a gap of its own dwDataSize bytes (unless
  // that is 0xFFFFFFFF). dwCount 0 answers S_FALSE when the frame exists (with its flags when
  // pdwFlags is given) without reading data.al. On failure no task memory of this call is left with
  // the caller.
  HRESULT Read(const SYSTEMTIME& st, DWORD* pdwFlags, SHourFrameBuffer* pBuffers, DWORD dwCount);

  // The time of a slot of the private copy (as handed out by GetSlot).
  HRESULT GetDescriptorTime(const SFrameInfoHash* pSlot, FILETIME* pftTime);
  // The slot of st in the private copy (its page taken from the file first); null when the hour is
  // not open.
  const SFrameInfoHash* GetSlot(const SYSTEMTIME& st);
  // The nearest frame after (bForward) or before st in this hour, the slot of st itself included
  // when bIncludeStart; with a filter, whole minutes and seconds whose flag unions do not match are
  // skipped. 0x80070490 when the hour holds no such frame.
  HRESULT GetSibling(const SYSTEMTIME& st, const SHourFrameFilter* pFilter, FILETIME* pftFound, bool bIncludeStart,
                     bool bForward);
  // A record's step through this hour, under one hold of the lock: the copy is refreshed when the
  // hour grew (RefreshIfGrown), an hour whose flag union does not pass pFilter answers 0x80070490
  // at once, and any other is searched as by GetSibling.
  HRESULT StepFrom(const SYSTEMTIME& st, const SHourFrameFilter* pFilter, FILETIME* pftFound, bool bIncludeStart,
                   bool bForward);
  // Refreshes the private copy, then describes the hour; S_FALSE (times 0) when no slot is occupied.
  HRESULT GetStatistic(SHourStatistic* pStatistic);
  // Bit b set when a frame with flag bit b lies in the second, minute or hour of st. Any other level
  // throws std::invalid_argument.
  DWORD GetFlagMask(DWORD dwLevel, const SYSTEMTIME& st);
  // Frames listed in descriptor.ald; 0 when the hour is not open.
  ULONGLONG GetFrameCount();
  // Bytes the open hour takes on disk (data.al, descriptor.ald and the mapped hash file); 0 when the
  // files are not open.
  ULONGLONG GetFullSizeIfOpen();
  // The occupied slots of the private copy from the slot of stFrom to the slot of stTo (both
  // included), in cells of cSlotsPerCell slots counted from the hour's start (0: one cell for the
  // whole range), in time order. A cell's flags are the union of its seconds' flag counters; with a
  // filter, a cell whose union does not pass is left out and the others count only the frames that
  // pass (which takes descriptor.ald's entries, read once per call).
  HRESULT GetCells(const SYSTEMTIME& stFrom, const SYSTEMTIME& stTo, DWORD cSlotsPerCell,
                   const SHourFrameFilter* pFilter, std::vector<SHourCell>* pvCells);
  // Hands the frames appended since the last flush to the disk: data.al, descriptor.ald and the
  // mapped hash file. S_FALSE when nothing was appended since (hours written through never need it).
  HRESULT Flush();
  // Copies the mapped hash file into the private copy.
  HRESULT Refresh();
  // Refreshes the private copy when descriptor.ald holds frames the copy may not show yet (appended
  // by this object or through another open of the hour since the last refresh). S_OK when it
  // refreshed, S_FALSE when the copy was up to date. An hour that ended more than an hour ago is
  // taken as settled while no writer of this process appended anything since it was last found
  // unchanged: descriptor.ald is not asked again (so a walk costs no system call per step), unless
  // bAskAnyway.
  HRESULT RefreshIfGrown(bool bAskAnyway = false);
  // What the private copy stands for: the size of descriptor.ald whose every frame it shows and the
  // hour-change epoch of the open it was taken under. False when the copy is not known to show every
  // listed frame (its answers then change at the next refresh).
  bool GetCopyState(ULONGLONG* pullDescriptorSize, ULONGLONG* pullEpoch);
  // Tick count (low 32 bits) of the last Read or GetSibling.
  DWORD GetLastAccess() const { return m_dwLastAccess.load(); }

  // True when the open hour's last frame shows a write cut short, or the test cannot be made.
  bool IsCorrupted();
  // Rebuilds the closed hour's index files from data.al and cuts a torn tail; leaves it closed. The
  // hour is the one of the last Open. Frames after the first bad one are dropped, sound or not.
  HRESULT Repair(IProgress* pProgress);
  // Closes and deletes the hour directory (of the last Open), then up to four parent levels while
  // they are empty. True when the hour directory itself was deleted.
  bool RemoveHour();
  // The same for the hour directory strPath, without opening it first; *phrWhy, when given, gets
  // what stopped the deletion (S_OK when the hour went).
  bool RemoveHour(const WString& strPath, HRESULT* phrWhy = nullptr);

  const WString& GetPath() const { return m_strPath; }

  // The flag mask of the whole hour in directory strPath (bit b set when a frame with bit b is
  // there), read from its files without opening the hour: S_OK only when the three files are there
  // and descriptor.alh has its size, so that an hour Open would refuse is never judged by it.
  static HRESULT ReadHourFlagMask(const WString& strPath, DWORD* pdwMask);

 private:
  HRESULT OpenLocked(bool bCreate, bool bBuffered, SHourSnapshot* pSnapshot = nullptr, bool bDirectorySeen = false);
  HRESULT OpenHash(bool bCreate);
  HRESULT WriteEmptyHash();
  // Maps descriptor.alh when it was opened without its view.
  HRESULT MapView();
  bool HashOpen() const { return m_hashMapping.IsMapped() || m_bMapLater; }
  bool RereadLastFrame();
  HRESULT OpenDescriptor(bool bCreate);
  HRESULT OpenFile(bool bCreate);
  // Opens the hour's file pszName for reading and writing, write-through unless buffered; notes in
  // m_bNamesMade a file it created.
  HRESULT OpenHourFile(NSPlatform::CFile& file, const WCHAR* pszName, bool bCreate);
  void CloseLocked();
  // bWhole: the copy is taken whole from the view, whatever it showed before.
  void RefreshLocked(bool bWhole = false);
  bool RefreshIfGrownLocked(bool bAskAnyway = false);  // true when the copy was refreshed
  bool EndedAnHourAgo();  // the hour ended more than an hour before now
  void Settle(bool bEndedAnHourAgo, ULONGLONG ullAppends);
  HRESULT GetSiblingLocked(const SYSTEMTIME& st, const SHourFrameFilter* pFilter, FILETIME* pftFound,
                           bool bIncludeStart, bool bForward);
  bool RefreshAppended(ULONGLONG ullFrom, ULONGLONG ullTo);
  bool LastEntryShown(ULONGLONG ullDescriptorSize);
  bool IsCorruptedLocked();
  bool RemoveHourLocked(HRESULT* phrWhy = nullptr);
  HRESULT AppendFrame(const SYSTEMTIME& st, DWORD dwFlags, const SHourFrameBuffer* pBuffers, DWORD dwCount,
                      SFrameInfo* pInfo);
  HRESULT AppendDescriptor(const SFrameInfo& info, DWORD* pdwIndex);
  HRESULT TakeBack(ULONGLONG ullDataSize, ULONGLONG ullDescriptorSize, HRESULT hrFailure);
  HRESULT RestoreTail();
  void StoreSlot(const SYSTEMTIME& st, DWORD dwIndex, DWORD dwFlags);
  HRESULT ReadFrameInfo(DWORD dwIndex, SFrameInfo* pInfo);
  // Reads the frame of an entry (up to kcbMostFrameWindow bytes) into the window in one call, and
  // with bAhead the frames after it (up to kcbReadAhead bytes in all); nothing when the window
  // holds it already.
  void LoadFrameWindow(const SFrameInfo& info, bool bAhead);
  // Entry dwIndex of descriptor.ald, from the block kept (m_vEntries) or, with bAhead, by reading
  // its block.
  HRESULT ReadEntry(DWORD dwIndex, SFrameInfo* pInfo, bool bAhead);
  // Forgets the entries and frame bytes read ahead: called whenever the copy may come to show frames
  // it did not show (a refresh, the copy taken whole) and when the files are cut or closed.
  void DropWindows();
  // Bytes of data.al from the window when it holds them, else from the file; short: a read fault.
  HRESULT ReadFrameBytes(ULONGLONG ullOffset, void* pv, DWORD cb);
  HRESULT ReadBuffers(const SFrameHeader& header, ULONGLONG ullPos, SHourFrameBuffer* pBuffers, DWORD dwCount);
  HRESULT GetDescriptorTimeLocked(const SFrameInfoHash* pSlot, FILETIME* pftTime);
  FILETIME GetHourStart();
  WString FilePath(const WCHAR* pszName) const;
  bool HasCopy() const { return m_pHashCopy != nullptr; }
  // The private copy with its bytes from dwOffset to dwOffset + cb taken from the file.
  const SHashFile& Pages(DWORD dwOffset, DWORD cb) {
    for (DWORD p = dwOffset / kcbCopyPage; p <= (dwOffset + cb - 1) / kcbCopyPage; ++p)
      if (!m_pHashCopy->loaded[p]) return LoadPages(dwOffset, cb);
    return m_pHashCopy->hash;
  }
  const SHashFile& LoadPages(DWORD dwOffset, DWORD cb);
  void TakeWholeCopy();
  // The first occupied slot from n on (bForward) or back from n, not beyond nLimit (included); -1
  // when there is none. Pages are taken only as far as the search goes.
  LONG NextOccupied(LONG n, LONG nLimit, bool bForward);
  SHashFile* View() const { return static_cast<SHashFile*>(m_hashMapping.GetView()); }

  WString m_strPath;
  FILETIME m_ftHourStart = {0, 0};  // 0 until computed from m_strPath
  NSPlatform::CFile m_hashFile;
  NSPlatform::CFileMapping m_hashMapping;  // the writer's view of descriptor.alh
  // descriptor.alh is open and its size checked, but not mapped yet: a reader that reopens an hour
  // unchanged since its snapshot maps it only when a refresh needs the view.
  bool m_bMapLater = false;
  // An open with bCreate made the directory or a file of the hour: their names are flushed at the
  // end of the open, once per hour rather than per append.
  bool m_bNamesMade = false;
  NSPlatform::CFile m_descriptor;          // descriptor.ald
  NSPlatform::CFile m_file;                // data.al; its position stays at the end while open
  bool m_bBuffered = false;
  std::mutex m_flushMutex;    // held while a flush works on the files, outside the record lock
  bool m_bUnflushed = false;  // a buffered hour has appends not flushed yet
  bool m_bWritable = false;
  std::atomic<DWORD> m_dwLastAccess{0};
  // The readers' copy of the hash file; allocated at the first open and kept.
  std::unique_ptr<SHashCopy> m_pHashCopy;
  // Size of descriptor.ald the copy's pages not taken yet are checked against when they are taken:
  // a page read while descriptor.ald still has this size shows what the rest of the copy shows. 0
  // when pages cannot be trusted so (the copy is then taken whole at the next page it lacks).
  ULONGLONG m_ullPagesAt = 0;
  // Sizes of data.al and descriptor.ald as the writer left them, so that an append costs no query.
  ULONGLONG m_ullDataSize = 0;
  ULONGLONG m_ullDescriptorSize = 0;
  // After a failed append: the sizes data.al and descriptor.ald must be cut back to before the next.
  bool m_bTailToRestore = false;
  ULONGLONG m_ullTailData = 0;
  ULONGLONG m_ullTailDescriptor = 0;
  // The last frame Read took from data.al in one call: its bytes from m_ullWindowOffset on. The
  // buffer is kept between reads and never grows beyond kcbMostFrameWindow.
  static constexpr DWORD kcbMostFrameWindow = 1u << 20;
  static constexpr DWORD kcbReadAhead = 256u << 10;
  std::vector<BYTE> m_vWindow;
  ULONGLONG m_ullWindowOffset = 0;
  DWORD m_cbWindow = 0;
  // A block of descriptor.ald's entries, from m_dwEntriesFirst on, read for a filtered search or a
  // scan; and the entry index the last Read took.
  static constexpr DWORD kcEntriesAhead = 1024;
  std::vector<SFrameInfo> m_vEntries;
  DWORD m_dwEntriesFirst = 0;
  DWORD m_dwLastIndex = 0;
  // The hour-change epoch when the hour was last opened.
  ULONGLONG m_ullOpenEpoch = 0;
  // Size of descriptor.ald whose frames the private copy is known to show.
  ULONGLONG m_ullRefreshedSize = 0;
  // RefreshIfGrown found the hour settled (ended more than an hour ago, not grown) when this process
  // had made m_ullAppendsSeen appends.
  bool m_bSettled = false;
  ULONGLONG m_ullAppendsSeen = 0;
  // The private copy was taken, or its last frame read again, once the hour had ended more than an
  // hour earlier (SHourSnapshot::bSettled).
  bool m_bCopySettled = false;
  // Every member above is guarded by this lock, which the record owns.
  NSSystem::ILockPtr m_pLock;
};

}  // namespace NSHours
