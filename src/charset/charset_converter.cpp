// CharsetConverter: the functor registry, conversion, comparison and the
// measuring helpers.
#include "quillon/charset.h"

namespace TAV {

namespace {

const from_UCS4_t s_fromUCS4;
const from_UCS2_t s_fromUCS2;
const from_ISO88591_t s_fromISO88591;
const from_CP1252_t s_fromCP1252;
const from_UTF8_t s_fromUTF8;
const from_ISO88592_t s_fromISO88592;
const from_ISO88596_t s_fromISO88596;

const to_UCS4_t s_toUCS4;
const to_UCS2_t s_toUCS2;
const to_ISO88591_t s_toISO88591;
const to_CP1252_t s_toCP1252;
const to_UTF8_t s_toUTF8;
const to_ISO88592_t s_toISO88592;
const to_ISO88596_t s_toISO88596;

const toUpper_UCS4_t s_toUpper;
const toLower_UCS4_t s_toLower;
const toSortChar_UCS4_t s_toSortChar;

constexpr uint32 kCharsetCount = 9;
constexpr uint32 kFilterCount = 4;

// Indexed by Charset. GB2312 has functors, but they are not registered.
const CharsetConverter::FromFunc* const s_decoders[kCharsetCount] = {
    nullptr,        &s_fromUCS4, &s_fromUCS2,     &s_fromISO88591, &s_fromCP1252,
    &s_fromUTF8,    nullptr,     &s_fromISO88592, &s_fromISO88596,
};
const CharsetConverter::ToFunc* const s_encoders[kCharsetCount] = {
    nullptr,      &s_toUCS4, &s_toUCS2,     &s_toISO88591, &s_toCP1252,
    &s_toUTF8,    nullptr,   &s_toISO88592, &s_toISO88596,
};
// Indexed by CharsetFilterMode.
const CharsetConverter::FilterFunc* const s_filters[kFilterCount] = {
    nullptr, &s_toUpper, &s_toLower, &s_toSortChar,
};

struct CharsetName {
  const char* name;
  Charset set;
};

const CharsetName s_charsetNames[] = {
    {"UCS-4", CharsetUCS4},
    {"UCS-2", CharsetUCS2},
    {"latin1", CharsetISO88591},
    {"ISO 8859-1", CharsetISO88591},
    {"ISO-8859-1", CharsetISO88591},
    {"ISO8859-1", CharsetISO88591},
    {"UTF-8", CharsetUTF8},
    {"GB2312", CharsetGB2312},
    {"latin2", CharsetISO88592},
    {"ISO 8859-2", CharsetISO88592},
    {"ISO-8859-2", CharsetISO88592},
    {"ISO8859-2", CharsetISO88592},
    {"ISO 8859-6", CharsetISO88596},
    {"ISO-8859-6", CharsetISO88596},
    {"ISO8859-6", CharsetISO88596},
};

char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool sameNameIgnoringCase(const char* a, const char* b) {
  for (; *a && *b; a++, b++)
    if (asciiLower(*a) != asciiLower(*b)) return false;
  return *a == *b;
}

constexpr uint32 kMeasureFailed = 0xFFFFFFFFu;

}  // namespace

const char* const CharsetConverter::s_OfferedCharsets = "ISO-8859-1,ISO-8859-2,UTF-8,UCS-2,UCS-4";

Charset CharsetConverter::getCharsetByName(const char* name) {
  if (!name) return CharsetUnknown;
  for (const CharsetName& entry : s_charsetNames)
    if (sameNameIgnoringCase(name, entry.name)) return entry.set;
  return CharsetUnknown;
}

const CharsetConverter::FromFunc* CharsetConverter::getInputCharsetFunction(Charset set) {
  return set < kCharsetCount ? s_decoders[set] : nullptr;
}

const CharsetConverter::ToFunc* CharsetConverter::getOutputCharsetFunction(Charset set) {
  return set < kCharsetCount ? s_encoders[set] : nullptr;
}

const CharsetConverter::FilterFunc* CharsetConverter::getFilterFunction(CharsetFilterMode mode) {
  return mode < kFilterCount ? s_filters[mode] : nullptr;
}

bool CharsetConverter::setInputCharset(Charset set) {
  m_from = getInputCharsetFunction(set);
  return m_from != nullptr;
}

bool CharsetConverter::setOutputCharset(Charset set) {
  m_to = getOutputCharsetFunction(set);
  return m_to != nullptr;
}

bool CharsetConverter::setFilterMode(CharsetFilterMode mode) {
  m_filter = getFilterFunction(mode);
  return m_filter != nullptr || mode == FilterNone;
}

bool CharsetConverter::open(const FromFunc* from, const ToFunc* to, uint32 replacement,
                            const FilterFunc* filter) {
  m_from = from;
  m_to = to;
  m_replacement = replacement;
  m_filter = filter;
  if (!from && !to) {
    m_conversionNeeded = false;
    return true;
  }
  m_conversionNeeded = true;
  return from && to;
}

bool CharsetConverter::open(Charset in, Charset out, uint32 replacement, CharsetFilterMode mode) {
  m_replacement = replacement;
  m_conversionNeeded = in != out;
  return setInputCharset(in) && setOutputCharset(out) && setFilterMode(mode);
}

bool CharsetConverter::open(const char* in, const char* out, uint32 replacement, CharsetFilterMode mode) {
  return open(getCharsetByName(in), getCharsetByName(out), replacement, mode);
}

CSReturnCodes CharsetConverter::convert(const uint8* in, uint32& inPos, uint32 inLen, uint8* out,
                                        uint32& outPos, uint32 outLen) const {
  if (inPos >= inLen || outPos >= outLen) return CS_OK;

  if (!m_conversionNeeded && !m_filter) {
    const uint32 inLeft = inLen - inPos;
    const uint32 outLeft = outLen - outPos;
    const uint32 n = inLeft < outLeft ? inLeft : outLeft;
    if (out)
      for (uint32 i = 0; i < n; i++) out[outPos + i] = in[inPos + i];
    inPos += n;
    outPos += n;
    return CS_OK;
  }
  // A converter that failed to open has nothing to convert with.
  if (!m_from || !m_to) return CS_INVALID_INPUT;

  const uint8* src = in + inPos;
  const uint8* const srcEnd = in + inLen;
  uint8* dst = out + outPos;
  uint32 outAllowance = outLen;
  uint32 ch = 0;

  const uint8* charStart = src;
  CSReturnCodes rc = (*m_from)(this, src, ch, inLen);
  for (;;) {
    if (rc != CS_OK) break;
    if (m_filter) ch = (*m_filter)(ch);
    uint8* const written = dst;
    rc = (*m_to)(this, dst, ch, outAllowance);
    if (rc != CS_OK) {
      src = charStart;  // a retry with more room starts with this character
      break;
    }
    outAllowance -= static_cast<uint32>(dst - written);
    if (src >= srcEnd || outAllowance == 0) break;
    charStart = src;
    rc = (*m_from)(this, src, ch, inLen);
  }
  inPos = static_cast<uint32>(src - in);
  outPos = static_cast<uint32>(dst - out);
  return rc;
}

int CharsetConverter::compare(const uint8* a, uint32 aPos, uint32 aLen, Charset aSet, const uint8* b,
                              uint32 bPos, uint32 bLen, Charset bSet, CharsetFilterMode mode) const {
  const FromFunc* const decodeA = getInputCharsetFunction(aSet);
  const FromFunc* const decodeB = getInputCharsetFunction(bSet);
  const FilterFunc* const filter = getFilterFunction(mode);
  if (!decodeA || !decodeB) return 0;  // unregistered sets cannot be compared

  const uint8* pa = a + aPos;
  const uint8* pb = b + bPos;
  const uint8* const endA = a + aLen;
  const uint8* const endB = b + bLen;
  uint32 ca = 0;
  uint32 cb = 0;
  for (;;) {
    if (pa >= endA) return pb < endB ? -1 : 0;
    if (pb >= endB) return 1;
    if ((*decodeA)(this, pa, ca, aLen) != CS_OK) ca = 0;
    if ((*decodeB)(this, pb, cb, bLen) != CS_OK) cb = 0;
    if (filter) {
      ca = (*filter)(ca);
      cb = (*filter)(cb);
    }
    if (ca != cb) return static_cast<int>(ca - cb);
  }
}

int CharsetConverter::compare(const uint8* a, uint32 aPos, uint32 aLen, const char* aSet, const uint8* b,
                              uint32 bPos, uint32 bLen, const char* bSet, CharsetFilterMode mode) const {
  return compare(a, aPos, aLen, getCharsetByName(aSet), b, bPos, bLen, getCharsetByName(bSet), mode);
}

uint32 CharsetConverter::getByteByByte(uint32 count, const uint8* in, uint32 avail, uint32& outBytes) const {
  if (count == 0) return CS_OK;
  if (!m_conversionNeeded && !m_filter) {
    outBytes += count;
    return CS_OK;
  }
  if (!m_from || !m_to) return CS_INVALID_INPUT;

  const uint8* src = in;
  const uint8* const end = in + count;
  uint32 ch = 0;
  for (;;) {
    CSReturnCodes rc = (*m_from)(this, src, ch, avail);
    if (rc != CS_OK) return rc;
    if (m_filter) ch = (*m_filter)(ch);
    uint8 scratch[4];
    uint8* dst = scratch;
    rc = (*m_to)(this, dst, ch, sizeof scratch);
    if (rc != CS_OK) return rc;
    // The character that reaches the end is not counted.
    if (src >= end) return CS_OK;
    outBytes += static_cast<uint32>(dst - scratch);
  }
}

uint32 CharsetConverter::getByteByChar(uint32 chars, const uint8* in, uint32 avail, Charset set) const {
  if (chars == 0) return 0;
  const FromFunc* const decode = getInputCharsetFunction(set);
  if (!decode) return kMeasureFailed;
  const uint8* src = in;
  const uint8* const end = in + avail;
  uint32 ch = 0;
  for (uint32 i = 0; i < chars; i++) {
    if (src >= end) return kMeasureFailed;
    if ((*decode)(this, src, ch, avail) != CS_OK) return kMeasureFailed;
  }
  return static_cast<uint32>(src - in);
}

uint32 CharsetConverter::getByteByChar(uint32 chars, const uint8* in, uint32 avail, const char* set) const {
  return getByteByChar(chars, in, avail, getCharsetByName(set));
}

uint32 CharsetConverter::getCharByByte(uint32 bytes, const uint8* in, uint32 avail, Charset set) const {
  if (bytes > avail) return kMeasureFailed;
  const FromFunc* const decode = getInputCharsetFunction(set);
  if (!decode) return kMeasureFailed;
  const uint8* src = in;
  const uint8* const limit = in + bytes;
  const uint8* const end = in + avail;
  uint32 ch = 0;
  uint32 count = 0;
  while (src <= limit && src < end) {
    if ((*decode)(this, src, ch, avail) != CS_OK) return kMeasureFailed;
    count++;
  }
  // Unless the whole input was measured, the last character decoded is the
  // one that crossed (or started at) the limit.
  return bytes == avail ? count : count - 1;
}

uint32 CharsetConverter::getCharByByte(uint32 bytes, const uint8* in, uint32 avail, const char* set) const {
  return getCharByByte(bytes, in, avail, getCharsetByName(set));
}

}  // namespace TAV
