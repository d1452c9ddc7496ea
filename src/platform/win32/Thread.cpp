// Threads, critical sections, events and timer resolution on Windows.
#include "platform/os.h"

#include <mmsystem.h>

#include <new>

namespace NSPlatform {

namespace {
std::atomic<LONG> g_nTimePeriodRequests{0};

struct SThread {
  HANDLE hThread = nullptr;
  bool bJoined = false;
  std::function<void()> fnBody;
};

CRITICAL_SECTION* Section(unsigned char* pStorage) { return reinterpret_cast<CRITICAL_SECTION*>(pStorage); }
}  // namespace

DWORD GetCurrentThreadId() { return ::GetCurrentThreadId(); }

// ---- critical section ------------------------------------------------------------------------

COsCriticalSection::COsCriticalSection(DWORD dwSpinCount) : m_dwSpinCount(dwSpinCount) {
  static_assert(sizeof(CRITICAL_SECTION) <= sizeof(m_storage));
  new (m_storage) CRITICAL_SECTION;
  InitializeCriticalSectionAndSpinCount(Section(m_storage), dwSpinCount);
}

COsCriticalSection::~COsCriticalSection() { DeleteCriticalSection(Section(m_storage)); }
void COsCriticalSection::Enter() { EnterCriticalSection(Section(m_storage)); }
bool COsCriticalSection::TryEnter() { return TryEnterCriticalSection(Section(m_storage)) != FALSE; }
void COsCriticalSection::Leave() { LeaveCriticalSection(Section(m_storage)); }

// ---- event -----------------------------------------------------------------------------------

COsEvent::COsEvent(bool bManualReset, bool bInitialState)
    : m_pImpl(CreateEventW(nullptr, bManualReset, bInitialState, nullptr)) {}

COsEvent::~COsEvent() {
  if (m_pImpl) CloseHandle(m_pImpl);
}

bool COsEvent::IsValid() const { return m_pImpl != nullptr; }
void COsEvent::Set() { if (m_pImpl) SetEvent(m_pImpl); }
void COsEvent::Reset() { if (m_pImpl) ResetEvent(m_pImpl); }

DWORD COsEvent::Wait(DWORD dwMilliseconds) {
  if (!m_pImpl) {
    ::SetLastError(ERROR_INVALID_HANDLE);
    return WAIT_FAILED;
  }
  return WaitForSingleObject(m_pImpl, dwMilliseconds);
}

// ---- thread ----------------------------------------------------------------------------------

COsThread::COsThread() : m_pImpl(nullptr) {}

COsThread::~COsThread() {
  SThread* pThread = static_cast<SThread*>(m_pImpl);
  if (!pThread) return;
  // A thread that drops the last reference to its own object cannot wait for itself.
  if (!pThread->bJoined && ::GetThreadId(pThread->hThread) != ::GetCurrentThreadId())
    WaitForSingleObject(pThread->hThread, INFINITE);
  CloseHandle(pThread->hThread);
  // The body of a thread still running owns nothing of pThread but fnBody, which it has moved out.
  delete pThread;
}

HRESULT COsThread::Start(std::function<void()> fnBody) {
  if (m_pImpl) {
    ::SetLastError(ERROR_INVALID_STATE);
    return KvHResultFromWin32(ERROR_INVALID_STATE);
  }
  SThread* pThread = new (std::nothrow) SThread;
  if (!pThread) return E_OUTOFMEMORY;
  // The body travels on the heap so the thread owns it whatever becomes of this object.
  auto* pfnBody = new (std::nothrow) std::function<void()>(std::move(fnBody));
  if (!pfnBody) {
    delete pThread;
    return E_OUTOFMEMORY;
  }
  auto pfnEntry = [](LPVOID pv) -> DWORD {
    std::unique_ptr<std::function<void()>> pfn(static_cast<std::function<void()>*>(pv));
    (*pfn)();
    return 0;
  };
  DWORD dwId = 0;
  pThread->hThread = CreateThread(nullptr, 0, pfnEntry, pfnBody, 0, &dwId);
  if (!pThread->hThread) {
    HRESULT hr = HResultFromLastError();
    delete pfnBody;
    delete pThread;
    return hr;
  }
  m_dwId = dwId;
  m_pImpl = pThread;
  return S_OK;
}

bool COsThread::IsStarted() const { return m_pImpl != nullptr; }

bool COsThread::HasEnded() const {
  const SThread* pThread = static_cast<const SThread*>(m_pImpl);
  return pThread && pThread->hThread && ::WaitForSingleObject(pThread->hThread, 0) == WAIT_OBJECT_0;
}

void COsThread::Join() {
  SThread* pThread = static_cast<SThread*>(m_pImpl);
  if (!pThread || pThread->bJoined) return;
  if (::GetThreadId(pThread->hThread) == ::GetCurrentThreadId()) return;
  WaitForSingleObject(pThread->hThread, INFINITE);
  pThread->bJoined = true;
}

bool COsThread::SetAffinityMask(ULONGLONG ullMask) {
  SThread* pThread = static_cast<SThread*>(m_pImpl);
  if (!pThread || ullMask == 0) return false;
  return ::SetThreadAffinityMask(pThread->hThread, static_cast<DWORD_PTR>(ullMask)) != 0;
}

bool COsThread::SetPriority(int nPriority) {
  SThread* pThread = static_cast<SThread*>(m_pImpl);
  if (!pThread || !::SetThreadPriority(pThread->hThread, nPriority)) return false;
  m_nPriority = nPriority;
  return true;
}

ULONGLONG GetProcessAffinityMask() {
  DWORD_PTR dwProcess = 0, dwSystem = 0;
  if (!::GetProcessAffinityMask(GetCurrentProcess(), &dwProcess, &dwSystem)) return 1;
  return dwProcess;
}

ULONGLONG GetCurrentThreadAffinityMask() {
  // Win32 has no getter: setting a mask answers the previous one, which is then put back.
  DWORD_PTR dwPrevious = ::SetThreadAffinityMask(GetCurrentThread(), static_cast<DWORD_PTR>(GetProcessAffinityMask()));
  if (dwPrevious) ::SetThreadAffinityMask(GetCurrentThread(), dwPrevious);
  return dwPrevious;
}

UINT TimeBeginPeriod(UINT uPeriod) {
  UINT uResult = timeBeginPeriod(uPeriod);
  if (uResult == TIMERR_NOERROR) ++g_nTimePeriodRequests;
  return uResult;
}

UINT TimeEndPeriod(UINT uPeriod) {
  UINT uResult = timeEndPeriod(uPeriod);
  if (uResult == TIMERR_NOERROR) --g_nTimePeriodRequests;
  return uResult;
}

LONG GetTimePeriodRequests() { return g_nTimePeriodRequests.load(); }

}  // namespace NSPlatform
