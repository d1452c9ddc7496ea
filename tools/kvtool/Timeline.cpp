#include "Timeline.h"

#include <algorithm>
#include <cstdio>

#include "ToolArgs.h"

namespace NSTool {
namespace {

constexpr double kdLeft = 140;    // the records' names
constexpr double kdWidth = 1000;  // the time axis
constexpr double kdTop = 50;
constexpr double kdRowHeight = 36;
constexpr double kdBarHeight = 24;

struct SBandStyle {
  const char* pszColour;
  const char* pszLegend;
};
constexpr SBandStyle kaBands[2] = {{"#d9480f", "key frames (flag 0x1)"}, {"#1971c2", "motion (flag 0x2)"}};

std::string Escape(const std::string& str) {
  std::string strOut;
  for (const char ch : str) {
    if (ch == '<') strOut += "&lt;";
    else if (ch == '>') strOut += "&gt;";
    else if (ch == '&') strOut += "&amp;";
    else if (ch == '"') strOut += "&quot;";
    else if (static_cast<unsigned char>(ch) >= 0x20 || ch == '\t') strOut += ch;
  }
  return strOut;
}

std::string Num(double d) {
  char sz[32];
  std::snprintf(sz, sizeof(sz), "%.2f", d);
  return sz;
}

}  // namespace

std::string RenderTimeline(const std::string& strTitle, const std::vector<STimelineRow>& vRows, ULONGLONG ullFrom,
                           ULONGLONG ullTo) {
  const double dSpan = static_cast<double>(ullTo - ullFrom);
  auto x = [&](ULONGLONG ull) {
    const ULONGLONG ullClamped = std::clamp(ull, ullFrom, ullTo);
    return kdLeft + kdWidth * static_cast<double>(ullClamped - ullFrom) / dSpan;
  };
  // A span at least 1.5 pixels wide, so that a single frame shows.
  auto rect = [&](const std::pair<ULONGLONG, ULONGLONG>& span, double dY, double dHeight, const char* pszFill) {
    const double dX = x(span.first);
    const double dW = std::max(x(span.second) - dX, 1.5);
    return "<rect x=\"" + Num(dX) + "\" y=\"" + Num(dY) + "\" width=\"" + Num(dW) + "\" height=\"" + Num(dHeight) +
           "\" fill=\"" + pszFill + "\"/>\n";
  };
  const double dAxis = kdTop + kdRowHeight * static_cast<double>(vRows.size()) + 6;
  const double dHeight = dAxis + 80;
  std::string str = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  str += "<svg xmlns=\"http://www.w3.org/2000/svg\" version=\"1.1\" width=\"" + Num(kdLeft + kdWidth + 20) + "\" height=\"" +
         Num(dHeight) + "\" font-family=\"sans-serif\" font-size=\"12\">\n";
  str += "<rect x=\"0\" y=\"0\" width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  str += "<text x=\"10\" y=\"22\" font-size=\"15\">" + Escape(strTitle) + ": " + FormatTime(ullFrom) + " to " +
         FormatTime(ullTo) + " (UTC)</text>\n";
  // Ticks: every hour when the period is short enough to name them, every day always.
  // The finest step of at most 24 ticks over the period; day ticks are drawn darker.
  constexpr ULONGLONG kullMinute = 60 * kullTicksPerSecond;
  const ULONGLONG aullSteps[] = {kullMinute, 5 * kullMinute, 10 * kullMinute, 30 * kullMinute, kullTicksPerHour,
                                 3 * kullTicksPerHour, 6 * kullTicksPerHour, kullTicksPerDay, 7 * kullTicksPerDay};
  ULONGLONG ullHourStep = aullSteps[8];
  for (const ULONGLONG ullStep : aullSteps)
    if (dSpan / static_cast<double>(ullStep) <= 24) {
      ullHourStep = ullStep;
      break;
    }
  const ULONGLONG ullLabelEvery = dSpan / static_cast<double>(ullHourStep) > 12 ? 2 : 1;
  for (ULONGLONG t = (ullFrom + ullHourStep - 1) / ullHourStep * ullHourStep; t <= ullTo; t += ullHourStep) {
    const bool bDay = t % kullTicksPerDay == 0;
    str += "<line x1=\"" + Num(x(t)) + "\" y1=\"" + Num(kdTop - 4) + "\" x2=\"" + Num(x(t)) + "\" y2=\"" + Num(dAxis + (bDay ? 10 : 5)) +
           "\" stroke=\"" + (bDay ? "#495057" : "#ced4da") + "\" stroke-width=\"" + (bDay ? "1.5" : "1") + "\"/>\n";
    if (bDay || (t / ullHourStep) % ullLabelEvery == 0) {
      const std::string strTime = FormatTime(t);
      str += "<text x=\"" + Num(x(t)) + "\" y=\"" + Num(dAxis + 22) + "\" text-anchor=\"middle\">" +
             (bDay ? strTime.substr(0, 10) : strTime.substr(11, 5)) + "</text>\n";
    }
  }
  for (size_t i = 0; i < vRows.size(); ++i) {
    const STimelineRow& row = vRows[i];
    const double dY = kdTop + kdRowHeight * static_cast<double>(i);
    str += "<g class=\"record\">\n<text x=\"10\" y=\"" + Num(dY + kdBarHeight / 2 + 4) + "\">" + Escape(row.strName) + "</text>\n";
    str += "<rect x=\"" + Num(kdLeft) + "\" y=\"" + Num(dY) + "\" width=\"" + Num(kdWidth) + "\" height=\"" + Num(kdBarHeight) +
           "\" fill=\"none\" stroke=\"#dee2e6\"/>\n";
    for (const auto& span : row.vCoverage) str += rect(span, dY, kdBarHeight, "#adb5bd");
    for (size_t b = 0; b < 2; ++b)
      for (const auto& span : row.avBands[b]) str += rect(span, dY + 2 + 11 * static_cast<double>(b), 9, kaBands[b].pszColour);
    str += "</g>\n";
  }
  // The legend.
  const double dLegend = dAxis + 46;
  const struct {
    const char* pszColour;
    const char* pszText;
  } aLegend[] = {{"#adb5bd", "frames recorded (white: gap)"}, {kaBands[0].pszColour, kaBands[0].pszLegend},
                 {kaBands[1].pszColour, kaBands[1].pszLegend}};
  double dX = kdLeft;
  for (const auto& entry : aLegend) {
    str += "<rect x=\"" + Num(dX) + "\" y=\"" + Num(dLegend - 10) + "\" width=\"14\" height=\"12\" fill=\"" + entry.pszColour + "\"/>\n";
    str += "<text x=\"" + Num(dX + 20) + "\" y=\"" + Num(dLegend) + "\">" + entry.pszText + "</text>\n";
    dX += 240;
  }
  str += "</svg>\n";
  return str;
}

}  // namespace NSTool
