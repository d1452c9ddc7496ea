// Locks, events, worker threads and the periodic worker's schedule.
#include <gtest/gtest.h>

#include <atomic>
#include <bitset>
#include <thread>
#include <vector>

#include "support/Lock.h"
#include "support/Thread.h"

using namespace NSSystem;

namespace {

// Polls until fnDone answers true; gives up after 20 s so that a broken worker fails the test
// instead of hanging it.
template <class F>
bool WaitUntil(F fnDone) {
  for (int nTry = 0; nTry < 20000; ++nTry) {
    if (fnDone()) return true;
    NSPlatform::SleepMs(1);
  }
  return fnDone();
}

// Runs fn on another thread and waits for it.
template <class F>
void OnOtherThread(F fn) {
  std::thread other(fn);
  other.join();
}

bool TryFromOtherThread(ILock& lock) {
  bool bTaken = false;
  OnOtherThread([&] {
    bool bAcquired = false;
    lock.Lock(&bAcquired);
    bTaken = bAcquired;
    lock.Unlock(&bAcquired);
  });
  return bTaken;
}

}  // namespace

TEST(Lock, TryLockOnLockHeldElsewhereFailsAtOnceAndItsUnlockIsANoOp) {
  SLock lock;
  NSPlatform::COsEvent locked(true, false), release(true, false);
  std::thread owner([&] {
    lock.Lock(nullptr);
    locked.Set();
    release.Wait(INFINITE);
    lock.Unlock(nullptr);
  });
  ASSERT_EQ(WAIT_OBJECT_0, locked.Wait(20000));

  bool bAcquired = true;
  lock.Lock(&bAcquired);
  EXPECT_FALSE(bAcquired);
  lock.Unlock(&bAcquired);  // must not release the owner's hold
  EXPECT_FALSE(bAcquired);
  EXPECT_FALSE(TryFromOtherThread(lock));

  release.Set();
  owner.join();
  EXPECT_TRUE(TryFromOtherThread(lock));
}

TEST(Lock, UnlockReleasesExactlyWhatWasTaken) {
  SLock lock;
  // Lock(null) then Unlock(null) leaves the lock free.
  lock.Lock(nullptr);
  EXPECT_FALSE(TryFromOtherThread(lock));
  lock.Unlock(nullptr);
  EXPECT_TRUE(TryFromOtherThread(lock));

  // The owner enters twice (critical sections are recursive); a tried lock released twice
  // through its flag gives back one level only.
  lock.Lock(nullptr);
  bool bAcquired = false;
  lock.Lock(&bAcquired);
  ASSERT_TRUE(bAcquired);
  lock.Unlock(&bAcquired);
  EXPECT_FALSE(bAcquired);
  lock.Unlock(&bAcquired);
  EXPECT_FALSE(TryFromOtherThread(lock));
  lock.Unlock(nullptr);
  EXPECT_TRUE(TryFromOtherThread(lock));

  // The scope guard pairs a tried lock with its release.
  {
    bool bGuarded = false;
    CLockGuard guard(lock, &bGuarded);
    EXPECT_TRUE(bGuarded);
    EXPECT_FALSE(TryFromOtherThread(lock));
  }
  EXPECT_TRUE(TryFromOtherThread(lock));
}

TEST(Lock, FakeLockNeverTouchesTheFlag) {
  SFakeLock lock;
  for (bool bInitial : {false, true}) {
    bool bAcquired = bInitial;
    lock.Lock(&bAcquired);
    EXPECT_EQ(bInitial, bAcquired);
    lock.Unlock(&bAcquired);
    EXPECT_EQ(bInitial, bAcquired);
  }
  lock.Lock(nullptr);
  lock.Unlock(nullptr);
}

TEST(Lock, SerialisesWritersThroughTheSharedInterface) {
  ILockPtr pLock = std::make_shared<SLock>();
  long nCounter = 0;  // plain on purpose: only the lock protects it
  std::vector<std::thread> vThreads;
  for (int nThread = 0; nThread < 4; ++nThread)
    vThreads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        CLockGuard guard(*pLock);
        ++nCounter;
      }
    });
  for (auto& thread : vThreads) thread.join();
  EXPECT_EQ(80000, nCounter);
}

