// CharsetConverter: registry, convert, compare and the measuring helpers;
// and the whole-text conversion behind `quillon text`.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "text_conversion.h"
#include "quillon/charset.h"

using namespace TAV;

namespace {

using Bytes = std::vector<uint8>;

Bytes bytesOf(const char* s) { return Bytes(s, s + std::char_traits<char>::length(s)); }

const uint8* u8(const char* s) { return reinterpret_cast<const uint8*>(s); }

}  // namespace

TEST(CharsetConverter, NamesAndRegistry) {
  EXPECT_EQ(CharsetConverter::getCharsetByName("utf-8"), CharsetUTF8);
  EXPECT_EQ(CharsetConverter::getCharsetByName("Latin1"), CharsetISO88591);
  EXPECT_EQ(CharsetConverter::getCharsetByName("iso 8859-2"), CharsetISO88592);
  EXPECT_EQ(CharsetConverter::getCharsetByName("Iso8859-6"), CharsetISO88596);
  EXPECT_EQ(CharsetConverter::getCharsetByName("ucs-2"), CharsetUCS2);
  EXPECT_EQ(CharsetConverter::getCharsetByName("gb2312"), CharsetGB2312);
  EXPECT_EQ(CharsetConverter::getCharsetByName("CP1252"), CharsetUnknown);
  EXPECT_EQ(CharsetConverter::getCharsetByName("UTF-8 "), CharsetUnknown);
  EXPECT_EQ(CharsetConverter::getCharsetByName("UTF-"), CharsetUnknown);
  EXPECT_EQ(CharsetConverter::getCharsetByName(nullptr), CharsetUnknown);
  EXPECT_STREQ(CharsetConverter::s_OfferedCharsets, "ISO-8859-1,ISO-8859-2,UTF-8,UCS-2,UCS-4");

  EXPECT_EQ(CharsetConverter::getInputCharsetFunction(CharsetGB2312), nullptr);
  EXPECT_EQ(CharsetConverter::getOutputCharsetFunction(static_cast<Charset>(9)), nullptr);
  EXPECT_NE(CharsetConverter::getInputCharsetFunction(CharsetCP1252), nullptr);
  EXPECT_EQ(CharsetConverter::getFilterFunction(FilterNone), nullptr);
  EXPECT_EQ(CharsetConverter::getFilterFunction(static_cast<CharsetFilterMode>(4)), nullptr);
  // One shared instance per functor.
  EXPECT_EQ(CharsetConverter::getInputCharsetFunction(CharsetUTF8),
            CharsetConverter::getInputCharsetFunction(CharsetUTF8));
}

TEST(CharsetConverter, OpenResults) {
  CharsetConverter c;
  EXPECT_TRUE(c.open(CharsetUTF8, CharsetISO88591, '?', FilterNone));
  EXPECT_TRUE(c.open("UTF-8", "latin2", '?', FilterToSortChar));
  EXPECT_FALSE(c.open("gb2312", "UTF-8", '?', FilterNone));
  EXPECT_FALSE(c.open("UTF-8", "GB2312", '?', FilterNone));
  EXPECT_FALSE(c.open("nonsense", "nonsense", '?', FilterNone));
  EXPECT_FALSE(c.open(CharsetUTF8, static_cast<Charset>(9), '?', FilterNone));
  EXPECT_FALSE(c.open(CharsetUTF8, CharsetUCS2, '?', static_cast<CharsetFilterMode>(4)));
  EXPECT_TRUE(c.open(CharsetCP1252, CharsetCP1252, '?', FilterToLower));

  from_UTF8_t from;
  to_UCS2_t to;
  EXPECT_TRUE(c.open(nullptr, nullptr, '?', nullptr));  // plain copy
  EXPECT_TRUE(c.open(&from, &to, '?', nullptr));
  EXPECT_FALSE(c.open(&from, nullptr, '?', nullptr));
  EXPECT_FALSE(c.open(nullptr, &to, '?', nullptr));
}

