#include "Video.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
}

#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>

#include "ToolArgs.h"

namespace NSTool {
namespace {

// FFmpeg's own chatter (encoder statistics, muxer notes) stays quiet; failures reach the person
// through CToolError with FFmpeg's words for them.
void QuietLibraries() { av_log_set_level(AV_LOG_ERROR); }

std::string AvText(int nError) {
  char sz[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(nError, sz, sizeof(sz));
  return sz;
}

void CheckAv(int nError, const std::string& strWhat) {
  if (nError < 0) throw CToolError(ketFailure, strWhat + ": " + AvText(nError));
}

template <class T>
T* CheckAlloc(T* p, const std::string& strWhat) {
  if (!p) throw CToolError(ketFailure, strWhat + ": out of memory");
  return p;
}

struct SCodecContextFree {
  void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
};
struct SFrameFree {
  void operator()(AVFrame* p) const { av_frame_free(&p); }
};
struct SPacketFree {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
using CCodecContext = std::unique_ptr<AVCodecContext, SCodecContextFree>;
using CAvFrame = std::unique_ptr<AVFrame, SFrameFree>;
using CAvPacket = std::unique_ptr<AVPacket, SPacketFree>;

// ---- The test picture ---------------------------------------------------------------------------

// 5x7 glyphs, one byte per row, the low five bits from left to right.
struct SGlyph {
  char ch;
  BYTE abRows[7];
};
constexpr SGlyph kaGlyphs[] = {
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}}, {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}}, {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}}, {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}}, {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}}, {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {':', {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00}}, {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}},
    {'-', {0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00}}, {'Z', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x10, 0x1F}},
};

// The clock's box, top left; the motion detector looks only outside it, as a camera's detector
// ignores its own time overlay.
constexpr int knScale = 4;
constexpr int knGlyphStep = 6 * knScale;
constexpr int knBoxX = 16, knBoxY = 16, knBoxW = 12 * knGlyphStep + 16, knBoxH = 2 * 8 * knScale + 32;

void FillRect(AVFrame* pFrame, int x, int y, int w, int h, BYTE bY, BYTE bU, BYTE bV) {
  for (int j = y; j < y + h; ++j) std::memset(pFrame->data[0] + j * pFrame->linesize[0] + x, bY, static_cast<size_t>(w));
  for (int j = y / 2; j < (y + h) / 2; ++j) {
    std::memset(pFrame->data[1] + j * pFrame->linesize[1] + x / 2, bU, static_cast<size_t>(w / 2));
    std::memset(pFrame->data[2] + j * pFrame->linesize[2] + x / 2, bV, static_cast<size_t>(w / 2));
  }
}

void DrawText(AVFrame* pFrame, int x, int y, const char* psz) {
  for (; *psz; ++psz, x += knGlyphStep) {
    for (const SGlyph& glyph : kaGlyphs) {
      if (glyph.ch != *psz) continue;
      for (int row = 0; row < 7; ++row)
        for (int col = 0; col < 5; ++col)
          if (glyph.abRows[row] & (0x10 >> col))
            for (int j = 0; j < knScale; ++j)
              std::memset(pFrame->data[0] + (y + row * knScale + j) * pFrame->linesize[0] + x + col * knScale, 235, knScale);
    }
  }
}

