#include "quillon/codec_bench.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "quillon/audio_format.h"
#include "quillon/codecs/codec_lib_adapter.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <chrono>
#endif

namespace TAV {

namespace {

const char kInputPath[] = "testVectors\\sample16.pcm";
const char kEncodedPath[] = "testVectors\\outencoded.g729";
const char kDecodedPath[] = "testVectors\\testCodecLibG729A.pcm";

// The millisecond tick of the platform (wraps like a 32-bit counter).
uint32 tickCount() {
#if defined(_WIN32)
  return GetTickCount();
#else
  using namespace std::chrono;
  return static_cast<uint32>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
#endif
}

// The bench's files live in the "testVectors" folder. Elsewhere than on
// Windows that folder is used when it exists; otherwise the names as
// written (backslash included) are files of the working directory.
std::string filePath(const char* path) {
#if defined(_WIN32)
  return path;
#else
  std::error_code ec;
  if (!std::filesystem::is_directory("testVectors", ec)) return path;
  std::string p(path);
  for (char& c : p)
    if (c == '\\') c = '/';
  return p;
#endif
}

}  // namespace

CodecBench::CodecBench() : size1(0), pcmBuffer(nullptr), retsize(0), encodedBuffer(nullptr) {}

bool CodecBench::init() {
  std::ifstream file(filePath(kInputPath), std::ios::binary);
  if (!file.is_open()) {
    std::cout << "failed to open " << kInputPath << std::endl;
    std::cout << "assert that testVectors\\sample16.pcm is in working directory" << std::endl;
    return false;
  }
  file.seekg(0, std::ios::end);
  size1 = static_cast<uint32>(file.tellg());
  file.seekg(0, std::ios::beg);
  pcmBuffer = new uint8[size1];
  encodedBuffer = new uint8[size1];
  file.read(reinterpret_cast<char*>(pcmBuffer), size1);
  file.close();

  AudioFormat format(CT_G729, 1);
  Codec* codec = new CodecLibAdapter();
  codec->open(format, true);
  const uint32 start = tickCount();
  retsize = codec->encode(reinterpret_cast<const int16*>(pcmBuffer), size1, encodedBuffer, size1);
  const uint32 end = tickCount();
  std::cout << "Duration testCodecLibG729A Encoding :" << (end - start) << std::endl;

  std::ofstream encoded(filePath(kEncodedPath), std::ios::binary | std::ios::trunc);
  encoded.write(reinterpret_cast<const char*>(encodedBuffer), retsize);
  encoded.close();
  delete codec;
  return true;
}

void CodecBench::testCodecLibG729A(unsigned int loops) {
  if (!init()) return;
  Codec* codec = new CodecLibAdapter();
  AudioFormat format(CT_G729, 1);
  (void)tickCount();
  codec->open(format, false);
  const uint32 start = tickCount();
  uint32 decoded = 0;
  for (unsigned int i = 0; i < loops; i++)
    decoded = codec->decode(encodedBuffer, retsize, reinterpret_cast<int16*>(pcmBuffer), size1);
  const uint32 elapsed = tickCount() - start;
  std::cout << "size2 " << retsize << "  retsize " << decoded << "  size1 " << size1 << std::endl;
  std::cout << "Duration testCodecLibG729A Decoding: " << elapsed << std::endl;
  delete codec;
  std::ofstream out(filePath(kDecodedPath), std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(pcmBuffer), decoded);
  out.close();
}

}  // namespace TAV
