#include "vel/VelUtils.h"

#include "vel/rtl/Components.h"
#include "vel/rtl/Filer.h"
#include "vel/rtl/ObjectText.h"
#include "vel/rtl/Streams.h"

namespace vel {

std::string ComponentToString(TComponent* Component) {
  if (!Component) return std::string();
  TMemoryStream Binary;
  WriteComponent(&Binary, Component);
  Binary.SetPosition(0);
  TStringStream Text;
  ObjectBinaryToText(&Binary, &Text);
  return Text.DataString();
}

std::string VarRecToStr(const TVarRec& Value) {
  switch (Value.VType) {
    case TVarRec::vtInteger:
      return std::to_string(Value.VInteger);
    case TVarRec::vtBoolean:
      return Value.VBoolean ? "True" : "False";
    case TVarRec::vtChar:
      return std::string(1, Value.VChar);
    case TVarRec::vtExtended:
      return FloatToStr(Value.VExtended);
    case TVarRec::vtCurrency:
      return CurrToStr(Value.VCurrency);
    case TVarRec::vtString:
      return std::string(Value.Str());
    case TVarRec::vtInt64:
    case TVarRec::vtWideChar:
    case TVarRec::vtPointer:
      break;
  }
  return std::string();
}

}  // namespace vel
