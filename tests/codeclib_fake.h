// A scripted engine for the codecLib front tests: installed in a
// descriptor slot for the duration of a test, it records what the front
// hands it and answers with configurable frame sizes and results.
#ifndef QUILLON_TESTS_CODECLIB_FAKE_H
#define QUILLON_TESTS_CODECLIB_FAKE_H

#include <cstdio>
#include <string>
#include <vector>

#include "codeclib/codeclib.h"
#include "quillon/trace.h"

namespace quillon::test {

using codeclib::CodecDescriptor;
using codeclib::CodecLibInfo;
using codeclib::CodecLibOptions;
using codeclib::HandleRes;

struct FakeConfig {
  int32_t encSamples = 80;  // samples per encoder frame
  int32_t encBytes = 10;    // bytes per encoded frame
  int32_t encLeftOver = 160;
  int32_t decBytes = 10;  // bytes per decoder frame
  int32_t decSamples = 80;
  int32_t decLeftOver = 10;
  int32_t failFrame = -1;  // this frame's encodeFrame/decodeFrame answers failResult
  int32_t failResult = 0;
  int32_t usedExtra = 0;  // decodeFrame claims this many bytes beyond its frame
};

struct FakeEngine {
  int32_t direction = 0;
  std::vector<std::vector<int16_t>> encFrames;
  std::vector<std::vector<uint8_t>> decFrames;  // erased frames are recorded empty
  std::vector<int16_t> modes;
  std::vector<int32_t> frameLengths;
  int resets = 0;
};

inline FakeConfig g_fake;
inline FakeEngine* g_engine = nullptr;

inline int32_t fakeOpen(HandleRes* h, int16_t) {
  g_engine = new FakeEngine();
  g_engine->direction = h->direction;
  h->engineState = g_engine;
  return 0;
}

inline int32_t fakeClose(HandleRes* h, int16_t) {
  if (g_engine == h->engineState) g_engine = nullptr;
  delete static_cast<FakeEngine*>(h->engineState);
  return 0;
}

inline int32_t fakeReset(HandleRes* h) {
  static_cast<FakeEngine*>(h->engineState)->resets++;
  return 0;
}

inline int32_t fakeEncodeFrame(HandleRes* h, const int16_t* frame, uint8_t* out, int32_t* outBytes,
                               CodecLibOptions* options, int16_t) {
  auto* e = static_cast<FakeEngine*>(h->engineState);
  const int32_t index = static_cast<int32_t>(e->encFrames.size());
  e->encFrames.emplace_back(frame, frame + g_fake.encSamples);
  e->modes.push_back(options->mode);
  e->frameLengths.push_back(options->frameLength);
  for (int32_t k = 0; k < g_fake.encBytes; k++) out[k] = static_cast<uint8_t>(index + 1);
  *outBytes = g_fake.encBytes;
  return index == g_fake.failFrame ? g_fake.failResult : 0;
}

// Sample i of a frame is 100 * its first byte + i; an erased frame is -1s.
inline int32_t fakeDecodeFrame(HandleRes* h, const uint8_t* data, int32_t dataBytes, int32_t* inputUsed,
                               int16_t* out, int32_t* outSamples, CodecLibOptions* options, int16_t) {
  auto* e = static_cast<FakeEngine*>(h->engineState);
  const int32_t index = static_cast<int32_t>(e->decFrames.size());
  e->modes.push_back(options->mode);
  e->frameLengths.push_back(options->frameLength);
  if (options->badFrame > 0) {
    e->decFrames.emplace_back();
    for (int32_t i = 0; i < g_fake.decSamples; i++) out[i] = -1;
    *inputUsed = dataBytes;
    *outSamples = g_fake.decSamples;
    return 0;
  }
  if (dataBytes < g_fake.decBytes) {
    *inputUsed = 0;
    *outSamples = 0;
    return 0;
  }
  e->decFrames.emplace_back(data, data + g_fake.decBytes);
  for (int32_t i = 0; i < g_fake.decSamples; i++) out[i] = static_cast<int16_t>(100 * data[0] + i);
  *inputUsed = g_fake.decBytes + g_fake.usedExtra;
  *outSamples = g_fake.decSamples;
  return index == g_fake.failFrame ? g_fake.failResult : 0;
}

inline int32_t fakeQuery(HandleRes*, int32_t, int32_t direction, CodecLibInfo* info, CodecLibOptions* options,
                         const uint8_t*, int32_t, int16_t) {
  if (direction != 0 && direction != 1) return 1;
  if (!info) {
    *options = CodecLibOptions{};
    options->mode = 1;
    return 0;
  }
  *info = CodecLibInfo{};
  info->shortName = "FAKE";
  if (direction == 0) {
    info->inBytesPerFrame = info->inBytesPerFrameMax = 2 * g_fake.encSamples;
    info->leftOverSize = g_fake.encLeftOver;
    info->outBytesPerFrameTyp = info->outBytesPerFrameMax = g_fake.encBytes;
  } else {
    info->inBytesPerFrame = info->inBytesPerFrameMax = g_fake.decBytes;
    info->leftOverSize = g_fake.decLeftOver;
    info->outBytesPerFrameTyp = info->outBytesPerFrameMax = 2 * g_fake.decSamples;
  }
  return 0;
}

inline CodecDescriptor fakeDescriptor() {
  CodecDescriptor d{};
  d.open = fakeOpen;
  d.close = fakeClose;
  d.reset = fakeReset;
  d.encodeFrame = fakeEncodeFrame;
  d.decodeFrame = fakeDecodeFrame;
  d.query = fakeQuery;
  return d;
}

// Puts the fake engine into a descriptor slot (with a fresh configuration)
// and restores the slot afterwards.
class FakeSlot {
 public:
  explicit FakeSlot(int32_t id) : id_(id), saved_(*codeclib::codecLibDescriptor(id)) {
    g_fake = FakeConfig{};
    *codeclib::codecLibDescriptor(id) = fakeDescriptor();
  }
  ~FakeSlot() { *codeclib::codecLibDescriptor(id_) = saved_; }
  FakeSlot(const FakeSlot&) = delete;
  FakeSlot& operator=(const FakeSlot&) = delete;

 private:
  int32_t id_;
  CodecDescriptor saved_;
};

// Sends the trace lines to a temporary file while alive.
class TraceCapture {
 public:
  TraceCapture() : old_(quillon_trace_sink()), file_(std::tmpfile()) { quillon_set_trace_sink(file_); }
  ~TraceCapture() {
    quillon_set_trace_sink(old_);
    std::fclose(file_);
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // Everything written since the last call.
  std::string take() {
    std::fflush(file_);
    std::rewind(file_);
    std::string s;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, file_)) > 0) s.append(buf, n);
    std::fclose(file_);
    file_ = std::tmpfile();
    quillon_set_trace_sink(file_);
    return s;
  }

 private:
  FILE* old_;
  FILE* file_;
};

// Discards trace lines while alive.
class TraceMuted {
 public:
  TraceMuted() : old_(quillon_trace_sink()) { quillon_set_trace_sink(nullptr); }
  ~TraceMuted() { quillon_set_trace_sink(old_); }

 private:
  FILE* old_;
};

}  // namespace quillon::test

#endif
