// The codecLib engine front: one handle, one table of codec descriptors
// indexed by codec number, and one input-buffering scheme that accepts any
// amount of input and keeps a partial frame for the next call.
//
// Results are 0 for success or one of the negative codes below (1 for a
// failed buffer growth or an engine that used more than was buffered).
// Every entry point takes a trace level; above 3 it writes its trace lines
// to the library's trace sink.
#ifndef QUILLON_CODECLIB_CODECLIB_H
#define QUILLON_CODECLIB_CODECLIB_H

#include <cstddef>
#include <cstdint>

#include "quillon/codecs/codec_lib_options.h"

namespace quillon::codeclib {

using TAV::int16;
using TAV::int32;
using TAV::uint32;
using TAV::uint8;

constexpr int32 kCodecCount = 46;
constexpr int32 kInitMarker = 0xDEF100;
constexpr int32 kVersionMajor = 37;
constexpr int32 kVersionMinor = 2;
constexpr int32 kVersionPatch = 16;

// Codec numbers of the filled descriptors.
constexpr int32 kCodecAmrWb = 4;
constexpr int32 kCodecG722 = 16;
constexpr int32 kCodecG729 = 24;
constexpr int32 kCodecG729A = 25;
constexpr int32 kCodecG729AB = 26;
constexpr int32 kCodecG729B = 27;

constexpr int32 kDirEncoder = 0;
constexpr int32 kDirDecoder = 1;

enum Result : int32 {
  kOk = 0,
  kErrOutOfMemory = 1,         // growing a buffer failed; engine used more than buffered
  kErrDecodeOutputFull = -10,  // decoder: output filled before the input was used up
  kErrOpen = -100,             // codec number above 45, or no query/open entry
  kErrOpenMemory = -101,       // out of memory in codecLibOpen
  kErrQuery = -104,            // codec number above 45 or no query entry
  kErrParam = -105,            // null or negative arguments
  kErrEncodeBuffer = -110,     // encoder: output below one frame, or leftover overflow
  kErrDecodeBuffer = -210,     // decoder: output below one frame, or leftover overflow
};

// The handle record, allocated zero-filled by codecLibOpen.
struct HandleRes {
  void* engineState;      // the engine's own state, set by the descriptor's open
  uint32 reserved;        // not touched by the front
  int32 codecId;
  int32 direction;        // kDirEncoder or kDirDecoder
  uint8* leftOverInpBuf;  // leftover input: int16 samples (encoder) or bytes (decoder)
  int32 leftOverInpBufCnt;   // samples (encoder) or bytes (decoder) held
  int32 leftOverInpBufSize;  // capacity in bytes
  int32 engineWord;       // cleared at open, for the engine
  int16* convBuf;         // scratch samples of the companded entry points
  int32 convBufCnt;       // its capacity in samples
};

// What query reports about a codec in one direction.
struct CodecLibInfo {
  const char* shortName;
  int32 modeCount;
  const char* const* modeNames;
  int32 packingCount;
  const char* const* packingNames;
  const char* mimeName;
  int32 codecTag;
  int32 reserved1;
  int32 reserved2;
  int32 inChannels;
  int32 inBytesPerSecond;
  int32 inBytesPerFrame;
  int32 inSampleRate;
  int32 inBitsPerSample;
  int32 inSamplesPerFrame;
  int32 inFrameMs;
  int32 inBytesPerFrameMax;
  int32 leftOverSize;  // bytes
  int32 outChannels;
  int32 outBytesPerSecond;
  int32 outBytesPerFrame;
  int32 outSampleRate;
  int32 outBitsPerSample;
  int32 outSamplesPerFrame;
  int32 outFrameMs;
  int32 outBytesPerFrameTyp;
  int32 outBytesPerFrameMax;
};

// Per-frame facts an engine can report (frame type of a coded frame).
struct CodecLibFrameInfo {
  int32 frameType;
};

// The operations an engine plugs into a descriptor; any may be empty.
struct CodecDescriptor {
  // Creates the engine state for handle->direction in handle->engineState.
  int32 (*open)(HandleRes* handle, int16 trace);
  int32 (*close)(HandleRes* handle, int16 trace);
  int32 (*reset)(HandleRes* handle);
  // Encodes one frame of inBytesPerFrameMax / 2 samples; stores the bytes written.
  int32 (*encodeFrame)(HandleRes* handle, const int16* frame, uint8* out, int32* outBytes,
                       CodecLibOptions* options, int16 trace);
  // Decodes one frame from the front of data; reports bytes taken and samples made.
  int32 (*decodeFrame)(HandleRes* handle, const uint8* data, int32 dataBytes, int32* inputUsed,
                       int16* out, int32* outSamples, CodecLibOptions* options, int16 trace);
  int32 (*frameInfo)(HandleRes* handle, const uint8* data, CodecLibFrameInfo* record);
  // With info null: clears options and writes the defaults. Otherwise fills
  // info (data: buffered input the decoder side may look at).
  int32 (*query)(HandleRes* handle, int32 codecId, int32 direction, CodecLibInfo* info,
                 CodecLibOptions* options, const uint8* data, int32 dataBytes, int16 trace);
};

// Clears the table, sets the marker and fills the engines' descriptors.
void CodecMngInit(int16 trace);
// The descriptor of a codec number (after the lazy fill), or null above 45.
// Writable so that an engine can be installed in an empty entry.
CodecDescriptor* codecLibDescriptor(int32 codecId);

int32 codecLibOpen(HandleRes** handle, int32 codecId, int32 direction, int16 trace);
int32 codecLibClose(HandleRes** handle, int16 trace);
int32 codecLibQuery(HandleRes** handle, int32 codecId, int32 direction, CodecLibInfo* info,
                    CodecLibOptions* options, int16 trace);
int32 codecLibReset(HandleRes** handle);
// inSamples: samples given; returns the samples left in the handle.
// outBytes: room in bytes; returns the bytes written. 0 samples flushes.
int32 codecLibEncode(HandleRes** handle, const int16* in, int32* inSamples, uint8* out,
                     int32* outBytes, CodecLibOptions* options, int16 trace);
// inBytes: bytes given; returns the bytes left in the handle.
// outSamples: room in samples; returns the samples written.
int32 codecLibDecode(HandleRes** handle, const uint8* in, int32* inBytes, int16* out,
                     int32* outSamples, CodecLibOptions* options, int16 trace);
// G.711 input (muLaw 0: A-law, else mu-law), expanded then encoded.
int32 codecLibEncodeCompanded(HandleRes** handle, const uint8* in, int32* inSamples, uint8* out,
                              int32* outBytes, CodecLibOptions* options, int32 muLaw, int16 trace);
// Decoded, then each sample compressed to one G.711 byte.
int32 codecLibDecodeCompanded(HandleRes** handle, const uint8* in, int32* inBytes, uint8* out,
                              int32* outSamples, CodecLibOptions* options, int32 muLaw, int16 trace);

// Trace output of the engine: formats into a local buffer and prints it to
// the trace sink; a failed print ends the process.
void codecLibPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Descriptor fillers of the engines (one file each).
// The G.729 descriptors' shared query answers: the default options, and
// the info record (the decoder's next frame size given by the caller).
void setG729Defaults(CodecLibOptions& options);
void fillG729Info(CodecLibInfo& info, int32 direction, const char* shortName, const char* mimeName,
                  const char* const* modeNames, int32 nextFrameBytes);
void fillAmrWbDescriptor(CodecDescriptor& d);
void fillG722Descriptor(CodecDescriptor& d);
void fillG729ADescriptor(CodecDescriptor& d);
void fillG729Descriptor(CodecDescriptor& d);    // 24
void fillG729ABDescriptor(CodecDescriptor& d);  // 26
void fillG729BDescriptor(CodecDescriptor& d);   // 27

}  // namespace quillon::codeclib

#endif
