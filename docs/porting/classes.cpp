// Delphi:
//   TClientColumn = class(TCollectionItem)
//   published
//     property Caption: string read FCaption write FCaption;
//     property Width: Integer read FWidth write SetWidth default 64;
//   end;
#include "vel/rtl/Classes.h"

using namespace vel;

class TClientColumn : public TCollectionItem {
  VEL_CLASS(TClientColumn, TCollectionItem)
 public:  // VEL_CLASS leaves what follows it private
  explicit TClientColumn(TCollection* Collection = nullptr) : TCollectionItem(Collection) {}

  std::string Caption;
  int32_t Width() const { return FWidth; }
  void SetWidth(int32_t Value) { FWidth = Value < 8 ? 8 : Value; }

 private:
  int32_t FWidth = 64;
};

// In exactly one .cpp file: the published section.
VEL_PUBLISHED(TClientColumn, prop("Caption", &TClientColumn::Caption),
              prop("Width", &TClientColumn::Width, &TClientColumn::SetWidth).defaults(64))

// A class that publishes nothing of its own still defines its class
// reference, with VEL_IMPLEMENT; message handlers are listed there too.
class TColumnWatcher : public TObject {
  VEL_CLASS(TColumnWatcher, TObject)
 public:
  void WMRefresh(TMessage& Msg) { Msg.Result = 1; }
};
VEL_IMPLEMENT(TColumnWatcher, message<&TColumnWatcher::WMRefresh>(WM_USER + 1))
