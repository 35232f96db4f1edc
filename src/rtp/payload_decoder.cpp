#include "rtp/payload_decoder.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "engines/amrwb/amrwb_decoder.h"
#include "engines/g722/g722_engine.h"
#include "engines/g729/decoder.h"
#include "engines/silk/silk_decoder.h"
#include "primitives/g711.h"
#include "quillon/codecs/codec_g72x.h"
#include "quillon/opus_packet_decoder.h"
#include "rtp/waveform_concealer.h"

namespace quillon::rtp {

namespace {

// ---------------------------------------------------------------------------
// Waveform codecs: sample-by-sample decoding behind the pitch-repetition
// concealment, which also delays good audio by its fixed 3.75 ms.
class WaveformDecoder : public PayloadDecoder {
 public:
  explicit WaveformDecoder(int scale) : m_concealer(scale), m_scale(scale) {}
  uint32_t rate() const override { return 8000u * static_cast<uint32_t>(m_scale); }
  size_t stepSamples() const override { return 40u * static_cast<size_t>(m_scale); }
  long decode(const uint8_t* payload, size_t bytes, int16_t* out) override {
    const long n = decodeRaw(payload, bytes, m_scratch);
    if (n > 0) m_concealer.good(m_scratch, out, static_cast<size_t>(n));
    return n;
  }
  size_t conceal(int16_t* out, const uint8_t*, size_t) override {
    m_concealer.lost(out, stepSamples());
    concealState();
    return stepSamples();
  }
  size_t fillPause(int16_t* out) override {
    int16_t zeros[80] = {};
    m_concealer.good(zeros, out, stepSamples());
    return stepSamples();
  }
  size_t drain(int16_t* out) override { return m_concealer.drain(out); }
  size_t delay() const override { return static_cast<size_t>(m_concealer.delay()); }
  void reset() override { m_concealer.reset(); }

 protected:
  virtual long decodeRaw(const uint8_t* payload, size_t bytes, int16_t* out) = 0;
  // What the codec's own state does during a loss (nothing for G.711).
  virtual void concealState() {}

 private:
  WaveformConcealer m_concealer;
  int m_scale;
  int16_t m_scratch[kMaxPacketSamples];
};

class G711Decoder final : public WaveformDecoder {
 public:
  explicit G711Decoder(bool alaw) : WaveformDecoder(1), m_table(alaw ? &g711::kAlawToLinear : &g711::kUlawToLinear) {}

 protected:
  long decodeRaw(const uint8_t* payload, size_t bytes, int16_t* out) override {
    for (size_t i = 0; i < bytes; i++) out[i] = (*m_table)[payload[i]];
    return static_cast<long>(bytes);
  }

 private:
  const std::array<int16_t, 256>* m_table;
};

// G.722 at 64 kbit/s (mode 1). Across a loss the sub-band decoders keep
// their state and re-adapt on the next packet.
class G722PayloadDecoder final : public WaveformDecoder {
 public:
  G722PayloadDecoder() : WaveformDecoder(2) {}
  void reset() override {
    WaveformDecoder::reset();
    m_decoder.reset();
  }

 protected:
  long decodeRaw(const uint8_t* payload, size_t bytes, int16_t* out) override {
    if (bytes > kMaxPacketSamples / 2) return -1;
    m_decoder.decode(payload, bytes, out, 1);
    return static_cast<long>(2 * bytes);
  }

