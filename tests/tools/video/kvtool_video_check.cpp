// The decoding half of the video test (kvtool_video_test.py drives kvtool and compares):
//
//   kvtool_video_check mp4 FILE              decodes an MP4 with libavformat and libavcodec
//   kvtool_video_check demo UNTIL MINUTES    runs the demo camera again for `kvtool demo ARCHIVE
//                                            MINUTES --until UNTIL` and decodes its own output
//
// One line per decoded picture: its time in 100 ns ticks (the MP4's timestamp, or the frame's
// FILETIME for the demo), K for a key frame or - , the FNV-1a 64 of the access unit's bytes and of
// the decoded picture (every row of Y, U and V, without padding), in hexadecimal; the demo's lines
// also say M when the camera flagged motion. A picture that does not decode ends the program with
// exit code 1.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "ToolArgs.h"
#include "Video.h"

namespace {

unsigned long long Fnv(const uint8_t* pb, size_t cb, unsigned long long ull = 0xcbf29ce484222325ull) {
  for (size_t i = 0; i < cb; ++i) ull = (ull ^ pb[i]) * 0x100000001b3ull;
  return ull;
}

unsigned long long PictureFnv(const AVFrame* pFrame) {
  unsigned long long ull = Fnv(nullptr, 0);
  for (int nPlane = 0; nPlane < 3; ++nPlane) {
    const int nShift = nPlane ? 1 : 0;
    const int cx = (pFrame->width + nShift) >> nShift, cy = (pFrame->height + nShift) >> nShift;
    for (int y = 0; y < cy; ++y) ull = Fnv(pFrame->data[nPlane] + y * pFrame->linesize[nPlane], static_cast<size_t>(cx), ull);
  }
  return ull;
}

// Decodes packet after packet (no frame held back: the streams have no B-frames) and prints a line
// per picture; strExtra follows the key mark.
class CDecoder {
 public:
  explicit CDecoder(const AVCodecParameters* pPar) {
    const AVCodec* pCodec = avcodec_find_decoder(pPar->codec_id);
    m_pContext = avcodec_alloc_context3(pCodec);
    m_pFrame = av_frame_alloc();
    if (!pCodec || !m_pContext || !m_pFrame || avcodec_parameters_to_context(m_pContext, pPar) < 0) Fail("no decoder");
    m_pContext->thread_count = 1;
    if (avcodec_open2(m_pContext, pCodec, nullptr) < 0) Fail("the decoder does not open");
  }
  ~CDecoder() {
    avcodec_free_context(&m_pContext);
    av_frame_free(&m_pFrame);
  }
  void Decode(const AVPacket* pPacket, long long llTicks, const char* pszExtra) {
    if (avcodec_send_packet(m_pContext, pPacket) < 0 || avcodec_receive_frame(m_pContext, m_pFrame) < 0)
      Fail(("the picture at " + std::to_string(llTicks) + " does not decode").c_str());
    const bool bKey = (pPacket->flags & AV_PKT_FLAG_KEY) && m_pFrame->key_frame;
    std::printf("%lld %s%s %016llx %016llx\n", llTicks, bKey ? "K" : "-", pszExtra, Fnv(pPacket->data, static_cast<size_t>(pPacket->size)),
                PictureFnv(m_pFrame));
    av_frame_unref(m_pFrame);
  }
  [[noreturn]] static void Fail(const char* pszWhy) {
    std::fprintf(stderr, "kvtool_video_check: %s\n", pszWhy);
    std::exit(1);
  }

 private:
  AVCodecContext* m_pContext = nullptr;
  AVFrame* m_pFrame = nullptr;
};

int DecodeMp4(const char* pszFile) {
  AVFormatContext* pFormat = nullptr;
  if (avformat_open_input(&pFormat, pszFile, nullptr, nullptr) < 0 || avformat_find_stream_info(pFormat, nullptr) < 0)
    CDecoder::Fail("the MP4 does not open");
  if (pFormat->nb_streams != 1 || pFormat->streams[0]->codecpar->codec_type != AVMEDIA_TYPE_VIDEO)
    CDecoder::Fail("the MP4 does not hold exactly one video stream");
  const AVStream* pStream = pFormat->streams[0];
  std::printf("codec %s %dx%d\n", avcodec_get_name(pStream->codecpar->codec_id), pStream->codecpar->width, pStream->codecpar->height);
  CDecoder decoder(pStream->codecpar);
  AVPacket* pPacket = av_packet_alloc();
  while (av_read_frame(pFormat, pPacket) >= 0) {
    decoder.Decode(pPacket, av_rescale_q(pPacket->pts, pStream->time_base, AVRational{1, 10000000}), "");
    av_packet_unref(pPacket);
  }
  av_packet_free(&pPacket);
  avformat_close_input(&pFormat);
  return 0;
}

int DecodeDemo(const char* pszUntil, const char* pszMinutes) {
  using namespace NSTool;
  const ULONGLONG ullUntil = ParseTime(pszUntil, 0, "UNTIL");
  const ULONGLONG ullMinutes = ParseNumber(pszMinutes, 1, 1440, "MINUTES");
  const ULONGLONG ullEnd = ullUntil / CDemoCamera::kullFrameTicks * CDemoCamera::kullFrameTicks;
  const ULONGLONG ullStart = ullEnd - ullMinutes * 60 * kullTicksPerSecond;
  CDemoCamera camera(ullStart);
  AVCodecParameters* pPar = avcodec_parameters_alloc();
  pPar->codec_type = AVMEDIA_TYPE_VIDEO;
  pPar->codec_id = camera.Describe().rfind("H.264", 0) == 0 ? AV_CODEC_ID_H264 : AV_CODEC_ID_MPEG4;
  CDecoder decoder(pPar);
  avcodec_parameters_free(&pPar);
  AVPacket* pPacket = av_packet_alloc();
  std::vector<SEncodedFrame> vOut;
  auto decode = [&]() {
    for (auto& frame : vOut) {
      if (av_new_packet(pPacket, static_cast<int>(frame.vBytes.size())) < 0) CDecoder::Fail("out of memory");
      std::memcpy(pPacket->data, frame.vBytes.data(), frame.vBytes.size());
      pPacket->flags = frame.bKey ? AV_PKT_FLAG_KEY : 0;
      decoder.Decode(pPacket, static_cast<long long>(frame.ullTime), frame.bMotion ? "M" : "-");
      av_packet_unref(pPacket);
    }
    vOut.clear();
  };
  for (ULONGLONG t = ullStart; t < ullEnd; t += CDemoCamera::kullFrameTicks) {
    camera.EncodeNext(&vOut);
    decode();
  }
  camera.Finish(&vOut);
  decode();
  av_packet_free(&pPacket);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc == 3 && std::strcmp(argv[1], "mp4") == 0) return DecodeMp4(argv[2]);
    if (argc == 4 && std::strcmp(argv[1], "demo") == 0) return DecodeDemo(argv[2], argv[3]);
  } catch (const std::exception& e) {
    CDecoder::Fail(e.what());
  }
  std::fprintf(stderr, "usage: kvtool_video_check mp4 FILE | demo UNTIL MINUTES\n");
  return 2;
}
