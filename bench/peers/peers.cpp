// Speed against the Debian libraries that do the same job: the same speech
// through quillon's engine and through the peer in one run, samples per
// second for each and their ratio. Each peer is optional when building; a
// row whose peer is not built is reported as skipped.
//
//   quillon_peers [SECONDS]     the table, each side timed for SECONDS (default 1)
//   quillon_peers list          each row: name, peer, input file, sample rate
//   quillon_peers run ROW FILE  one pass of ROW's peer over FILE, from a fresh
//                               state (bench/instructions.sh counts its
//                               instructions under callgrind)
//
// Inputs come from the shared vectors (../shared/vectors, or $QUILLON_VECTORS):
// 16-bit little-endian PCM for encoders, the stream for decoders.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "engines/amrwb/amrwb_decoder.h"
#include "engines/amrwb/amrwb_encoder.h"
#include "engines/g729/decoder.h"
#include "engines/g729/encoder.h"
#include "quillon/codecs/codec_g72x.h"
#include "quillon/codecs/codec_msadpcm32.h"
#include "quillon/trace.h"
#include "test_support.h"

#ifdef QUILLON_PEER_SPANDSP
#include <tiffio.h>  // spandsp.h needs it first
#include <spandsp.h>
#endif
#ifdef QUILLON_PEER_BCG729
extern "C" {  // the headers do not say so themselves
#include <bcg729/decoder.h>
#include <bcg729/encoder.h>
}
#endif
#ifdef QUILLON_PEER_OPENCORE_AMRWB
#include <opencore-amrwb/dec_if.h>
#endif
#ifdef QUILLON_PEER_VO_AMRWBENC
#include <vo-amrwbenc/enc_if.h>
#endif
#ifdef QUILLON_PEER_AVCODEC
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}
#endif