TEST(CharsetConverter, SameSetCopiesBytes) {
  CharsetConverter c;
  ASSERT_TRUE(c.open(CharsetUTF8, CharsetUTF8, '?', FilterNone));
  const Bytes in = {0x61, 0xFF, 0x80, 0x62, 0x63};  // not even valid UTF-8
  uint8 out[8] = {};
  uint32 inPos = 1, outPos = 0;
  EXPECT_EQ(c.convert(in.data(), inPos, 5, out, outPos, 3), CS_OK);
  EXPECT_EQ(inPos, 4u);  // limited by the output room
  EXPECT_EQ(outPos, 3u);
  EXPECT_EQ(Bytes(out, out + 3), (Bytes{0xFF, 0x80, 0x62}));
  // A null output still moves both positions.
  inPos = 0, outPos = 0;
  EXPECT_EQ(c.convert(in.data(), inPos, 5, nullptr, outPos, 100), CS_OK);
  EXPECT_EQ(inPos, 5u);
  EXPECT_EQ(outPos, 5u);
  // No room on either side: nothing happens.
  inPos = 5, outPos = 0;
  EXPECT_EQ(c.convert(in.data(), inPos, 5, out, outPos, 8), CS_OK);
  EXPECT_EQ(outPos, 0u);
  inPos = 0, outPos = 8;
  EXPECT_EQ(c.convert(in.data(), inPos, 5, out, outPos, 8), CS_OK);
  EXPECT_EQ(inPos, 0u);

  // With a filter the same pair decodes and encodes.
  ASSERT_TRUE(c.open(CharsetUTF8, CharsetUTF8, '?', FilterToUpper));
  const char* text = "a\xC3\xA9z";
  uint8 up[8] = {};
  inPos = 0, outPos = 0;
  EXPECT_EQ(c.convert(u8(text), inPos, 4, up, outPos, 8), CS_OK);
  EXPECT_EQ(Bytes(up, up + outPos), bytesOf("A\xC3\x89Z"));
}

TEST(CharsetConverter, ConvertReplacesAndFailsAtCharacterBoundaries) {
  CharsetConverter c;
  ASSERT_TRUE(c.open("UTF-8", "ISO-8859-1", '?', FilterNone));
  const char* text = "a\xE2\x82\xAC" "b";
  uint8 out[8] = {};
  uint32 inPos = 0, outPos = 0;
  EXPECT_EQ(c.convert(u8(text), inPos, 5, out, outPos, 8), CS_OK);
  EXPECT_EQ(Bytes(out, out + outPos), (Bytes{0x61, 0x3F, 0x62}));
  EXPECT_EQ(inPos, 5u);

  // Invalid input: the bad byte is not consumed, what came before is written.
  const Bytes bad = {0x61, 0x62, 0x80, 0x63};
  inPos = 0, outPos = 0;
  EXPECT_EQ(c.convert(bad.data(), inPos, 4, out, outPos, 8), CS_INVALID_INPUT);
  EXPECT_EQ(inPos, 2u);
  EXPECT_EQ(outPos, 2u);
  // First character already invalid.
  inPos = 2, outPos = 0;
  EXPECT_EQ(c.convert(bad.data(), inPos, 4, out, outPos, 8), CS_INVALID_INPUT);
  EXPECT_EQ(inPos, 2u);
  EXPECT_EQ(outPos, 0u);

  // Not representable: replacement 0 makes ISO-8859-2 refuse.
  ASSERT_TRUE(c.open("UTF-8", "ISO-8859-2", 0, FilterNone));
  inPos = 0, outPos = 0;
  EXPECT_EQ(c.convert(u8(text), inPos, 5, out, outPos, 8), CS_NOT_REPRESENTABLE);
  EXPECT_EQ(inPos, 1u);
  EXPECT_EQ(outPos, 1u);

  // Incomplete at the start of the input.
  ASSERT_TRUE(c.open("UTF-8", "UCS-2", '?', FilterNone));
  inPos = 0, outPos = 0;
  EXPECT_EQ(c.convert(u8("\xE2\x82"), inPos, 2, out, outPos, 8), CS_INPUT_INCOMPLETE);
  EXPECT_EQ(inPos, 0u);
}

