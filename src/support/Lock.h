// Locks: critical sections with a fixed spin count, and the ILock abstraction through which records
// and archives lock, so that an object needing no mutual exclusion pays nothing (SFakeLock).
#pragma once

#include <memory>

#include "platform/os.h"

namespace NSSystem {

// A Win32 critical section (recursive) that spins dwSpinCount times before it waits. The archive and
// the records use a spin count of 4000.
template <DWORD dwFlags, DWORD dwSpinCount>
class CCriticalSection {
 public:
  CCriticalSection() : m_section(dwSpinCount) {}
  void Enter() { m_section.Enter(); }
  bool TryEnter() { return m_section.TryEnter(); }
  void Leave() { m_section.Leave(); }
  static constexpr DWORD GetFlags() { return dwFlags; }
  DWORD GetSpinCount() const { return m_section.GetSpinCount(); }

 private:
  NSPlatform::COsCriticalSection m_section;
};

// Holds a critical section for the life of a scope.
template <class TSection>
class CSectionGuard {
 public:
  explicit CSectionGuard(TSection& section) : m_section(section) { m_section.Enter(); }
  ~CSectionGuard() { m_section.Leave(); }
  CSectionGuard(const CSectionGuard&) = delete;
  CSectionGuard& operator=(const CSectionGuard&) = delete;

 private:
  TSection& m_section;
};

// An abstract lock; no COM identity, never marshaled. Held through shared pointers.
//
// Lock(nullptr) waits for the lock. Lock(&bAcquired) only tries and says in bAcquired whether it
// took the lock. Unlock(nullptr) releases; Unlock(&bAcquired) releases only when bAcquired is true
// and then clears it, so a try-lock and its release pair safely in one scope guard, however often
// the release runs.
class ILock {
 public:
  virtual void Lock(bool* pAcquired) = 0;
  virtual void Unlock(bool* pAcquired) = 0;
  virtual ~ILock() = default;
};

using ILockPtr = std::shared_ptr<ILock>;

// The real lock: one critical section with spin count 4000.
class SLock final : public ILock {
 public:
  void Lock(bool* pAcquired) override {
    if (!pAcquired)
      m_section.Enter();
    else
      *pAcquired = m_section.TryEnter();
  }
  void Unlock(bool* pAcquired) override {
    if (!pAcquired) {
      m_section.Leave();
    } else if (*pAcquired) {
      *pAcquired = false;
      m_section.Leave();
    }
  }

 private:
  CCriticalSection<0, 4000> m_section;
};

// The lock of an object that needs none. Both operations return at once and never touch the flag:
// a caller passing one must initialise it itself.
class SFakeLock final : public ILock {
 public:
  void Lock(bool*) override {}
  void Unlock(bool*) override {}
};

// Takes an ILock for a scope. With pAcquired the lock is only tried (see ILock); the caller reads
// *pAcquired to learn whether it holds it.
class CLockGuard {
 public:
  explicit CLockGuard(ILock& lock, bool* pAcquired = nullptr) : m_lock(lock), m_pAcquired(pAcquired) {
    m_lock.Lock(m_pAcquired);
  }
  ~CLockGuard() { m_lock.Unlock(m_pAcquired); }
  CLockGuard(const CLockGuard&) = delete;
  CLockGuard& operator=(const CLockGuard&) = delete;

 private:
  ILock& m_lock;
  bool* m_pAcquired;
};

}  // namespace NSSystem
