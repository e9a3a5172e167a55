// Feeds arbitrary bytes to the recovery reader. It must never raise for bad
// data (only for a stream shorter than the signature or an unknown class
// when it is to create the component), never crash, leak or hang, and it
// must read to the end of the stream.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "vel/rtl/Debug.h"
#include "vel/velStreamRecover.h"

using namespace vel;

namespace {

enum TFrEnum : int32_t { frA, frB, frC };
VEL_ENUM(TFrEnum, "frA", "frB", "frC")

class TFrSub : public TPersistent {
  VEL_CLASS(TFrSub, TPersistent)
 public:
  int32_t Size = 0;
  std::string Name;
  TFrSub* Next = this;
  TStringList* Lines = new TStringList;
  ~TFrSub() override { delete Lines; }
};

class TFrComp : public TComponent {
  VEL_CLASS(TFrComp, TComponent)
 public:
  using TComponent::TComponent;
  ~TFrComp() override {
    delete Sub;
    delete Lines;
  }
  int32_t Int = 0;
  int64_t Big = 0;
  char Ch = 0;
  char16_t WCh = 0;
  TFrEnum En = frA;
  bool Flag = false;
  TSet<TFrEnum> Set;
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
  TFrSub* Sub = new TFrSub;
  TStringList* Lines = new TStringList;
  int32_t ReadOnly() const { return 0; }
};

}  // namespace

VEL_PUBLISHED(TFrSub, prop("Size", &TFrSub::Size), prop("Name", &TFrSub::Name),
              readonly_prop("Next", &TFrSub::Next), readonly_prop("Lines", &TFrSub::Lines))
VEL_PUBLISHED(TFrComp, prop("Int", &TFrComp::Int), prop("Big", &TFrComp::Big), prop("Ch", &TFrComp::Ch),
              prop("WCh", &TFrComp::WCh), prop("En", &TFrComp::En), prop("Flag", &TFrComp::Flag),
              prop("Set", &TFrComp::Set), prop("Sgl", &TFrComp::Sgl), prop("Dbl", &TFrComp::Dbl),
              prop("Ext", &TFrComp::Ext), prop("Cur", &TFrComp::Cur), prop("Cmp", &TFrComp::Cmp),
              prop("When", &TFrComp::When), prop("Short", &TFrComp::Short), prop("Long", &TFrComp::Long),
              prop("Wide", &TFrComp::Wide), prop("Var", &TFrComp::Var), readonly_prop("Sub", &TFrComp::Sub),
              readonly_prop("Lines", &TFrComp::Lines), prop("RO", &TFrComp::ReadOnly))

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  static const bool Registered = [] {
    RegisterClass(TFrComp::StaticClass());
    // Names go to the debug output; keep the fuzzer's output quiet.
    SetDebugOutputSink([](const std::string&) {});
    return true;
  }();
  (void)Registered;

  {
    TReadOnlyMemoryStream S(Data, static_cast<int64_t>(Size));
    try {
      std::unique_ptr<TComponent> C(RecoverComponentFromStream(&S));
      if (S.GetPosition() < S.GetSize()) std::abort();
    } catch (const EClassNotFound&) {
    } catch (const EReadError&) {
      if (Size >= 4) std::abort();
    }
  }
  if (Size >= 4) {
    TFrComp Target;
    TReadOnlyMemoryStream S(Data, static_cast<int64_t>(Size));
    try {
      RecoverComponentStream(&S, &Target);
    } catch (...) {
      std::abort();
    }
    if (S.GetPosition() < S.GetSize()) std::abort();
  }
  return 0;
}
