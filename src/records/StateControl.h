// A 32-bit word of state bits behind IStateControl, with a change hook for the owner. Archives and
// records each embed one: the archive's freed bit (0x10000) is handed on to its records through
// their IStateControl, and a record's operations read their own word directly.
#pragma once

#include <kronvale/kronvale.h>

#include <atomic>

namespace NSRecords {

// State bits shared by archives and records.
constexpr LONG klStateNoRepair = 0x2;       // a corrupt hour fails instead of being repaired
constexpr LONG klStateLocked = 0x10000;     // freed: the object refuses everything but its release
constexpr LONG klStateStop = 0x20000;       // a long operation gives up; cleared by every search
constexpr LONG klStateHookRan = 0x40000;    // cleared by the archive's hook whenever it runs

class CStateControl : public IStateControl {
 public:
  // Replaces the word; the hook gets the previous word first.
  STDMETHOD(Set)(LONG lState) override {
    const LONG lPrevious = m_lState.exchange(lState);
    OnChange(lPrevious, ~0, lState);
    return S_OK;
  }
  // Runs the hook and answers S_OK. The word is deliberately not stored through pState: callers
  // that need it read it from the object they own (GetState).
  STDMETHOD(Get)(LONG* /*pState*/) override {
    const LONG lState = m_lState.load();
    OnChange(lState, ~0, lState);
    return S_OK;
  }
  // new = (old AND NOT bitsToClear) OR bitsToSet in one compare-and-swap, so a bit named in both
  // ends up set; the hook gets (bitsToSet, NOT bitsToClear, new).
  STDMETHOD(Change)(LONG lBitsToSet, LONG lBitsToClear) override {
    // A word that already reads as asked is not written: a search clears the stop bit at every
    // call, and should cost no locked instruction for it.
    LONG lOld = m_lState.load();
    LONG lNew = (lOld & ~lBitsToClear) | lBitsToSet;
    while (lNew != lOld && !m_lState.compare_exchange_weak(lOld, lNew)) lNew = (lOld & ~lBitsToClear) | lBitsToSet;
    OnChange(lBitsToSet, ~lBitsToClear, lNew);
    return S_OK;
  }

  LONG GetState() const { return m_lState.load(); }
  bool HasState(LONG lBits) const { return (m_lState.load() & lBits) != 0; }

 protected:
  ~CStateControl() = default;
  // Runs on the changing thread after each change; the owner takes its own lock if it needs one.
  virtual void OnChange(LONG /*lFirst*/, LONG /*lSecond*/, LONG /*lState*/) {}
  // For owners that change the word themselves (the archive's Set).
  LONG ExchangeState(LONG lState) { return m_lState.exchange(lState); }
  void ClearStateBitsUnlocked(LONG lBits) { m_lState.store(m_lState.load() & ~lBits); }

 private:
  std::atomic<LONG> m_lState{0};
};

}  // namespace NSRecords