TEST(Event, ManualAndAutomaticReset) {
  CEvent<0> manual(true, false);
  EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), manual.Wait(0));
  manual.Set();
  EXPECT_EQ(WAIT_OBJECT_0, manual.Wait(0));
  EXPECT_EQ(WAIT_OBJECT_0, manual.Wait(0));  // stays signalled
  manual.Reset();
  EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), manual.Wait(1));

  CEvent<0> automatic(false, true);
  EXPECT_EQ(WAIT_OBJECT_0, automatic.Wait(0));
  EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), automatic.Wait(0));  // the first wait consumed it

  // A waiter blocked with no time-out is released by a Set from another thread.
  CEvent<0> wake(false, false);
  std::atomic<DWORD> dwResult{WAIT_FAILED};
  std::thread waiter([&] { dwResult = wake.Wait(INFINITE); });
  wake.Set();
  waiter.join();
  EXPECT_EQ(WAIT_OBJECT_0, dwResult.load());
}

TEST(Thread, ProcessorChoiceIsRoundRobinOverTheAffinityMask) {
  EXPECT_EQ(1, ChooseProcessor(0b1010, 0));
  EXPECT_EQ(1, ChooseProcessor(0b1010, 1));
  EXPECT_EQ(3, ChooseProcessor(0b1010, 2));
  EXPECT_EQ(1, ChooseProcessor(0b1010, 4));  // wraps from 63 to 0
  EXPECT_EQ(63, ChooseProcessor(1ull << 63, 5));
  EXPECT_EQ(0, ChooseProcessor(~0ull, 64 % 64));
  EXPECT_EQ(-1, ChooseProcessor(0, 0));
}

TEST(Thread, EveryBodyFormRunsAndReportsItsExitCode) {
  std::atomic<int> nRuns{0};
  auto pVoid = CThread::Create();
  ASSERT_EQ(S_OK, pVoid->Start([&] { ++nRuns; }));
  pVoid->Join();
  EXPECT_EQ(0u, pVoid->GetExitCode());

  auto pUnsigned = CThread::Create();
  ASSERT_EQ(S_OK, pUnsigned->Start([&]() -> unsigned {
    ++nRuns;
    return 42;
  }));
  pUnsigned->Join();
  EXPECT_EQ(42u, pUnsigned->GetExitCode());

  auto pBool = CThread::Create();
  ASSERT_EQ(S_OK, pBool->Start([&](unsigned* pnExitCode) {
    ++nRuns;
    *pnExitCode = 7;
    return true;
  }));
  pBool->Join();
  EXPECT_EQ(7u, pBool->GetExitCode());

  auto pSelf = CThread::Create();
  CThread* pSeen = nullptr;
  ASSERT_EQ(S_OK, pSelf->Start([&](std::shared_ptr<CThread> pThread) {
    ++nRuns;
    pSeen = pThread.get();
  }));
  pSelf->Join();
  EXPECT_EQ(pSelf.get(), pSeen);
  EXPECT_EQ(4, nRuns.load());

  // A thread runs one body only.
  EXPECT_TRUE(FAILED(pVoid->Start([] {})));
}

TEST(Thread, StartResetsTheStopEventAndBindsOneProcessorAtAboveNormalPriority) {
  auto pThread = CThread::Create();
  EXPECT_EQ(THREAD_PRIORITY_ABOVE_NORMAL, pThread->GetPriorityField());
  pThread->Stop();  // a stop signalled before the start is forgotten by the start
  std::atomic<bool> bStoppedAtStart{true};
  std::atomic<ULONGLONG> ullMask{0};
  NSPlatform::COsEvent looked(true, false);
  ASSERT_EQ(S_OK, pThread->Start([&](std::shared_ptr<CThread> pSelf) {
    bStoppedAtStart = pSelf->IsStopRequested();
    looked.Set();
    // Wait for the stop, then look at the affinity the start has set by now.
    pSelf->GetStopEvent()->Wait(INFINITE);
    ullMask = NSPlatform::GetCurrentThreadAffinityMask();
  }));
  ASSERT_EQ(WAIT_OBJECT_0, looked.Wait(20000));
  pThread->StopAndJoin();
  EXPECT_FALSE(bStoppedAtStart.load());
  ASSERT_GE(pThread->GetProcessor(), 0);
  EXPECT_EQ(1ull << pThread->GetProcessor(), ullMask.load());
  EXPECT_NE(0ull, NSPlatform::GetProcessAffinityMask() & ullMask.load());

  // The next worker starts looking one processor further on.
  auto pNext = CThread::Create();
  ASSERT_EQ(S_OK, pNext->Start([] {}));
  pNext->Join();
  EXPECT_EQ(ChooseProcessor(NSPlatform::GetProcessAffinityMask(), (pThread->GetProcessor() + 1) % 64),
            pNext->GetProcessor());
}

