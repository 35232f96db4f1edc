#include "codeclib/codeclib.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>

#include "codec/fatal.h"
#include "codec/trace.h"

namespace quillon::codeclib {

namespace {

// The process-wide descriptor table, filled on first use. The first use
// may come from several threads at once: the fill runs exactly once, and
// the marker is published only after the table is complete.
CodecDescriptor s_descriptors[kCodecCount];
std::atomic<int32> s_initMarker{0};
std::once_flag s_initOnce;

constexpr int16 kTraceLevel = 3;  // lines are written above this level

// A trace line that could not be printed ends the process (or, with a
// fatal-error handler installed, the call).
void codecLibPrintProblem(bool failed) {
  if (failed) raiseFatal(1, "codecLib_printf problem \n");
}

bool validCodecId(int32 codecId) { return static_cast<uint32>(codecId) < static_cast<uint32>(kCodecCount); }

void ensureInit(int16 trace) {
  if (s_initMarker.load(std::memory_order_acquire) == kInitMarker) return;
  std::call_once(s_initOnce, [trace] {
    if (s_initMarker.load(std::memory_order_acquire) != kInitMarker) CodecMngInit(trace);
  });
}

// The handle as the trace lines show it (a 32-bit word).
unsigned handleWord(const HandleRes* h) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(h)); }

int16* samplesOf(HandleRes* h) { return reinterpret_cast<int16*>(h->leftOverInpBuf); }

// Grows the leftover buffer to `bytes`, keeping what it holds.
bool growLeftOver(HandleRes* h, int64_t bytes) {
  if (bytes > 0x3FFFFFFF) return false;
  void* p = std::realloc(h->leftOverInpBuf, static_cast<size_t>(bytes));
  if (!p) return false;
  h->leftOverInpBuf = static_cast<uint8*>(p);
  h->leftOverInpBufSize = static_cast<int32>(bytes);
  return true;
}

int32 clampCount(int64_t v, int32 cap) { return static_cast<int32>(std::clamp<int64_t>(v, 0, cap)); }

// Copies up to `n` samples to the end of the encoder's buffer (bounded by
// its capacity) without changing the count; returns how many were copied.
int32 putSamples(HandleRes* h, const int16* src, int64_t n) {
  const int32 cap = h->leftOverInpBufSize / 2;
  const int32 room = cap - std::clamp(h->leftOverInpBufCnt, 0, cap);
  const int32 k = clampCount(n, room);
  if (k > 0) std::memcpy(samplesOf(h) + h->leftOverInpBufCnt, src, static_cast<size_t>(k) * 2);
  return k;
}

int32 putZeros(HandleRes* h, int64_t n) {
  const int32 cap = h->leftOverInpBufSize / 2;
  const int32 room = cap - std::clamp(h->leftOverInpBufCnt, 0, cap);
  const int32 k = clampCount(n, room);
  if (k > 0) std::memset(samplesOf(h) + h->leftOverInpBufCnt, 0, static_cast<size_t>(k) * 2);
  return k;
}

// Appends up to `n` bytes to the decoder's buffer; returns how many.
int32 appendBytes(HandleRes* h, const uint8* src, int64_t n) {
  const int32 room = h->leftOverInpBufSize - std::clamp(h->leftOverInpBufCnt, 0, h->leftOverInpBufSize);
  const int32 k = clampCount(n, room);
  if (k > 0) {
    std::memcpy(h->leftOverInpBuf + h->leftOverInpBufCnt, src, static_cast<size_t>(k));
    h->leftOverInpBufCnt += k;
  }
  return k;
}

// The options' erasure flag clears itself whenever a decode call returns.
struct BadFrameReset {
  CodecLibOptions* options;
  ~BadFrameReset() {
    if (options) options->badFrame = 0;
  }
};

}  // namespace

