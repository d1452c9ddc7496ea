// Events, worker threads and the periodic worker that runs the archives' background work.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <type_traits>

#include "platform/os.h"

namespace NSSystem {

// A Win32 event, held through a shared pointer.
template <DWORD dwFlags>
class CEvent {
 public:
  CEvent(bool bManualReset, bool bInitialState) : m_event(bManualReset, bInitialState) {}
  bool IsValid() const { return m_event.IsValid(); }
  void Set() { m_event.Set(); }
  void Reset() { m_event.Reset(); }
  // WAIT_OBJECT_0, WAIT_TIMEOUT or WAIT_FAILED.
  DWORD Wait(DWORD dwMilliseconds) { return m_event.Wait(dwMilliseconds); }

 private:
  NSPlatform::COsEvent m_event;
};

using CStopEvent = CEvent<0>;

// Owner flag: leave the system timer resolution alone (otherwise a worker raises it to 1 ms while
// it runs).
constexpr DWORD kThreadKeepTimerResolution = 0x4;

// The processor a new worker is bound to: starting at nFirst, the first processor present in
// ullAffinityMask, trying at most 64 positions and wrapping from 63 to 0; -1 when the mask is empty.
int ChooseProcessor(ULONGLONG ullAffinityMask, unsigned nFirst);

// A worker thread running a function object. Held through std::shared_ptr (make it with Create).
// At process exit every worker still running is told to stop, and its body is waited for, before
// the process's static objects are destroyed.
// Start binds the thread to one processor chosen round-robin over the whole library, sets its
// priority from the priority field (THREAD_PRIORITY_ABOVE_NORMAL for a new worker) and resets the
// stop event. Bodies take one of the forms void(), unsigned(), bool(unsigned*) (the exit code goes
// through the pointer) and void(std::shared_ptr<CThread>) (the body gets its own thread, for its
// stop event).
class CThread : public std::enable_shared_from_this<CThread> {
 public:
  static std::shared_ptr<CThread> Create(DWORD dwOwnerFlags = 0);
  ~CThread();
  CThread(const CThread&) = delete;
  CThread& operator=(const CThread&) = delete;

  template <class TBody>
  HRESULT Start(TBody&& body) {
    using F = std::decay_t<TBody>;
    if constexpr (std::is_invocable_v<F&, std::shared_ptr<CThread>>) {
      return StartBody([body = F(std::forward<TBody>(body))](CThread& thread) mutable {
        body(thread.shared_from_this());
        return 0u;
      });
    } else if constexpr (std::is_invocable_r_v<bool, F&, unsigned*>) {
      return StartBody([body = F(std::forward<TBody>(body))](CThread&) mutable {
        unsigned nExitCode = 0;
        body(&nExitCode);
        return nExitCode;
      });
    } else if constexpr (std::is_void_v<std::invoke_result_t<F&>>) {
      return StartBody([body = F(std::forward<TBody>(body))](CThread&) mutable {
        body();
        return 0u;
      });
    } else {
      return StartBody([body = F(std::forward<TBody>(body))](CThread&) mutable {
        return static_cast<unsigned>(body());
      });
    }
  }

  // Signals the stop event; the body decides when to end.
  void Stop();
  // Signals the stop event without asking for a stop: a periodic worker runs its task now instead
  // of at the end of its wait (any other body would take the wake for a stop). A body whose stop
  // event fired calls TakeWake to tell the two apart.
  void Wake();
  // After the stop event fired: when it was a wake and no stop was asked, resets the event and
  // answers true; answers false for a stop.
  bool TakeWake();
  // Waits for the body to end; safe to call twice, and a no-op on the thread itself.
  void Join();
  // Stop and Join.
  void StopAndJoin();

  std::shared_ptr<CStopEvent> GetStopEvent() const { return m_pStopEvent; }
  bool IsStopRequested() const { return m_bStopRequested.load(); }
  DWORD GetOwnerFlags() const { return m_dwOwnerFlags; }
  // Takes effect at the next Start.
  void SetPriorityField(int nPriority) { m_nPriority = nPriority; }
  int GetPriorityField() const { return m_nPriority; }
  // Whether SetThreadPriority accepted the priority at the last Start.
  bool IsPrioritySet() const { return m_bPrioritySet; }
  // The processor chosen at Start, or -1.
  int GetProcessor() const { return m_nProcessor; }
  unsigned GetExitCode() const { return m_nExitCode.load(); }
  // The body runs: started, not returned, and the thread not ended from outside (by process exit).
  bool IsRunning() const { return m_bRunning.load() && !m_thread.HasEnded(); }
  DWORD GetThreadId() const { return m_thread.GetId(); }
  // Whether the calling thread is this worker.
  bool IsCurrent() const { return m_thread.GetId() == NSPlatform::GetCurrentThreadId(); }

 private:
  explicit CThread(DWORD dwOwnerFlags);
  HRESULT StartBody(std::function<unsigned(CThread&)> fnBody);

  const DWORD m_dwOwnerFlags;
  int m_nPriority = THREAD_PRIORITY_ABOVE_NORMAL;
  bool m_bPrioritySet = false;
  int m_nProcessor = -1;
  std::shared_ptr<CStopEvent> m_pStopEvent;
  std::atomic<unsigned> m_nExitCode{0};
  std::atomic<bool> m_bRunning{false};
  std::atomic<bool> m_bStopRequested{false};  // set before the stop event, so a wake is told apart
  NSPlatform::COsThread m_thread;
};

// ---------------------------------------------------------------------------------------------
// Periodic worker
// ---------------------------------------------------------------------------------------------

// Flag: after an overrun, wait a full period (otherwise the next cycle starts almost at once).
constexpr DWORD kPeriodicFullPeriodAfterOverrun = 0x1;
// Flag: run one cycle at once when the thread starts.
constexpr DWORD kPeriodicRunAtStart = 0x8;

struct SPeriodicOptions {
  DWORD dwFlags;
  DWORD dwPeriod;  // milliseconds
};

// The wait before the next cycle, given what the last one took. The schedule is fixed-rate: the
// task's time is subtracted from the period; an overrun gives 1 ms, or the full period with
// kPeriodicFullPeriodAfterOverrun.
LONG NextPeriodicWait(const SPeriodicOptions& options, LONG nElapsedMs);

// The loop of a periodic worker thread. Run() is the thread body: it runs the task once per cycle
// until the stop event is signalled (or a wait fails), measuring each cycle with the performance
// counter. The clock and the wait are virtual so that tests can drive the schedule without time.
class CPeriodicWorker {
 public:
  CPeriodicWorker(const SPeriodicOptions& options, std::function<void()> fnTask);
  virtual ~CPeriodicWorker() = default;
  // fnTakeWake, when given, is asked each time the stop event fires: true means a wake (run the
  // task now and go on), false a stop.
  void Run(const std::shared_ptr<CStopEvent>& pStopEvent, const std::function<bool()>& fnTakeWake = {});

 protected:
  virtual bool ReadCounter(LONGLONG* pllCounter);
  virtual bool ReadFrequency(LONGLONG* pllFrequency);
  virtual DWORD WaitForStop(CStopEvent& stopEvent, DWORD dwMilliseconds);

 private:
  // Runs the task once and answers the next wait.
  LONG RunCycle();

  SPeriodicOptions m_options;
  std::function<void()> m_fnTask;
};

// Starts a periodic worker on pThread; the thread's Stop ends it and its Wake runs the task at once.
HRESULT StartPeriodic(const std::shared_ptr<CThread>& pThread, const SPeriodicOptions& options,
                      std::function<void()> fnTask);

}  // namespace NSSystem
