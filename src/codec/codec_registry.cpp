#include "codec/codec_registry.h"

#include <new>

#include "quillon/codecs/codec_g711.h"
#include "quillon/codecs/codec_g72x.h"
#include "quillon/codecs/codec_icelp48.h"
#include "quillon/codecs/codec_lib_adapter.h"
#include "quillon/codecs/codec_msadpcm32.h"
#include "quillon/codecs/codec_opus.h"
#include "quillon/codecs/codec_pcm_linear.h"
#include "quillon/codecs/codec_silk.h"
#include "quillon/codecs/codec_tetra.h"

namespace quillon {

using namespace TAV;

namespace {

template <class T>
Codec* make() {
  return new (std::nothrow) T();
}

}  // namespace

Codec* createCodecFor(CompressionType code) {
  switch (code) {
    // Each codec class plugs in at its own case; until a class exists its
    // codes yield null, exactly like a code the table does not list.
    case CT_G711_ALAW:
    case CT_G711_ULAW:
      return make<CodecG711>();
    case CT_G726_40:
    case CT_G726_32:
    case CT_G726_24:
    case CT_G726_16:
    case CT_G726_40_LSB:
    case CT_G726_32_LSB:
    case CT_G726_24_LSB:
    case CT_G726_16_LSB:
      return make<CodecG72X>();
    case CT_G729:
    case CT_G722:
    case CT_G722_MODE2:
    case CT_G722_MODE3:
    case CT_AMRWB:
      return make<CodecLibAdapter>();
    case CT_ICELP48:
      return make<CodecICELP48>();
    case CT_TETRA:
      return make<CodecTetra>();
    case CT_SILK_20MS:
    case CT_SILK_30MS:
    case CT_SILK_40MS:
    case CT_SILK_60MS:
      return make<CodecSILK>();
    case CT_OPUS:
      return make<CodecOpus>();
    case CT_MSADPCM:
      return make<CodecMSADPCM32>();
    case CT_PCM8:
      return make<CodecPCMLinear>();
    default:
      return nullptr;
  }
}

}  // namespace quillon