TEST(Thread, TimerResolutionIsRaisedWhileRunningUnlessTheOwnerSaysNot) {
  const LONG nBefore = NSPlatform::GetTimePeriodRequests();
  for (DWORD dwFlags : std::initializer_list<DWORD>{0, kThreadKeepTimerResolution}) {
    auto pThread = CThread::Create(dwFlags);
    std::atomic<LONG> nDuring{-1};
    ASSERT_EQ(S_OK, pThread->Start([&] { nDuring = NSPlatform::GetTimePeriodRequests(); }));
    pThread->Join();
    EXPECT_EQ(nBefore + (dwFlags ? 0 : 1), nDuring.load()) << "flags " << dwFlags;
    EXPECT_EQ(nBefore, NSPlatform::GetTimePeriodRequests());
  }
}

// ---- periodic worker -------------------------------------------------------------------------

TEST(Periodic, TheTaskTimeIsSubtractedFromTheNextWait) {
  const SPeriodicOptions options{0, 100};
  EXPECT_EQ(70, NextPeriodicWait(options, 30));
  EXPECT_EQ(1, NextPeriodicWait(options, 99));
  EXPECT_EQ(1, NextPeriodicWait(options, 100));  // overrun: start again almost at once
  EXPECT_EQ(1, NextPeriodicWait(options, 5000));
  const SPeriodicOptions fullAfterOverrun{kPeriodicFullPeriodAfterOverrun, 100};
  EXPECT_EQ(70, NextPeriodicWait(fullAfterOverrun, 30));
  EXPECT_EQ(100, NextPeriodicWait(fullAfterOverrun, 100));
}

namespace {

// A periodic worker on a fake clock: each task advances the counter by its duration, and each wait
// is recorded and answers a time-out until the scripted number of waits has been made.
class CFakeClockWorker : public CPeriodicWorker {
 public:
  CFakeClockWorker(const SPeriodicOptions& options, std::vector<double> vTaskMs, size_t cWaits,
                   LONGLONG llFrequency = 10000000)
      : CPeriodicWorker(options, [this] { RunTask(); }),
        m_vTaskMs(std::move(vTaskMs)),
        m_cWaits(cWaits),
        m_llFrequency(llFrequency) {}

  std::vector<DWORD> m_vWaits;
  int m_nTasks = 0;
  DWORD m_dwFinalWait = WAIT_OBJECT_0;

 protected:
  bool ReadCounter(LONGLONG* pll) override {
    *pll = m_llCounter;
    return m_llFrequency != 0;
  }
  bool ReadFrequency(LONGLONG* pll) override {
    *pll = m_llFrequency;
    return m_llFrequency != 0;
  }
  DWORD WaitForStop(CStopEvent&, DWORD dwMs) override {
    m_vWaits.push_back(dwMs);
    return m_vWaits.size() < m_cWaits ? static_cast<DWORD>(WAIT_TIMEOUT) : m_dwFinalWait;
  }

 private:
  void RunTask() {
    double dMs = m_vTaskMs.empty() ? 0 : m_vTaskMs[std::min<size_t>(m_nTasks, m_vTaskMs.size() - 1)];
    m_llCounter += static_cast<LONGLONG>(dMs * 10000.0);  // the fake counter ticks at 10 MHz
    ++m_nTasks;
  }
  std::vector<double> m_vTaskMs;
  size_t m_cWaits;
  LONGLONG m_llFrequency;
  LONGLONG m_llCounter = 123456789;
};

}  // namespace

