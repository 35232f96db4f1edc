// The G.729 Annex A filters take plain-arithmetic shortcuts where a bound
// proves them exact. These tests hold them against the plain operator
// sequence on random data, including magnitudes that force saturation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "engines/g729/dsp.h"
#include "engines/g729/tables.h"

namespace {

using quillon::fx::BasicOps;
using quillon::fx::Word16;
using quillon::fx::Word32;

struct DspProbe : quillon::g729a::Dsp {
  using Dsp::lspToAz;
  using Dsp::predictLongTerm;
  using Dsp::residual;
  using Dsp::synthesis;
};

// ---- The operator sequences, written out directly -----------------------------

void refSynthesis(BasicOps& o, const Word16* a, const Word16* x, Word16* y, int lg, Word16* mem, bool update) {
  Word16 buf[10 + 80];
  for (int i = 0; i < 10; i++) buf[i] = mem[i];
  for (int n = 0; n < lg; n++) {
    Word32 s = o.L_mult(x[n], a[0]);
    for (int j = 1; j <= 10; j++) s = o.L_msu(s, a[j], buf[10 + n - j]);
    buf[10 + n] = o.round(o.L_shl(s, 3));
  }
  for (int n = 0; n < lg; n++) y[n] = buf[10 + n];
  if (update)
    for (int i = 0; i < 10; i++) mem[i] = y[lg - 10 + i];
}

void refResidual(BasicOps& o, const Word16* a, const Word16* x, Word16* y, int lg) {
  for (int n = 0; n < lg; n++) {
    Word32 s = o.L_mult(x[n], a[0]);
    for (int j = 1; j <= 10; j++) s = o.L_mac(s, a[j], x[n - j]);
    y[n] = o.round(o.L_shl(s, 3));
  }
}

void refPredict(BasicOps& o, Word16* exc, int t0, int frac, int n) {
  Word16* x0 = exc - t0;
  frac = -frac;
  if (frac < 0) {
    frac += 3;
    x0--;
  }
  for (int j = 0; j < n; j++) {
    Word16* x1 = x0++;
    Word16* x2 = x0;
    const Word16* c1 = &quillon::g729a::tab::kInterp3[frac];
    const Word16* c2 = &quillon::g729a::tab::kInterp3[3 - frac];
    Word32 s = 0;
    for (int i = 0, k = 0; i < 10; i++, k += 3) {
      s = o.L_mac(s, x1[-i], c1[k]);
      s = o.L_mac(s, x2[i], c2[k]);
    }
    exc[j] = o.round(s);
  }
}

void refLspToAz(BasicOps& o, const Word16* lsp, Word16* a) {
  auto poly = [&](const Word16* l, Word32* f) {
    f[0] = o.L_mult(4096, 2048);
    f[1] = o.L_msu(0, l[0], 512);
    for (int i = 2; i <= 5; i++) {
      const Word16 q = l[2 * (i - 1)];
      f[i] = f[i - 2];
      for (int j = i; j > 1; j--) {
        Word16 hi, lo;
        o.L_Extract(f[j - 1], hi, lo);
        Word32 t0 = o.L_shl(o.Mpy_32_16(hi, lo, q), 1);
        f[j] = o.L_add(f[j], f[j - 2]);
        f[j] = o.L_sub(f[j], t0);
      }
      f[1] = o.L_msu(f[1], q, 512);
    }
  };
  Word32 f1[6], f2[6];
  poly(lsp, f1);
  poly(lsp + 1, f2);
  for (int i = 5; i > 0; i--) {
    f1[i] = o.L_add(f1[i], f1[i - 1]);
    f2[i] = o.L_sub(f2[i], f2[i - 1]);
  }
  a[0] = 4096;
  for (int i = 1, j = 10; i <= 5; i++, j--) {
    a[i] = BasicOps::extract_l(o.L_shr_r(o.L_add(f1[i], f2[i]), 13));
    a[j] = BasicOps::extract_l(o.L_shr_r(o.L_sub(f1[i], f2[i]), 13));
  }
}

// ---- Random data of varying scale ---------------------------------------------

class Source {
 public:
  // A value of up to `bits` significant bits, either sign; now and then an
  // extreme.
  Word16 next(int bits) {
    const uint32_t r = m_rng();
    if ((r & 63) == 0) return (r & 64) ? 32767 : -32768;
    const int32_t v = static_cast<int32_t>(m_rng() % (2u << bits)) - (1 << bits);
    return static_cast<Word16>(std::clamp(v, -32768, 32767));
  }
  int bits() { return 4 + static_cast<int>(m_rng() % 12); }
  uint32_t raw() { return m_rng(); }

