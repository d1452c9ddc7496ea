// Real video for the tool, through Debian's FFmpeg libraries (libavcodec, libavformat, libavutil):
// the demo camera that encodes a generated test picture, and the MP4 writer that muxes recorded
// access units into a file any player opens, without re-encoding. Built natively only; the Windows
// tool has no FFmpeg and answers the video verbs with "not in this build".
//
// Every failure throws CToolError (ToolArgs.h) with what was being done and FFmpeg's own words.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/os.h"

namespace NSTool {

// One access unit as the encoder gave it, with the frame's time and what the camera saw.
struct SEncodedFrame {
  ULONGLONG ullTime = 0;  // FILETIME ticks (UTC)
  bool bKey = false;      // a key frame: decoding may start here
  bool bMotion = false;   // the picture changed outside the clock since the previous frame
  std::vector<BYTE> vBytes;
};

// A 25 fps camera looking at a test picture: colour bars, a clock showing the frame's UTC time
// (date, time to the hundredth, a bar sweeping each second) and, in the second half of every
// minute, a ball going round. Frame n is the picture at ullStart + n * 40 ms. H.264 through
// libx264 when libavcodec has it, else MPEG-4 Part 2 (libavcodec's own encoder); either way no
// B-frames, one access unit per frame, a key frame every 2 s and nowhere else, parameter sets
// repeated in every key frame so that any key frame starts a clip. The same start gives the same
// bytes on every run (one encoder thread), which the tests rely on.
class CDemoCamera {
 public:
  static constexpr int knWidth = 640;
  static constexpr int knHeight = 360;
  static constexpr ULONGLONG kullFrameTicks = 400000;  // 40 ms: 25 frames per second
  static constexpr int knKeyInterval = 50;             // frames: a key frame every 2 s

  explicit CDemoCamera(ULONGLONG ullStart);
  ~CDemoCamera();
  CDemoCamera(const CDemoCamera&) = delete;
  CDemoCamera& operator=(const CDemoCamera&) = delete;

  // "H.264 (libx264)" or "MPEG-4 Part 2 (mpeg4)".
  std::string Describe() const;
  // Encodes the next frame's picture and appends to *pvOut the access units that come out (one per
  // frame with this encoder's settings; a later one belongs to an earlier frame only if an encoder
  // ever holds frames back, and its time says which).
  void EncodeNext(std::vector<SEncodedFrame>* pvOut);
  // Drains the encoder at the end of the stream.
  void Finish(std::vector<SEncodedFrame>* pvOut);

 private:
  struct SImpl;
  std::unique_ptr<SImpl> m_p;
};

// An MP4 file made of recorded access units, in decode order, each at its frame time. The file is
// written under a temporary name beside strPath and renamed to strPath only by Commit, so a failure
// half-way leaves nothing under the asked name (and the temporary file is removed). The first frame
// added must be a key frame: the codec (H.264, H.265 or MPEG-4 Part 2, recognised from the bytes)
// and the picture size are read from it. Timestamps are the frame times less the first frame's, so
// a pause in the recording is a pause in the clip; there is no re-encoding.
class CMp4Writer {
 public:
  // Refuses nothing itself: the caller has checked strPath (absolute, directory present, replacing
  // allowed). Nothing touches the disk before the first Add.
  explicit CMp4Writer(const WString& strPath);
  ~CMp4Writer();
  CMp4Writer(const CMp4Writer&) = delete;
  CMp4Writer& operator=(const CMp4Writer&) = delete;

  // ullTime must increase from frame to frame.
  void Add(ULONGLONG ullTime, bool bKey, const BYTE* pb, DWORD cb);
  // Finishes the file and gives it its name (replacing a file there). Returns the codec's name.
  std::string Commit();
  ULONGLONG Frames() const;

 private:
  struct SImpl;
  std::unique_ptr<SImpl> m_p;
};

}  // namespace NSTool
