// Threads, critical sections, events and timer resolution on Linux (pthreads).
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <new>

#include "platform/os.h"

namespace NSPlatform {

namespace {
std::atomic<LONG> g_nTimePeriodRequests{0};

// Win32 priorities as nice values: above normal runs a little ahead of the process's other threads.
int NiceFromPriority(int nPriority) {
  if (nPriority >= THREAD_PRIORITY_HIGHEST) return -10;
  if (nPriority == THREAD_PRIORITY_ABOVE_NORMAL) return -5;
  if (nPriority == THREAD_PRIORITY_NORMAL) return 0;
  if (nPriority == THREAD_PRIORITY_BELOW_NORMAL) return 5;
  return 10;
}

timespec DeadlineAfter(DWORD dwMilliseconds) {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  ts.tv_sec += dwMilliseconds / 1000;
  ts.tv_nsec += static_cast<long>(dwMilliseconds % 1000) * 1000000L;
  if (ts.tv_nsec >= 1000000000L) {
    ts.tv_sec += 1;
    ts.tv_nsec -= 1000000000L;
  }
  return ts;
}

struct SEvent {
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  bool bManualReset;
  bool bSignalled;
};

struct SThread {
  pthread_t thread{};
  bool bStarted = false;
  bool bJoined = false;
  std::function<void()> fnBody;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
  DWORD dwId = 0;  // guarded by mutex until published
};

pthread_mutex_t* Mutex(unsigned char* pStorage) { return reinterpret_cast<pthread_mutex_t*>(pStorage); }
}  // namespace

DWORD GetCurrentThreadId() { return static_cast<DWORD>(syscall(SYS_gettid)); }

// ---- critical section ------------------------------------------------------------------------

COsCriticalSection::COsCriticalSection(DWORD dwSpinCount) : m_dwSpinCount(dwSpinCount) {
  static_assert(sizeof(pthread_mutex_t) <= sizeof(m_storage));
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  // Win32 critical sections may be entered again by their owner.
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  new (m_storage) pthread_mutex_t;
  pthread_mutex_init(Mutex(m_storage), &attr);
  pthread_mutexattr_destroy(&attr);
}

COsCriticalSection::~COsCriticalSection() { pthread_mutex_destroy(Mutex(m_storage)); }

void COsCriticalSection::Enter() {
  for (DWORD dwSpin = 0; dwSpin < m_dwSpinCount; ++dwSpin) {
    if (pthread_mutex_trylock(Mutex(m_storage)) == 0) return;
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
  }
  pthread_mutex_lock(Mutex(m_storage));
}

bool COsCriticalSection::TryEnter() { return pthread_mutex_trylock(Mutex(m_storage)) == 0; }

void COsCriticalSection::Leave() { pthread_mutex_unlock(Mutex(m_storage)); }

// ---- event -----------------------------------------------------------------------------------

COsEvent::COsEvent(bool bManualReset, bool bInitialState) : m_pImpl(nullptr) {
  SEvent* pEvent = new (std::nothrow) SEvent;
  if (!pEvent) return;
  pthread_mutex_init(&pEvent->mutex, nullptr);
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&pEvent->cond, &attr);
  pthread_condattr_destroy(&attr);
  pEvent->bManualReset = bManualReset;
  pEvent->bSignalled = bInitialState;
  m_pImpl = pEvent;
}

COsEvent::~COsEvent() {
  SEvent* pEvent = static_cast<SEvent*>(m_pImpl);
  if (!pEvent) return;
  pthread_cond_destroy(&pEvent->cond);
  pthread_mutex_destroy(&pEvent->mutex);
  delete pEvent;
}

bool COsEvent::IsValid() const { return m_pImpl != nullptr; }

void COsEvent::Set() {
  SEvent* pEvent = static_cast<SEvent*>(m_pImpl);
  if (!pEvent) return;
  pthread_mutex_lock(&pEvent->mutex);
  pEvent->bSignalled = true;
  if (pEvent->bManualReset)
    pthread_cond_broadcast(&pEvent->cond);
  else
    pthread_cond_signal(&pEvent->cond);
  pthread_mutex_unlock(&pEvent->mutex);
}

void COsEvent::Reset() {
  SEvent* pEvent = static_cast<SEvent*>(m_pImpl);
  if (!pEvent) return;
  pthread_mutex_lock(&pEvent->mutex);
  pEvent->bSignalled = false;
  pthread_mutex_unlock(&pEvent->mutex);
}

DWORD COsEvent::Wait(DWORD dwMilliseconds) {
  SEvent* pEvent = static_cast<SEvent*>(m_pImpl);
  if (!pEvent) {
    SetLastError(ERROR_INVALID_HANDLE);
    return WAIT_FAILED;
  }
  timespec tsDeadline = DeadlineAfter(dwMilliseconds == INFINITE ? 0 : dwMilliseconds);
  pthread_mutex_lock(&pEvent->mutex);
  // A poll (0 ms) answers at once: a timed wait on a deadline already past still sleeps for the
  // timer's slack, tens of microseconds per call.
  int nResult = dwMilliseconds == 0 ? ETIMEDOUT : 0;
  while (!pEvent->bSignalled && nResult == 0) {
    if (dwMilliseconds == INFINITE)
      nResult = pthread_cond_wait(&pEvent->cond, &pEvent->mutex);
    else
      nResult = pthread_cond_timedwait(&pEvent->cond, &pEvent->mutex, &tsDeadline);
  }
  DWORD dwWait = WAIT_TIMEOUT;
  if (pEvent->bSignalled) {
    dwWait = WAIT_OBJECT_0;
    if (!pEvent->bManualReset) pEvent->bSignalled = false;
  } else if (nResult != ETIMEDOUT) {
    SetLastError(ERROR_INVALID_HANDLE);
    dwWait = WAIT_FAILED;
  }
  pthread_mutex_unlock(&pEvent->mutex);
  return dwWait;
}