// The picture at ullTime: everything is a function of the time alone.
void DrawPicture(AVFrame* pFrame, ULONGLONG ullTime) {
  // 75% colour bars (white, yellow, cyan, green, magenta, red, blue) in BT.601 studio range.
  static const BYTE s_aabBars[7][3] = {{180, 128, 128}, {162, 44, 142}, {131, 156, 44}, {112, 72, 58},
                                       {84, 184, 198},  {65, 100, 212}, {35, 212, 114}};
  const int nBar = (CDemoCamera::knWidth / 7 + 1) & ~1;
  for (int b = 0; b < 7; ++b) {
    const int x = b * nBar;
    FillRect(pFrame, x, 0, std::min(nBar, CDemoCamera::knWidth - x), CDemoCamera::knHeight, s_aabBars[b][0], s_aabBars[b][1],
             s_aabBars[b][2]);
  }
  // The clock: date, time to the hundredth, and a bar growing through each second.
  FILETIME ft = NSPlatform::U64ToFileTime(ullTime);
  SYSTEMTIME st = {};
  NSPlatform::FileTimeToSysTime(&ft, &st);
  const ULONGLONG ullInSecond = ullTime % 10000000ull;
  char szDate[32], szTime[32];
  std::snprintf(szDate, sizeof(szDate), "%04u-%02u-%02u", st.wYear, st.wMonth, st.wDay);
  std::snprintf(szTime, sizeof(szTime), "%02u:%02u:%02u.%02uZ", st.wHour, st.wMinute, st.wSecond,
                static_cast<unsigned>(ullInSecond / 100000));
  FillRect(pFrame, knBoxX, knBoxY, knBoxW, knBoxH, 16, 128, 128);
  DrawText(pFrame, knBoxX + 8, knBoxY + 8, szDate);
  DrawText(pFrame, knBoxX + 8, knBoxY + 8 + 8 * knScale, szTime);
  const int nSweep = static_cast<int>(static_cast<ULONGLONG>(knBoxW - 16) * ullInSecond / 10000000ull) & ~1;
  if (nSweep > 0) FillRect(pFrame, knBoxX + 8, knBoxY + knBoxH - 10, nSweep, 4, 235, 128, 128);
  // The ball: still at the left in the first half of each minute, twice round an ellipse in the second.
  const double dInMinute = static_cast<double>(ullTime % 600000000ull) / 1e7;
  const double dAngle = dInMinute < 30 ? 0 : (dInMinute - 30) / 30 * 4 * M_PI;
  const int cx = CDemoCamera::knWidth / 2 - static_cast<int>(200 * std::cos(dAngle));
  const int cy = 240 + static_cast<int>(70 * std::sin(dAngle));
  constexpr int knRadius = 22;
  for (int y = cy - knRadius; y <= cy + knRadius; ++y)
    for (int x = cx - knRadius; x <= cx + knRadius; ++x)
      if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= knRadius * knRadius) {
        pFrame->data[0][y * pFrame->linesize[0] + x] = 16;
        if (!(x & 1) && !(y & 1)) {
          pFrame->data[1][(y / 2) * pFrame->linesize[1] + x / 2] = 128;
          pFrame->data[2][(y / 2) * pFrame->linesize[2] + x / 2] = 128;
        }
      }
}

// Motion: at least two 16x16 blocks outside the clock whose luma changed by more than 2 levels on
// average since the previous picture.
bool HasMotion(const AVFrame* pNow, const std::vector<BYTE>& vBefore) {
  int cChanged = 0;
  for (int by = 0; by + 16 <= CDemoCamera::knHeight; by += 16)
    for (int bx = 0; bx + 16 <= CDemoCamera::knWidth; bx += 16) {
      if (bx < knBoxX + knBoxW && by < knBoxY + knBoxH) continue;
      int nSum = 0;
      for (int y = by; y < by + 16; ++y)
        for (int x = bx; x < bx + 16; ++x)
          nSum += std::abs(pNow->data[0][y * pNow->linesize[0] + x] - vBefore[static_cast<size_t>(y * CDemoCamera::knWidth + x)]);
      if (nSum > 2 * 256 && ++cChanged >= 2) return true;
    }
  return false;
}

}  // namespace

// ---- CDemoCamera -----------------------------------------------------------------------------------

struct CDemoCamera::SImpl {
  ULONGLONG ullStart = 0;
  int64_t nNext = 0;                    // the next frame's number
  CCodecContext pEncoder;
  CAvFrame pFrame;
  CAvPacket pPacket;
  std::vector<BYTE> vLuma;              // the previous picture's luma, for motion
  std::deque<std::pair<int64_t, bool>> dqMotion;  // frames sent and not yet out: number, motion
  std::string strDescription;