 private:
  g722::Decoder m_decoder;
};

// G.726 through the library's codec: RFC 3551 packs codewords from the
// least significant bit (codes 13-16), AAL2 from the most significant
// (codes 3-6).
class G726PayloadDecoder final : public WaveformDecoder {
 public:
  G726PayloadDecoder(int bitsPerCode, bool aal2) : WaveformDecoder(1) {
    static const TAV::CompressionType kLsb[] = {TAV::CT_G726_16_LSB, TAV::CT_G726_24_LSB, TAV::CT_G726_32_LSB,
                                                TAV::CT_G726_40_LSB};
    static const TAV::CompressionType kMsb[] = {TAV::CT_G726_16, TAV::CT_G726_24, TAV::CT_G726_32, TAV::CT_G726_40};
    const int index = std::clamp(bitsPerCode, 2, 5) - 2;
    m_format = TAV::AudioFormat(aal2 ? kMsb[index] : kLsb[index], 1);
    m_codec.open(m_format, false);
  }
  void reset() override {
    WaveformDecoder::reset();
    m_codec.init();
  }
  bool ready() const { return m_codec.isDecoder(); }

 protected:
  long decodeRaw(const uint8_t* payload, size_t bytes, int16_t* out) override {
    // A group of up to five bytes makes at most 20 samples (16 kbit/s: 4 per byte).
    if (bytes * 4 > kMaxPacketSamples) return -1;
    TAV::uint32 n = static_cast<TAV::uint32>(bytes);
    const TAV::uint32 written = m_codec.decode(payload, n, out, static_cast<TAV::uint32>(kMaxPacketSamples * 2));
    return static_cast<long>(written / 2);
  }

 private:
  TAV::AudioFormat m_format;
  TAV::CodecG72X m_codec;
};

// ---------------------------------------------------------------------------
// G.729 with Annex A and B: speech frames of 10 bytes, a SID frame of 2
// bytes last (RFC 3551 section 4.5.6).
class G729PayloadDecoder final : public PayloadDecoder {
 public:
  G729PayloadDecoder() : m_decoder(g729a::Decoder::Variant::AnnexA, true) {}
  uint32_t rate() const override { return 8000; }
  size_t stepSamples() const override { return 80; }
  long decode(const uint8_t* payload, size_t bytes, int16_t* out) override {
    const size_t speech = bytes / 10;
    const size_t rest = bytes % 10;
    if (rest != 0 && rest != 2) return -1;
    if (speech * 80 + 80 > kMaxPacketSamples) return -1;
    for (size_t i = 0; i < speech; i++) m_decoder.decode(payload + 10 * i, out + 80 * i);
    if (rest == 2) m_decoder.decodeSid(payload + 10 * speech, out + 80 * speech);
    return static_cast<long>(80 * (speech + (rest == 2 ? 1 : 0)));
  }
  size_t conceal(int16_t* out, const uint8_t*, size_t) override {
    m_decoder.decodeErased(out, true);
    return 80;
  }
  size_t fillPause(int16_t* out) override {
    m_decoder.decodeUntransmitted(out);
    return 80;
  }
  void reset() override { m_decoder.reset(); }

 private:
  g729a::Decoder m_decoder;
};

// ---------------------------------------------------------------------------
// AMR-WB, RFC 4867 single-channel payloads without interleaving or CRC.
class AmrWbPayloadDecoder final : public PayloadDecoder {
 public:
  explicit AmrWbPayloadDecoder(bool octetAligned) : m_octetAligned(octetAligned) {}
  uint32_t rate() const override { return 16000; }
  size_t stepSamples() const override { return amrwb::kFrameSamples; }

  // Speech bits per frame type; -1 for the reserved types 10..13.
  static int speechBits(int type) {
    static const int kBits[16] = {132, 177, 253, 285, 317, 365, 397, 461, 477, 40, -1, -1, -1, -1, 0, 0};
    return kBits[type & 15];
  }

