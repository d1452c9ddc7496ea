#include "support/Thread.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace NSSystem {

namespace {
// The processor the next worker tries first, shared by every worker of the library.
std::atomic<unsigned> g_nNextProcessor{0};

// Every worker started, so that process exit can stop them before the static objects they use (the
// platform's tables of open files, the log engine) are destroyed under a running pass. Made once
// and never destroyed, for the same reason.
struct SLiveThreads {
  std::mutex mutex;
  std::vector<std::weak_ptr<CThread>> vThreads;  // guarded by the mutex
};

SLiveThreads& LiveThreads() {
  static SLiveThreads* s_pLive = new SLiveThreads;
  return *s_pLive;
}

// Registered with atexit when the first worker starts, which is after every static object the
// workers use was made: exit runs it before their destructors. Signals each worker's stop event,
// waits (at most ten seconds each) for its body to end, and joins it.
void StopWorkersAtExit() {
  std::vector<std::shared_ptr<CThread>> vThreads;
  {
    SLiveThreads& live = LiveThreads();
    const std::lock_guard<std::mutex> guard(live.mutex);
    for (const std::weak_ptr<CThread>& pWeak : live.vThreads)
      if (std::shared_ptr<CThread> p = pWeak.lock()) vThreads.push_back(std::move(p));
    live.vThreads.clear();
  }
  for (const std::shared_ptr<CThread>& pThread : vThreads) pThread->Stop();
  for (const std::shared_ptr<CThread>& pThread : vThreads) {
    for (int nWait = 0; nWait < 10000 && pThread->IsRunning() && !pThread->IsCurrent(); ++nWait)
      NSPlatform::SleepMs(1);
  }
  // A worker that would not stop is left to the end of the process rather than joined, which would
  // hang the exit. On Linux those that stopped are joined (exit runs on one thread: no owner joins
  // them meanwhile). Not on Windows: a DLL's exit handlers run either after ExitProcess ended every
  // other thread, or inside FreeLibrary under the loader lock, which a thread needs to end.
  for (std::shared_ptr<CThread>& pThread : vThreads) {
    if (pThread->IsCurrent()) continue;
    if (pThread->IsRunning()) {
      new std::shared_ptr<CThread>(std::move(pThread));
      continue;
    }
#ifndef _WIN32
    pThread->Join();
#endif
  }
}

void RegisterLiveThread(const std::weak_ptr<CThread>& pThread) {
  static std::once_flag s_atExit;
  std::call_once(s_atExit, [] { std::atexit(StopWorkersAtExit); });
  SLiveThreads& live = LiveThreads();
  const std::lock_guard<std::mutex> guard(live.mutex);
  std::erase_if(live.vThreads, [](const std::weak_ptr<CThread>& p) { return p.expired(); });
  live.vThreads.push_back(pThread);
}
}  // namespace

int ChooseProcessor(ULONGLONG ullAffinityMask, unsigned nFirst) {
  for (unsigned nTry = 0; nTry < 64; ++nTry) {
    unsigned nProcessor = (nFirst + nTry) % 64;
    if (ullAffinityMask & (1ull << nProcessor)) return static_cast<int>(nProcessor);
  }
  return -1;
}

std::shared_ptr<CThread> CThread::Create(DWORD dwOwnerFlags) {
  return std::shared_ptr<CThread>(new CThread(dwOwnerFlags));
}

CThread::CThread(DWORD dwOwnerFlags)
    : m_dwOwnerFlags(dwOwnerFlags), m_pStopEvent(std::make_shared<CStopEvent>(true, false)) {}

CThread::~CThread() {
  // A thread still running when its last owner lets go is told to stop; COsThread then joins it
  // (or, when this is the thread itself dropping its last reference, lets it finish alone).
  Stop();
}

HRESULT CThread::StartBody(std::function<unsigned(CThread&)> fnBody) {
  if (m_thread.IsStarted()) return KvHResultFromWin32(ERROR_INVALID_STATE);
  if (!m_pStopEvent || !m_pStopEvent->IsValid()) return E_OUTOFMEMORY;
  m_bStopRequested = false;
  m_pStopEvent->Reset();
  m_bRunning = true;
  const bool bTimerResolution = !(m_dwOwnerFlags & kThreadKeepTimerResolution);
  // The body holds only a raw pointer: the thread object outlives its OS thread, since destroying
  // it joins (and a body wanting shared ownership gets shared_from_this through its form).
  HRESULT hr = m_thread.Start([this, fnBody = std::move(fnBody), bTimerResolution]() {
    if (bTimerResolution) NSPlatform::TimeBeginPeriod(1);
    m_nExitCode = fnBody(*this);
    if (bTimerResolution) NSPlatform::TimeEndPeriod(1);
    m_bRunning = false;
  });
  if (FAILED(hr)) {
    m_bRunning = false;
    return hr;
  }
  m_nProcessor = ChooseProcessor(NSPlatform::GetProcessAffinityMask(), g_nNextProcessor.load() % 64);
  if (m_nProcessor >= 0) {
    m_thread.SetAffinityMask(1ull << m_nProcessor);
    g_nNextProcessor = static_cast<unsigned>(m_nProcessor + 1) % 64;
  }
  m_bPrioritySet = m_thread.SetPriority(m_nPriority);
  RegisterLiveThread(weak_from_this());
  return S_OK;
}

