// Character-set conversion through 32-bit code points.
//
// A CharsetConverter chains a decoding functor (bytes -> code point), an
// optional filter (upper case, lower case, sort key) and an encoding functor
// (code point -> bytes). The functors are stateless objects; one static
// instance of each registered one sits in the converter's lookup tables.
#ifndef QUILLON_CHARSET_H
#define QUILLON_CHARSET_H

#include "quillon/platform.h"

namespace TAV {

enum Charset : uint32 {
  CharsetUnknown = 0,
  CharsetUCS4 = 1,
  CharsetUCS2 = 2,
  CharsetISO88591 = 3,
  CharsetCP1252 = 4,  // no name: reachable by value only
  CharsetUTF8 = 5,
  CharsetGB2312 = 6,  // known by name, but nothing converts it
  CharsetISO88592 = 7,
  CharsetISO88596 = 8,
};

enum CharsetFilterMode : uint32 {
  FilterNone = 0,
  FilterToUpper = 1,
  FilterToLower = 2,
  FilterToSortChar = 3,
};

enum CSReturnCodes : uint32 {
  CS_OK = 0,
  CS_INVALID_INPUT = 1,      // not a character of the input set
  CS_INPUT_INCOMPLETE = 2,   // the character needs more bytes than allowed
  CS_NOT_REPRESENTABLE = 3,  // no encoding in the output set
  CS_OUTPUT_FULL = 4,        // not enough output room for the character
};

class QUILLON_API CharsetConverter {
 public:
  // Reads one character at `in` into `ch` and advances `in` past it. A
  // failing decoder leaves `in` where it was. `avail` is the byte allowance
  // granted by the caller; decoders trust it.
  struct FromFunc {
    virtual CSReturnCodes operator()(const CharsetConverter* conv, const uint8*& in, uint32& ch,
                                     uint32 avail) const = 0;

   protected:
    ~FromFunc() = default;
  };
  // Writes `ch` at `out` and advances `out`; `conv` supplies the
  // replacement character for code points the set lacks.
  struct ToFunc {
    virtual CSReturnCodes operator()(const CharsetConverter* conv, uint8*& out, uint32 ch,
                                     uint32 avail) const = 0;

   protected:
    ~ToFunc() = default;
  };
  // Maps a code point (case and sort filters).
  struct FilterFunc {
    virtual uint32 operator()(uint32 ch) const = 0;

   protected:
    ~FilterFunc() = default;
  };

  // The sets offered to users, comma-separated.
  static const char* const s_OfferedCharsets;

  CharsetConverter() = default;
  ~CharsetConverter() {}

  // Direct functor form. Both codecs null: a plain byte-copy converter
  // (true). Otherwise true only when both are given. Does not take
  // ownership of the functors.
  bool open(const FromFunc* from, const ToFunc* to, uint32 replacement, const FilterFunc* filter);
  // Registry form; false when a set or the mode has no functor. The
  // lookups stop at the first failure, leaving later fields untouched.
  bool open(Charset in, Charset out, uint32 replacement, CharsetFilterMode mode);
  bool open(const char* in, const char* out, uint32 replacement, CharsetFilterMode mode);

  void setReplacementChar(uint32 replacement) { m_replacement = replacement; }
  uint32 getReplacementChar() const { return m_replacement; }

  static Charset getCharsetByName(const char* name);
  static const FromFunc* getInputCharsetFunction(Charset set);
  static const ToFunc* getOutputCharsetFunction(Charset set);
  static const FilterFunc* getFilterFunction(CharsetFilterMode mode);

  // Converts in[inPos, inLen) into out[outPos, outLen). Both lengths count
  // from the buffer starts. The decoder is granted inLen bytes and the
  // encoder outLen bytes less what this call has written, so a caller that
  // resumes at a non-zero position must keep that much room (or input)
  // readable beyond the position. Stops with CS_OK when the input is used
  // up or the output allowance reaches exactly 0. On an encoding failure
  // inPos is left at the start of the character that did not fit.
  CSReturnCodes convert(const uint8* in, uint32& inPos, uint32 inLen, uint8* out, uint32& outPos,
                        uint32 outLen) const;

  // Orders two strings by their (filtered) code points: < 0, 0 or > 0.
  // An undecodable character counts as code point 0 and is not consumed,
  // so two strings failing at the same place never finish comparing: the
  // caller must pass decodable text.
  int compare(const uint8* a, uint32 aPos, uint32 aLen, Charset aSet, const uint8* b, uint32 bPos,
              uint32 bLen, Charset bSet, CharsetFilterMode mode = FilterNone) const;
  int compare(const uint8* a, uint32 aPos, uint32 aLen, const char* aSet, const uint8* b, uint32 bPos,
              uint32 bLen, const char* bSet, CharsetFilterMode mode = FilterNone) const;