void codecLibPrintf(const char* format, ...) {
  char line[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  codecLibPrintProblem(tracePrintf("%s", line) < 0);
}

#define CL_TRACE(...)                         \
  do {                                        \
    if (trace > kTraceLevel) codecLibPrintf(__VA_ARGS__); \
  } while (0)

void CodecMngInit(int16 trace) {
  // The fill prints nothing, so the table is complete (and the marker set)
  // before the version lines: a failed print cannot leave it half-filled.
  for (CodecDescriptor& d : s_descriptors) d = CodecDescriptor{};
  fillAmrWbDescriptor(s_descriptors[kCodecAmrWb]);
  fillG722Descriptor(s_descriptors[kCodecG722]);
  fillG729ADescriptor(s_descriptors[kCodecG729A]);
  fillG729Descriptor(s_descriptors[kCodecG729]);
  fillG729ABDescriptor(s_descriptors[kCodecG729AB]);
  fillG729BDescriptor(s_descriptors[kCodecG729B]);
  s_initMarker.store(kInitMarker, std::memory_order_release);
  CL_TRACE(" codecLib Version %d.%d.%d \n", kVersionMajor, kVersionMinor, kVersionPatch);
  CL_TRACE("In CodecMngInit\n");
}

CodecDescriptor* codecLibDescriptor(int32 codecId) {
  if (!validCodecId(codecId)) return nullptr;
  ensureInit(0);
  return &s_descriptors[codecId];
}

namespace {

int32 openHandle(HandleRes** handle, int32 codecId, int32 direction, int16 trace) {
  CL_TRACE("In codecLibOpen\n");
  if (!validCodecId(codecId) || !handle) return kErrOpen;
  ensureInit(trace);
  HandleRes* h = static_cast<HandleRes*>(std::calloc(1, sizeof(HandleRes)));
  if (!h) return kErrOpenMemory;
  *handle = h;
  CL_TRACE("HandleRes = %x\n", handleWord(h));
  h->codecId = codecId;
  h->direction = direction;
  h->engineState = nullptr;
  h->engineWord = 0;

  const CodecDescriptor& d = s_descriptors[codecId];
  if (!d.query) {
    std::free(h);
    *handle = nullptr;
    return kErrOpen;
  }
  CodecLibOptions defaults{};
  CodecLibInfo info{};
  d.query(h, codecId, direction, nullptr, &defaults, nullptr, 0, trace);
  d.query(h, codecId, direction, &info, &defaults, nullptr, 0, trace);

  const int64_t size = 2 * static_cast<int64_t>(info.leftOverSize);
  h->leftOverInpBufSize = static_cast<int32>(std::clamp<int64_t>(size, 0, 0x3FFFFFFF));
  h->leftOverInpBuf = size <= 0x3FFFFFFF
                          ? static_cast<uint8*>(std::calloc(std::max<size_t>(h->leftOverInpBufSize, 1), 1))
                          : nullptr;
  if (!h->leftOverInpBuf) {
    std::free(h);
    *handle = nullptr;
    return kErrOpenMemory;
  }
  h->leftOverInpBufCnt = 0;
  h->convBufCnt = 0;

  CL_TRACE("codecLibOpen:pointer=%p\n", reinterpret_cast<void*>(d.open));
  if (!d.open) {
    std::free(h->leftOverInpBuf);
    std::free(h);
    *handle = nullptr;
    return kErrOpen;
  }
  return d.open(h, trace);
}

}  // namespace

// A fatal error part-way through leaves no handle behind.
int32 codecLibOpen(HandleRes** handle, int32 codecId, int32 direction, int16 trace) {
  HandleRes* const before = handle ? *handle : nullptr;
  try {
    return openHandle(handle, codecId, direction, trace);
  } catch (...) {
    HandleRes* h = handle ? *handle : nullptr;
    if (h && h != before) {
      const CodecDescriptor& d = s_descriptors[h->codecId];
      if (h->engineState && d.close) d.close(h, 0);
      std::free(h->leftOverInpBuf);
      std::free(h);
      *handle = nullptr;
    }
    throw;
  }
}

int32 codecLibClose(HandleRes** handle, int16 trace) {
  // The handle is released even when its trace line cannot be printed.
  std::exception_ptr failure;
  try {
    CL_TRACE("In codecLibClose\n");
  } catch (...) {
    failure = std::current_exception();
  }
  HandleRes* h = handle ? *handle : nullptr;
  if (!h) return 0;
  const CodecDescriptor& d = s_descriptors[h->codecId];
  if (!d.close) return 0;
  const int32 result = d.close(h, trace);
  if (h->convBufCnt != 0) std::free(h->convBuf);
  std::free(h->leftOverInpBuf);
  std::free(h);
  if (failure) std::rethrow_exception(failure);
  return result;
}

int32 codecLibQuery(HandleRes** handle, int32 codecId, int32 direction, CodecLibInfo* info,
                    CodecLibOptions* options, int16 trace) {
  if (!validCodecId(codecId)) return kErrQuery;
  ensureInit(trace);
  CL_TRACE("In codecLibQuery\n");
  const CodecDescriptor& d = s_descriptors[codecId];
  if (!d.query) return kErrQuery;
  return d.query(handle ? *handle : nullptr, codecId, direction, info, options, nullptr, 0, trace);
}

int32 codecLibReset(HandleRes** handle) {
  HandleRes* h = handle ? *handle : nullptr;
  if (!h) return kErrParam;
  h->leftOverInpBufCnt = 0;
  const CodecDescriptor& d = s_descriptors[h->codecId];
  return d.reset ? d.reset(h) : kOk;
}

namespace {

int32 encodeCall(HandleRes** handle, const int16* in, int32* inSamples, uint8* out, int32* outBytes,
                 CodecLibOptions* options, int16 trace) {
  HandleRes* h = handle ? *handle : nullptr;
  CL_TRACE("In codecLibEncode\n");
  CL_TRACE("HandleRes = %x\n", handleWord(h));
  if (!inSamples || !outBytes || !out || !h || !options || (!in && *inSamples > 0) ||
      !s_descriptors[h->codecId].query || !s_descriptors[h->codecId].encodeFrame) {
    CL_TRACE("codecLibEncode: NULL parameters\n");
    if (outBytes) *outBytes = 0;
    if (!inSamples) return kErrParam;
    *inSamples = h ? h->leftOverInpBufCnt : 0;
    return kErrParam;
  }
  int32& count = h->leftOverInpBufCnt;
  if (*inSamples < 0) {
    CL_TRACE("codecLibEncode: negative inputSize\n");
    *inSamples = count;
    return kErrParam;
  }
  const CodecDescriptor& d = s_descriptors[h->codecId];

  CodecLibInfo info{};
  d.query(h, h->codecId, h->direction, &info, options, nullptr, 0, trace);
  if (h->leftOverInpBufSize < 2 * static_cast<int64_t>(info.leftOverSize) &&
      !growLeftOver(h, 2 * static_cast<int64_t>(info.leftOverSize)))
    return kErrOutOfMemory;

  const int32 frameSamples = info.inBytesPerFrameMax / 2;
  const int32 frameBytes = info.outBytesPerFrameTyp;
  CL_TRACE("codecLibEncode:InSamplesPerFrame=%d OutBytesPerFrame=%d\n", frameSamples, frameBytes);
  if (frameSamples < 1 || frameSamples > h->leftOverInpBufSize / 2 || frameBytes < 0) {
    // An engine whose frame does not fit its own buffer cannot be driven.
    *outBytes = 0;
    *inSamples = count;
    return kErrParam;
  }
  int16* buf = samplesOf(h);

  const int32 n = *inSamples;
  int64_t produced = 0;
  int32 taken = 0;
  int32 pad = 0;
  int64_t remaining = 0;
  int32 error = kOk;
  if (n == 0) pad = frameSamples - (count % frameSamples);

  if (static_cast<int64_t>(count) + n < frameSamples && (n > 0 || count == 0)) {
    CL_TRACE("In codecLibEncode:not enough data\n");
    *outBytes = 0;
    remaining = static_cast<int64_t>(count) + n;
  } else {
    CL_TRACE("In codecLibEncode:enough data\n");
    if (frameBytes > *outBytes) {
      *inSamples = count;
      return kErrEncodeBuffer;
    }
    if (n > 0) {
      remaining = static_cast<int64_t>(count) + n;
      if (count < frameSamples) {
        taken = putSamples(h, in, frameSamples - count);
        count = frameSamples;
      }
    } else {
      putZeros(h, pad);
      count = clampCount(static_cast<int64_t>(count) + pad, h->leftOverInpBufSize / 2);
      remaining = count;
    }
    CL_TRACE("codecLibEncode:HandleRes->leftOverInpBufCnt=%d inputsToProcess=%d\n", count,
             static_cast<int32>(remaining));

    while (remaining >= frameSamples) {
      if (produced + frameBytes > *outBytes) break;
      int32 written = 0;
      const int32 result = d.encodeFrame(h, buf, out + produced, &written, options, trace);
      int32 consumed = frameSamples;
      const int32 id = h->codecId;
      if (id == 5 || ((id == 37 || id == 44) && result >= 0)) {
        // These engines report the samples they took instead of a status.
        consumed = result == -1 ? 0 : std::clamp(result, 0, count);
        if (result == -1) error = kErrOutOfMemory;
      } else if (result != 0) {
        error = result;
      }
      if (consumed == 0) break;
      count -= consumed;
      std::memmove(buf, buf + consumed, static_cast<size_t>(count) * 2);
      const int32 refill = putSamples(h, in + taken, std::min<int64_t>(consumed, n - taken));
      count += refill;
      taken += refill;
      remaining = std::max<int64_t>(0, remaining - consumed - pad);
      produced += std::max(written, 0);
      CL_TRACE("In codecLibEncode:2SumOutputSz=%d inputsToProcess = %d\n", static_cast<int32>(produced),
               static_cast<int32>(remaining));
    }
    if (error != kOk) {
      *inSamples = count;
      return error;
    }
  }

  if (2 * remaining > info.leftOverSize) {
    count = 0;
    CL_TRACE("Input left over data (%d) larger than left over buffer (%d)", static_cast<int32>(2 * remaining),
             info.leftOverSize);
    error = kErrEncodeBuffer;
  } else {
    putSamples(h, in + taken, n - taken);
    count = clampCount(remaining, h->leftOverInpBufSize / 2);
  }
  *outBytes = static_cast<int32>(produced);
  CL_TRACE("In codecLibEncode:leftOverInpBufCnt = %d\n", static_cast<int32>(2 * remaining));
  *inSamples = count;
  return error;
}

int32 decodeCall(HandleRes** handle, const uint8* in, int32* inBytes, int16* out, int32* outSamples,
                 CodecLibOptions* options, int16 trace) {
  HandleRes* h = handle ? *handle : nullptr;
  BadFrameReset clearBadFrame{options};
  CL_TRACE("In codecLibDecode\n");
  if (!in || !outSamples || !out || !inBytes || !h || !options || !s_descriptors[h->codecId].query ||
      !s_descriptors[h->codecId].decodeFrame) {
    CL_TRACE("codecLibDecode: NULL parameters\n");
    if (outSamples) *outSamples = 0;
    if (!inBytes) return kErrParam;
    *inBytes = h ? h->leftOverInpBufCnt : 0;
    return kErrParam;
  }
  int32& count = h->leftOverInpBufCnt;
  if (*inBytes < 0) {
    *inBytes = 0;
    *outSamples = 0;
    count = 0;
    CL_TRACE("codecLibDecode: negative inputSize\n");
    return kErrParam;
  }
  const CodecDescriptor& d = s_descriptors[h->codecId];
  const int32 n = *inBytes;
  int64_t total = static_cast<int64_t>(count) + n;
  int32 taken = appendBytes(h, in, std::min(n, h->leftOverInpBufSize / 2));

  CodecLibInfo info{};
  d.query(h, h->codecId, h->direction, &info, options, h->leftOverInpBuf, count, trace);
  int32 frameIn = std::max(info.inBytesPerFrame, 0);
  int32 frameSamples = info.outBytesPerFrameMax / 2;
  if (h->leftOverInpBufSize < 2 * static_cast<int64_t>(info.leftOverSize)) {
    if (!growLeftOver(h, 2 * static_cast<int64_t>(info.leftOverSize))) return kErrOutOfMemory;
    if (count < frameIn) taken += appendBytes(h, in + taken, std::min(frameIn - count, n - taken));
  }
  if (frameSamples > *outSamples) {
    *inBytes = 0;
    *outSamples = 0;
    count = 0;
    return kErrDecodeBuffer;
  }

  const int32 id = h->codecId;
  const bool erased = id == 37 ? options->badFrame == 2 : options->badFrame > 0;
  if (id != 5 && erased) {
    int32 used = 0;
    int32 made = 0;
    const int32 result = d.decodeFrame(h, h->leftOverInpBuf, count, &used, out, &made, options, trace);
    *outSamples = made;
    *inBytes = 0;
    count = 0;
    return result;
  }

  CL_TRACE("codecLibDecode:HandleRes->leftOverInpBufCnt=%d inputsToProcess=%d\n", count,
           static_cast<int32>(total));
  int32 inputUsed = 1;
  int64_t produced = 0;
  int32 error = kOk;
  while (total >= frameIn) {
    if (produced + frameSamples > *outSamples) {
      error = kErrDecodeOutputFull;
      break;
    }
    int32 made = 0;
    const int32 result = d.decodeFrame(h, h->leftOverInpBuf, std::min(frameIn, count), &inputUsed,
                                       out + produced, &made, options, trace);
    if (result != 0) error = result;
    CL_TRACE("codecLibDecode:2SumOutputSz=%d inputsToProcess = %d inputUsed=%d\n", static_cast<int32>(produced),
             static_cast<int32>(total), inputUsed);
    if (count < inputUsed) {
      *inBytes = 0;
      *outSamples = 0;
      count = 0;
      return kErrOutOfMemory;
    }
    if (inputUsed > 0) {
      count -= inputUsed;
      std::memmove(h->leftOverInpBuf, h->leftOverInpBuf + inputUsed, static_cast<size_t>(count));
      taken += appendBytes(h, in + taken, std::min(inputUsed, n - taken));
      total -= inputUsed;
    }
    produced += std::max(made, 0);
    if (total > 0) {
      info = CodecLibInfo{};
      d.query(h, h->codecId, h->direction, &info, options, h->leftOverInpBuf, count, trace);
      frameIn = std::max(info.inBytesPerFrame, 0);
      frameSamples = info.outBytesPerFrameMax / 2;
    }
    if (inputUsed < 1) break;
  }

  if (total > info.leftOverSize) {
    *inBytes = 0;
    *outSamples = 0;
    count = 0;
    CL_TRACE("Input left over data (%d) larger than left over buffer (%d)", static_cast<int32>(total),
             info.leftOverSize);
    return kErrDecodeBuffer;
  }
  // Whatever input is still outside the buffer joins it (none when the
  // buffer held a full share of the input).
  appendBytes(h, in + taken, n - taken);
  count = static_cast<int32>(total);
  *outSamples = static_cast<int32>(produced);
  CL_TRACE("codecLibDecode:leftOverInpBufCnt = %d\n", static_cast<int32>(total));
  *inBytes = count;
  return error;
}

// A fatal error part-way through a call leaves the handle as just opened:
// no leftover input and a reset engine.
void resetAfterFatal(HandleRes** handle) {
  if (handle && *handle) codecLibReset(handle);
}

}  // namespace

int32 codecLibEncode(HandleRes** handle, const int16* in, int32* inSamples, uint8* out, int32* outBytes,
                     CodecLibOptions* options, int16 trace) {
  try {
    return encodeCall(handle, in, inSamples, out, outBytes, options, trace);
  } catch (...) {
    resetAfterFatal(handle);
    throw;
  }
}

int32 codecLibDecode(HandleRes** handle, const uint8* in, int32* inBytes, int16* out, int32* outSamples,
                     CodecLibOptions* options, int16 trace) {
  try {
    return decodeCall(handle, in, inBytes, out, outSamples, options, trace);
  } catch (...) {
    resetAfterFatal(handle);
    throw;
  }
}

}  // namespace quillon::codeclib
