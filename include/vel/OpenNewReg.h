// OpenNewReg: TRegPackage, the settings of one plug-in package of the
// suite: its module (the package file), the class it registers, its version
// and its caption, all published strings.
//
// Thread safety: none; one thread at a time per object.
#pragma once

#include <string>

#include "vel/RegistryClasses.h"

namespace vel {

class VEL_API TRegPackage : public TCustomRegKey {
  VEL_CLASS(TRegPackage, TCustomRegKey)
 public:
  TRegPackage() = default;
  ~TRegPackage() override;

  std::string Module;
  std::string PackageClass;
  std::string Version;
  std::string Caption;
};

}  // namespace vel
