// The fatal-error hook: with a handler installed the library's two fatal
// paths (the G.729 division error, a trace line that cannot be written)
// end the call instead of the process, and the codec that failed is usable
// again; without one they still end the process with their exit status.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "codecs/speech/g729a/dsp.h"
#include "quillon/codec.h"
#include "quillon/codecs/codec_g729a.h"
#include "quillon/decoder.h"
#include "quillon/fatal_error.h"
#include "quillon/quillon_c.h"
#include "quillon/trace.h"
#include "test_support.h"

namespace {

struct Seen {
  int calls = 0;
  int status = -1;
  std::string message;
};

void QUILLON_STDCALL recordFatal(const char* message, int status, void* context) {
  Seen* seen = static_cast<Seen*>(context);
  seen->calls++;
  seen->status = status;
  seen->message = message;
}

// Installs recordFatal for the test's lifetime; restores the trace sink too.
class FatalHook : public ::testing::Test {
 protected:
  void SetUp() override {
    oldSink_ = quillon_trace_sink();
    previous_ = quillon_set_fatal_handler(recordFatal, &seen);
    full_ = std::fopen("/dev/full", "w");
    ASSERT_NE(full_, nullptr);
  }
  void TearDown() override {
    EXPECT_EQ(quillon_set_fatal_handler(previous_, nullptr), recordFatal);
    quillon_set_trace_sink(oldSink_);
    std::fclose(full_);
  }
  Seen seen;
  FILE* full_ = nullptr;

 private:
  FILE* oldSink_ = nullptr;
  quillon_fatal_handler previous_ = nullptr;
};

// The engine's division with its fatal checks, reached directly.
struct Division : quillon::g729a::Dsp {
  using Dsp::div_s;
};

// A G.729 stream and the reference decoder's output for it.
struct G729Vector {
  std::vector<uint8_t> coded;
  std::vector<int16_t> pcm;
};

G729Vector loadG729(const std::filesystem::path& dir) {
  return {quillon::test::readFile(dir / "hts12.g729"), quillon::test::readPcm16(dir / "hts12.pcm")};
}

std::vector<int16_t> samplesOf(const std::vector<uint8_t>& bytes, size_t n) {
  std::vector<int16_t> s(n / 2);
  for (size_t i = 0; i < s.size(); i++) s[i] = static_cast<int16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
  return s;
}

}  // namespace

TEST_F(FatalHook, DivisionErrorThrowsAfterTheHandler) {
  Division d;
  EXPECT_EQ(d.div_s(1, 2), 16384);
  try {
    d.div_s(5, 3);
    FAIL() << "no error";
  } catch (const TAV::FatalError& e) {
    EXPECT_EQ(e.status(), 0);
    EXPECT_STREQ(e.what(), "Division Error var1=5  var2=3");
  }
  EXPECT_EQ(seen.calls, 1);
  EXPECT_EQ(seen.status, 0);
  EXPECT_EQ(seen.message, "Division Error var1=5  var2=3");
  EXPECT_THROW(d.div_s(0, 0), TAV::FatalError);
  EXPECT_EQ(seen.message, "Division by 0, Fatal error ");
  EXPECT_THROW(d.div_s(-1, 4), TAV::FatalError);
  EXPECT_EQ(seen.calls, 3);
}

