// Delphi:
//   Button.OnClick := ButtonClick;     // a method of the form
//   if Assigned(FOnChange) then FOnChange(Self);
#include "vel/rtl/Classes.h"

using namespace vel;

class TRateEditor : public TComponent {
  VEL_CLASS(TRateEditor, TComponent)
 public:
  using TComponent::TComponent;
  TNotifyEvent OnChange;  // an event property: a (method, object) pair

  void SetRate(double Value) {
    FRate = Value;
    if (OnChange) OnChange(this);
  }

 private:
  double FRate = 0;
};
VEL_PUBLISHED(TRateEditor, prop("OnChange", &TRateEditor::OnChange))

class TAdviceForm : public TComponent {
  VEL_CLASS(TAdviceForm, TComponent)
 public:
  using TComponent::TComponent;
  void RateChanged(TObject* Sender) { Changes += Sender ? 1 : 0; }
  int Changes = 0;
};
// Publishing the handler lets a component stream name it.
VEL_IMPLEMENT(TAdviceForm, method<&TAdviceForm::RateChanged>("RateChanged"))

void EventsExample(TAdviceForm* Form, TRateEditor* Editor) {
  Editor->OnChange = TNotifyEvent::Bind<&TAdviceForm::RateChanged>(Form);
  Editor->SetRate(0.04);
  Editor->OnChange = TNotifyEvent();  // := nil
}