 private:
  std::mt19937 m_rng{20240611};
};

TEST(G729ADsp, SynthesisMatchesTheOperatorSequence) {
  Source src;
  int saturated = 0;
  for (int trial = 0; trial < 3000; trial++) {
    Word16 a[11], x[40], mem1[10], mem2[10], y1[40], y2[40];
    a[0] = 4096;
    const int ab = src.bits(), xb = src.bits(), mb = src.bits();
    for (int j = 1; j <= 10; j++) a[j] = src.next(ab);
    for (auto& v : x) v = src.next(xb);
    for (int i = 0; i < 10; i++) mem1[i] = mem2[i] = src.next(mb);
    const int lg = trial % 3 == 0 ? 22 : 40;
    const bool update = trial % 2 == 0;
    DspProbe fast;
    BasicOps ref;
    fast.synthesis(a, x, y1, lg, mem1, update);
    refSynthesis(ref, a, x, y2, lg, mem2, update);
    ASSERT_EQ(std::vector<Word16>(y1, y1 + lg), std::vector<Word16>(y2, y2 + lg)) << trial;
    ASSERT_EQ(std::vector<Word16>(mem1, mem1 + 10), std::vector<Word16>(mem2, mem2 + 10)) << trial;
    ASSERT_EQ(fast.Overflow, ref.Overflow) << trial;
    saturated += ref.Overflow;
  }
  EXPECT_GT(saturated, 100);  // both paths were exercised
}

TEST(G729ADsp, SynthesisInPlaceWithMemoryInsideTheOutput) {
  // The tilt and impulse-response filters run with x == y and mem inside y.
  Source src;
  for (int trial = 0; trial < 500; trial++) {
    Word16 a[11], h1[22] = {}, h2[22] = {};
    a[0] = 4096;
    const int ab = src.bits();
    for (int j = 1; j <= 10; j++) a[j] = src.next(ab);
    for (int i = 0; i < 11; i++) h1[i] = h2[i] = src.next(12);
    DspProbe fast;
    BasicOps ref;
    fast.synthesis(a, h1, h1, 22, h1 + 11, false);
    Word16 mem[10];
    for (int i = 0; i < 10; i++) mem[i] = h2[11 + i];
    refSynthesis(ref, a, h2, h2, 22, mem, false);
    ASSERT_EQ(std::vector<Word16>(h1, h1 + 22), std::vector<Word16>(h2, h2 + 22)) << trial;
  }
}

TEST(G729ADsp, ResidualMatchesTheOperatorSequence) {
  Source src;
  for (int trial = 0; trial < 3000; trial++) {
    Word16 a[11], xbuf[50], y1[40], y2[40];
    a[0] = 4096;
    const int ab = src.bits(), xb = src.bits();
    for (int j = 1; j <= 10; j++) a[j] = src.next(ab);
    for (auto& v : xbuf) v = src.next(xb);
    DspProbe fast;
    BasicOps ref;
    fast.residual(a, xbuf + 10, y1, 40);
    refResidual(ref, a, xbuf + 10, y2, 40);
    ASSERT_EQ(std::vector<Word16>(y1, y1 + 40), std::vector<Word16>(y2, y2 + 40)) << trial;
  }
}

TEST(G729ADsp, AdaptiveCodebookMatchesTheOperatorSequence) {
  Source src;
  for (int trial = 0; trial < 3000; trial++) {
    Word16 e1[154 + 40], e2[154 + 40];
    const int b = src.bits();
    for (int i = 0; i < 154 + 40; i++) e1[i] = e2[i] = src.next(b);
    const int t0 = 20 + static_cast<int>(src.raw() % 124);
    const int frac = static_cast<int>(src.raw() % 3) - 1;
    DspProbe fast;
    BasicOps ref;
    fast.predictLongTerm(e1 + 154, t0, frac, 40);
    refPredict(ref, e2 + 154, t0, frac, 40);
    ASSERT_EQ(std::vector<Word16>(e1, e1 + 194), std::vector<Word16>(e2, e2 + 194)) << trial;
  }
}

TEST(G729ADsp, LspToAzMatchesTheOperatorSequence) {
  Source src;
  for (int trial = 0; trial < 3000; trial++) {
    Word16 lsp[10], a1[11], a2[11];
    // Ordinary decreasing LSPs most of the time, arbitrary ones otherwise.
    if (trial % 2 == 0) {
      for (int i = 0; i < 10; i++) lsp[i] = static_cast<Word16>(32000 - 6400 * i + static_cast<int>(src.raw() % 2000));
    } else {
      for (auto& v : lsp) v = src.next(15);
    }
    DspProbe fast;
    BasicOps ref;
    fast.lspToAz(lsp, a1);
    refLspToAz(ref, lsp, a2);
    ASSERT_EQ(std::vector<Word16>(a1, a1 + 11), std::vector<Word16>(a2, a2 + 11)) << trial;
  }
}

}  // namespace