  long decode(const uint8_t* payload, size_t bytes, int16_t* out) override {
    // First pass: the table of contents, so that a malformed payload
    // changes nothing.
    struct Entry {
      uint8_t type;
      bool good;
    };
    Entry toc[kMaxFrames];
    size_t frames = 0;
    size_t bit = 4;  // after the CMR
    if (m_octetAligned) bit = 8;
    const size_t totalBits = bytes * 8;
    for (bool more = true; more;) {
      if (frames == kMaxFrames) return -1;
      const size_t need = m_octetAligned ? 8 : 6;
      if (bit + need > totalBits) return -1;
      const unsigned f = readBits(payload, bit, 1);
      const unsigned ft = readBits(payload, bit + 1, 4);
      const unsigned q = readBits(payload, bit + 5, 1);
      bit += need;
      if (speechBits(static_cast<int>(ft)) < 0) return -1;
      toc[frames++] = {static_cast<uint8_t>(ft), q != 0};
      more = f != 0;
    }
    size_t sum = bit;
    for (size_t i = 0; i < frames; i++) {
      const size_t b = static_cast<size_t>(speechBits(toc[i].type));
      sum += m_octetAligned ? (b + 7) / 8 * 8 : b;
    }
    if (sum > totalBits || frames * amrwb::kFrameSamples > kMaxPacketSamples) return -1;
    for (size_t i = 0; i < frames; i++) {
      const int b = speechBits(toc[i].type);
      uint8_t frame[amrwb::kMaxFrameBytes] = {};
      frame[0] = static_cast<uint8_t>((toc[i].type << 3) | (toc[i].good ? 4 : 0));
      for (int k = 0; k < b; k++)
        if (readBits(payload, bit + static_cast<size_t>(k), 1)) frame[1 + k / 8] |= static_cast<uint8_t>(0x80 >> (k % 8));
      bit += m_octetAligned ? static_cast<size_t>((b + 7) / 8 * 8) : static_cast<size_t>(b);
      const bool lost = toc[i].type == 14 || (!toc[i].good && toc[i].type <= 9);
      m_decoder.decodeFrame(frame, static_cast<size_t>(1 + (b + 7) / 8), out + i * amrwb::kFrameSamples, lost);
    }
    return static_cast<long>(frames * amrwb::kFrameSamples);
  }
  size_t conceal(int16_t* out, const uint8_t*, size_t) override {
    const uint8_t lostFrame[1] = {14 << 3};
    m_decoder.decodeFrame(lostFrame, 1, out, true);
    return amrwb::kFrameSamples;
  }
  size_t fillPause(int16_t* out) override {
    const uint8_t noData[1] = {15 << 3 | 4};
    m_decoder.decodeFrame(noData, 1, out, false);
    return amrwb::kFrameSamples;
  }
  void reset() override { m_decoder.reset(); }

 private:
  static constexpr size_t kMaxFrames = 64;
  static unsigned readBits(const uint8_t* p, size_t bit, int n) {
    unsigned v = 0;
    for (int i = 0; i < n; i++, bit++) v = (v << 1) | ((p[bit / 8] >> (7 - bit % 8)) & 1u);
    return v;
  }
  bool m_octetAligned;
  amrwb::Decoder m_decoder;
};

// ---------------------------------------------------------------------------
// Opus (RFC 7587) through libopus: its own concealment for lost packets and
// the in-band redundancy of the next packet for the last lost frame.
class OpusPayloadDecoder final : public PayloadDecoder {
 public:
  explicit OpusPayloadDecoder(uint32_t outputRate) : m_rate(outputRate) { m_decoder.open(1, outputRate); }
  bool ready() const { return m_decoder.isOpen(); }
  uint32_t rate() const override { return m_rate; }
  size_t stepSamples() const override { return m_decoder.concealFrames(); }
  long decode(const uint8_t* payload, size_t bytes, int16_t* out) override {
    return m_decoder.decode(payload, bytes, out, maxSamples());
  }
  size_t conceal(int16_t* out, const uint8_t* next, size_t nextBytes) override {
    return m_decoder.conceal(out, maxSamples(), next, nextBytes);
  }
  size_t fillPause(int16_t* out) override {
    // Opus DTX: the decoder's concealment fades into its comfort noise.
    return conceal(out, nullptr, 0);
  }
  void reset() override { m_decoder.reset(); }

