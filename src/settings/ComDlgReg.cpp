#include "vel/ComDlgReg.h"

#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_PUBLISHED(TCommonDlgReg, prop("FatalDialog", &TCommonDlgReg::FatalDialog),
              prop("CompleteDialog", &TCommonDlgReg::CompleteDialog),
              prop("SignOffDialog", &TCommonDlgReg::SignOffDialog),
              prop("InCompleteDialog", &TCommonDlgReg::InCompleteDialog))

TCommonDlgReg::TCommonDlgReg()
    : FFatalDialog(new TRegPackage), FCompleteDialog(new TRegPackage),
      FSignOffDialog(new TRegPackage), FInCompleteDialog(new TRegPackage) {}

TCommonDlgReg::~TCommonDlgReg() {
  delete FFatalDialog;
  delete FCompleteDialog;
  delete FSignOffDialog;
  delete FInCompleteDialog;
}

}  // namespace vel
