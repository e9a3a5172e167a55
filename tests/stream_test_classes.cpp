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
