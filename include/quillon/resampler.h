// Sample-rate conversion between the two sides of a transcoder.
#ifndef QUILLON_RESAMPLER_H
#define QUILLON_RESAMPLER_H

#include <atomic>

#include "quillon/platform.h"

namespace TAV {

class QUILLON_API IResampler {
 public:
  virtual ~IResampler();
  // Output units (samples or bytes) that `count` input units yield.
  virtual uint32 getOutputCount(uint32 count) = 0;
  // Converts inBytes bytes of 16-bit PCM. outBytes: capacity of `out` in
  // bytes on entry, bytes written on return.
  virtual uint32 resample(const int16* in, uint32 inBytes, int16* out, uint32& outBytes) = 0;
};

class QUILLON_API IResamplerFactory {
 public:
  virtual ~IResamplerFactory();
  // A resampler for the pair, or null when the pair is not served.
  virtual IResampler* createResampler(uint32 inRate, uint32 outRate) = 0;
  virtual void releaseResampler(IResampler* resampler) = 0;

  // The factory every transcoder takes its resampler from; points at the
  // library's own 16 kHz -> 8 kHz factory until the host replaces it.
  // Atomic, so that a host may replace it while decoders on other threads
  // read it; plain assignment and reading work as for a pointer.
  static std::atomic<IResamplerFactory*> s_DefaultFactory;
};

// Halves 16 kHz to 8 kHz by averaging each pair of samples; stateless.
class QUILLON_API DefaultResampler16to8 : public IResampler {
 public:
  uint32 getOutputCount(uint32 count) override;
  uint32 resample(const int16* in, uint32 inBytes, int16* out, uint32& outBytes) override;
};

// Serves exactly the 16000 -> 8000 Hz pair, always with the same instance.
class QUILLON_API DefaultResamplerFactory : public IResamplerFactory {
 public:
  IResampler* createResampler(uint32 inRate, uint32 outRate) override;
  void releaseResampler(IResampler* resampler) override;

 private:
  DefaultResampler16to8 m_resampler;
};

}  // namespace TAV

#endif
