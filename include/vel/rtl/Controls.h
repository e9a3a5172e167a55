// The runtime's controls, reduced to what non-visual code needs: TControl,
// a component that can sit on a form, and TWinControl, a control with a
// window of its own. The window is a hidden window (AllocateHWnd) created
// on first use of Handle, owned by the calling thread (normally the main
// thread); its messages go to the control's Dispatch, so message handlers
// registered with message<&C::Handler>(Msg) receive them and other numbers
// go to DefaultHandler. The window is destroyed with the control.
//
// Thread safety: as components (none). Other threads post to the window.
#pragma once

#include "vel/rtl/Components.h"
#include "vel/rtl/Messages.h"

namespace vel {

class VEL_API TControl : public TComponent {
  VEL_CLASS(TControl, TComponent)
 public:
  explicit TControl(TComponent* AOwner = nullptr) : TComponent(AOwner) {}
  ~TControl() override;
};

class VEL_API TWinControl : public TControl {
  VEL_CLASS(TWinControl, TControl)
 public:
  explicit TWinControl(TComponent* AOwner = nullptr) : TControl(AOwner) {}
  ~TWinControl() override;

  // The window, created on first use.
  HWND Handle() {
    HandleNeeded();
    return FHandle;
  }
  bool HandleAllocated() const { return FHandle != 0; }
  void HandleNeeded() {
    if (!FHandle) CreateHandle();
  }
  // Destroys the window; the next Handle makes a new one.
  void DestroyHandle();

 protected:
  virtual void CreateHandle();
  // The window procedure: Dispatch.
  virtual void WndProc(TMessage& Message) { Dispatch(&Message); }

 private:
  HWND FHandle = 0;
};

}  // namespace vel
