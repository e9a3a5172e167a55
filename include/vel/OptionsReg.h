// OptionsReg: TRegOptions, the suite's options settings object. The
// library persists it as part of the settings registry; the options
// themselves belong to the applications, so it publishes nothing of its own.
//
// Thread safety: none; one thread at a time per object.
#pragma once

#include "vel/RegistryClasses.h"

namespace vel {

class VEL_API TRegOptions : public TCustomRegKey {
  VEL_CLASS(TRegOptions, TCustomRegKey)
 public:
  TRegOptions() = default;
  ~TRegOptions() override;
};

}  // namespace vel