// ---- thread ----------------------------------------------------------------------------------

COsThread::COsThread() : m_pImpl(nullptr) {}

COsThread::~COsThread() {
  SThread* pThread = static_cast<SThread*>(m_pImpl);
  if (!pThread) return;
  if (pThread->bStarted && !pThread->bJoined) {
    // A thread that drops the last reference to its own object cannot join itself.
    if (pthread_equal(pThread->thread, pthread_self()))
      pthread_detach(pThread->thread);
    else
      pthread_join(pThread->thread, nullptr);
  }
  delete pThread;
}

HRESULT COsThread::Start(std::function<void()> fnBody) {
  if (m_pImpl) {
    SetLastError(ERROR_INVALID_STATE);
    return KvHResultFromWin32(ERROR_INVALID_STATE);
  }
  SThread* pThread = new (std::nothrow) SThread;
  if (!pThread) return E_OUTOFMEMORY;
  pThread->fnBody = std::move(fnBody);
  auto pfnEntry = [](void* pv) -> void* {
    SThread* pSelf = static_cast<SThread*>(pv);
    pthread_mutex_lock(&pSelf->mutex);
    pSelf->dwId = GetCurrentThreadId();
    pthread_cond_broadcast(&pSelf->cond);
    pthread_mutex_unlock(&pSelf->mutex);
    pSelf->fnBody();
    return nullptr;
  };
  int nError = pthread_create(&pThread->thread, nullptr, pfnEntry, pThread);
  if (nError != 0) {
    delete pThread;
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return KvHResultFromWin32(ERROR_NOT_ENOUGH_MEMORY);
  }
  pThread->bStarted = true;
  // The id is needed at once to set the priority of the new thread.
  pthread_mutex_lock(&pThread->mutex);
  while (pThread->dwId == 0) pthread_cond_wait(&pThread->cond, &pThread->mutex);
  m_dwId = pThread->dwId;
  pthread_mutex_unlock(&pThread->mutex);
  m_pImpl = pThread;
  return S_OK;
}

bool COsThread::IsStarted() const { return m_pImpl != nullptr; }

// Nothing ends a thread from outside on Linux: the owner knows when the body returned.
bool COsThread::HasEnded() const { return false; }

void COsThread::Join() {
  SThread* pThread = static_cast<SThread*>(m_pImpl);
  if (!pThread || !pThread->bStarted || pThread->bJoined) return;
  if (pthread_equal(pThread->thread, pthread_self())) return;
  pthread_join(pThread->thread, nullptr);
  pThread->bJoined = true;
}

bool COsThread::SetAffinityMask(ULONGLONG ullMask) {
  SThread* pThread = static_cast<SThread*>(m_pImpl);
  if (!pThread || pThread->bJoined || ullMask == 0) return false;
  cpu_set_t set;
  CPU_ZERO(&set);
  for (int nCpu = 0; nCpu < 64; ++nCpu)
    if (ullMask & (1ull << nCpu)) CPU_SET(nCpu, &set);
  return pthread_setaffinity_np(pThread->thread, sizeof(set), &set) == 0;
}

bool COsThread::SetPriority(int nPriority) {
  SThread* pThread = static_cast<SThread*>(m_pImpl);
  if (!pThread || pThread->bJoined) return false;
  if (setpriority(PRIO_PROCESS, static_cast<id_t>(m_dwId.load()), NiceFromPriority(nPriority)) != 0) return false;
  m_nPriority = nPriority;
  return true;
}

ULONGLONG GetProcessAffinityMask() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof(set), &set) != 0) return 1;
  ULONGLONG ullMask = 0;
  for (int nCpu = 0; nCpu < 64; ++nCpu)
    if (CPU_ISSET(nCpu, &set)) ullMask |= 1ull << nCpu;
  return ullMask;
}

ULONGLONG GetCurrentThreadAffinityMask() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (pthread_getaffinity_np(pthread_self(), sizeof(set), &set) != 0) return 0;
  ULONGLONG ullMask = 0;
  for (int nCpu = 0; nCpu < 64; ++nCpu)
    if (CPU_ISSET(nCpu, &set)) ullMask |= 1ull << nCpu;
  return ullMask;
}

UINT TimeBeginPeriod(UINT) {
  ++g_nTimePeriodRequests;
  return TIMERR_NOERROR;
}

UINT TimeEndPeriod(UINT) {
  --g_nTimePeriodRequests;
  return TIMERR_NOERROR;
}

LONG GetTimePeriodRequests() { return g_nTimePeriodRequests.load(); }

}  // namespace NSPlatform