TEST(CharsetConverter, OutputFullResumes) {
  CharsetConverter c;
  ASSERT_TRUE(c.open("ISO-8859-1", "UTF-8", '?', FilterNone));
  const Bytes in = {0x61, 0xE9, 0x62};
  uint8 out[8] = {};
  uint32 inPos = 0, outPos = 0;
  EXPECT_EQ(c.convert(in.data(), inPos, 3, out, outPos, 2), CS_OUTPUT_FULL);
  EXPECT_EQ(inPos, 1u);  // at the start of é
  EXPECT_EQ(outPos, 1u);

  ASSERT_TRUE(c.open("UTF-8", "UTF-8", '?', FilterToLower));
  const char* euro = "\xE2\x82\xAC";
  inPos = 0, outPos = 0;
  EXPECT_EQ(c.convert(u8(euro), inPos, 3, out, outPos, 2), CS_OUTPUT_FULL);
  EXPECT_EQ(inPos, 0u);
  EXPECT_EQ(outPos, 0u);
  EXPECT_EQ(c.convert(u8(euro), inPos, 3, out, outPos, 3), CS_OK);
  EXPECT_EQ(inPos, 3u);
  EXPECT_EQ(outPos, 3u);
}

TEST(CharsetConverter, AllowancesCountFromBufferStart) {
  CharsetConverter c;
  ASSERT_TRUE(c.open("UTF-8", "UCS-2", '?', FilterNone));
  // The output allowance reaching exactly 0 ends the call with input left.
  uint8 out[16] = {};
  uint32 inPos = 0, outPos = 0;
  EXPECT_EQ(c.convert(u8("abc"), inPos, 3, out, outPos, 4), CS_OK);
  EXPECT_EQ(inPos, 2u);
  EXPECT_EQ(outPos, 4u);
  // The encoder is granted outLen, not outLen - outPos: starting at 2 with
  // outLen 4 it writes two characters, up to byte 6.
  inPos = 0, outPos = 2;
  EXPECT_EQ(c.convert(u8("abc"), inPos, 3, out, outPos, 4), CS_OK);
  EXPECT_EQ(outPos, 6u);
  EXPECT_EQ(inPos, 2u);
  // The decoder likewise gets inLen: a sequence cut at inLen is completed
  // from the bytes beyond it.
  const char* padded = "a\xE2\x82\xAC";
  inPos = 0, outPos = 0;
  EXPECT_EQ(c.convert(u8(padded), inPos, 3, out, outPos, 16), CS_OK);
  EXPECT_EQ(inPos, 4u);
  EXPECT_EQ(Bytes(out, out + outPos), (Bytes{0x61, 0x00, 0xAC, 0x20}));
}

TEST(CharsetConverter, Cp1252ThroughConvert) {
  CharsetConverter c;
  ASSERT_TRUE(c.open(CharsetISO88591, CharsetCP1252, '?', FilterNone));
  uint8 out[16] = {};
  uint32 inPos = 0, outPos = 0;
  EXPECT_EQ(c.convert(u8("ab"), inPos, 2, out, outPos, 16), CS_OK);
  EXPECT_EQ(Bytes(out, out + outPos), (Bytes{0x61, 0x3F, 0x62, 0x3F}));

  // Decoding: an undefined byte passes once, the next control byte stops.
  ASSERT_TRUE(c.open(CharsetCP1252, CharsetUCS2, '?', FilterNone));
  const Bytes in = {0x80, 0x81, 0x41, 0x82, 0x9F};
  inPos = 0, outPos = 0;
  EXPECT_EQ(c.convert(in.data(), inPos, 5, out, outPos, 16), CS_OK);  // 'A' cleared the U+FFFD
  EXPECT_EQ(Bytes(out, out + outPos), (Bytes{0xAC, 0x20, 0xFD, 0xFF, 0x41, 0x00, 0x1A, 0x20, 0x78, 0x01}));
  const Bytes in2 = {0x81, 0x9F};
  inPos = 0, outPos = 0;
  EXPECT_EQ(c.convert(in2.data(), inPos, 2, out, outPos, 16), CS_INVALID_INPUT);
  EXPECT_EQ(inPos, 1u);
  EXPECT_EQ(outPos, 2u);
}