  // Adds to outBytes the bytes that converting the first `count` input
  // bytes produces, except those of the last character (never counted).
  // Returns a CSReturnCodes value.
  uint32 getByteByByte(uint32 count, const uint8* in, uint32 avail, uint32& outBytes) const;
  // Input bytes taken by the first `chars` characters; 0xFFFFFFFF when the
  // input ends first or a character does not decode.
  uint32 getByteByChar(uint32 chars, const uint8* in, uint32 avail, Charset set) const;
  uint32 getByteByChar(uint32 chars, const uint8* in, uint32 avail, const char* set) const;
  // Whole characters within the first `bytes` bytes; 0xFFFFFFFF when bytes
  // exceeds avail or a character does not decode.
  uint32 getCharByByte(uint32 bytes, const uint8* in, uint32 avail, Charset set) const;
  uint32 getCharByByte(uint32 bytes, const uint8* in, uint32 avail, const char* set) const;

 private:
  bool setInputCharset(Charset set);
  bool setOutputCharset(Charset set);
  bool setFilterMode(CharsetFilterMode mode);

  uint32 m_replacement = '?';
  bool m_conversionNeeded = true;
  const FromFunc* m_from = nullptr;
  const ToFunc* m_to = nullptr;
  const FilterFunc* m_filter = nullptr;
};

// Decoders.
struct QUILLON_API from_UTF8_t : CharsetConverter::FromFunc {
  CSReturnCodes operator()(const CharsetConverter*, const uint8*& in, uint32& ch, uint32 avail) const override;
};
struct QUILLON_API from_UCS2_t : CharsetConverter::FromFunc {
  CSReturnCodes operator()(const CharsetConverter*, const uint8*& in, uint32& ch, uint32 avail) const override;
};
struct QUILLON_API from_UCS4_t : CharsetConverter::FromFunc {
  CSReturnCodes operator()(const CharsetConverter*, const uint8*& in, uint32& ch, uint32 avail) const override;
};
struct QUILLON_API from_ISO88591_t : CharsetConverter::FromFunc {
  CSReturnCodes operator()(const CharsetConverter*, const uint8*& in, uint32& ch, uint32 avail) const override;
};
struct QUILLON_API from_ISO88592_t : CharsetConverter::FromFunc {
  CSReturnCodes operator()(const CharsetConverter*, const uint8*& in, uint32& ch, uint32 avail) const override;
};
struct QUILLON_API from_ISO88596_t : CharsetConverter::FromFunc {
  CSReturnCodes operator()(const CharsetConverter*, const uint8*& in, uint32& ch, uint32 avail) const override;
};
struct QUILLON_API from_CP1252_t : CharsetConverter::FromFunc {
  CSReturnCodes operator()(const CharsetConverter*, const uint8*& in, uint32& ch, uint32 avail) const override;
};
struct QUILLON_API from_GB2312_t : CharsetConverter::FromFunc {
  CSReturnCodes operator()(const CharsetConverter*, const uint8*& in, uint32& ch, uint32 avail) const override;
};

// Encoders.
struct QUILLON_API to_UTF8_t : CharsetConverter::ToFunc {
  CSReturnCodes operator()(const CharsetConverter* conv, uint8*& out, uint32 ch, uint32 avail) const override;
};
struct QUILLON_API to_UCS2_t : CharsetConverter::ToFunc {
  CSReturnCodes operator()(const CharsetConverter* conv, uint8*& out, uint32 ch, uint32 avail) const override;
};
struct QUILLON_API to_UCS4_t : CharsetConverter::ToFunc {
  CSReturnCodes operator()(const CharsetConverter* conv, uint8*& out, uint32 ch, uint32 avail) const override;
};
struct QUILLON_API to_ISO88591_t : CharsetConverter::ToFunc {
  CSReturnCodes operator()(const CharsetConverter* conv, uint8*& out, uint32 ch, uint32 avail) const override;
};
struct QUILLON_API to_ISO88592_t : CharsetConverter::ToFunc {
  CSReturnCodes operator()(const CharsetConverter* conv, uint8*& out, uint32 ch, uint32 avail) const override;
};
struct QUILLON_API to_ISO88596_t : CharsetConverter::ToFunc {
  CSReturnCodes operator()(const CharsetConverter* conv, uint8*& out, uint32 ch, uint32 avail) const override;
};
struct QUILLON_API to_CP1252_t : CharsetConverter::ToFunc {
  CSReturnCodes operator()(const CharsetConverter* conv, uint8*& out, uint32 ch, uint32 avail) const override;
};
struct QUILLON_API to_GB2312_t : CharsetConverter::ToFunc {
  CSReturnCodes operator()(const CharsetConverter* conv, uint8*& out, uint32 ch, uint32 avail) const override;
};

// Filters; the result is a 16-bit value, and bits above 15 of the input
// are ignored wherever a page exists.
struct QUILLON_API toUpper_UCS4_t : CharsetConverter::FilterFunc {
  uint32 operator()(uint32 ch) const override;
};
struct QUILLON_API toLower_UCS4_t : CharsetConverter::FilterFunc {
  uint32 operator()(uint32 ch) const override;
};
struct QUILLON_API toSortChar_UCS4_t : CharsetConverter::FilterFunc {
  uint32 operator()(uint32 ch) const override;
};

}  // namespace TAV

#endif
