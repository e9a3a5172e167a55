#include "vel/OptionsReg.h"

#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TRegOptions)

TRegOptions::~TRegOptions() = default;

}  // namespace vel
