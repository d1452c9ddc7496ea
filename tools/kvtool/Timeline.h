// The timeline picture: one row per record over a period, what is recorded as a grey bar (gaps
// stay white), the frames of two flag classes as coloured bands inside it, UTC hour and day ticks
// and a legend. Plain SVG 1.1, which rsvg-convert and every browser render.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/os.h"

namespace NSTool {

using CSpans = std::vector<std::pair<ULONGLONG, ULONGLONG>>;  // [begin, end] in FILETIME ticks

struct STimelineRow {
  std::string strName;
  CSpans vCoverage;  // runs of any frame
  CSpans avBands[2];  // runs of key frames (flag 0x1) and of motion (flag 0x2)
};

// The picture of vRows between ullFrom and ullTo (ullTo > ullFrom), titled with strTitle.
std::string RenderTimeline(const std::string& strTitle, const std::vector<STimelineRow>& vRows, ULONGLONG ullFrom,
                           ULONGLONG ullTo);

}  // namespace NSTool
