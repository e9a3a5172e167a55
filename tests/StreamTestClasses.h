// Published classes shared by the streaming tests: a component with a
// property of every kind the component streams write, a small form with a
// collection, and a small component for object lists.
#pragma once

#include <string>
#include <vector>

#include "vel/rtl/Filer.h"
#include "vel/rtl/StringLists.h"

namespace stream_test {

using namespace vel;

enum TShape : uint8_t { shCircle, shSquare, shTriangle };
VEL_ENUM(TShape, "shCircle", "shSquare", "shTriangle")
enum TStyle : uint8_t { stBold, stItalic, stUnderline };
VEL_ENUM(TStyle, "stBold", "stItalic", "stUnderline")
using TStyles = TSet<TStyle>;

class TFontLike : public TPersistent {
  VEL_CLASS(TFontLike, TPersistent)
 public:
  std::string Name;
  int32_t Size = 10;
  TStyles Styles;
};

class TColItem : public TCollectionItem {
  VEL_CLASS(TColItem, TCollectionItem)
 public:
  using TCollectionItem::TCollectionItem;
  int32_t Width = 0;
  std::string Caption;
  TComponent* Link = nullptr;
};

// Counts TEveryKind instances so that tests can tell what a failed read freed.
inline int LiveParts = 0;

// A component with a property of every kind, owned sub-objects, a
// reference, an event and binary data defined through DefineProperties.
class TEveryKind : public TComponent {
  VEL_CLASS(TEveryKind, TComponent)
 public:
  explicit TEveryKind(TComponent* AOwner = nullptr);
  ~TEveryKind() override;
  int32_t Int = 0;
  int64_t Big = 0;
  char Ch = 0;
  char16_t WCh = 0;
  TShape Shape = shCircle;
  bool Flag = false;
  TStyles Styles;
  float Sgl = 0;
  double Dbl = 0;
  Extended Ext = 0;
  Currency Cur;
  Comp Cmp;
  TDateTime When;
  ShortString Short;
  std::string Long;
  std::u16string Wide;
  Variant Var;
  TFontLike* Font = new TFontLike;
  TCollection* Items;
  TStringList* Lines = new TStringList;
  TComponent* Buddy = nullptr;
  TNotifyEvent OnClick;
  std::string Blob;  // streamed as binary through DefineProperties
  int Clicks = 0;
  std::vector<std::string> Log;  // what Loaded saw

  void HandleClick(TObject*) { ++Clicks; }
  void DefineProperties(TFiler* Filer) override;
  void Loaded() override;
};

// A form with a caption and a collection of columns, the shape of the
// text and XML examples.
class TColumn : public TCollectionItem {
  VEL_CLASS(TColumn, TCollectionItem)
 public:
  explicit TColumn(TCollection* C = nullptr) : TCollectionItem(C) {}
  int32_t Width = 0;
};

class TColumns : public TCollection {
  VEL_CLASS(TColumns, TCollection)
 public:
  TColumns() : TCollection(TColumn::StaticClass()) {}
};

class TMyForm : public TComponent {
  VEL_CLASS(TMyForm, TComponent)
 public:
  explicit TMyForm(TComponent* AOwner = nullptr) : TComponent(AOwner) {}
  ~TMyForm() override { delete Columns; }
  std::string Caption;
  TColumns* Columns = new TColumns;
};

// A component with one integer property, for object lists.
class TPart : public TComponent {
  VEL_CLASS(TPart, TComponent)
 public:
  explicit TPart(TComponent* AOwner = nullptr) : TComponent(AOwner) {}
  int32_t Size = 0;
};

// Gives E ("Root") a value of every kind, two collection items, three
// lines, binary data, a bound event and an owned tree Child (TEveryKind) >
// Grand (TPart), with references to both.
void FillEveryKind(TEveryKind& E);

}  // namespace stream_test
