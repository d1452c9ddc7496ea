// The statistic passes a record and an extract share: joining cells into runs, and moving each
// run's ends onto its first and last passing frames. Both objects gather their own cells (a record
// from its hours, an extract from its frame map) and hand them to these.
#pragma once

#include <kronvale/kronvale.h>

#include <vector>

namespace NSRecords {

// A statistic record while runs are built, with the times of its first and last occupied slots.
struct SStatisticCell {
  SRecordStatistic record;
  ULONGLONG ullFirstFrame;
  ULONGLONG ullLastFrame;
};

// The join pass: neighbouring cells with compatible flags become one run. The gap is ullResolution
// (0 with dwFlags bit 4); flags join by equality, or by the filter's own mode with dwFlags bit 8.
std::vector<SStatisticCell> JoinStatisticRuns(const std::vector<SStatisticCell>& vCells, ULONGLONG ullResolution,
                                              const SFrameFilter* pFilter, LONG dwFlags);

// Moves a statistic's span onto frames of pRecord that pass the filter: the begin forward onto the
// first, the end back onto the last. A failure is the search's own result, not yet reported.
HRESULT MoveSpanOntoFrames(IRecord* pRecord, const SFrameFilter* pFilter, FILETIME* pftBegin, FILETIME* pftEnd);

// The ExactEnds pass over pRecord (a record or an extract, through its public IRecord): each run's
// ends move onto its first and last frames that pass the filter; a run of one frame lasts 10 ms.
// With bEndsAfterRuns (cells of seconds or minutes) a run's end always moves back onto its own last
// frame. Stops at the first run it cannot adjust, leaving the rest as they are.
void ExactEnds(IRecord* pRecord, std::vector<SStatisticCell>& vRuns, const SFrameFilter* pFilter, bool bEndsAfterRuns);

// Hands the runs out as a task-memory array: S_OK when there is at least one, else hrWalk.
HRESULT HandOutStatistic(const std::vector<SStatisticCell>& vRuns, HRESULT hrWalk, DWORD* pdwCount,
                         SRecordStatistic** ppRecordStatistic);

}  // namespace NSRecords