  void Drain(std::vector<SEncodedFrame>* pvOut) {
    for (;;) {
      const int nResult = avcodec_receive_packet(pEncoder.get(), pPacket.get());
      if (nResult == AVERROR(EAGAIN) || nResult == AVERROR_EOF) return;
      CheckAv(nResult, "encoding the demo picture");
      SEncodedFrame frame;
      frame.ullTime = ullStart + static_cast<ULONGLONG>(pPacket->pts) * kullFrameTicks;
      frame.bKey = (pPacket->flags & AV_PKT_FLAG_KEY) != 0;
      while (!dqMotion.empty() && dqMotion.front().first < pPacket->pts) dqMotion.pop_front();
      if (!dqMotion.empty() && dqMotion.front().first == pPacket->pts) {
        frame.bMotion = dqMotion.front().second;
        dqMotion.pop_front();
      }
      frame.vBytes.assign(pPacket->data, pPacket->data + pPacket->size);
      av_packet_unref(pPacket.get());
      pvOut->push_back(std::move(frame));
    }
  }
};

CDemoCamera::CDemoCamera(ULONGLONG ullStart) : m_p(std::make_unique<SImpl>()) {
  QuietLibraries();
  m_p->ullStart = ullStart;
  const AVCodec* pCodec = avcodec_find_encoder_by_name("libx264");
  const bool bX264 = pCodec != nullptr;
  if (!pCodec) pCodec = avcodec_find_encoder(AV_CODEC_ID_MPEG4);
  if (!pCodec) throw CToolError(ketFailure, "starting the demo camera: libavcodec has neither an H.264 nor an MPEG-4 encoder");
  m_p->strDescription = bX264 ? "H.264 (libx264)" : "MPEG-4 Part 2 (libavcodec's mpeg4, libx264 is not there)";
  const std::string strWhat = std::string("opening the ") + pCodec->name + " encoder";
  m_p->pEncoder.reset(CheckAlloc(avcodec_alloc_context3(pCodec), strWhat));
  AVCodecContext* pContext = m_p->pEncoder.get();
  pContext->width = knWidth;
  pContext->height = knHeight;
  pContext->pix_fmt = AV_PIX_FMT_YUV420P;
  pContext->time_base = AVRational{1, 25};
  pContext->framerate = AVRational{25, 1};
  pContext->gop_size = knKeyInterval;
  pContext->keyint_min = knKeyInterval;
  pContext->max_b_frames = 0;
  pContext->thread_count = 1;  // the same bytes on every run
  if (bX264) {
    // Fast, no frame held back, key frames only every 2 s (no scene-cut key frames).
    av_opt_set(pContext->priv_data, "preset", "veryfast", 0);
    av_opt_set(pContext->priv_data, "tune", "zerolatency", 0);
    av_opt_set(pContext->priv_data, "x264-params", "scenecut=0:rc-lookahead=0:sliced-threads=0", 0);
  } else {
    pContext->bit_rate = 1500000;
    av_opt_set_int(pContext, "sc_threshold", 1000000000, 0);
  }
  CheckAv(avcodec_open2(pContext, pCodec, nullptr), strWhat);
  m_p->pFrame.reset(CheckAlloc(av_frame_alloc(), strWhat));
  m_p->pFrame->format = AV_PIX_FMT_YUV420P;
  m_p->pFrame->width = knWidth;
  m_p->pFrame->height = knHeight;
  CheckAv(av_frame_get_buffer(m_p->pFrame.get(), 0), strWhat);
  m_p->pPacket.reset(CheckAlloc(av_packet_alloc(), strWhat));
}

CDemoCamera::~CDemoCamera() = default;

std::string CDemoCamera::Describe() const { return m_p->strDescription; }

void CDemoCamera::EncodeNext(std::vector<SEncodedFrame>* pvOut) {
  AVFrame* pFrame = m_p->pFrame.get();
  CheckAv(av_frame_make_writable(pFrame), "drawing the demo picture");
  const int64_t nFrame = m_p->nNext++;
  DrawPicture(pFrame, m_p->ullStart + static_cast<ULONGLONG>(nFrame) * kullFrameTicks);
  bool bMotion = false;
  if (m_p->vLuma.empty()) m_p->vLuma.resize(static_cast<size_t>(knWidth * knHeight));
  else bMotion = HasMotion(pFrame, m_p->vLuma);
  for (int y = 0; y < knHeight; ++y)
    std::memcpy(m_p->vLuma.data() + static_cast<size_t>(y * knWidth), pFrame->data[0] + y * pFrame->linesize[0], knWidth);
  m_p->dqMotion.emplace_back(nFrame, bMotion);
  pFrame->pts = nFrame;
  CheckAv(avcodec_send_frame(m_p->pEncoder.get(), pFrame), "encoding the demo picture");
  m_p->Drain(pvOut);
}

