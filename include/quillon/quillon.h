// The whole public interface of the library: every TAV class and the plain
// exports.
#ifndef QUILLON_QUILLON_H
#define QUILLON_QUILLON_H

#include "quillon/platform.h"
#include "quillon/audio_format.h"
#include "quillon/codec.h"
#include "quillon/decoder_buffer.h"
#include "quillon/resampler.h"
#include "quillon/transcoder.h"
#include "quillon/decoder.h"
#include "quillon/ring_buffer.h"
#include "quillon/halfband_resampler.h"
#include "quillon/trace.h"
#include "quillon/fatal_error.h"
#include "quillon/codecs/codec_g711.h"
#include "quillon/codecs/codec_pcm_linear.h"
#include "quillon/codecs/codec_opus.h"
#include "quillon/opus_packet_decoder.h"
#include "quillon/encoders.h"
#include "quillon/codecs/codec_silk.h"
#include "quillon/codecs/codec_tetra.h"
#include "quillon/codecs/codec_icelp48.h"
#include "quillon/codecs/codec_lib_adapter.h"
#include "quillon/codecs/codec_g729a.h"
#include "quillon/codec_bench.h"
#include "quillon/codecs/codec_g72x.h"
#include "quillon/codecs/codec_msadpcm32.h"
#include "quillon/quillon_c.h"
#include "quillon/charset.h"
#include "quillon/host_info.h"

#endif
