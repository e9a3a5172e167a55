// ComDlgReg: TCommonDlgReg, the settings of the suite's common dialogs,
// each a package settings object it owns.
//
// Thread safety: none; one thread at a time per object.
#pragma once

#include "vel/OpenNewReg.h"

namespace vel {

class VEL_API TCommonDlgReg : public TCustomRegKey {
  VEL_CLASS(TCommonDlgReg, TCustomRegKey)
 public:
  TCommonDlgReg();
  ~TCommonDlgReg() override;
  TCommonDlgReg(const TCommonDlgReg&) = delete;
  TCommonDlgReg& operator=(const TCommonDlgReg&) = delete;

  TRegPackage* FatalDialog() const { return FFatalDialog; }
  TRegPackage* CompleteDialog() const { return FCompleteDialog; }
  TRegPackage* SignOffDialog() const { return FSignOffDialog; }
  TRegPackage* InCompleteDialog() const { return FInCompleteDialog; }

 private:
  TRegPackage* FFatalDialog;
  TRegPackage* FCompleteDialog;
  TRegPackage* FSignOffDialog;
  TRegPackage* FInCompleteDialog;
};

}  // namespace vel