void CDemoCamera::Finish(std::vector<SEncodedFrame>* pvOut) {
  CheckAv(avcodec_send_frame(m_p->pEncoder.get(), nullptr), "finishing the demo stream");
  m_p->Drain(pvOut);
}

// ---- CMp4Writer ------------------------------------------------------------------------------------

namespace {

struct SKnownCodec {
  const char* pszProbe;  // libavformat's name for the raw stream
  AVCodecID eCodec;
  const char* pszName;
};
constexpr SKnownCodec kaKnownCodecs[] = {
    {"h264", AV_CODEC_ID_H264, "H.264"}, {"hevc", AV_CODEC_ID_HEVC, "H.265"}, {"m4v", AV_CODEC_ID_MPEG4, "MPEG-4 Part 2"}};

// The output's bytes go through the platform layer's file, as every file the tool writes; the MP4
// muxer seeks back to fill in sizes.
#if LIBAVFORMAT_VERSION_MAJOR >= 61
using CAvioBytes = const uint8_t*;
#else
using CAvioBytes = uint8_t*;
#endif

int AvioWrite(void* pOpaque, CAvioBytes pb, int cb) {
  auto* pFile = static_cast<NSPlatform::CFile*>(pOpaque);
  DWORD cbWritten = 0;
  if (FAILED(pFile->Write(pb, static_cast<DWORD>(cb), &cbWritten)) || cbWritten != static_cast<DWORD>(cb)) return AVERROR(EIO);
  return cb;
}

int64_t AvioSeek(void* pOpaque, int64_t llOffset, int nWhence) {
  auto* pFile = static_cast<NSPlatform::CFile*>(pOpaque);
  ULONGLONG ullPosition = 0;
  if (nWhence & AVSEEK_SIZE)
    return FAILED(pFile->GetSize(&ullPosition)) ? AVERROR(EIO) : static_cast<int64_t>(ullPosition);
  const DWORD dwMethod = nWhence == SEEK_SET ? FILE_BEGIN : nWhence == SEEK_CUR ? FILE_CURRENT : FILE_END;
  if (FAILED(pFile->Seek(llOffset, dwMethod, &ullPosition))) return AVERROR(EIO);
  return static_cast<int64_t>(ullPosition);
}

}  // namespace

struct CMp4Writer::SImpl {
  WString strPath, strTemp;
  NSPlatform::CFile file;
  AVFormatContext* pFormat = nullptr;
  AVIOContext* pIo = nullptr;
  AVStream* pStream = nullptr;
  const SKnownCodec* pCodec = nullptr;
  CAvPacket pPending;  // held until the next frame tells its duration
  ULONGLONG ullFirst = 0, ullPendingTime = 0, ullLastDuration = CDemoCamera::kullFrameTicks;
  int64_t llLastPts = -1;
  ULONGLONG cFrames = 0;
  bool bHeader = false, bCommitted = false;

  std::string What() const { return "writing " + NSPlatform::WideToUtf8(strPath); }

  ~SImpl() {
    if (pFormat) {
      avformat_free_context(pFormat);
      pFormat = nullptr;
    }
    if (pIo) {
      av_freep(&pIo->buffer);
      avio_context_free(&pIo);
    }
    file.Close();
    if (!bCommitted && !strTemp.empty()) NSPlatform::RemoveFile(strTemp.c_str());
  }

