// The per-character decoders, encoders and filters.
#include "charset/charset_tables.h"
#include "quillon/charset.h"

namespace TAV {

namespace {

using quillon::charset::kFilterPages;
using quillon::charset::kIso88592High;
using quillon::charset::kIso88592Latin;
using quillon::charset::kIso88592Modifiers;
using quillon::charset::kIso88596High;

constexpr uint32 kReplacementCharacter = 0xFFFD;

// Low byte of the converter's replacement character.
uint8 replacementByte(const CharsetConverter* conv) {
  return static_cast<uint8>(conv->getReplacementChar() & 0xFF);
}

// Windows-1252 bytes 0x80 to 0x9F.
constexpr uint16 kCp1252Controls[32] = {
    0x20AC, 0xFFFD, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,  //
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0xFFFD, 0x017D, 0xFFFD,  //
    0xFFFD, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,  //
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0xFFFD, 0x017E, 0x0178,
};

// Inverse lookup over [first, first + N): the byte whose code point is
// first + i, 0 where no byte maps there.
template <uint32 N>
struct ReverseRange {
  uint8 bytes[N] = {};
};

template <uint32 N, uint32 M>
constexpr ReverseRange<N> invert(const uint16 (&codes)[M], uint8 firstByte, uint32 firstCode) {
  ReverseRange<N> r;
  for (uint32 i = 0; i < M; i++) {
    uint32 c = codes[i];
    if (c >= firstCode && c < firstCode + N) r.bytes[c - firstCode] = static_cast<uint8>(firstByte + i);
  }
  return r;
}

constexpr ReverseRange<0x198 - 0x150> kCp1252Latin = invert<0x198 - 0x150>(kCp1252Controls, 0x80, 0x150);
constexpr ReverseRange<0x2E0 - 0x2C0> kCp1252Modifiers = invert<0x2E0 - 0x2C0>(kCp1252Controls, 0x80, 0x2C0);
constexpr ReverseRange<0x2040 - 0x2010> kCp1252Punctuation =
    invert<0x2040 - 0x2010>(kCp1252Controls, 0x80, 0x2010);

// Bytes for U+0608 to U+0657. The Arabic letters land on these values,
// which is how ISO-8859-6 text has always been written by this library.
constexpr uint8 kIso88596Arabic[80] = {
    0x40, 0x06, 0x41, 0x06, 0x42, 0x06, 0x43, 0x06, 0x44, 0x06, 0x45, 0x06, 0x46, 0x06, 0x47, 0x06,
    0x48, 0x06, 0x49, 0x06, 0x4a, 0x06, 0x4b, 0x06, 0x4c, 0x06, 0x4d, 0x06, 0x4e, 0x06, 0x4f, 0x06,
    0x50, 0x06, 0x51, 0x06, 0x52, 0x06, 0xfd, 0xff, 0xfd, 0xff, 0xfd, 0xff, 0xfd, 0xff, 0xfd, 0xff,
    0xfd, 0xff, 0xfd, 0xff, 0xfd, 0xff, 0xfd, 0xff, 0xfd, 0xff, 0xfd, 0xff, 0xfd, 0xff, 0xfd, 0xff,
    0xa0, 0x00, 0x00, 0x00, 0xa4, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xad, 0x00, 0x00,
};

// Writes a single byte, or refuses a zero (unmapped) one.
CSReturnCodes putSingle(uint8*& out, uint8 b) {
  if (b == 0) return CS_NOT_REPRESENTABLE;
  *out++ = b;
  return CS_OK;
}

const quillon::charset::CaseTriple* filterRow(uint32 ch) {
  const quillon::charset::CaseTriple* page = kFilterPages[(ch >> 8) & 0xFF];
  return page ? &page[ch & 0xFF] : nullptr;
}

}  // namespace

// ---- decoders ---------------------------------------------------------

CSReturnCodes from_UTF8_t::operator()(const CharsetConverter*, const uint8*& in, uint32& ch,
                                      uint32 avail) const {
  // What the shifted sum of an n-byte sequence carries from its marker bits.
  static constexpr uint32 kOffsets[6] = {0x00000000u, 0x00003080u, 0x000E2080u,
                                         0x03C82080u, 0xFA082080u, 0x82082080u};
  if (avail == 0) return CS_INPUT_INCOMPLETE;
  const uint8 lead = in[0];
  uint32 length;
  if (lead < 0x80) length = 1;
  else if (lead < 0xC0) return CS_INVALID_INPUT;
  else if (lead < 0xE0) length = 2;
  else if (lead < 0xF0) length = 3;
  else if (lead < 0xF8) length = 4;
  else if (lead < 0xFC) length = 5;
  else if (lead < 0xFE) length = 6;
  else return CS_INVALID_INPUT;
  if (avail < length) return CS_INPUT_INCOMPLETE;
  // Continuation bytes are taken as they come (no check, overlong forms
  // and surrogates pass).
  uint32 value = 0;
  for (uint32 i = 0; i < length; i++) value = (value << 6) + in[i];
  ch = value - kOffsets[length - 1];
  in += length;
  return CS_OK;
}

CSReturnCodes from_UCS2_t::operator()(const CharsetConverter*, const uint8*& in, uint32& ch,
                                      uint32 avail) const {
  if (avail < 2) return CS_INPUT_INCOMPLETE;
  ch = static_cast<uint32>(in[1]) << 8 | in[0];
  in += 2;
  return CS_OK;
}

CSReturnCodes from_UCS4_t::operator()(const CharsetConverter*, const uint8*& in, uint32& ch,
                                      uint32 avail) const {
  if (avail < 4) return CS_INPUT_INCOMPLETE;
  ch = static_cast<uint32>(in[0]) << 24 | static_cast<uint32>(in[1]) << 16 |
       static_cast<uint32>(in[2]) << 8 | in[3];
  if (ch > 0x7FFFFFFFu) return CS_INVALID_INPUT;
  in += 4;
  return CS_OK;
}

CSReturnCodes from_ISO88591_t::operator()(const CharsetConverter*, const uint8*& in, uint32& ch,
                                          uint32 avail) const {
  if (avail == 0) return CS_INPUT_INCOMPLETE;
  ch = *in++;
  return CS_OK;
}

// The single-byte table decoders read their byte whatever the allowance.
CSReturnCodes from_ISO88592_t::operator()(const CharsetConverter*, const uint8*& in, uint32& ch,
                                          uint32) const {
  const uint8 b = *in;
  ch = b < 0xA0 ? b : kIso88592High[b - 0xA0];
  in++;
  return CS_OK;
}

CSReturnCodes from_ISO88596_t::operator()(const CharsetConverter*, const uint8*& in, uint32& ch,
                                          uint32) const {
  const uint8 b = *in;
  ch = b < 0xA0 ? b : kIso88596High[b - 0xA0];
  if (ch == kReplacementCharacter) return CS_INVALID_INPUT;
  in++;
  return CS_OK;
}

CSReturnCodes from_CP1252_t::operator()(const CharsetConverter*, const uint8*& in, uint32& ch,
                                        uint32 avail) const {
  if (avail == 0) return CS_INPUT_INCOMPLETE;
  const uint8 b = *in;
  if (b < 0x80 || b > 0x9F) {
    ch = b;
  } else {
    // An undefined byte decodes to U+FFFD once; the refusal comes on the
    // next control-range byte, because the test looks at what `ch` held
    // before this call.
    if (ch == kReplacementCharacter) return CS_INVALID_INPUT;
    ch = kCp1252Controls[b - 0x80];
  }
  in++;
  return CS_OK;
}

CSReturnCodes from_GB2312_t::operator()(const CharsetConverter*, const uint8*&, uint32&, uint32) const {
  return CS_INVALID_INPUT;
}

// ---- encoders ---------------------------------------------------------

CSReturnCodes to_UTF8_t::operator()(const CharsetConverter*, uint8*& out, uint32 ch, uint32 avail) const {
  static constexpr uint8 kMarks[6] = {0x00, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
  if (ch > 0x7FFFFFFFu) return CS_NOT_REPRESENTABLE;
  uint32 length;
  if (ch < 0x80) length = 1;
  else if (ch < 0x800) length = 2;
  else if (ch < 0x10000) length = 3;
  else if (ch < 0x200000) length = 4;
  else if (ch < 0x4000000) length = 5;
  else length = 6;
  if (avail < length) return CS_OUTPUT_FULL;
  for (uint32 i = length - 1; i > 0; i--) {
    out[i] = static_cast<uint8>(0x80 | (ch & 0x3F));
    ch >>= 6;
  }
  out[0] = static_cast<uint8>(kMarks[length - 1] | ch);
  out += length;
  return CS_OK;
}

CSReturnCodes to_UCS2_t::operator()(const CharsetConverter*, uint8*& out, uint32 ch, uint32 avail) const {
  if (avail < 2) return CS_OUTPUT_FULL;
  // 0x10000 itself slips through and comes out as 0x0000.
  if (ch > 0x10000) return CS_NOT_REPRESENTABLE;
  out[0] = static_cast<uint8>(ch);
  out[1] = static_cast<uint8>(ch >> 8);
  out += 2;
  return CS_OK;
}

CSReturnCodes to_UCS4_t::operator()(const CharsetConverter*, uint8*& out, uint32 ch, uint32 avail) const {
  if (avail < 4) return CS_OUTPUT_FULL;
  if (ch > 0x7FFFFFFFu) return CS_NOT_REPRESENTABLE;
  out[0] = static_cast<uint8>(ch >> 24);
  out[1] = static_cast<uint8>(ch >> 16);
  out[2] = static_cast<uint8>(ch >> 8);
  out[3] = static_cast<uint8>(ch);
  out += 4;
  return CS_OK;
}

CSReturnCodes to_ISO88591_t::operator()(const CharsetConverter* conv, uint8*& out, uint32 ch,
                                        uint32 avail) const {
  if (avail < 1) return CS_OUTPUT_FULL;
  *out++ = ch < 0x100 ? static_cast<uint8>(ch) : replacementByte(conv);
  return CS_OK;
}

CSReturnCodes to_ISO88592_t::operator()(const CharsetConverter* conv, uint8*& out, uint32 ch,
                                        uint32 avail) const {
  if (avail < 1) return CS_OUTPUT_FULL;
  if (ch == 0) {
    *out++ = 0;
    return CS_OK;
  }
  uint8 b;
  if (ch < 0xA0) b = static_cast<uint8>(ch);
  else if (ch < 0x180) b = kIso88592Latin[ch - 0xA0];
  else if (ch >= 0x2C0 && ch < 0x2E0) b = kIso88592Modifiers[ch - 0x2C0];
  else b = replacementByte(conv);
  return putSingle(out, b);
}

CSReturnCodes to_ISO88596_t::operator()(const CharsetConverter* conv, uint8*& out, uint32 ch,
                                        uint32 avail) const {
  if (avail < 1) return CS_OUTPUT_FULL;
  if (ch == 0) {
    *out++ = 0;
    return CS_OK;
  }
  uint8 b;
  if (ch < 0xA0) b = static_cast<uint8>(ch);
  else if (ch < 0xB0) b = (ch == 0xA0 || ch == 0xA4 || ch == 0xAD) ? static_cast<uint8>(ch) : 0;
  else if (ch >= 0x608 && ch < 0x658) b = kIso88596Arabic[ch - 0x608];
  else b = replacementByte(conv);
  return putSingle(out, b);
}

CSReturnCodes to_CP1252_t::operator()(const CharsetConverter* conv, uint8*& out, uint32 ch,
                                      uint32 avail) const {
  if (avail < 1) return CS_OUTPUT_FULL;
  if (ch == 0) {
    *out++ = 0;
    return CS_OK;
  }
  uint8 b;
  if (ch < 0x80 || (ch >= 0xA0 && ch < 0x100)) {
    // A plain character is written and then followed by the replacement
    // byte in the same call: two bytes per character. Callers of this set
    // rely on that output, so it stays.
    *out++ = static_cast<uint8>(ch);
    b = replacementByte(conv);
  } else if (ch >= 0x150 && ch < 0x198) {
    b = kCp1252Latin.bytes[ch - 0x150];
  } else if (ch >= 0x2C0 && ch < 0x2E0) {
    b = kCp1252Modifiers.bytes[ch - 0x2C0];
  } else if (ch >= 0x2010 && ch < 0x2040) {
    b = kCp1252Punctuation.bytes[ch - 0x2010];
  } else if (ch == 0x20AC) {
    b = 0x80;
  } else if (ch == 0x2122) {
    b = 0x99;
  } else {
    b = replacementByte(conv);
  }
  return putSingle(out, b);
}

CSReturnCodes to_GB2312_t::operator()(const CharsetConverter*, uint8*&, uint32, uint32) const {
  return CS_NOT_REPRESENTABLE;
}

// ---- filters ----------------------------------------------------------

uint32 toUpper_UCS4_t::operator()(uint32 ch) const {
  const quillon::charset::CaseTriple* row = filterRow(ch);
  return row ? row->upper : ch;
}

uint32 toLower_UCS4_t::operator()(uint32 ch) const {
  const quillon::charset::CaseTriple* row = filterRow(ch);
  return row ? row->lower : ch;
}

uint32 toSortChar_UCS4_t::operator()(uint32 ch) const {
  const quillon::charset::CaseTriple* row = filterRow(ch);
  return row ? row->sortKey : ch;
}

}  // namespace TAV
