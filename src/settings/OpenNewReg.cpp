#include "vel/OpenNewReg.h"

#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_PUBLISHED(TRegPackage, prop("Module", &TRegPackage::Module),
              prop("PackageClass", &TRegPackage::PackageClass),
              prop("Version", &TRegPackage::Version), prop("Caption", &TRegPackage::Caption))

TRegPackage::~TRegPackage() = default;

}  // namespace vel
