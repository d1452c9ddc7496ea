// Path text handling shared by both platforms. Nothing here touches the file system: the rules are
// those of the shell's path helpers (PathCanonicalizeW, PathCombineW, PathAddBackslashW,
// PathMatchSpecW), applied with the platform's separator. Windows accepts '/' as well as '\' when
// reading a path and always writes '\'.
#include "platform/os.h"

namespace NSPlatform {

namespace {

#ifdef _WIN32
bool IsDriveLetter(WCHAR ch) { return (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z'); }
#endif

// The root of a path ("/" on Linux; "X:\", "X:", "\\server\share\" or "\" on Windows) written with the
// platform's separator, and the length of text it covers in the input.
struct SRoot {
  WString strText;
  size_t cchInput = 0;
};

SRoot SplitRoot(WStringView strPath) {
  SRoot root;
#ifdef _WIN32
  if (strPath.size() >= 2 && IsDriveLetter(strPath[0]) && strPath[1] == ':') {
    root.strText.assign(strPath.substr(0, 2));
    root.cchInput = 2;
    if (strPath.size() > 2 && IsPathSeparator(strPath[2])) {
      root.strText.push_back(chPathSeparator);
      root.cchInput = 3;
    }
    return root;
  }
  if (strPath.size() >= 2 && IsPathSeparator(strPath[0]) && IsPathSeparator(strPath[1])) {
    // UNC: the server and share names belong to the root and are never removed by "..".
    size_t i = 2;
    root.strText.assign(2, chPathSeparator);
    for (int nPart = 0; nPart < 2 && i < strPath.size(); ++nPart) {
      while (i < strPath.size() && !IsPathSeparator(strPath[i])) root.strText.push_back(strPath[i++]);
      if (i < strPath.size()) {
        root.strText.push_back(chPathSeparator);
        ++i;
      }
    }
    root.cchInput = i;
    return root;
  }
#endif
  if (!strPath.empty() && IsPathSeparator(strPath[0])) {
    root.strText.assign(1, chPathSeparator);
    root.cchInput = 1;
  }
  return root;
}

bool IsAbsolute(WStringView strPath) {
  if (strPath.empty()) return false;
  if (IsPathSeparator(strPath[0])) return true;
#ifdef _WIN32
  if (strPath.size() >= 2 && IsDriveLetter(strPath[0]) && strPath[1] == ':') return true;
#endif
  return false;
}

// Simple lower-case mapping of the Latin, Greek and Cyrillic letters, enough for the names the
// engine matches (record names, "*.al" patterns); other characters compare as they are.
WCHAR FoldCase(WCHAR ch) {
  const auto u = static_cast<char16_t>(ch);
  if (u >= u'A' && u <= u'Z') return static_cast<WCHAR>(u + 0x20);
  if (u < 0xC0) return ch;
  if (u <= 0xDE && u != 0xD7) return static_cast<WCHAR>(u + 0x20);
  if (u >= 0x391 && u <= 0x3A9 && u != 0x3A2) return static_cast<WCHAR>(u + 0x20);
  if (u >= 0x410 && u <= 0x42F) return static_cast<WCHAR>(u + 0x20);
  if (u >= 0x400 && u <= 0x40F) return static_cast<WCHAR>(u + 0x50);
  return ch;
}

// '*' any run (also empty), '?' exactly one character. Backtracks only to the last '*', which is
// enough because a later '*' can absorb anything an earlier one could.
bool MatchOne(WStringView strName, WStringView strSpec) {
  if (strSpec == KV_W("*.*") || strSpec == KV_W("*")) return true;
  size_t iName = 0, iSpec = 0;
  size_t iStarSpec = WStringView::npos, iStarName = 0;
  while (iName < strName.size()) {
    if (iSpec < strSpec.size() && strSpec[iSpec] == '*') {
      iStarSpec = iSpec++;
      iStarName = iName;
    } else if (iSpec < strSpec.size() &&
               (strSpec[iSpec] == '?' || FoldCase(strSpec[iSpec]) == FoldCase(strName[iName]))) {
      ++iSpec;
      ++iName;
    } else if (iStarSpec != WStringView::npos) {
      iSpec = iStarSpec + 1;
      iName = ++iStarName;
    } else {
      return false;
    }
  }
  while (iSpec < strSpec.size() && strSpec[iSpec] == '*') ++iSpec;
  return iSpec == strSpec.size();
}

}  // namespace

HRESULT CheckPathFits(WStringView strPath) {
#ifdef _WIN32
  constexpr size_t kcMaxPath = 259;  // MAX_PATH with its terminator
  auto units = [](WStringView str) { return str.size(); };
#else
  constexpr size_t kcMaxPath = 4095;  // PATH_MAX with its terminator
  auto units = [](WStringView str) { return WideToUtf8(str).size(); };
#endif
  constexpr size_t kcMaxName = 255;
  bool bFits = units(strPath) <= kcMaxPath;
  for (size_t nStart = 0; bFits && nStart < strPath.size();) {
    size_t nEnd = nStart;
    while (nEnd < strPath.size() && !IsPathSeparator(strPath[nEnd])) ++nEnd;
    bFits = units(strPath.substr(nStart, nEnd - nStart)) <= kcMaxName;
    nStart = nEnd + 1;
  }
  if (bFits) return S_OK;
  SetLastError(ERROR_FILENAME_EXCED_RANGE);
  return KvHResultFromWin32(ERROR_FILENAME_EXCED_RANGE);
}

bool IsPathSeparator(WCHAR ch) {
#ifdef _WIN32
  return ch == L'\\' || ch == L'/';
#else
  return ch == u'/';
#endif
}

WString CanonicalizePath(WStringView strPath) {
  const SRoot root = SplitRoot(strPath);
  // Built in place, in one allocation: every path the platform layer is given passes here. Each
  // segment follows the root, after a separator unless it is the first; ".." takes the last back.
  WString strOut;
  strOut.reserve(root.strText.size() + strPath.size() + 1);
  strOut.append(root.strText);
  const size_t cchRoot = strOut.size();
  size_t cSegments = 0;
  size_t i = root.cchInput;
  while (i < strPath.size()) {
    if (IsPathSeparator(strPath[i])) {
      ++i;
      continue;
    }
    size_t iEnd = i;
    while (iEnd < strPath.size() && !IsPathSeparator(strPath[iEnd])) ++iEnd;
    const WStringView strSegment = strPath.substr(i, iEnd - i);
    if (strSegment == KV_W("..")) {
      if (cSegments > 0) {
        size_t nCut = strOut.size();
        while (nCut > cchRoot && strOut[nCut - 1] != chPathSeparator) --nCut;
        if (nCut > cchRoot) --nCut;  // the separator before the segment
        strOut.resize(nCut);
        --cSegments;
      }
    } else if (strSegment != KV_W(".")) {
      if (cSegments > 0) strOut.push_back(chPathSeparator);
      strOut.append(strSegment);
      ++cSegments;
    }
    i = iEnd;
  }
  // A trailing separator says "directory" to the caller; it survives when something follows the root.
  if (cSegments > 0 && IsPathSeparator(strPath.back())) strOut.push_back(chPathSeparator);
  return strOut;
}

WString CombinePath(WStringView strDirectory, WStringView strMore) {
  if (strMore.empty()) return CanonicalizePath(strDirectory);
  if (IsAbsolute(strMore) || strDirectory.empty()) {
#ifdef _WIN32
    // "\x" under "C:\dir" means the root of the directory's drive, as PathCombineW has it.
    const bool bDriveRelativeRoot = IsPathSeparator(strMore[0]) && !(strMore.size() > 1 && IsPathSeparator(strMore[1]));
    if (bDriveRelativeRoot && strDirectory.size() >= 2 && IsDriveLetter(strDirectory[0]) && strDirectory[1] == ':') {
      WString strJoined(strDirectory.substr(0, 2));
      strJoined.append(strMore);
      return CanonicalizePath(strJoined);
    }
#endif
    return CanonicalizePath(strMore);
  }
  WString strJoined(strDirectory);
  strJoined.push_back(chPathSeparator);
  strJoined.append(strMore);
  return CanonicalizePath(strJoined);
}

WString AddTrailingSeparator(WStringView strPath) {
  WString strOut(strPath);
  if (!strOut.empty() && !IsPathSeparator(strOut.back())) strOut.push_back(chPathSeparator);
  return strOut;
}

bool MatchSpec(const WCHAR* pszName, const WCHAR* pszSpec) {
  if (!pszName) return false;
  if (!pszSpec) return true;
  const WStringView strName(pszName);
  WStringView strSpecs(pszSpec);
  while (!strSpecs.empty()) {
    const size_t iSemicolon = strSpecs.find(';');
    WStringView strSpec = strSpecs.substr(0, iSemicolon);
    strSpecs = iSemicolon == WStringView::npos ? WStringView() : strSpecs.substr(iSemicolon + 1);
    while (!strSpec.empty() && strSpec.front() == ' ') strSpec.remove_prefix(1);
    while (!strSpec.empty() && strSpec.back() == ' ') strSpec.remove_suffix(1);
    if (!strSpec.empty() && MatchOne(strName, strSpec)) return true;
  }
  return false;
}

}  // namespace NSPlatform
