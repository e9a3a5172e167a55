#include "vel/rtl/Persistent.h"

#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

namespace {
constexpr const char* SAssignError = "Cannot assign a %s to a %s";
}  // namespace

VEL_PUBLISHED(TPersistent)

TPersistent::~TPersistent() = default;

void TPersistent::Assign(TPersistent* Source) {
  if (Source) {
    Source->AssignTo(this);
    return;
  }
  throw EConvertError(Format(SAssignError, {"nil", ClassName()}));
}

void TPersistent::AssignTo(TPersistent* Dest) {
  // Only reached when neither side knows how to copy: the message names the
  // source first, as the runtime's does.
  const std::string& DestName = Dest ? Dest->ClassName() : ClassName();
  throw EConvertError(Format(SAssignError, {ClassName(), DestName}));
}

std::string TPersistent::GetNamePath() const {
  std::string Result = ClassName();
  if (TPersistent* Owner = GetOwner()) {
    std::string OwnerPath = Owner->GetNamePath();
    if (!OwnerPath.empty()) Result = OwnerPath + "." + Result;
  }
  return Result;
}

void TPersistent::DefineProperties(TFiler*) {}

TPersistent* TPersistent::GetOwner() const { return nullptr; }

}  // namespace vel