namespace {

using Bytes = std::vector<uint8_t>;
// One pass over the input from a fresh state; returns the audio samples it
// stands for (input samples for encoders, output samples for decoders).
using Pass = size_t (*)(const Bytes&);

// Keeps the outputs alive so that no pass is optimised away.
volatile uint32_t g_sink;
void sink(const void* p, size_t n) {
  uint32_t h = g_sink;
  const auto* b = static_cast<const uint8_t*>(p);
  for (size_t i = 0; i < n; i += 61) h = h * 31 + b[i];
  g_sink = h;
}

using quillon::test::splitFrames;
using quillon::test::toPcm16;

// Calls `code` on each whole frame of `size` units of `data`; returns the
// number of frames.
template <class T, class Code>
size_t eachFrame(const std::vector<T>& data, size_t size, Code code) {
  const size_t frames = data.size() / size;
  for (size_t f = 0; f < frames; f++) code(&data[f * size]);
  return frames;
}

// ---- quillon ----

template <int kMode>
size_t oursAmrWbEncode(const Bytes& in) {
  using quillon::amrwb::Encoder;
  Encoder enc;
  uint8_t out[Encoder::kMaxFrameBytes];
  return Encoder::kInputSamples * eachFrame(toPcm16(in), Encoder::kInputSamples, [&](const int16_t* pcm) {
           sink(out, static_cast<size_t>(enc.encodeFrame(pcm, kMode, false, out)));
         });
}

size_t oursAmrWbDecode(const Bytes& in) {
  quillon::amrwb::Decoder dec;
  int16_t out[quillon::amrwb::kFrameSamples];
  size_t samples = 0;
  for (const Bytes& f : splitFrames(in)) {
    dec.decodeFrame(f.data(), f.size(), out);
    sink(out, sizeof out);
    samples += quillon::amrwb::kFrameSamples;
  }
  return samples;
}

size_t oursG729ADecode(const Bytes& in) {
  using quillon::g729a::Decoder;
  Decoder dec;
  int16_t out[Decoder::kFrameSamples];
  return Decoder::kFrameSamples * eachFrame(in, Decoder::kFrameBytes, [&](const uint8_t* frame) {
           dec.decode(frame, out);
           sink(out, sizeof out);
         });
}

size_t oursG729AEncode(const Bytes& in) {
  using quillon::g729a::Encoder;
  Encoder enc;
  uint8_t out[Encoder::kFrameBytes];
  return Encoder::kFrameSamples * eachFrame(toPcm16(in), Encoder::kFrameSamples, [&](const int16_t* pcm) {
           enc.encode(pcm, out);
           sink(out, sizeof out);
         });
}

size_t oursG726Decode(const Bytes& in) {
  TAV::CodecG72X codec;
  codec.open(TAV::AudioFormat(TAV::CT_G726_32, 1), false);
  std::vector<int16_t> out(in.size() * 2);
  TAV::uint32 inBytes = static_cast<TAV::uint32>(in.size());
  const TAV::uint32 bytes = codec.decode(in.data(), inBytes, out.data(), static_cast<TAV::uint32>(out.size() * 2));
  sink(out.data(), bytes);
  return bytes / 2;
}

size_t oursMsAdpcmEncode(const Bytes& in) {
  TAV::CodecMSADPCM32 codec;
  codec.open(TAV::AudioFormat(TAV::CT_MSADPCM, 1), true);
  Bytes out(in.size() + 1024);
  TAV::uint32 inBytes = static_cast<TAV::uint32>(in.size());
  TAV::uint32 n = codec.encode(reinterpret_cast<const int16_t*>(in.data()), inBytes, out.data(),
                               static_cast<TAV::uint32>(out.size()));
  n += codec.getPendingEncodedData(out.data() + n, static_cast<TAV::uint32>(out.size() - n));
  sink(out.data(), n);
  return in.size() / 2;
}

// ---- peers ----

#ifdef QUILLON_PEER_VO_AMRWBENC
template <int kMode>
size_t peerAmrWbEncode(const Bytes& in) {
  void* s = E_IF_init();
  unsigned char out[64];
  const size_t frames = eachFrame(toPcm16(in), 320, [&](const int16_t* pcm) {
    sink(out, static_cast<size_t>(E_IF_encode(s, kMode, pcm, out, 0)));
  });
  E_IF_exit(s);
  return frames * 320;
}
#endif

#ifdef QUILLON_PEER_OPENCORE_AMRWB
size_t peerAmrWbDecode(const Bytes& in) {
  void* s = D_IF_init();
  short out[320];
  size_t samples = 0;
  for (const Bytes& f : splitFrames(in)) {
    D_IF_decode(s, f.data(), out, 0);
    sink(out, sizeof out);
    samples += 320;
  }
  D_IF_exit(s);
  return samples;
}
#endif

#ifdef QUILLON_PEER_BCG729
size_t peerG729ADecode(const Bytes& in) {
  bcg729DecoderChannelContextStruct* c = initBcg729DecoderChannel();
  int16_t out[80];
  const size_t frames = eachFrame(in, 10, [&](const uint8_t* frame) {
    bcg729Decoder(c, frame, 10, 0, 0, 0, out);
    sink(out, sizeof out);
  });
  closeBcg729DecoderChannel(c);
  return frames * 80;
}

size_t peerG729AEncode(const Bytes& in) {
  bcg729EncoderChannelContextStruct* c = initBcg729EncoderChannel(0);
  uint8_t out[10];
  uint8_t length = 0;
  const size_t frames = eachFrame(toPcm16(in), 80, [&](const int16_t* pcm) {
    bcg729Encoder(c, pcm, out, &length);
    sink(out, length);
  });
  closeBcg729EncoderChannel(c);
  return frames * 80;
}
#endif

#ifdef QUILLON_PEER_SPANDSP
size_t peerG726Decode(const Bytes& in) {
  g726_state_t* s = g726_init(nullptr, 32000, G726_ENCODING_LINEAR, G726_PACKING_LEFT);
  std::vector<int16_t> out(in.size() * 2);
  const int n = g726_decode(s, out.data(), in.data(), static_cast<int>(in.size()));
  g726_free(s);
  sink(out.data(), static_cast<size_t>(n) * 2);
  return static_cast<size_t>(n);
}
#endif

#ifdef QUILLON_PEER_AVCODEC
// MS ADPCM in 256-byte mono blocks (500 samples each), as quillon writes it.
size_t peerMsAdpcmEncode(const Bytes& in) {
  const std::vector<int16_t> pcm = toPcm16(in);
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_ADPCM_MS);
  AVCodecContext* ctx = codec ? avcodec_alloc_context3(codec) : nullptr;
  if (!ctx) return 0;
  ctx->sample_rate = 8000;
  ctx->sample_fmt = AV_SAMPLE_FMT_S16;
  av_channel_layout_default(&ctx->ch_layout, 1);
  av_opt_set_int(ctx->priv_data, "block_size", 256, 0);
  size_t samples = 0;
  if (avcodec_open2(ctx, codec, nullptr) == 0) {
    AVFrame* frame = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    frame->nb_samples = ctx->frame_size;
    frame->format = ctx->sample_fmt;
    av_channel_layout_copy(&frame->ch_layout, &ctx->ch_layout);
    av_frame_get_buffer(frame, 0);
    const size_t step = static_cast<size_t>(ctx->frame_size);
    for (size_t at = 0; at + step <= pcm.size(); at += step) {
      av_frame_make_writable(frame);
      std::memcpy(frame->data[0], &pcm[at], step * 2);
      if (avcodec_send_frame(ctx, frame) != 0) break;
      while (avcodec_receive_packet(ctx, packet) == 0) {
        sink(packet->data, static_cast<size_t>(packet->size));
        av_packet_unref(packet);
      }
      samples += step;
    }
    av_packet_free(&packet);
    av_frame_free(&frame);
  }
  avcodec_free_context(&ctx);
  return samples;
}
#endif

