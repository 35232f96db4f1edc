#include "quillon/resampler.h"

namespace TAV {

IResampler::~IResampler() = default;
IResamplerFactory::~IResamplerFactory() = default;

namespace {
DefaultResamplerFactory g_defaultFactory;
}

std::atomic<IResamplerFactory*> IResamplerFactory::s_DefaultFactory{&g_defaultFactory};

uint32 DefaultResampler16to8::getOutputCount(uint32 count) { return count >> 1; }

// Each output sample is the mean of one input pair (truncated towards zero).
// An odd input count reads the sample just past the end for its last pair.
uint32 DefaultResampler16to8::resample(const int16* in, uint32 inBytes, int16* out, uint32& outBytes) {
  const uint32 n = inBytes / 2;
  const uint32 room = outBytes / 2;
  uint32 written = 0;
  for (uint32 i = 0; i < n && written < room; i += 2)
    out[written++] = static_cast<int16>((static_cast<int32>(in[i]) + in[i + 1]) / 2);
  outBytes = written * 2;
  return 0;
}

IResampler* DefaultResamplerFactory::createResampler(uint32 inRate, uint32 outRate) {
  return inRate == 16000 && outRate == 8000 ? &m_resampler : nullptr;
}

void DefaultResamplerFactory::releaseResampler(IResampler*) {}

}  // namespace TAV
