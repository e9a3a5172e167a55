// Small helpers shared by the library's units: the text form of a component
// and of one typed argument of an open argument list.
#pragma once

#include <string>

#include "vel/rtl/SysUtils.h"

namespace vel {

class TComponent;

// The component's published state as object text ("object Name: TClass"
// ... "end", the form the runtime's ObjectBinaryToText gives for the
// component's stream). A null component gives "". Errors raised while
// streaming the component propagate.
VEL_API std::string ComponentToString(TComponent* Component);

// The text of one argument by its type tag: an integer in decimal, a
// boolean as "False" or "True", a character as itself, a float as
// FloatToStr gives it, currency as CurrToStr, a string as its text; a
// pointer, a wide character or a 64-bit integer give "".
VEL_API std::string VarRecToStr(const TVarRec& Value);

}  // namespace vel
