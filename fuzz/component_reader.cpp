// Feeds arbitrary bytes to the component stream reader: it must read them or
// raise a vel::Exception, never crash, leak or hang. What it reads must be
// written again in a form that it reads back, and writing that gives the
// same bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "vel/rtl/Filer.h"
#include "vel/rtl/StringLists.h"

using namespace vel;

namespace {

enum TFzEnum : uint8_t { feA, feB, feC };
VEL_ENUM(TFzEnum, "feA", "feB", "feC")

class TFzSub : public TPersistent {
  VEL_CLASS(TFzSub, TPersistent)
 public:
  int32_t Size = 0;
  std::string Name;
  TFzSub* Self = this;  // refers back to itself
};

class TFzItem : public TCollectionItem {
  VEL_CLASS(TFzItem, TCollectionItem)
 public:
  using TCollectionItem::TCollectionItem;
  int32_t Width = 0;
  TComponent* Link = nullptr;
  TCollection* Inner = new TCollection(TFzItem::StaticClass());
  ~TFzItem() override { delete Inner; }
};

class TFzComp : public TComponent {
  VEL_CLASS(TFzComp, TComponent)
 public:
  using TComponent::TComponent;
  ~TFzComp() override {
    delete Sub;
    delete Items;
    delete Lines;
  }
  int32_t Int = 0;
  int64_t Big = 0;
  char Ch = 0;
  char16_t WCh = 0;
  TFzEnum En = feA;
  bool Flag = false;
  TSet<TFzEnum> Set;
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
  TFzSub* Sub = new TFzSub;
  TCollection* Items = new TCollection(TFzItem::StaticClass());
  TStringList* Lines = new TStringList;
  TComponent* Link = nullptr;
  TNotifyEvent OnEvent;
  std::string Blob;
  void Handler(TObject*) {}
  int32_t ReadOnly() const { return 0; }
  void DefineProperties(TFiler* Filer) override {
    Filer->DefineBinaryProperty(
        "Blob",
        [this](TStream* S) {
          Blob.resize(static_cast<size_t>(S->GetSize()));
          S->ReadBuffer(Blob.data(), S->GetSize());
        },
        [this](TStream* S) { S->WriteBuffer(Blob.data(), static_cast<int64_t>(Blob.size())); },
        !Blob.empty());
  }
};

// A root whose constructor makes a named child, for inherited entries.
class TFzRoot : public TFzComp {
  VEL_CLASS(TFzRoot, TFzComp)
 public:
  explicit TFzRoot(TComponent* AOwner = nullptr) : TFzComp(AOwner) {
    (new TFzComp(this))->SetName("Made");
  }
};

}  // namespace

VEL_PUBLISHED(TFzSub, prop("Size", &TFzSub::Size), prop("Name", &TFzSub::Name),
              readonly_prop("Self", &TFzSub::Self))
VEL_PUBLISHED(TFzItem, prop("Width", &TFzItem::Width).defaults(0), prop("Link", &TFzItem::Link),
              readonly_prop("Inner", &TFzItem::Inner))
VEL_PUBLISHED(TFzComp, prop("Int", &TFzComp::Int), prop("Big", &TFzComp::Big), prop("Ch", &TFzComp::Ch),
              prop("WCh", &TFzComp::WCh), prop("En", &TFzComp::En).defaults(feA),
              prop("Flag", &TFzComp::Flag), prop("Set", &TFzComp::Set), prop("Sgl", &TFzComp::Sgl),
              prop("Dbl", &TFzComp::Dbl), prop("Ext", &TFzComp::Ext), prop("Cur", &TFzComp::Cur),
              prop("Cmp", &TFzComp::Cmp), prop("When", &TFzComp::When), prop("Short", &TFzComp::Short),
              prop("Long", &TFzComp::Long), prop("Wide", &TFzComp::Wide), prop("Var", &TFzComp::Var),
              readonly_prop("Sub", &TFzComp::Sub), readonly_prop("Items", &TFzComp::Items),
              readonly_prop("Lines", &TFzComp::Lines), prop("Link", &TFzComp::Link),
              prop("OnEvent", &TFzComp::OnEvent), prop("RO", &TFzComp::ReadOnly),
              method<&TFzComp::Handler>("Handler"))
VEL_IMPLEMENT(TFzRoot)

namespace {

std::string Write(TComponent* C) {
  TMemoryStream M;
  WriteComponent(&M, C);
  return std::string(static_cast<const char*>(M.Memory()), static_cast<size_t>(M.GetSize()));
}

// References are written by name and read back by name search, so trees
// that use them may name a different component of the same name.
bool UsesReferences(TComponent* C) {
  auto* F = dynamic_cast<TFzComp*>(C);
  if (F && (F->Link || F->Items->Count() > 0)) return true;
  for (int I = 0; I < C->ComponentCount(); ++I)
    if (UsesReferences(C->Components(I))) return true;
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  static const bool Registered = [] {
    RegisterClasses({TFzComp::StaticClass(), TFzRoot::StaticClass()});
    return true;
  }();
  (void)Registered;

  std::unique_ptr<TComponent> C;
  try {
    TReadOnlyMemoryStream S(Data, static_cast<int64_t>(Size));
    C.reset(ReadComponent(&S));
  } catch (const Exception&) {
  }
  if (C) {
    const std::string W1 = Write(C.get());
    std::unique_ptr<TComponent> C2;
    try {
      TReadOnlyMemoryStream S(W1.data(), static_cast<int64_t>(W1.size()));
      C2.reset(ReadComponent(&S));
    } catch (const Exception&) {
      std::abort();  // what the writer writes must read back
    }
    if (!UsesReferences(C.get()) && Write(C2.get()) != W1) std::abort();
  }

  // Into an existing root, with every error ignored.
  TFzRoot Root;
  TReadOnlyMemoryStream S(Data, static_cast<int64_t>(Size));
  TReader R(&S);
  R.OnError = [](TReader*, const std::string&, bool& Handled) { Handled = true; };
  try {
    R.ReadRootComponent(&Root);
  } catch (const Exception&) {
  }
  return 0;
}