TEST(Periodic, FixedRateScheduleOnAFakeClock) {
  auto pStop = std::make_shared<CStopEvent>(true, false);
  {  // 30 ms tasks in a 100 ms period: the first wait is the period, then 70 each time
    CFakeClockWorker worker({0, 100}, {30}, 4);
    worker.Run(pStop);
    EXPECT_EQ((std::vector<DWORD>{100, 70, 70, 70}), worker.m_vWaits);
    EXPECT_EQ(3, worker.m_nTasks);  // the wait that ends the body runs no task
  }
  {  // milliseconds are rounded: 29.5 counts as 30, 29.4 as 29
    CFakeClockWorker worker({0, 100}, {29.5, 29.4}, 3);
    worker.Run(pStop);
    EXPECT_EQ((std::vector<DWORD>{100, 70, 71}), worker.m_vWaits);
  }
  {  // an overrun starts the next cycle after 1 ms, or after a full period with flag 0x1
    CFakeClockWorker worker({0, 100}, {150, 20}, 4);
    worker.Run(pStop);
    EXPECT_EQ((std::vector<DWORD>{100, 1, 80, 80}), worker.m_vWaits);
    CFakeClockWorker full({kPeriodicFullPeriodAfterOverrun, 100}, {150}, 3);
    full.Run(pStop);
    EXPECT_EQ((std::vector<DWORD>{100, 100, 100}), full.m_vWaits);
  }
  {  // run at start: one task before the first wait, whose result is not used
    CFakeClockWorker worker({kPeriodicRunAtStart, 100}, {30}, 2);
    worker.Run(pStop);
    EXPECT_EQ((std::vector<DWORD>{100, 70}), worker.m_vWaits);
    EXPECT_EQ(2, worker.m_nTasks);
  }
  {  // without a performance counter the task counts as taking no time
    CFakeClockWorker worker({0, 100}, {30}, 3, 0);
    worker.Run(pStop);
    EXPECT_EQ((std::vector<DWORD>{100, 100, 100}), worker.m_vWaits);
  }
  {  // a failed wait ends the body like a stop
    CFakeClockWorker worker({0, 100}, {30}, 2);
    worker.m_dwFinalWait = WAIT_FAILED;
    worker.Run(pStop);
    EXPECT_EQ(2u, worker.m_vWaits.size());
    EXPECT_EQ(1, worker.m_nTasks);
  }
  {  // no stop event: only the start-up cycle runs
    CFakeClockWorker worker({kPeriodicRunAtStart, 100}, {30}, 5);
    worker.Run(nullptr);
    EXPECT_TRUE(worker.m_vWaits.empty());
    EXPECT_EQ(1, worker.m_nTasks);
  }
}

TEST(Periodic, RealWorkerRunsUntilStoppedAndNotAfter) {
  auto pThread = CThread::Create();
  std::atomic<int> nCycles{0};
  ASSERT_EQ(S_OK, StartPeriodic(pThread, {kPeriodicRunAtStart, 5}, [&] { ++nCycles; }));
  EXPECT_TRUE(WaitUntil([&] { return nCycles.load() >= 3; }));
  pThread->StopAndJoin();
  EXPECT_FALSE(pThread->IsRunning());
  const int nAtStop = nCycles.load();
  NSPlatform::SleepMs(30);
  EXPECT_EQ(nAtStop, nCycles.load());
}

// A periodic worker woken runs its task at once, however long its period, and a wake never passes
// for a stop: the stop that follows a storm of wakes still ends it, and it is not woken after.
TEST(Periodic, AWakeRunsTheTaskNowAndNeverHidesAStop) {
  for (int nRound = 0; nRound < 20; ++nRound) {
    auto pThread = CThread::Create();
    std::atomic<int> nCycles{0};
    ASSERT_EQ(S_OK, StartPeriodic(pThread, {0, 3600000}, [&] { ++nCycles; }));
    pThread->Wake();
    EXPECT_TRUE(WaitUntil([&] { return nCycles.load() >= 1; }));
    EXPECT_FALSE(pThread->IsStopRequested());
    std::thread waker([&] {
      for (int i = 0; i < 1000; ++i) pThread->Wake();
    });
    pThread->Stop();
    waker.join();
    pThread->Join();
    EXPECT_FALSE(pThread->IsRunning());
    EXPECT_TRUE(pThread->IsStopRequested());
  }
}
