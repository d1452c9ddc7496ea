// Scripted implementations of the boundary interfaces: each method records what reached it (and on
// which thread) and answers what the test put in its script, so that a test compares both
// directions of a marshaled call.
//
// Ownership follows the interfaces: memory handed out (BSTRs, arrays, frame data read into null
// buffers) is allocated with the COM allocators and belongs to the caller.
#pragma once

#ifdef _WIN32

#include <windows.h>

#include <atomic>
#include <string>
#include <vector>

#include <kronvale/kronvale.h>

#include "com/InterfaceMethods.h"
#include "com/ComKit.h"

namespace NSTest {

// Objects of every scripted class alive in the process, whichever apartment made them.
inline std::atomic<int> g_cLiveObjects{0};

class CLiveCounted {
 public:
  CLiveCounted() { ++g_cLiveObjects; }
  ~CLiveCounted() { --g_cLiveObjects; }
  CLiveCounted(const CLiveCounted&) = delete;
  CLiveCounted& operator=(const CLiveCounted&) = delete;
};

// A frame filter as it reached the callee.
struct SFilterSeen {
  bool bPresent = false;
  DWORD dwMask = 0;
  DWORD dwMode = 0;
  bool operator==(const SFilterSeen&) const = default;
};
SFilterSeen SeeFilter(const SFrameFilter* pFilter);

// A frame buffer as it reached the callee.
struct SBufferSeen {
  bool bData = false;  // pData was not null
  DWORD dwDataSize = 0;
  std::vector<BYTE> vData;  // the bytes at pData (dwDataSize of them)
};

// A BSTR's exact content (embedded zeros included) as a vector; a null BSTR is distinguished from an
// empty one by the flag.
struct SBstrContent {
  bool bNull = true;
  std::vector<WCHAR> vChars;
  UINT cbBytes = 0;
  bool operator==(const SBstrContent&) const = default;
};
SBstrContent ContentOf(BSTR bstr);

// What every scripted object records about the last call it served.
struct SCallSeen {
  const char* pszMethod = "";
  DWORD dwThreadId = 0;
  std::vector<ULONGLONG> vTimes;  // FILETIME in-parameters, in order
  std::vector<LONG> vLongs;       // 32-bit in-parameters, in order
  std::vector<ULONGLONG> vUlls;   // 64-bit in-parameters, in order
  SFilterSeen filter;
  SBstrContent string;            // the BSTR in-parameter
  // Starts the record of a call: its method, its thread, and its filter when it has one.
  void Reset(const char* psz, const SFrameFilter* pFilter = nullptr);
};

// Serves IDescription, IRecord and IRecordEx.
class CScriptedRecord : public NSCom::CComObjectRootEx, public CLiveCounted, public IRecordEx {
 public:
  BEGIN_COM_MAP(CScriptedRecord)
    COM_INTERFACE_ENTRY(IRecordEx)
    COM_INTERFACE_ENTRY(IRecord)
    COM_INTERFACE_ENTRY(IDescription)
  END_COM_MAP()

  // A new record whose GetName answers strName; counted IRecordEx in *ppRecord.
  static HRESULT Create(const WCHAR* pszName, IRecordEx** ppRecord, CScriptedRecord** ppObject = nullptr);

  // ---- Script
  HRESULT m_hrResult = S_OK;  // what every method answers (ReservedRange excepted: E_NOTIMPL)
  ULONGLONG m_ullTimeOut = 0;  // GetNext, GetPrev, GetSibling
  DWORD m_dwReadFlags = 0;
  // Read: bytes for each buffer. A buffer with data receives as many as fit and its size is set to
  // their count; a buffer without data receives a task-allocated block with all of them.
  std::vector<std::vector<BYTE>> m_vReadData;
  std::vector<SRecordStatistic> m_vStatistic;  // GetStatistic; none answers a null array
  NSCom::CComBSTR m_bstrName;
  NSCom::CComBSTR m_bstrStatus;
  NSCom::CComBSTR m_bstrPath;
  NSCom::CComBSTR m_bstrDescription;  // also what SetDescription stores