  // The codec from the key frame's bytes, the picture size from decoding it, the parameter sets
  // for the sample description from the extract_extradata filter.
  void Start(ULONGLONG ullTime, const BYTE* pb, DWORD cb) {
    const std::string strFrame = "the frame at " + FormatTime(ullTime);
    std::vector<uint8_t> vProbe(pb, pb + cb);
    vProbe.resize(cb + AVPROBE_PADDING_SIZE, 0);
    AVProbeData probe = {"", vProbe.data(), static_cast<int>(cb), nullptr};
    int nScore = 0;
    const AVInputFormat* pRaw = av_probe_input_format2(&probe, 1, &nScore);
    for (const SKnownCodec& known : kaKnownCodecs)
      if (pRaw && std::strcmp(pRaw->name, known.pszProbe) == 0) pCodec = &known;
    if (!pCodec)
      throw CToolError(ketFailure, What() + ": " + strFrame + " is not a video access unit the tool knows (H.264, H.265 or MPEG-4 Part 2)");

    const AVCodec* pDecoder = avcodec_find_decoder(pCodec->eCodec);
    CCodecContext pContext(CheckAlloc(avcodec_alloc_context3(pDecoder), What()));
    pContext->thread_count = 1;
    CheckAv(pDecoder ? avcodec_open2(pContext.get(), pDecoder, nullptr) : AVERROR_DECODER_NOT_FOUND, What());
    CAvPacket pPacket(CheckAlloc(av_packet_alloc(), What()));
    CheckAv(av_new_packet(pPacket.get(), static_cast<int>(cb)), What());
    std::memcpy(pPacket->data, pb, cb);
    pPacket->flags = AV_PKT_FLAG_KEY;
    CAvFrame pPicture(CheckAlloc(av_frame_alloc(), What()));
    int nResult = avcodec_send_packet(pContext.get(), pPacket.get());
    if (nResult >= 0) nResult = avcodec_send_packet(pContext.get(), nullptr);
    if (nResult >= 0) nResult = avcodec_receive_frame(pContext.get(), pPicture.get());
    if (nResult < 0 || pPicture->width <= 0 || pPicture->height <= 0)
      throw CToolError(ketFailure, What() + ": " + strFrame + " does not decode as " + pCodec->pszName + " (" +
                                       AvText(nResult < 0 ? nResult : AVERROR_INVALIDDATA) + ")");

    CheckAv(avformat_alloc_output_context2(&pFormat, nullptr, "mp4", nullptr), What());
    pStream = CheckAlloc(avformat_new_stream(pFormat, nullptr), What());
    pStream->time_base = AVRational{1, 90000};
    AVCodecParameters* pPar = pStream->codecpar;
    pPar->codec_type = AVMEDIA_TYPE_VIDEO;
    pPar->codec_id = pCodec->eCodec;
    pPar->width = pPicture->width;
    pPar->height = pPicture->height;
    pPar->format = pPicture->format;
    pPar->sample_aspect_ratio = pPicture->sample_aspect_ratio;
    AddExtradata(pPacket.get(), pPar);
    // Players show when the clip was recorded.
    av_dict_set(&pFormat->metadata, "creation_time", FormatTime(ullTime, true).c_str(), 0);

    // Beside the asked name, so that the rename at the end stays on one volume.
    const WString strDir = ParentOf(strPath);
    CheckPlatform(NSPlatform::CreateTempFile(strDir.c_str(), KV_W("kvt"), &strTemp), "making a temporary file in " +
                                                                                           NSPlatform::WideToUtf8(strDir));
    CheckPlatform(file.Open(strTemp.c_str(), GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING, 0), What());
    constexpr int kcbBuffer = 1 << 16;
    auto* pBuffer = static_cast<unsigned char*>(CheckAlloc(av_malloc(kcbBuffer), What()));
    pIo = avio_alloc_context(pBuffer, kcbBuffer, 1, &file, nullptr, AvioWrite, AvioSeek);
    if (!pIo) {
      av_free(pBuffer);
      throw CToolError(ketFailure, What() + ": out of memory");
    }
    pFormat->pb = pIo;
    CheckAv(avformat_write_header(pFormat, nullptr), What());
    bHeader = true;
    ullFirst = ullTime;
  }

  void AddExtradata(AVPacket* pKey, AVCodecParameters* pPar) {
    const AVBitStreamFilter* pFilter = av_bsf_get_by_name("extract_extradata");
    AVBSFContext* pBsf = nullptr;
    if (!pFilter || av_bsf_alloc(pFilter, &pBsf) < 0) return;  // the muxer then reads them from the frames
    pBsf->par_in->codec_id = pCodec->eCodec;
    pBsf->par_in->codec_type = AVMEDIA_TYPE_VIDEO;
    CAvPacket pCopy(av_packet_clone(pKey));
    if (pCopy && av_bsf_init(pBsf) >= 0 && av_bsf_send_packet(pBsf, pCopy.get()) >= 0 &&
        av_bsf_receive_packet(pBsf, pCopy.get()) >= 0) {
      size_t cb = 0;
      const uint8_t* pb = av_packet_get_side_data(pCopy.get(), AV_PKT_DATA_NEW_EXTRADATA, &cb);
      if (pb && cb > 0) {
        pPar->extradata = static_cast<uint8_t*>(av_mallocz(cb + AV_INPUT_BUFFER_PADDING_SIZE));
        if (pPar->extradata) {
          std::memcpy(pPar->extradata, pb, cb);
          pPar->extradata_size = static_cast<int>(cb);
        }
      }
    }
    av_bsf_free(&pBsf);
  }

