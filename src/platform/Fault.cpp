// The fault-injection seam. Every file, read, write, flush and directory call of both platform
// implementations asks Intercept first; with no rule armed that costs one relaxed atomic increment
// and one relaxed load, so the seam stays in release builds.
#include <mutex>

#include "platform/os.h"

namespace NSPlatform {
namespace NSFault {

namespace {

constexpr size_t cOps = static_cast<size_t>(EOp::Directory) + 1;

struct SOpState {
  std::atomic<unsigned> nCalls{0};  // every call seen, for GetCallCount
  std::atomic<bool> bArmed{false};  // lets Intercept skip the lock while no rule is set
  SRule rule;                       // guarded by g_mutex
  unsigned nMatches = 0;            // calls the rule's path filter accepted; guarded by g_mutex
};

std::mutex g_mutex;
SOpState g_aOps[cOps];
std::atomic<bool> g_bFreeSpaceOverridden{false};
std::atomic<ULONGLONG> g_ullFreeSpace{0};

SOpState& StateOf(EOp eOp) { return g_aOps[static_cast<size_t>(eOp)]; }

}  // namespace

void Arm(const SRule& rule) {
  std::lock_guard<std::mutex> lock(g_mutex);
  SOpState& state = StateOf(rule.eOp);
  state.rule = rule;
  state.nMatches = 0;
  state.nCalls = 0;
  state.bArmed = true;
}

void Disarm(EOp eOp) {
  std::lock_guard<std::mutex> lock(g_mutex);
  SOpState& state = StateOf(eOp);
  state.bArmed = false;
  state.rule = SRule();
  state.nMatches = 0;
}

void Reset() {
  std::lock_guard<std::mutex> lock(g_mutex);
  for (SOpState& state : g_aOps) {
    state.bArmed = false;
    state.rule = SRule();
    state.nMatches = 0;
    state.nCalls = 0;
  }
  g_bFreeSpaceOverridden = false;
}

unsigned GetCallCount(EOp eOp) { return StateOf(eOp).nCalls.load(); }

void OverrideFreeSpace(ULONGLONG ullFree) {
  g_ullFreeSpace = ullFree;
  g_bFreeSpaceOverridden = true;
}

void ClearFreeSpaceOverride() { g_bFreeSpaceOverridden = false; }

bool Intercept(EOp eOp, const WString& strPath, DWORD* pcb, DWORD* pdwError) {
  SOpState& state = StateOf(eOp);
  // Relaxed: the count is a statistic, and a rule armed concurrently with a call may or may not
  // see that call; the lock below orders everything that matters.
  state.nCalls.fetch_add(1, std::memory_order_relaxed);
  if (!state.bArmed.load(std::memory_order_relaxed)) return false;

  std::lock_guard<std::mutex> lock(g_mutex);
  if (!state.bArmed) return false;
  const SRule& rule = state.rule;
  if (!rule.strPathContains.empty() && strPath.find(rule.strPathContains) == WString::npos) return false;
  const unsigned nMatch = ++state.nMatches;
  if (nMatch < rule.nNth || (nMatch > rule.nNth && !rule.bSticky)) return false;
  if (rule.cbShort >= 0 && eOp == EOp::Write) {
    if (pcb && static_cast<DWORD>(rule.cbShort) < *pcb) *pcb = static_cast<DWORD>(rule.cbShort);
    if (rule.dwError == ERROR_SUCCESS) return false;
  } else if (pcb) {
    *pcb = 0;
  }
  if (pdwError) *pdwError = rule.dwError != ERROR_SUCCESS ? rule.dwError : ERROR_INVALID_FUNCTION;
  return true;
}

bool GetFreeSpaceOverride(ULONGLONG* pullFree) {
  if (!g_bFreeSpaceOverridden.load()) return false;
  if (pullFree) *pullFree = g_ullFreeSpace.load();
  return true;
}

}  // namespace NSFault
}  // namespace NSPlatform