 private:
  size_t maxSamples() const { return std::min<size_t>(kMaxPacketSamples, m_decoder.maxFrames()); }
  uint32_t m_rate;
  OpusPacketDecoder m_decoder;
};

// ---------------------------------------------------------------------------
// SILK: one SILK packet per RTP packet, 20 ms frames.
class SilkPayloadDecoder final : public PayloadDecoder {
 public:
  explicit SilkPayloadDecoder(uint32_t outputRate) : m_rate(outputRate) {
    int32_t size = 0;
    silk::getDecoderSize(&size);
    m_state.assign(static_cast<size_t>(size) + 16, 0);
    silk::initDecoder(m_state.data());
  }
  uint32_t rate() const override { return m_rate; }
  size_t stepSamples() const override { return m_rate / 50; }
  long decode(const uint8_t* payload, size_t bytes, int16_t* out) override {
    if (bytes == 0 || bytes > sizeof m_packet - 4) return -1;
    std::memset(m_packet, 0, sizeof m_packet);
    std::memcpy(m_packet, payload, bytes);
    silk::DecControl control{};
    control.API_sampleRate = static_cast<int32_t>(m_rate);
    size_t total = 0;
    do {
      int16_t n = 0;
      if (total + 960 > kMaxPacketSamples) break;
      const int r = silk::decode(m_state.data(), &control, 0, m_packet, static_cast<int>(bytes), out + total, &n);
      if (r != silk::kOk) return total ? static_cast<long>(total) : -1;
      total += static_cast<size_t>(n);
    } while (control.moreInternalDecoderFrames);
    return static_cast<long>(total);
  }
  size_t conceal(int16_t* out, const uint8_t*, size_t) override {
    silk::DecControl control{};
    control.API_sampleRate = static_cast<int32_t>(m_rate);
    std::memset(m_packet, 0, 8);
    int16_t n = 0;
    if (silk::decode(m_state.data(), &control, 1, m_packet, 0, out, &n) != silk::kOk || n <= 0) {
      std::fill(out, out + stepSamples(), int16_t{0});
      return stepSamples();
    }
    return static_cast<size_t>(n);
  }
  size_t fillPause(int16_t* out) override { return conceal(out, nullptr, 0); }
  void reset() override { silk::initDecoder(m_state.data()); }

 private:
  uint32_t m_rate;
  std::vector<uint8_t> m_state;
  uint8_t m_packet[1024];
};

}  // namespace

std::unique_ptr<PayloadDecoder> makePayloadDecoder(const PayloadDescription& payload, uint32_t outputRate) {
  switch (payload.codec) {
    case PayloadCodec::Pcmu: return std::make_unique<G711Decoder>(false);
    case PayloadCodec::Pcma: return std::make_unique<G711Decoder>(true);
    case PayloadCodec::G722: return std::make_unique<G722PayloadDecoder>();
    case PayloadCodec::G729: return std::make_unique<G729PayloadDecoder>();
    case PayloadCodec::G726:
    case PayloadCodec::G726Aal2: {
      auto d = std::make_unique<G726PayloadDecoder>(payload.bitsPerCode, payload.codec == PayloadCodec::G726Aal2);
      if (!d->ready()) return nullptr;
      return d;
    }
    case PayloadCodec::AmrWb: return std::make_unique<AmrWbPayloadDecoder>(payload.octetAligned);
    case PayloadCodec::Opus: {
      const uint32_t rate = (outputRate == 8000 || outputRate == 12000 || outputRate == 24000 || outputRate == 48000)
                                ? outputRate
                                : 16000;
      auto d = std::make_unique<OpusPayloadDecoder>(rate);
      if (!d->ready()) return nullptr;
      return d;
    }
    case PayloadCodec::Silk: {
      uint32_t rate = outputRate ? outputRate : payload.clockRate;
      if (rate != 8000 && rate != 12000 && rate != 16000 && rate != 24000 && rate != 48000) rate = payload.clockRate;
      return std::make_unique<SilkPayloadDecoder>(rate);
    }
    default: return nullptr;
  }
}

}  // namespace quillon::rtp
