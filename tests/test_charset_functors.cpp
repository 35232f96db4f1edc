// The single-character decoders, encoders and filters.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "quillon/charset.h"

using namespace TAV;

namespace {

struct Decoded {
  CSReturnCodes rc;
  uint32 ch;
  size_t used;
};

Decoded decode(const CharsetConverter::FromFunc& f, std::vector<uint8> bytes, uint32 avail,
               uint32 chBefore = 0) {
  bytes.resize(bytes.size() + 8, 0xEE);  // readable slack, never part of a character
  const uint8* p = bytes.data();
  uint32 ch = chBefore;
  CSReturnCodes rc = f(nullptr, p, ch, avail);
  return {rc, ch, static_cast<size_t>(p - bytes.data())};
}

struct Encoded {
  CSReturnCodes rc;
  std::vector<uint8> bytes;
};

Encoded encode(const CharsetConverter::ToFunc& f, uint32 ch, uint32 avail = 8, uint32 replacement = '?') {
  CharsetConverter conv;
  conv.setReplacementChar(replacement);
  uint8 buf[8] = {};
  uint8* p = buf;
  CSReturnCodes rc = f(&conv, p, ch, avail);
  return {rc, std::vector<uint8>(buf, p)};
}

using Bytes = std::vector<uint8>;

}  // namespace

TEST(CharsetFunctors, Utf8DecodeIsLenient) {
  from_UTF8_t f;
  Decoded d = decode(f, {0xC3, 0xA9}, 2);
  EXPECT_EQ(d.rc, CS_OK);
  EXPECT_EQ(d.ch, 0xE9u);
  EXPECT_EQ(d.used, 2u);
  d = decode(f, {0xC0, 0x80}, 2);  // overlong NUL
  EXPECT_EQ(d.rc, CS_OK);
  EXPECT_EQ(d.ch, 0u);
  // Continuation bytes are not checked: 'A' and 'B' are swallowed.
  d = decode(f, {0xE9, 0x41, 0x42}, 3);
  EXPECT_EQ(d.rc, CS_OK);
  EXPECT_EQ(d.used, 3u);
  EXPECT_EQ(d.ch, ((0xE9u << 12) + (0x41u << 6) + 0x42u - 0xE2080u));
  d = decode(f, {0xED, 0xA0, 0x80}, 3);  // a surrogate passes too
  EXPECT_EQ(d.ch, 0xD800u);
  // Six-byte form of the largest value.
  d = decode(f, {0xFD, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF}, 6);
  EXPECT_EQ(d.rc, CS_OK);
  EXPECT_EQ(d.ch, 0x7FFFFFFFu);
}

TEST(CharsetFunctors, Utf8DecodeFailuresDoNotAdvance) {
  from_UTF8_t f;
  for (uint8 lead : {0x80, 0xBF, 0xFE, 0xFF}) {
    Decoded d = decode(f, {lead, 0x80, 0x80}, 3);
    EXPECT_EQ(d.rc, CS_INVALID_INPUT) << int(lead);
    EXPECT_EQ(d.used, 0u);
  }
  EXPECT_EQ(decode(f, {0x41}, 0).rc, CS_INPUT_INCOMPLETE);
  // An invalid lead byte is reported as invalid even when the allowance is short.
  EXPECT_EQ(decode(f, {0x80}, 1).rc, CS_INVALID_INPUT);
  const Bytes leads = {0xC2, 0xE2, 0xF0, 0xF8, 0xFC};
  for (size_t i = 0; i < leads.size(); i++) {
    Decoded d = decode(f, {leads[i], 0x80, 0x80, 0x80, 0x80, 0x80}, static_cast<uint32>(i + 1));
    EXPECT_EQ(d.rc, CS_INPUT_INCOMPLETE) << int(leads[i]);
    EXPECT_EQ(d.used, 0u);
  }
}

