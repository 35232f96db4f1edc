// TAV::CodecBench: self-test and timing of the G.729 path of the codecLib
// adapter. Encodes "testVectors\sample16.pcm" (16-bit PCM, 8 kHz) once,
// writes "testVectors\outencoded.g729", decodes that stream a chosen
// number of times and writes "testVectors\testCodecLibG729A.pcm". The
// results go to std::cout. Paths are relative to the working directory
// (on other systems than Windows "testVectors/..." is tried first).
#ifndef QUILLON_CODEC_BENCH_H
#define QUILLON_CODEC_BENCH_H

#include "quillon/platform.h"

namespace TAV {

class QUILLON_API CodecBench {
 public:
  CodecBench();
  // The buffers are shared by copies and are not released by the bench.
  CodecBench(const CodecBench&) = default;
  CodecBench& operator=(const CodecBench&) = default;
  CodecBench& operator=(CodecBench&&) = default;

  void testCodecLibG729A(unsigned int loops);

 private:
  bool init();

  uint32 size1;          // bytes of the PCM test file, capacity of both buffers
  uint8* pcmBuffer;      // the test PCM, later the decoded PCM
  uint32 retsize;        // bytes the encoder returned
  uint8* encodedBuffer;  // the encoded stream
};

}  // namespace TAV

#endif