  void CheckPlatform(HRESULT hr, const std::string& strWhat) {
    if (FAILED(hr)) throw CToolError(ketFailure, strWhat + ": " + DescribeResult(hr));
  }

  static WString ParentOf(const WString& str) {
    size_t i = str.size();
    while (i > 0 && !NSPlatform::IsPathSeparator(str[i - 1])) --i;
    return i > 1 ? str.substr(0, i - 1) : str.substr(0, i);
  }

  // Ticks of 100 ns in the stream's time base (the muxer may have chosen its own at the header).
  int64_t Rescale(ULONGLONG ullTicks) const {
    return av_rescale_q(static_cast<int64_t>(ullTicks), AVRational{1, 10000000}, pStream->time_base);
  }

  void WritePending(ULONGLONG ullDuration) {
    pPending->duration = Rescale(ullDuration);
    if (pPending->duration <= 0) pPending->duration = 1;
    CheckAv(av_interleaved_write_frame(pFormat, pPending.get()), What() + " (the frame at " + FormatTime(ullPendingTime) + ")");
    pPending.reset();
  }
};

CMp4Writer::CMp4Writer(const WString& strPath) : m_p(std::make_unique<SImpl>()) {
  QuietLibraries();
  m_p->strPath = strPath;
}

CMp4Writer::~CMp4Writer() = default;

ULONGLONG CMp4Writer::Frames() const { return m_p->cFrames; }

void CMp4Writer::Add(ULONGLONG ullTime, bool bKey, const BYTE* pb, DWORD cb) {
  if (!m_p->bHeader) {
    if (!bKey) throw CToolError(ketFailure, m_p->What() + ": the clip must start at a key frame");
    m_p->Start(ullTime, pb, cb);
  }
  if (m_p->pPending) {
    m_p->ullLastDuration = ullTime - m_p->ullPendingTime;
    m_p->WritePending(m_p->ullLastDuration);
  }
  // Never two frames at one timestamp.
  int64_t llPts = m_p->Rescale(ullTime - m_p->ullFirst);
  if (llPts <= m_p->llLastPts) llPts = m_p->llLastPts + 1;
  m_p->llLastPts = llPts;
  m_p->pPending.reset(CheckAlloc(av_packet_alloc(), m_p->What()));
  CheckAv(av_new_packet(m_p->pPending.get(), static_cast<int>(cb)), m_p->What());
  if (cb) std::memcpy(m_p->pPending->data, pb, cb);
  m_p->pPending->pts = m_p->pPending->dts = llPts;
  m_p->pPending->flags = bKey ? AV_PKT_FLAG_KEY : 0;
  m_p->pPending->stream_index = 0;
  m_p->ullPendingTime = ullTime;
  ++m_p->cFrames;
}

std::string CMp4Writer::Commit() {
  if (!m_p->bHeader) throw CToolError(ketFailure, m_p->What() + ": no frames");
  // The last frame lasts as long as the one before it.
  if (m_p->pPending) m_p->WritePending(m_p->ullLastDuration);
  CheckAv(av_write_trailer(m_p->pFormat), m_p->What());
  avio_flush(m_p->pIo);
  if (m_p->pIo->error < 0) CheckAv(m_p->pIo->error, m_p->What());
  m_p->CheckPlatform(m_p->file.Flush(), m_p->What());
  m_p->file.Close();
  m_p->CheckPlatform(NSPlatform::RenameFile(m_p->strTemp.c_str(), m_p->strPath.c_str()), m_p->What());
  m_p->bCommitted = true;
  return m_p->pCodec->pszName;
}

}  // namespace NSTool
