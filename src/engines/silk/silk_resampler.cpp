// Resampling of the decoded frame from the internal rate down to the
// output rate: a second-order AR pre-filter (output Q8) followed by a
// symmetric 12-tap polyphase FIR interpolator.
#include <cstring>

#include "engines/silk/silk_decoder.h"
#include "engines/silk/silk_tables.h"

namespace quillon::silk {

using B = fx::BasicOps;

namespace {

constexpr int kFirTaps = 12;
constexpr int kMaxBatch = 480;

void arFilter(int32_t* state, int32_t* outQ8, const int16_t* in, const int16_t* aQ14, int len) {
  for (int k = 0; k < len; k++) {
    const int32_t y = B::sp_add(state[0], static_cast<int32_t>(in[k]) << 8);
    outQ8[k] = y;
    const int32_t y4 = B::sp_shl(y, 2);
    state[0] = B::sp_smlawb(state[1], y4, aQ14[0]);
    state[1] = B::sp_smulwb(y4, aQ14[1]);
  }
}

inline int16_t firOutput(int32_t accQ6) { return B::sp_sat16(B::sp_rshift_round(accQ6, 6)); }

}  // namespace

int resamplerInit(Resampler& r, int32_t rateIn, int32_t rateOut) {
  std::memset(&r, 0, sizeof(r));
  if (rateIn < 8000 || rateIn > 48000 || rateOut < 8000 || rateOut > 48000) return -1;
  r.batch = rateIn / 100;
  if (rateIn == rateOut) {
    r.mode = 1;
    return 0;
  }
  if (rateOut * 3 == rateIn * 2) {
    r.fracs = 2;
    r.coefs = kDown2of3Coefs;
  } else if (rateOut * 2 == rateIn) {
    r.fracs = 1;
    r.coefs = kDown1of2Coefs;
  } else if (rateOut * 3 == rateIn) {
    r.fracs = 1;
    r.coefs = kDown1of3Coefs;
  } else {
    return -1;  // ratio this engine does not provide
  }
  r.mode = 2;
  // Input samples per output sample in Q16, rounded up.
  r.stepQ16 = ((rateIn << 14) / rateOut) << 2;
  while (B::sp_smulww(r.stepQ16, rateOut) < rateIn) r.stepQ16++;
  return 0;
}

int resamplerRun(Resampler& r, int16_t* out, const int16_t* in, int32_t len) {
  if (r.mode == 1) {
    std::memcpy(out, in, static_cast<size_t>(len) * sizeof(int16_t));
    return 0;
  }
  if (r.mode != 2) return -1;
  int32_t buf[kMaxBatch + kFirTaps];
  std::memcpy(buf, r.fir, sizeof(r.fir));
  const int16_t* fir = &r.coefs[2];
  const int32_t step = r.stepQ16;
  int32_t n;
  for (;;) {
    n = len < r.batch ? len : r.batch;
    arFilter(r.iir, &buf[kFirTaps], in, r.coefs, n);
    const int32_t end = n << 16;
    if (r.fracs == 1) {
      for (int32_t pos = 0; pos < end; pos += step) {
        const int32_t* p = buf + (pos >> 16);
        int32_t acc = B::sp_smulwb(p[0] + p[11], fir[0]);
        acc = B::sp_smlawb(acc, p[1] + p[10], fir[1]);
        acc = B::sp_smlawb(acc, p[2] + p[9], fir[2]);
        acc = B::sp_smlawb(acc, p[3] + p[8], fir[3]);
        acc = B::sp_smlawb(acc, p[4] + p[7], fir[4]);
        acc = B::sp_smlawb(acc, p[5] + p[6], fir[5]);
        *out++ = firOutput(acc);
      }
    } else {
      for (int32_t pos = 0; pos < end; pos += step) {
        const int32_t* p = buf + (pos >> 16);
        const int32_t phase = B::sp_smulwb(pos & 0xffff, r.fracs);
        const int16_t* c = &fir[(kFirTaps / 2) * phase];
        int32_t acc = 0;
        for (int j = 0; j < kFirTaps / 2; j++) acc = B::sp_smlawb(acc, p[j], c[j]);
        c = &fir[(kFirTaps / 2) * (r.fracs - 1 - phase)];
        for (int j = 0; j < kFirTaps / 2; j++) acc = B::sp_smlawb(acc, p[kFirTaps - 1 - j], c[j]);
        *out++ = firOutput(acc);
      }
    }
    in += n;
    len -= n;
    if (len <= 0) break;
    std::memcpy(buf, &buf[n], kFirTaps * sizeof(int32_t));
  }
  std::memcpy(r.fir, &buf[n], kFirTaps * sizeof(int32_t));
  return 0;
}

}  // namespace quillon::silk
