// Maps a compression code to a new, unopened codec object.
#ifndef QUILLON_CODEC_REGISTRY_H
#define QUILLON_CODEC_REGISTRY_H

#include "quillon/codec.h"

namespace quillon {

// A new codec of the class that serves `code`, or null when the code has
// no codec class (PCM16 codes, unknown codes) or allocation fails.
TAV::Codec* createCodecFor(TAV::CompressionType code);

}  // namespace quillon

#endif