TEST(CharsetFunctors, Utf8RoundTripsEveryLength) {
  from_UTF8_t dec;
  to_UTF8_t enc;
  const uint32 values[] = {0,       0x7F,     0x80,      0x7FF,     0x800,     0xFFFF,
                           0x10000, 0x1FFFFF, 0x200000, 0x3FFFFFF, 0x4000000, 0x7FFFFFFF};
  const size_t lengths[] = {1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6};
  for (size_t i = 0; i < 12; i++) {
    Encoded e = encode(enc, values[i]);
    ASSERT_EQ(e.rc, CS_OK);
    EXPECT_EQ(e.bytes.size(), lengths[i]) << std::hex << values[i];
    Decoded d = decode(dec, e.bytes, static_cast<uint32>(e.bytes.size()));
    EXPECT_EQ(d.ch, values[i]);
    EXPECT_EQ(d.used, lengths[i]);
    EXPECT_EQ(encode(enc, values[i], static_cast<uint32>(lengths[i] - 1)).rc, CS_OUTPUT_FULL);
  }
  EXPECT_EQ(encode(enc, 0x20AC).bytes, (Bytes{0xE2, 0x82, 0xAC}));
  EXPECT_EQ(encode(enc, 0xD800).bytes, (Bytes{0xED, 0xA0, 0x80}));
  EXPECT_EQ(encode(enc, 0x80000000u).rc, CS_NOT_REPRESENTABLE);
}

TEST(CharsetFunctors, Ucs2AndUcs4) {
  from_UCS2_t d2;
  to_UCS2_t e2;
  EXPECT_EQ(decode(d2, {0x41, 0x00}, 2).ch, 0x41u);
  EXPECT_EQ(decode(d2, {0xAC, 0x20}, 2).ch, 0x20ACu);
  EXPECT_EQ(decode(d2, {0x41, 0x00}, 1).rc, CS_INPUT_INCOMPLETE);
  EXPECT_EQ(encode(e2, 0x20AC).bytes, (Bytes{0xAC, 0x20}));
  EXPECT_EQ(encode(e2, 0x1F600).rc, CS_NOT_REPRESENTABLE);
  Encoded e = encode(e2, 0x10000);  // slips through as 0x0000
  EXPECT_EQ(e.rc, CS_OK);
  EXPECT_EQ(e.bytes, (Bytes{0x00, 0x00}));
  EXPECT_EQ(encode(e2, 0x1F600, 1).rc, CS_OUTPUT_FULL);  // room is checked first

  from_UCS4_t d4;
  to_UCS4_t e4;
  EXPECT_EQ(decode(d4, {0x00, 0x01, 0xF6, 0x00}, 4).ch, 0x1F600u);
  EXPECT_EQ(decode(d4, {0x00, 0x01, 0xF6, 0x00}, 3).rc, CS_INPUT_INCOMPLETE);
  Decoded d = decode(d4, {0x80, 0x00, 0x00, 0x01}, 4);
  EXPECT_EQ(d.rc, CS_INVALID_INPUT);
  EXPECT_EQ(d.ch, 0x80000001u);  // stored although refused
  EXPECT_EQ(d.used, 0u);
  EXPECT_EQ(encode(e4, 0x1F600).bytes, (Bytes{0x00, 0x01, 0xF6, 0x00}));
  EXPECT_EQ(encode(e4, 0x80000000u).rc, CS_NOT_REPRESENTABLE);
  EXPECT_EQ(encode(e4, 0x80000000u, 3).rc, CS_OUTPUT_FULL);
}

TEST(CharsetFunctors, Latin1) {
  from_ISO88591_t dec;
  to_ISO88591_t enc;
  for (uint32 b = 0; b < 256; b++) {
    Decoded d = decode(dec, {static_cast<uint8>(b)}, 1);
    ASSERT_EQ(d.ch, b);
    ASSERT_EQ(encode(enc, d.ch).bytes, Bytes{static_cast<uint8>(b)});
  }
  EXPECT_EQ(decode(dec, {0x41}, 0).rc, CS_INPUT_INCOMPLETE);
  EXPECT_EQ(encode(enc, 0x20AC).bytes, Bytes{'?'});
  EXPECT_EQ(encode(enc, 0x20AC, 8, 0x12A).bytes, Bytes{0x2A});  // low byte of the replacement
  EXPECT_EQ(encode(enc, 0x20AC, 8, 0).rc, CS_OK);                // never refuses
  EXPECT_EQ(encode(enc, 0x41, 0).rc, CS_OUTPUT_FULL);
}

