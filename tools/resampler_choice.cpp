#include "resampler_choice.h"

#include "quillon/halfband_resampler.h"

namespace quillon::tool {

bool selectResampler(const std::string& name) {
  static TAV::IResamplerFactory* const library = TAV::IResamplerFactory::s_DefaultFactory;
  static TAV::HalfbandResamplerFactory halfband;
  if (name == "mean") TAV::IResamplerFactory::s_DefaultFactory = library;
  else if (name == "halfband") TAV::IResamplerFactory::s_DefaultFactory = &halfband;
  else return false;
  return true;
}

}  // namespace quillon::tool
