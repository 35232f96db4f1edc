// The root search of the LP-to-LSP (G.729) and LP-to-ISP (AMR-WB)
// conversions: the roots of the two Chebyshev polynomials F1 and F2
// alternate on the cosine grid, so the search scans grid intervals for a
// sign change of the current polynomial, narrows each by bisections, places
// the root by linear interpolation and goes on with the other polynomial
// from there.
#ifndef QUILLON_PRIMITIVES_LSP_ROOTS_H
#define QUILLON_PRIMITIVES_LSP_ROOTS_H

#include "primitives/basic_ops.h"

namespace quillon::fx {

// `evaluate(x, second)` gives F1(x) or, with `second`, F2(x); `divide` is
// the codec's div_s. Returns the number of roots written to `roots` (at most
// `maxRoots`, fewer when the grid's `intervals` run out first).
template <class Evaluate, class Divide>
int findAlternatingRoots(BasicOps& op, const Word16* grid, int intervals, int bisections, int maxRoots,
                         Evaluate&& evaluate, Divide&& divide, Word16* roots) {
  int found = 0;
  bool second = false;
  Word16 xlow = grid[0];
  Word16 ylow = evaluate(xlow, second);
  for (int j = 1; found < maxRoots && j <= intervals; j++) {
    Word16 xhigh = xlow, yhigh = ylow;
    xlow = grid[j];
    ylow = evaluate(xlow, second);
    if (op.L_mult(ylow, yhigh) > 0) continue;
    for (int k = 0; k < bisections; k++) {
      const Word16 xmid = op.add(op.shr(xlow, 1), op.shr(xhigh, 1));
      const Word16 ymid = evaluate(xmid, second);
      if (op.L_mult(ylow, ymid) <= 0) {
        yhigh = ymid;
        xhigh = xmid;
      } else {
        ylow = ymid;
        xlow = xmid;
      }
    }
    const Word16 dx = op.sub(xhigh, xlow);
    Word16 dy = op.sub(yhigh, ylow);
    Word16 root = xlow;
    if (dy != 0) {
      const Word16 sign = dy;
      dy = op.abs_s(dy);
      const Word16 e = BasicOps::norm_s(dy);
      dy = op.shl(dy, e);
      dy = divide(Word16{16383}, dy);
      Word32 t = op.L_shr(op.L_mult(dx, dy), op.sub(20, e));
      dy = BasicOps::extract_l(t);
      if (sign < 0) dy = op.negate(dy);
      t = op.L_shr(op.L_mult(ylow, dy), 11);
      root = op.sub(xlow, BasicOps::extract_l(t));
    }
    roots[found++] = root;
    xlow = root;
    second = !second;
    ylow = evaluate(xlow, second);
  }
  return found;
}

}  // namespace quillon::fx

#endif