TEST(CharsetConverter, Compare) {
  CharsetConverter c;
  auto cmp = [&](const char* a, const char* b, CharsetFilterMode mode = FilterNone) {
    return c.compare(u8(a), 0, static_cast<uint32>(strlen(a)), CharsetUTF8, u8(b), 0,
                     static_cast<uint32>(strlen(b)), CharsetUTF8, mode);
  };
  EXPECT_EQ(cmp("abc", "abd"), -1);
  EXPECT_EQ(cmp("ab", "abc"), -1);
  EXPECT_EQ(cmp("abc", "ab"), 1);
  EXPECT_EQ(cmp("abc", "abc"), 0);
  EXPECT_EQ(cmp("", ""), 0);
  EXPECT_EQ(cmp("a", "c"), -2);  // the difference itself, not its sign
  EXPECT_EQ(cmp("\xE2\x82\xAC", "a"), 0x20AC - 0x61);
  EXPECT_NE(cmp("abc", "ABC"), 0);
  EXPECT_EQ(cmp("abc", "ABC", FilterToUpper), 0);
  EXPECT_EQ(cmp("\xC3\xA9t\xC3\xA9", "ETE", FilterToSortChar), 0);
  EXPECT_LT(cmp("\xC3\xA9", "f", FilterToSortChar), 0);
  // An undecodable byte counts as 0 on its side.
  EXPECT_EQ(cmp("a\x80", "ab"), -'b');

  // Different sets and start positions; the named overload.
  const Bytes ucs2 = {0x00, 0x00, 0x41, 0x00, 0xE9, 0x00};
  EXPECT_EQ(c.compare(u8("xA\xC3\xA9"), 1, 4, CharsetUTF8, ucs2.data(), 2, 6, CharsetUCS2, FilterNone), 0);
  EXPECT_EQ(c.compare(u8("A\xE9"), 0, 2, "latin1", ucs2.data(), 2, 6, "UCS-2", FilterNone), 0);
  EXPECT_GT(c.compare(u8("A\xEA"), 0, 2, "latin1", ucs2.data(), 2, 6, "UCS-2", FilterNone), 0);
}

