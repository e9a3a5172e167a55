#include "vel/RegistryClasses.h"

#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_PUBLISHED(TCustomRegKey)

TCustomRegKey::~TCustomRegKey() = default;

}  // namespace vel