TEST(CharsetFunctors, Latin2TablesInvertEachOther) {
  from_ISO88592_t dec;
  to_ISO88592_t enc;
  std::vector<bool> reached(0x300, false);
  for (uint32 b = 1; b < 256; b++) {
    Decoded d = decode(dec, {static_cast<uint8>(b)}, 1);
    ASSERT_EQ(d.rc, CS_OK);
    ASSERT_LT(d.ch, 0x300u);
    reached[d.ch] = true;
    Encoded e = encode(enc, d.ch, 1, 0);
    ASSERT_EQ(e.rc, CS_OK) << b;
    ASSERT_EQ(e.bytes, Bytes{static_cast<uint8>(b)}) << b;
  }
  EXPECT_EQ(decode(dec, {0xA1}, 1).ch, 0x104u);  // Ą
  EXPECT_EQ(decode(dec, {0xFF}, 1).ch, 0x2D9u);  // ˙
  EXPECT_EQ(decode(dec, {0xB1}, 0).rc, CS_OK);   // reads its byte whatever the allowance
  // Unreached code points inside the tables have no byte.
  for (uint32 c = 0xA0; c < 0x2E0; c++) {
    if (c == 0x180) c = 0x2C0;
    if (!reached[c]) {
      ASSERT_EQ(encode(enc, c).rc, CS_NOT_REPRESENTABLE) << c;
    }
  }
  EXPECT_EQ(encode(enc, 0).bytes, Bytes{0});
  EXPECT_EQ(encode(enc, 0x20AC).bytes, Bytes{'?'});
  EXPECT_EQ(encode(enc, 0x20AC, 8, 0).rc, CS_NOT_REPRESENTABLE);
  EXPECT_EQ(encode(enc, 0x41, 0).rc, CS_OUTPUT_FULL);
}

TEST(CharsetFunctors, Arabic) {
  from_ISO88596_t dec;
  to_ISO88596_t enc;
  EXPECT_EQ(decode(dec, {0xC7}, 1).ch, 0x627u);  // alef
  EXPECT_EQ(decode(dec, {0xAC}, 1).ch, 0x60Cu);  // Arabic comma
  Decoded d = decode(dec, {0xA1}, 1);
  EXPECT_EQ(d.rc, CS_INVALID_INPUT);
  EXPECT_EQ(d.ch, 0xFFFDu);
  EXPECT_EQ(d.used, 0u);
  // Where the two directions agree: ASCII, controls and the three Latin-1 signs.
  for (uint32 b = 1; b < 0xA0; b++) ASSERT_EQ(encode(enc, decode(dec, {uint8(b)}, 1).ch).bytes, Bytes{uint8(b)});
  for (uint8 b : {0xA0, 0xA4, 0xAD}) EXPECT_EQ(encode(enc, decode(dec, {b}, 1).ch).bytes, Bytes{b});
  EXPECT_EQ(encode(enc, 0xA1).rc, CS_NOT_REPRESENTABLE);
  // The Arabic block is written through the fixed 80-byte sequence.
  EXPECT_EQ(encode(enc, 0x608).bytes, Bytes{0x40});
  EXPECT_EQ(encode(enc, 0x609).bytes, Bytes{0x06});
  EXPECT_EQ(encode(enc, 0x60C).bytes, Bytes{0x42});
  EXPECT_EQ(encode(enc, 0x62E).bytes, Bytes{0xFD});
  EXPECT_EQ(encode(enc, 0x62F).bytes, Bytes{0xFF});
  EXPECT_EQ(encode(enc, 0x648).bytes, Bytes{0xA0});
  EXPECT_EQ(encode(enc, 0x64C).bytes, Bytes{0xA4});
  EXPECT_EQ(encode(enc, 0x655).bytes, Bytes{0xAD});
  EXPECT_EQ(encode(enc, 0x649).rc, CS_NOT_REPRESENTABLE);
  EXPECT_EQ(encode(enc, 0x657).rc, CS_NOT_REPRESENTABLE);
  EXPECT_EQ(encode(enc, 0x658).bytes, Bytes{'?'});
  EXPECT_EQ(encode(enc, 0).bytes, Bytes{0});
  EXPECT_EQ(encode(enc, 0x41, 0).rc, CS_OUTPUT_FULL);
}

