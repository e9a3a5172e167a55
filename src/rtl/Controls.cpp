#include "vel/rtl/Controls.h"

#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TControl)
VEL_IMPLEMENT(TWinControl)

TControl::~TControl() = default;

TWinControl::~TWinControl() {
  DestroyHandle();
}

void TWinControl::CreateHandle() {
  FHandle = AllocateHWnd(TWndMethod::Bind<&TWinControl::WndProc>(this));
}

void TWinControl::DestroyHandle() {
  if (FHandle) {
    DeallocateHWnd(FHandle);
    FHandle = 0;
  }
}

}  // namespace vel
