// The options record of the codecLib engine front, which
// TAV::CodecLibAdapter holds and passes to every engine call.
#ifndef QUILLON_CODECS_CODEC_LIB_OPTIONS_H
#define QUILLON_CODECS_CODEC_LIB_OPTIONS_H

#include "quillon/platform.h"

namespace quillon::codeclib {

// The codecLib options record: the caller owns it and passes it to every
// engine call. A query without info record clears it and writes the
// engine's defaults.
struct CodecLibOptions {
  TAV::int16 mode;         // G.722 mode (1..3) or AMR-WB mode index
  TAV::int16 badFrame;     // frame-erasure flag for the decoder; > 0 marks a bad frame
  TAV::int16 param;        // engine parameter word
  TAV::int16 dtx;          // AMR-WB encoder DTX switch
  TAV::int32 frameLength;  // G.722 frame in samples
  TAV::int32 engine[12];   // the engines' own fields
};

}  // namespace quillon::codeclib

#endif