TEST(CharsetConverter, ByteByByteLeavesOutTheLastCharacter) {
  CharsetConverter c;
  ASSERT_TRUE(c.open("UTF-8", "UCS-2", '?', FilterNone));
  uint32 outBytes = 0;
  EXPECT_EQ(c.getByteByByte(3, u8("abc"), 3, outBytes), static_cast<uint32>(CS_OK));
  EXPECT_EQ(outBytes, 4u);
  EXPECT_EQ(c.getByteByByte(3, u8("abc"), 3, outBytes), static_cast<uint32>(CS_OK));
  EXPECT_EQ(outBytes, 8u);  // added to, not reset
  EXPECT_EQ(c.getByteByByte(0, u8("abc"), 3, outBytes), static_cast<uint32>(CS_OK));
  EXPECT_EQ(outBytes, 8u);
  outBytes = 0;
  EXPECT_EQ(c.getByteByByte(1, u8("abc"), 3, outBytes), static_cast<uint32>(CS_OK));
  EXPECT_EQ(outBytes, 0u);
  outBytes = 0;
  EXPECT_EQ(c.getByteByByte(2, u8("a\x80" "c"), 3, outBytes), static_cast<uint32>(CS_INVALID_INPUT));
  EXPECT_EQ(outBytes, 2u);

  ASSERT_TRUE(c.open("ISO-8859-1", "UTF-8", '?', FilterNone));
  outBytes = 0;
  EXPECT_EQ(c.getByteByByte(3, u8("\xE9\xE9" "a"), 3, outBytes), static_cast<uint32>(CS_OK));
  EXPECT_EQ(outBytes, 4u);
  // The 4-byte scratch area cannot take a 5-byte UTF-8 character.
  ASSERT_TRUE(c.open("UCS-4", "UTF-8", '?', FilterNone));
  const Bytes wide = {0x00, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00, 0x41};
  outBytes = 0;
  EXPECT_EQ(c.getByteByByte(8, wide.data(), 8, outBytes), static_cast<uint32>(CS_OUTPUT_FULL));

  // Plain copy: the count itself.
  ASSERT_TRUE(c.open("UTF-8", "UTF-8", '?', FilterNone));
  outBytes = 1;
  EXPECT_EQ(c.getByteByByte(5, u8("\x80\x80\x80\x80\x80"), 5, outBytes), static_cast<uint32>(CS_OK));
  EXPECT_EQ(outBytes, 6u);
}

TEST(CharsetConverter, MeasuringCharacters) {
  CharsetConverter c;
  const uint8* text = u8("\xC3\xA9x");
  EXPECT_EQ(c.getCharByByte(2, text, 3, CharsetUTF8), 1u);
  EXPECT_EQ(c.getCharByByte(3, text, 3, CharsetUTF8), 2u);
  EXPECT_EQ(c.getCharByByte(1, text, 3, CharsetUTF8), 0u);  // inside é
  EXPECT_EQ(c.getCharByByte(0, text, 3, CharsetUTF8), 0u);
  EXPECT_EQ(c.getCharByByte(0, text, 0, CharsetUTF8), 0u);
  EXPECT_EQ(c.getCharByByte(4, text, 3, CharsetUTF8), 0xFFFFFFFFu);
  EXPECT_EQ(c.getCharByByte(3, u8("a\x80" "b"), 3, "UTF-8"), 0xFFFFFFFFu);
  EXPECT_EQ(c.getCharByByte(4, u8("abcd"), 4, "UCS-2"), 2u);
  EXPECT_EQ(c.getCharByByte(3, u8("abcd"), 4, "UCS-2"), 1u);

  EXPECT_EQ(c.getByteByChar(1, text, 3, CharsetUTF8), 2u);
  EXPECT_EQ(c.getByteByChar(2, text, 3, CharsetUTF8), 3u);
  EXPECT_EQ(c.getByteByChar(0, text, 3, CharsetUTF8), 0u);
  EXPECT_EQ(c.getByteByChar(3, text, 3, CharsetUTF8), 0xFFFFFFFFu);  // runs out
  EXPECT_EQ(c.getByteByChar(2, u8("\x80" "a"), 2, "utf-8"), 0xFFFFFFFFu);
  EXPECT_EQ(c.getByteByChar(1, u8("ab"), 2, "GB2312"), 0xFFFFFFFFu);
}

// ---- whole-text conversion ----------------------------------------------

namespace {

bool parse(std::vector<const char*> args, quillon::charset::TextOptions& options, std::string& error) {
  return quillon::charset::parseTextOptions(static_cast<int>(args.size()), args.data(), options, error);
}

}  // namespace