struct Row {
  const char* name;   // for `run`
  const char* label;  // for the table
  const char* peer;
  const char* input;  // under the vectors folder
  int rate;           // of the input (encoders) or the output (decoders)
  Pass ours;
  Pass theirs;  // null when the peer is not built
};

// A peer's pass, or null when that peer is not built in.
#ifdef QUILLON_PEER_VO_AMRWBENC
#define VO_AMRWBENC(pass) pass
#else
#define VO_AMRWBENC(pass) nullptr
#endif
#ifdef QUILLON_PEER_OPENCORE_AMRWB
#define OPENCORE_AMRWB(pass) pass
#else
#define OPENCORE_AMRWB(pass) nullptr
#endif
#ifdef QUILLON_PEER_BCG729
#define BCG729(pass) pass
#else
#define BCG729(pass) nullptr
#endif
#ifdef QUILLON_PEER_SPANDSP
#define SPANDSP(pass) pass
#else
#define SPANDSP(pass) nullptr
#endif
#ifdef QUILLON_PEER_AVCODEC
#define AVCODEC(pass) pass
#else
#define AVCODEC(pass) nullptr
#endif

const Row kRows[] = {
    {"amrwb-enc-12.65", "AMR-WB encode 12.65", "vo-amrwbenc", "g722/orig16k-m1.pcm", 16000, oursAmrWbEncode<2>,
     VO_AMRWBENC(peerAmrWbEncode<2>)},
    {"amrwb-enc-23.85", "AMR-WB encode 23.85", "vo-amrwbenc", "g722/orig16k-m1.pcm", 16000, oursAmrWbEncode<8>,
     VO_AMRWBENC(peerAmrWbEncode<8>)},
    {"amrwb-dec-23.85", "AMR-WB decode 23.85", "opencore-amrwb", "amrwb/orig16k-mode8.amrwb", 16000, oursAmrWbDecode,
     OPENCORE_AMRWB(peerAmrWbDecode)},
    {"g729a-dec", "G.729A decode", "bcg729", "g729/hts12.g729", 8000, oursG729ADecode, BCG729(peerG729ADecode)},
    {"g729a-enc", "G.729A encode", "bcg729", "g729/hts12.s16", 8000, oursG729AEncode, BCG729(peerG729AEncode)},
    {"g726-32-dec", "G.726-32 decode", "spandsp", "g726/hts12-32.g726-32-msb", 8000, oursG726Decode,
     SPANDSP(peerG726Decode)},
    {"msadpcm-enc", "MS ADPCM encode", "libavcodec", "g729/hts12.s16", 8000, oursMsAdpcmEncode,
     AVCODEC(peerMsAdpcmEncode)},
};

// Samples per second of `pass` over `in`, repeated for at least `seconds`.
double speed(Pass pass, const Bytes& in, double seconds) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  double elapsed = 0;
  size_t samples = 0;
  do {
    samples += pass(in);
    elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  } while (elapsed < seconds);
  return static_cast<double>(samples) / elapsed;
}

int table(double seconds) {
  std::printf("%-20s %-15s %14s %14s %8s\n", "row", "peer", "quillon /s", "peer /s", "ratio");
  for (const Row& row : kRows) {
    const std::filesystem::path file = quillon::test::vectorsDir() / row.input;
    if (!row.theirs) {
      std::printf("%-20s %-15s skipped: %s not found when building\n", row.label, row.peer, row.peer);
      continue;
    }
    if (!std::filesystem::is_regular_file(file)) {
      std::printf("%-20s %-15s skipped: %s not found (set QUILLON_VECTORS)\n", row.label, row.peer,
                  file.string().c_str());
      continue;
    }
    const Bytes in = quillon::test::readFile(file);
    const double ours = speed(row.ours, in, seconds);
    const double theirs = speed(row.theirs, in, seconds);
    std::printf("%-20s %-15s %12.2f M %12.2f M %7.2fx\n", row.label, row.peer, ours / 1e6, theirs / 1e6,
                ours / theirs);
  }
  return 0;
}

int list() {
  for (const Row& row : kRows) std::printf("%s %s %s %d\n", row.name, row.peer, row.input, row.rate);
  return 0;
}

int runOnce(const std::string& name, const char* path) {
  for (const Row& row : kRows) {
    if (name != row.name) continue;
    if (!row.theirs) {
      std::fprintf(stderr, "%s was not found when building\n", row.peer);
      return 1;
    }
    const size_t samples = row.theirs(quillon::test::readFile(path));
    std::printf("%zu samples\n", samples);
    return 0;
  }
  std::fprintf(stderr, "unknown row %s\n", name.c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  quillon_set_trace_sink(nullptr);
  try {
    if (argc == 4 && std::string(argv[1]) == "run") return runOnce(argv[2], argv[3]);
    if (argc == 2 && std::string(argv[1]) == "list") return list();
    if (argc <= 2) return table(argc == 2 ? std::atof(argv[1]) : 1.0);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
  std::fprintf(stderr, "usage: quillon_peers [SECONDS] | list | run ROW FILE\n");
  return 2;
}
