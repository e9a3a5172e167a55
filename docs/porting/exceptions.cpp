// Delphi:
//   type EValuationError = class(Exception);
//   raise EValuationError.CreateFmt('No price for %s', [Code]);
//   ...
//   except on E: Exception do ShowMessage(E.Message); end;
#include <string>

#include "vel/rtl/Classes.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

VEL_EXCEPTION(EValuationError, Exception);

double PriceOf(const std::string& Code) {
  if (Code.empty()) throw EValuationError("No instrument code");
  throw EValuationError(Format("No price for %s", {Code}));
}

std::string ValuationMessage(const std::string& Code) {
  try {
    return std::to_string(PriceOf(Code));
  } catch (const EValuationError& E) {
    return E.Message();  // what() is the same text
  } catch (const Exception&) {
    // Report anything else the way the application does (OnException, or
    // its error message box).
    Application->HandleException(nullptr);
    return std::string();
  }
}
