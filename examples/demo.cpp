// The example application: declares a few classes with published
// properties, registers them, creates objects by class name and prints
// every published property with its value through the type information.
#include <cstdio>
#include <string>

#include "vel/StreamClasses.h"
#include "vel/rtl/Components.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace demo {

enum TRiskLevel : uint8_t { rlLow, rlMedium, rlHigh };
VEL_ENUM(TRiskLevel, "rlLow", "rlMedium", "rlHigh")

enum TAssetClass : uint8_t { acEquity, acBond, acCash, acProperty };
VEL_ENUM(TAssetClass, "acEquity", "acBond", "acCash", "acProperty")
using TAssetClasses = TSet<TAssetClass>;

// One holding of a portfolio.
class THolding : public TCollectionItem {
  VEL_CLASS(THolding, TCollectionItem)
 public:
  explicit THolding(TCollection* C = nullptr) : TCollectionItem(C) {}
  std::string Symbol;
  int32_t Units = 0;
  Currency Price;
};

// A client's portfolio: a component with properties of several kinds.
class TPortfolio : public TComponent {
  VEL_CLASS(TPortfolio, TComponent)
 public:
  explicit TPortfolio(TComponent* AOwner = nullptr) : TComponent(AOwner) {}
  ~TPortfolio() override { delete FHoldings; }

  std::string Client;
  TRiskLevel Risk = rlMedium;
  TAssetClasses Allowed{acEquity, acBond, acCash};
  bool Active = true;
  double TargetReturn = 0.045;
  TDateTime Opened = EncodeDate(2003, 7, 4);
  int64_t AccountNo = 0;
  TCollection* Holdings() const { return FHoldings; }

 private:
  TCollection* FHoldings = new TCollection(THolding::StaticClass());
};

}  // namespace demo

using namespace demo;

VEL_PUBLISHED(THolding,
              prop("Symbol", &THolding::Symbol),
              prop("Units", &THolding::Units).defaults(0),
              prop("Price", &THolding::Price))

VEL_PUBLISHED(TPortfolio,
              prop("Client", &TPortfolio::Client),
              prop("Risk", &TPortfolio::Risk).defaults(rlMedium),
              prop("Allowed", &TPortfolio::Allowed),
              prop("Active", &TPortfolio::Active).defaults(true),
              prop("TargetReturn", &TPortfolio::TargetReturn),
              prop("Opened", &TPortfolio::Opened),
              prop("AccountNo", &TPortfolio::AccountNo),
              prop("Holdings", &TPortfolio::Holdings))

namespace {

// The value of one property as text, by its kind.
std::string ValueText(TObject* Obj, PPropInfo P, int Indent);

void PrintProperties(TObject* Obj, int Indent) {
  std::string Pad(static_cast<size_t>(Indent) * 2, ' ');
  for (PPropInfo P : GetPropList(Obj->ClassInfo())) {
    std::string Mark = IsDefaultPropValue(Obj, P) ? "  (default)" : "";
    std::printf("%s%-13s %-18s = %s%s\n", Pad.c_str(), P->Name.c_str(), P->PropType->Name.c_str(),
                ValueText(Obj, P, Indent).c_str(), Mark.c_str());
  }
}

std::string ValueText(TObject* Obj, PPropInfo P, int Indent) {
  switch (P->Kind()) {
    case tkInteger:
      return IntToStr(GetOrdProp(Obj, P));
    case tkEnumeration:
      return GetEnumName(P->PropType, GetOrdProp(Obj, P));
    case tkSet:
      return GetSetProp(Obj, P, true);
    case tkFloat:
      if (P->PropType->Name == "TDateTime")
        return FormatDateTime("yyyy-mm-dd", TDateTime(static_cast<double>(GetFloatProp(Obj, P))));
      return FloatToStr(GetFloatProp(Obj, P));
    case tkString:
    case tkLString:
    case tkWString:
      return "'" + GetStrProp(Obj, P) + "'";
    case tkInt64:
      return IntToStr(GetInt64Prop(Obj, P));
    case tkClass: {
      TObject* Value = GetObjectProp(Obj, P);
      if (!Value) return "nil";
      std::string Text = Value->ClassName();
      if (auto* Col = dynamic_cast<TCollection*>(Value)) {
        Text += Format(" with %d items", {Col->Count()});
        for (int I = 0; I < Col->Count(); ++I) {
          Text += Format("\n%s  [%d] %s", {std::string(static_cast<size_t>(Indent) * 2, ' '), I,
                                           Col->Items(I)->ClassName()});
          for (PPropInfo IP : GetPropList(Col->Items(I)->ClassInfo()))
            Text += Format("  %s=%s", {IP->Name, ValueText(Col->Items(I), IP, Indent + 1)});
        }
      }
      return Text;
    }
    default:
      return "?";
  }
}

// Writes Obj with a streamer of class T and prints the text, a line break
// (CR, or CR LF) shown as a new line.
template <class T>
void PrintEncoded(const char* Title, TObject* Obj) {
  TMemoryStream Stream;
  T(&Stream).SaveToStream(Obj);
  std::string Text(static_cast<const char*>(Stream.Memory()),
                   static_cast<size_t>(Stream.GetSize()));
  std::string Shown;
  for (size_t I = 0; I < Text.size(); ++I) {
    if (Text[I] != '\r') {
      Shown += Text[I];
    } else if (I + 1 >= Text.size() || Text[I + 1] != '\n') {
      Shown += '\n';
    }
  }
  std::printf("\n%s, %lld bytes:\n%s\n", Title, static_cast<long long>(Stream.GetSize()),
              Shown.c_str());
}

}  // namespace

