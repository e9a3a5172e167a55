// Feeds arbitrary bytes to the binary object reader: LoadFromStream into a
// graph with every property kind and container, and CreateFromStream. Each
// input must end in success or a vel::Exception, without leaks.
#include <cstddef>
#include <cstdint>

#include "vel/StreamClasses.h"

using namespace vel;

namespace {

enum TFuzzEnum : uint8_t { feA, feB, feC };
VEL_ENUM(TFuzzEnum, "feA", "feB", "feC")

class TFuzzItem : public TCollectionItem {
  VEL_CLASS(TFuzzItem, TCollectionItem)
 public:
  explicit TFuzzItem(TCollection* C = nullptr) : TCollectionItem(C) {}
  int32_t I = 0;
  std::string S;
};

class TFuzzPart : public TComponent {
  VEL_CLASS(TFuzzPart, TComponent)
 public:
  explicit TFuzzPart(TComponent* AOwner = nullptr) : TComponent(AOwner) {}
  double D = 0;
};

class TFuzzRoot : public TPersistent {
  VEL_CLASS(TFuzzRoot, TPersistent)
 public:
  ~TFuzzRoot() override {
    for (int K = 0; K < Lines->Count(); ++K) delete Lines->Objects(K);
    delete Items;
    delete Parts;
    delete Lines;
    delete Child;
  }
  int32_t Int = 0;
  char Ch = 0;
  char16_t WCh = 0;
  TFuzzEnum E = feA;
  bool B = false;
  TSet<TFuzzEnum> Set;
  float F = 0;
  double D = 0;
  Extended X = 0;
  Currency Cur;
  Comp Cmp;
  TDateTime When;
  ShortString Short;
  std::string Long;
  std::u16string Wide;
  int64_t Big = 0;
  Variant Var;
  TNotifyEvent OnEvent;
  TCollection* Items = new TCollection(TFuzzItem::StaticClass());
  TObjectList* Parts = new TObjectList(true);
  TStringList* Lines = new TStringList;
  TFuzzRoot* Child = nullptr;
};

}  // namespace

VEL_PUBLISHED(TFuzzItem, prop("I", &TFuzzItem::I), prop("S", &TFuzzItem::S))
VEL_PUBLISHED(TFuzzPart, prop("D", &TFuzzPart::D))
VEL_PUBLISHED(TFuzzRoot, prop("Int", &TFuzzRoot::Int), prop("Ch", &TFuzzRoot::Ch),
              prop("WCh", &TFuzzRoot::WCh), prop("E", &TFuzzRoot::E), prop("B", &TFuzzRoot::B),
              prop("Set", &TFuzzRoot::Set), prop("F", &TFuzzRoot::F), prop("D", &TFuzzRoot::D),
              prop("X", &TFuzzRoot::X), prop("Cur", &TFuzzRoot::Cur), prop("Cmp", &TFuzzRoot::Cmp),
              prop("When", &TFuzzRoot::When), prop("Short", &TFuzzRoot::Short),
              prop("Long", &TFuzzRoot::Long), prop("Wide", &TFuzzRoot::Wide),
              prop("Big", &TFuzzRoot::Big), prop("Var", &TFuzzRoot::Var),
              prop("OnEvent", &TFuzzRoot::OnEvent), prop("Items", &TFuzzRoot::Items),
              prop("Parts", &TFuzzRoot::Parts), prop("Lines", &TFuzzRoot::Lines),
              prop("Child", &TFuzzRoot::Child))

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  static const bool Registered = [] {
    RegisterClasses({TFuzzItem::StaticClass(), TFuzzPart::StaticClass(), TFuzzRoot::StaticClass()});
    return true;
  }();
  (void)Registered;
  {
    TReadOnlyMemoryStream S(Data, static_cast<int64_t>(Size));
    TFuzzRoot Root;
    try {
      TBinaryStreamer B(&S);
      B.SetTypeKinds(tkAny);  // events too
      B.LoadFromStream(&Root);
    } catch (const Exception&) {
    }
  }
  {
    TReadOnlyMemoryStream S(Data, static_cast<int64_t>(Size));
    try {
      delete TBinaryStreamer(&S).CreateFromStream();
    } catch (const Exception&) {
    }
  }
  return 0;
}