TEST(CharsetFunctors, Cp1252Decode) {
  from_CP1252_t f;
  EXPECT_EQ(decode(f, {0x41}, 1).ch, 0x41u);
  EXPECT_EQ(decode(f, {0xE9}, 1).ch, 0xE9u);
  EXPECT_EQ(decode(f, {0x80}, 1).ch, 0x20ACu);
  EXPECT_EQ(decode(f, {0x9F}, 1).ch, 0x178u);
  EXPECT_EQ(decode(f, {0x41}, 0).rc, CS_INPUT_INCOMPLETE);
  // An undefined byte passes as U+FFFD...
  Decoded d = decode(f, {0x81}, 1);
  EXPECT_EQ(d.rc, CS_OK);
  EXPECT_EQ(d.ch, 0xFFFDu);
  // ...and the refusal falls on the next control-range byte, valid or not.
  d = decode(f, {0x80}, 1, 0xFFFD);
  EXPECT_EQ(d.rc, CS_INVALID_INPUT);
  EXPECT_EQ(d.used, 0u);
  EXPECT_EQ(decode(f, {0x41}, 1, 0xFFFD).rc, CS_OK);
}

TEST(CharsetFunctors, Cp1252Encode) {
  from_CP1252_t dec;
  to_CP1252_t enc;
  // Plain characters come out doubled with the replacement byte.
  EXPECT_EQ(encode(enc, 0x41).bytes, (Bytes{0x41, 0x3F}));
  EXPECT_EQ(encode(enc, 0xE9, 1).bytes, (Bytes{0xE9, 0x3F}));  // only one byte of room is checked
  Encoded e = encode(enc, 0x41, 8, 0);
  EXPECT_EQ(e.rc, CS_NOT_REPRESENTABLE);
  EXPECT_EQ(e.bytes, Bytes{0x41});
  EXPECT_EQ(encode(enc, 0).bytes, Bytes{0});
  EXPECT_EQ(encode(enc, 0x20AC).bytes, Bytes{0x80});
  EXPECT_EQ(encode(enc, 0x2122).bytes, Bytes{0x99});
  EXPECT_EQ(encode(enc, 0x100).bytes, Bytes{0x3F});
  EXPECT_EQ(encode(enc, 0x85).bytes, Bytes{0x3F});
  EXPECT_EQ(encode(enc, 0x151).rc, CS_NOT_REPRESENTABLE);
  EXPECT_EQ(encode(enc, 0x2C7).rc, CS_NOT_REPRESENTABLE);
  EXPECT_EQ(encode(enc, 0x203F).rc, CS_NOT_REPRESENTABLE);
  EXPECT_EQ(encode(enc, 0x41, 0).rc, CS_OUTPUT_FULL);
  // Every defined control-range byte comes back as itself, alone.
  int defined = 0;
  for (uint32 b = 0x80; b < 0xA0; b++) {
    Decoded d = decode(dec, {uint8(b)}, 1);
    if (d.ch == 0xFFFD) continue;
    defined++;
    ASSERT_EQ(encode(enc, d.ch).bytes, Bytes{uint8(b)}) << b;
  }
  EXPECT_EQ(defined, 27);
}

TEST(CharsetFunctors, Gb2312IsRefused) {
  EXPECT_EQ(decode(from_GB2312_t(), {0xB0, 0xA1}, 2).rc, CS_INVALID_INPUT);
  EXPECT_EQ(encode(to_GB2312_t(), 0x41).rc, CS_NOT_REPRESENTABLE);
}