TEST(CharsetTextCommand, ParsesOptions) {
  quillon::charset::TextOptions o;
  std::string error;
  ASSERT_TRUE(parse({"--from", "utf-8", "--to", "latin2", "--filter", "sort", "in.txt", "out.txt"}, o, error));
  EXPECT_EQ(o.from, CharsetUTF8);
  EXPECT_EQ(o.to, CharsetISO88592);
  EXPECT_EQ(o.filter, FilterToSortChar);
  EXPECT_EQ(o.inPath, "in.txt");
  EXPECT_EQ(o.outPath, "out.txt");

  quillon::charset::TextOptions byNumber;
  ASSERT_TRUE(parse({"--to", "4", "--from", "UCS-2", "-"}, byNumber, error));
  EXPECT_EQ(byNumber.to, CharsetCP1252);
  EXPECT_EQ(byNumber.inPath, "-");

  quillon::charset::TextOptions x;
  EXPECT_FALSE(parse({"--from", "EBCDIC", "--to", "UTF-8"}, x, error));
  EXPECT_NE(error.find("unknown character set 'EBCDIC'"), std::string::npos) << error;
  EXPECT_FALSE(parse({"--from", "gb2312", "--to", "UTF-8"}, x, error));
  EXPECT_NE(error.find("cannot be converted"), std::string::npos) << error;
  EXPECT_FALSE(parse({"--from", "UTF-8"}, x, error));
  EXPECT_FALSE(parse({"--from", "UTF-8", "--to"}, x, error));
  EXPECT_FALSE(parse({"--from", "UTF-8", "--to", "UCS-4", "--filter", "title"}, x, error));
  EXPECT_FALSE(parse({"--from", "UTF-8", "--to", "UCS-4", "--quiet"}, x, error));
  EXPECT_FALSE(parse({"--from", "UTF-8", "--to", "UCS-4", "a", "b", "c"}, x, error));
}

TEST(CharsetTextCommand, ConvertsAndReportsWhereItStops) {
  using quillon::charset::convertText;
  using quillon::charset::describeFailure;
  quillon::charset::TextOptions o;
  o.from = CharsetUTF8;
  o.to = CharsetISO88591;
  Bytes out;
  auto r = convertText(bytesOf("caf\xC3\xA9 \xE2\x82\xAC"), o, out);
  EXPECT_EQ(r.code, CS_OK);
  EXPECT_EQ(out, bytesOf("caf\xE9 ?"));

  r = convertText(bytesOf("ab\x80" "cd"), o, out);
  EXPECT_EQ(r.code, CS_INVALID_INPUT);
  EXPECT_EQ(r.offset, 2u);
  EXPECT_EQ(out, bytesOf("ab"));
  EXPECT_EQ(describeFailure(r, o), "byte offset 2: not a valid UTF-8 character");

  // A character cut off by the end of the input.
  r = convertText(bytesOf("abc\xE2\x82"), o, out);
  EXPECT_EQ(r.code, CS_INPUT_INCOMPLETE);
  EXPECT_EQ(r.offset, 3u);
  EXPECT_EQ(out, bytesOf("abc"));

  o.to = CharsetUCS2;
  r = convertText(bytesOf("a\xF0\x9F\x98\x80"), o, out);
  EXPECT_EQ(r.code, CS_NOT_REPRESENTABLE);
  EXPECT_EQ(r.offset, 1u);
  EXPECT_EQ(describeFailure(r, o), "byte offset 1: character U+1F600 cannot be written in UCS-2");

  o.to = CharsetUTF8;
  o.filter = FilterToUpper;
  r = convertText(bytesOf("stra\xC3\x9F" "e \xC3\xBF"), o, out);
  EXPECT_EQ(r.code, CS_OK);
  EXPECT_EQ(out, bytesOf("STRA\xC3\x9F" "E \xC5\xB8"));

  // Same set, no filter: copied as is, valid or not.
  o.filter = FilterNone;
  r = convertText(bytesOf("\x80\xFF"), o, out);
  EXPECT_EQ(r.code, CS_OK);
  EXPECT_EQ(out, bytesOf("\x80\xFF"));
  r = convertText(Bytes(), o, out);
  EXPECT_EQ(r.code, CS_OK);
  EXPECT_TRUE(out.empty());
}