int main() {
  RegisterClasses({TPortfolio::StaticClass(), THolding::StaticClass()});

  // Create the object from its class name, as a stream reader does.
  TClass Class = FindClass("TPortfolio");
  auto* Portfolio = static_cast<TPortfolio*>(Class->CreateWith(nullptr));
  Portfolio->SetName("Smith");

  // Set properties by name through the type information.
  SetStrProp(Portfolio, "Client", "Ms J. Smith");
  SetPropValue(Portfolio, "Risk", Variant(std::string("rlHigh")));
  SetSetProp(Portfolio, GetPropInfo(Portfolio, "Allowed"), "[acEquity,acProperty]");
  SetInt64Prop(Portfolio, GetPropInfo(Portfolio, "AccountNo"), 4400123456789LL);
  const char* Symbols[] = {"VOD.L", "BP.L", "HSBA.L"};
  for (int I = 0; I < 3; ++I) {
    TCollectionItem* H = Portfolio->Holdings()->Add();
    SetStrProp(H, "Symbol", Symbols[I]);
    SetOrdProp(H, "Units", (I + 1) * 100);
    SetFloatProp(H, "Price", 1.25L * (I + 1));
  }

  std::printf("VelClassesLib demo: published properties of %s (%d properties)\n",
              Portfolio->ClassName().c_str(), GetTypeData(Portfolio->ClassInfo())->PropCount);
  PrintProperties(Portfolio, 0);

  // A round trip through the binary object stream: the reader creates the
  // root from the class name the stream starts with.
  TMemoryStream Stream;
  ObjectToStream(Portfolio, &Stream);
  std::printf("\nBinary stream: %lld bytes:", static_cast<long long>(Stream.GetSize()));
  const auto* Bytes = static_cast<const uint8_t*>(Stream.Memory());
  for (int64_t I = 0; I < Stream.GetSize() && I < 24; ++I) std::printf(" %02X", Bytes[I]);
  std::printf(" ...\n");
  Stream.SetPosition(0);
  TObject* Copy = TBinaryStreamer(&Stream).CreateFromStream();
  std::printf("Read back as a new %s (Name and Tag are never streamed):\n",
              Copy->ClassName().c_str());
  PrintProperties(Copy, 0);
  delete Copy;

  // The write-only encodings of the same object. Their lines are separated
  // by a single carriage return (dates end theirs with CR LF); shown here
  // one per line.
  PrintEncoded<TTextStreamer>("Indented text (TTextStreamer)", Portfolio);
  PrintEncoded<TObjectTextStreamer>("Object text (TObjectTextStreamer)", Portfolio);
  PrintEncoded<TXMLStreamer>("XML (TXMLStreamer)", Portfolio);
  PrintEncoded<TClassTreeStreamer>("Class tree (TClassTreeStreamer)", Portfolio);

  delete Portfolio;
  return 0;
}