TEST(CharsetFilters, FixedRows) {
  toUpper_UCS4_t up;
  toLower_UCS4_t low;
  toSortChar_UCS4_t sort;
  struct Row {
    uint32 ch, upper, lower, sortKey;
  };
  const Row rows[] = {{'A', 0x41, 0x61, 0x41},   {'a', 0x41, 0x61, 0x41},   {0xC0, 0xC0, 0xE0, 0x41},
                      {0xE0, 0xC0, 0xE0, 0x41},  {0xC9, 0xC9, 0xE9, 0x45},  {0xDF, 0xDF, 0xDF, 0xDF},
                      {0xFF, 0x178, 0xFF, 0x59}, {'0', 0x30, 0x30, 0x30},   {0x3AC, 0x386, 0x3AC, 0x391},
                      {0x439, 0x419, 0x439, 0x418}, {0x1E9E, 0x1E9E, 0xDF, 0x1E9E}, {0xFF41, 0xFF21, 0xFF41, 0x41},
                      {0x2170, 0x2160, 0x2170, 0x2160}, {0x24D0, 0x24B6, 0x24D0, 0x24B6}, {0x1F00, 0x1F08, 0x1F00, 0x391}};
  for (const Row& r : rows) {
    EXPECT_EQ(up(r.ch), r.upper) << std::hex << r.ch;
    EXPECT_EQ(low(r.ch), r.lower) << std::hex << r.ch;
    EXPECT_EQ(sort(r.ch), r.sortKey) << std::hex << r.ch;
  }
  EXPECT_EQ(up(0x10061), 0x41u);  // bits above 15 are dropped where a page exists
  EXPECT_EQ(up(0x0627), 0x0627u);  // no page: unchanged
  EXPECT_EQ(low(0x10627), 0x10627u);
  EXPECT_EQ(sort(0x2C00), 0x2C00u);
}

TEST(CharsetFilters, SortKeysIgnoreCaseAndAccents) {
  toSortChar_UCS4_t sort;
  const char* bases = "AAAAAACEEEEIIII";  // U+00C0 to U+00CF minus Æ
  for (uint32 c = 0xC0; c <= 0xCF; c++) {
    if (c == 0xC6) continue;
    EXPECT_EQ(sort(c), sort(c + 0x20)) << std::hex << c;
  }
  for (uint32 i = 0; i < 15; i++) {
    const uint32 c = 0xC0 + i + (i >= 6 ? 1 : 0);
    EXPECT_EQ(sort(c), static_cast<uint32>(bases[i])) << std::hex << c;
  }
  for (uint32 c = 'a'; c <= 'z'; c++) EXPECT_EQ(sort(c), c - 0x20);
  EXPECT_EQ(sort(0x17E), 'Z');  // ž
  EXPECT_EQ(sort(0x1EA0), 'A');  // Ạ
}

// The pages must agree with the simple case mappings of the Unicode
// database whenever it is installed (Debian package unicode-data).
TEST(CharsetFilters, PagesMatchUnicodeData) {
  std::ifstream f("/usr/share/unicode/UnicodeData.txt");
  if (!f) GTEST_SKIP() << "/usr/share/unicode/UnicodeData.txt not installed";
  toUpper_UCS4_t up;
  toLower_UCS4_t low;
  const uint32 pages[] = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x1E, 0x1F, 0x21, 0x24, 0xFF};
  std::vector<bool> inPage(256, false);
  for (uint32 p : pages) inPage[p] = true;
  std::string line;
  int checked = 0;
  while (std::getline(f, line)) {
    std::vector<std::string> fields;
    std::stringstream ss(line);
    for (std::string field; std::getline(ss, field, ';');) fields.push_back(field);
    const uint32 cp = static_cast<uint32>(std::stoul(fields[0], nullptr, 16));
    if (cp > 0xFFFF || !inPage[cp >> 8]) continue;
    const uint32 u = fields.size() > 12 && !fields[12].empty() ? std::stoul(fields[12], nullptr, 16) : cp;
    const uint32 l = fields.size() > 13 && !fields[13].empty() ? std::stoul(fields[13], nullptr, 16) : cp;
    ASSERT_EQ(up(cp), u) << std::hex << cp;
    ASSERT_EQ(low(cp), l) << std::hex << cp;
    checked++;
  }
  EXPECT_GT(checked, 1500);
}