  // ---- Seen
  SCallSeen m_seen;
  bool m_bBuffersNull = true;        // Write/Read: pBuff was null
  std::vector<SBufferSeen> m_vBuffers;
  IRecord* m_pMergeSource = nullptr;  // not counted: only compared
  NSCom::CComBSTR m_bstrMergeSourceName;  // what the source's GetName answered during Merge
  HRESULT m_hrMergeSourceName = E_FAIL;

  // IDescription
  KV_IDESCRIPTION_METHODS;
  // IRecord
  KV_IRECORD_METHODS;
  // IRecordEx
  KV_IRECORDEX_METHODS;

 private:
  HRESULT AnswerTime(FILETIME* pft);
  // Write/Read: the call, its time and count, and the buffers (their bytes when bBytes).
  void SeeBuffers(const char* pszMethod, FILETIME ft, const SFrameBuffer* pBuff, DWORD dwCount, bool bBytes);
};

// Serves IDescription, IKronvale and IMultipartArchive (so it also stands for a plain archive and
// a partition), and IKronvaleQuota.
class CScriptedArchive : public NSCom::CComObjectRootEx,
                         public CLiveCounted,
                         public IMultipartArchive,
                         public IKronvaleQuota {
 public:
  BEGIN_COM_MAP(CScriptedArchive)
    COM_INTERFACE_ENTRY(IMultipartArchive)
    COM_INTERFACE_ENTRY(IKronvale)
    COM_INTERFACE_ENTRY(IDescription)
    COM_INTERFACE_ENTRY(IKronvaleQuota)
  END_COM_MAP()

  static HRESULT Create(const WCHAR* pszPath, IMultipartArchive** ppArchive, CScriptedArchive** ppObject = nullptr);

  // ---- Script
  HRESULT m_hrResult = S_OK;
  NSCom::CComBSTR m_bstrPath;
  NSCom::CComBSTR m_bstrDescription;
  std::vector<NSCom::CComBSTR> m_vRecordNames;  // GetRecords; none answers a null array
  SArchiveInfo m_info{};
  SArchiveQuota m_quotaOut{};
  SPartitionOptions m_optionsOut{};
  std::vector<NSCom::CComPtr<IKronvale>> m_vPartitions;  // GetPartitions; AddPartition appends

  // ---- Seen
  SCallSeen m_seen;
  IKronvale* m_pPartitionSeen = nullptr;  // not counted: only compared
  NSCom::CComBSTR m_bstrPartitionPath;    // what the partition's GetPath answered during the call
  HRESULT m_hrPartitionPath = E_FAIL;
  bool m_bOptionsNull = true;
  SPartitionOptions m_optionsSeen{};
  bool m_bQuotaNull = true;
  SArchiveQuota m_quotaSeen{};
  int m_cFree = 0;

  // IDescription
  KV_IDESCRIPTION_METHODS;
  // IKronvale
  KV_IKRONVALE_METHODS;
  // IMultipartArchive
  KV_IMULTIPARTARCHIVE_METHODS;
  // IKronvaleQuota
  KV_IKRONVALEQUOTA_METHODS;

 private:
  void SeePartition(const char* pszMethod, IKronvale* pPartition);
  HRESULT NewRecord(const char* pszMethod, BSTR name, IRecord** ppRecord);
};

// Serves IArchiveFactory: every archive it makes is a new scripted archive whose path is the one
// given.
class CScriptedFactory : public NSCom::CComObjectRootEx, public CLiveCounted, public IArchiveFactory {
 public:
  BEGIN_COM_MAP(CScriptedFactory)
    COM_INTERFACE_ENTRY(IArchiveFactory)
  END_COM_MAP()

  static HRESULT Create(IArchiveFactory** ppFactory, CScriptedFactory** ppObject);

  HRESULT m_hrResult = S_OK;
  SCallSeen m_seen;
  CScriptedArchive* m_pLastMade = nullptr;  // not counted: only compared

  STDMETHOD(CreateArchive)(BSTR path, IKronvale** ppKronvale) override;
  STDMETHOD(OpenArchive)(BSTR path, IKronvale** ppKronvale) override;
  STDMETHOD(DeleteArchive)(BSTR path) override;
  STDMETHOD(CreateMultipartArchive)(BSTR path, IMultipartArchive** ppMultipartArchive) override;

 private:
  template <class I>
  HRESULT Make(const char* pszMethod, BSTR path, I** pp);
};

}  // namespace NSTest

#endif  // _WIN32