void CThread::Stop() {
  m_bStopRequested = true;
  if (m_pStopEvent) m_pStopEvent->Set();
}

void CThread::Wake() {
  if (m_pStopEvent) m_pStopEvent->Set();
}

bool CThread::TakeWake() {
  if (m_bStopRequested.load() || !m_pStopEvent) return false;
  m_pStopEvent->Reset();
  // A Stop between the two looks sets its flag before the event: either it is seen here, or its
  // event comes after the reset and ends the next wait.
  return !m_bStopRequested.load();
}

void CThread::Join() { m_thread.Join(); }

void CThread::StopAndJoin() {
  Stop();
  Join();
}

// ---- periodic worker -------------------------------------------------------------------------

LONG NextPeriodicWait(const SPeriodicOptions& options, LONG nElapsedMs) {
  LONG nNext = static_cast<LONG>(options.dwPeriod) - nElapsedMs;
  if (nNext < 1) nNext = (options.dwFlags & kPeriodicFullPeriodAfterOverrun) ? static_cast<LONG>(options.dwPeriod) : 1;
  return nNext;
}

CPeriodicWorker::CPeriodicWorker(const SPeriodicOptions& options, std::function<void()> fnTask)
    : m_options(options), m_fnTask(std::move(fnTask)) {}

bool CPeriodicWorker::ReadCounter(LONGLONG* pllCounter) { return NSPlatform::QueryPerfCounter(pllCounter); }
bool CPeriodicWorker::ReadFrequency(LONGLONG* pllFrequency) { return NSPlatform::QueryPerfFrequency(pllFrequency); }
DWORD CPeriodicWorker::WaitForStop(CStopEvent& stopEvent, DWORD dwMilliseconds) { return stopEvent.Wait(dwMilliseconds); }

LONG CPeriodicWorker::RunCycle() {
  LONGLONG llStart = 0, llEnd = 0, llFrequency = 0;
  const bool bCounter = ReadCounter(&llStart);
  m_fnTask();
  LONG nElapsedMs = 0;
  if (bCounter && ReadCounter(&llEnd) && ReadFrequency(&llFrequency) && llFrequency >= 1000) {
    double dElapsed = static_cast<double>(llEnd - llStart) / static_cast<double>(llFrequency / 1000) + 0.5;
    nElapsedMs = static_cast<LONG>(std::clamp(dElapsed, -2147483648.0, 2147483647.0));
  }
  return NextPeriodicWait(m_options, nElapsedMs);
}

void CPeriodicWorker::Run(const std::shared_ptr<CStopEvent>& pStopEvent, const std::function<bool()>& fnTakeWake) {
  const LONG nPeriod = static_cast<LONG>(m_options.dwPeriod);
  LONG nNext = nPeriod;
  // The result of a cycle run at start is not used: the first wait is the full period.
  if (m_options.dwFlags & kPeriodicRunAtStart) RunCycle();
  if (!pStopEvent) return;
  for (;;) {
    LONG nWait = std::min(std::max<LONG>(nNext, 1), nPeriod);
    const DWORD dwWait = WaitForStop(*pStopEvent, static_cast<DWORD>(nWait));
    if (dwWait != WAIT_TIMEOUT && !(dwWait == WAIT_OBJECT_0 && fnTakeWake && fnTakeWake())) return;
    nNext = RunCycle();
  }
}

HRESULT StartPeriodic(const std::shared_ptr<CThread>& pThread, const SPeriodicOptions& options,
                      std::function<void()> fnTask) {
  if (!pThread) return E_POINTER;
  auto pWorker = std::make_shared<CPeriodicWorker>(options, std::move(fnTask));
  std::shared_ptr<CStopEvent> pStopEvent = pThread->GetStopEvent();
  // A raw pointer: the thread object outlives its body (destroying it joins).
  CThread* pRaw = pThread.get();
  return pThread->Start(
      [pWorker, pStopEvent, pRaw]() { pWorker->Run(pStopEvent, [pRaw] { return pRaw->TakeWake(); }); });
}

}  // namespace NSSystem
