// The published members of the classes in StreamTestClasses.h.
#include "StreamTestClasses.h"

namespace stream_test {

TEveryKind::TEveryKind(TComponent* AOwner)
    : TComponent(AOwner), Items(new TCollection(TColItem::StaticClass())) {
  ++LiveParts;
}

TEveryKind::~TEveryKind() {
  --LiveParts;
  delete Font;
  delete Items;
  delete Lines;
}

void TEveryKind::DefineProperties(TFiler* Filer) {
  TComponent::DefineProperties(Filer);
  Filer->DefineBinaryProperty(
      "Blob",
      [this](TStream* S) {
        Blob.resize(static_cast<size_t>(S->GetSize()));
        S->ReadBuffer(Blob.data(), S->GetSize());
      },
      [this](TStream* S) { S->WriteBuffer(Blob.data(), static_cast<int64_t>(Blob.size())); },
      !Blob.empty());
}

void TEveryKind::Loaded() {
  TComponent::Loaded();
  Log.push_back("Loaded " + Name() + (Buddy ? " buddy=" + Buddy->Name() : std::string()));
}

void FillEveryKind(TEveryKind& E) {
  E.SetName("Root");
  E.Int = -5;
  E.Big = 1LL << 40;
  E.Ch = '\'';
  E.WCh = u'\u03A9';
  E.Shape = shTriangle;
  E.Flag = true;
  E.Styles = {stBold, stUnderline};
  E.Sgl = 0.1f;
  E.Dbl = 0.1;
  E.Ext = 0.1L;
  E.Cur = Currency::FromScaled(123456789);
  E.Cmp = Comp(int64_t(-9000000000LL));
  E.When = TDateTime(45000.75);
  E.Short = ShortString("short");
  E.Long = std::string(100, 'L') + "It's \x80\r\n";
  E.Wide = u"Gr\u00FC\u00DFe \u20AC and \u4E2D";
  E.Var = Variant(int32_t(77));
  E.Font->Name = "Courier";
  E.Font->Size = 12;
  E.Font->Styles = {stItalic};
  auto* I1 = static_cast<TColItem*>(E.Items->Add());
  I1->Width = 40;
  I1->Caption = "first";
  static_cast<TColItem*>(E.Items->Add())->Caption = "second";
  E.Lines->Add("alpha");
  E.Lines->Add("");
  E.Lines->Add("gamma 'quoted'");
  E.Blob = std::string("\x00\x01\xFF\x7F", 4);
  E.OnClick = TNotifyEvent::Bind<&TEveryKind::HandleClick>(&E);
  auto* Child = new TEveryKind(&E);
  Child->SetName("Child");
  Child->Int = 1;
  auto* Grand = new TPart(Child);
  Grand->SetName("Grand");
  E.Buddy = Grand;
  I1->Link = Child;
}

}  // namespace stream_test

using namespace stream_test;

VEL_PUBLISHED(TFontLike, prop("Name", &TFontLike::Name),
              prop("Size", &TFontLike::Size).defaults(10),
              prop("Styles", &TFontLike::Styles).defaults(0))
VEL_PUBLISHED(TColItem, prop("Width", &TColItem::Width).defaults(0),
              prop("Caption", &TColItem::Caption), prop("Link", &TColItem::Link))
VEL_PUBLISHED(TEveryKind, prop("Int", &TEveryKind::Int), prop("Big", &TEveryKind::Big),
              prop("Ch", &TEveryKind::Ch).defaults(0), prop("WCh", &TEveryKind::WCh).defaults(0),
              prop("Shape", &TEveryKind::Shape).defaults(shCircle),
              prop("Flag", &TEveryKind::Flag).defaults(false),
              prop("Styles", &TEveryKind::Styles).defaults(0), prop("Sgl", &TEveryKind::Sgl),
              prop("Dbl", &TEveryKind::Dbl), prop("Ext", &TEveryKind::Ext),
              prop("Cur", &TEveryKind::Cur), prop("Cmp", &TEveryKind::Cmp),
              prop("When", &TEveryKind::When), prop("Short", &TEveryKind::Short),
              prop("Long", &TEveryKind::Long), prop("Wide", &TEveryKind::Wide),
              prop("Var", &TEveryKind::Var), prop("Font", &TEveryKind::Font),
              readonly_prop("Items", &TEveryKind::Items),
              readonly_prop("Lines", &TEveryKind::Lines), prop("Buddy", &TEveryKind::Buddy),
              prop("OnClick", &TEveryKind::OnClick),
              method<&TEveryKind::HandleClick>("HandleClick"))
VEL_PUBLISHED(TPart, prop("Size", &TPart::Size).defaults(0))
VEL_PUBLISHED(TColumn, prop("Width", &TColumn::Width).defaults(0))
VEL_IMPLEMENT(TColumns)
VEL_PUBLISHED(TMyForm, prop("Caption", &TMyForm::Caption), prop("Columns", &TMyForm::Columns))