// Code 20 decodes through codecLib, which traces every decode call: a sink
// that refuses writes makes the call fatal.
TEST_F(FatalHook, TraceFailureThroughTheClassesResetsTheCodec) {
  QUILLON_REQUIRE_VECTORS(dir, "g729");
  const G729Vector v = loadG729(dir);
  std::unique_ptr<TAV::Codec> codec(TAV::Codec::getCodec(TAV::AudioFormat(TAV::CT_G729, 1), false));
  ASSERT_NE(codec, nullptr);
  std::vector<int16_t> out(v.pcm.size() + 80);
  quillon_set_trace_sink(nullptr);
  uint32_t n = 200;
  ASSERT_EQ(codec->decode(v.coded.data(), n, out.data(), 3200), 3200u);  // the state moves on

  quillon_set_trace_sink(full_);
  n = 200;
  try {
    codec->decode(v.coded.data() + 200, n, out.data(), 3200);
    FAIL() << "no error";
  } catch (const TAV::FatalError& e) {
    EXPECT_EQ(e.status(), 1);
    EXPECT_STREQ(e.what(), "codecLib_printf problem ");
  }
  EXPECT_EQ(seen.calls, 1);
  EXPECT_EQ(seen.status, 1);

  // Back to its just-opened state: the whole stream decodes as from a fresh codec.
  quillon_set_trace_sink(nullptr);
  n = static_cast<uint32_t>(v.coded.size());
  const uint32_t bytes = codec->decode(v.coded.data(), n, out.data(), static_cast<uint32_t>(out.size()));
  ASSERT_EQ(bytes, v.pcm.size() * 2);
  out.resize(v.pcm.size());
  EXPECT_EQ(quillon::test::firstMismatch(out, v.pcm), -1);
}

TEST_F(FatalHook, TraceFailureThroughTheCInterfaceReturnsZero) {
  QUILLON_REQUIRE_VECTORS(dir, "g729");
  const G729Vector v = loadG729(dir);
  quillon_set_trace_sink(nullptr);
  const quillon_decoder_handle h = decoder_create(20);
  ASSERT_NE(h, 0u);
  ASSERT_EQ(decoder_open(h, 100), 1);
  std::vector<uint8_t> out(v.pcm.size() * 2 + 160);
  ASSERT_EQ(decode_decode(h, v.coded.data(), out.data(), 200), 3200u);

  quillon_set_trace_sink(full_);
  EXPECT_EQ(decode_decode(h, v.coded.data() + 200, out.data(), 200), 0u);
  EXPECT_EQ(seen.calls, 1);
  EXPECT_EQ(seen.status, 1);

  quillon_set_trace_sink(nullptr);
  const unsigned int bytes = decode_decode(h, v.coded.data(), out.data(), static_cast<unsigned int>(v.coded.size()));
  ASSERT_EQ(bytes, v.pcm.size() * 2);
  EXPECT_EQ(quillon::test::firstMismatch(samplesOf(out, bytes), v.pcm), -1);
  EXPECT_EQ(decoder_release(h), 1);
}

TEST(FatalHookDefault, DivisionErrorEndsTheProcessWithStatusZero) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ASSERT_EQ(quillon_set_fatal_handler(nullptr, nullptr), nullptr);
  Division d;
  EXPECT_EXIT(
      {
        quillon_set_trace_sink(stderr);
        d.div_s(5, 3);
      },
      ::testing::ExitedWithCode(0), "Division Error var1=5  var2=3\n");
  EXPECT_EXIT(
      {
        quillon_set_trace_sink(stderr);
        d.div_s(7, 0);
      },
      ::testing::ExitedWithCode(0), "Division Error var1=7  var2=0\n");
  EXPECT_EXIT(
      {
        quillon_set_trace_sink(stderr);
        d.div_s(0, 0);
      },
      ::testing::ExitedWithCode(0), "Division by 0, Fatal error \n");
}

TEST(FatalHookDefault, TraceFailureEndsTheProcessWithStatusOne) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  QUILLON_REQUIRE_VECTORS(dir, "g729");
  const G729Vector v = loadG729(dir);
  ASSERT_EQ(quillon_set_fatal_handler(nullptr, nullptr), nullptr);
  EXPECT_EXIT(
      {
        quillon_set_trace_sink(std::fopen("/dev/full", "w"));
        const quillon_decoder_handle h = decoder_create(20);
        decoder_open(h, 100);
        std::vector<uint8_t> out(320);
        decode_decode(h, v.coded.data(), out.data(), 20);
      },
      ::testing::ExitedWithCode(1), "");
}
