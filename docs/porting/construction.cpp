// Delphi:
//   constructor TPortfolioView.Create(AOwner: TComponent);
//   begin
//     inherited;
//     FHoldings := TStringList.Create;
//   end;
//   destructor TPortfolioView.Destroy;
//   begin
//     FHoldings.Free;
//     inherited;
//   end;
#include <memory>

#include "vel/rtl/Classes.h"

using namespace vel;

class TPortfolioView : public TComponent {
  VEL_CLASS(TPortfolioView, TComponent)
 public:
  // The owner constructor is the one streams and class references call.
  explicit TPortfolioView(TComponent* AOwner = nullptr) : TComponent(AOwner) {}
  ~TPortfolioView() override { delete FHoldings; }  // Free

  TStringList* Holdings() const { return FHoldings; }

 private:
  TStringList* FHoldings = new TStringList;  // created with the object
};
VEL_IMPLEMENT(TPortfolioView)

void OwnershipExample() {
  // An owner frees what it owns, as in Delphi: the view goes with Desk.
  auto Desk = std::make_unique<TComponent>(nullptr);
  auto* View = new TPortfolioView(Desk.get());
  View->SetName("ClientView");
  View->Holdings()->Add("VWRL");

  // Without an owner the creator frees it: delete (Free), or FreeAndNil.
  auto* Loose = new TPortfolioView;
  FreeAndNil(Loose);

  // Creating by class reference (Delphi: TComponentClass(C).Create(Owner)).
  TClass C = TPortfolioView::StaticClass();
  TObject* Made = C->CreateWith(Desk.get());  // owned by Desk
  (void)Made;
}
