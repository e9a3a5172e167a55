// The text form of component streams, and conversions between it and the
// binary form. Neither direction needs the classes in the stream to be
// registered: the conversion follows the value types alone.
//
//   object Root: TMyForm              "inherited" / "inline" for the flags,
//     Caption = 'Hello'#13#10'world'  " [n]" after the class for a child
//     Count = 42                      position
//     Ratio = 0.5                     vaExtended (an integral value gets
//     Ratio2 = 2.0                    ".0" so it stays a float)
//     Scale = 1.5s                    vaSingle, Price = 15000c (vaCurrency:
//     When = 45000.5d                 the scaled integer), vaDate
//     Shape = shSquare                identifiers (True, False, nil, Null
//     Styles = [stBold, stItalic]     for their value types)
//     Lines.Strings = (               lists
//       'one'
//       'two')
//     Items = <                       collections, "item [n]" with an order
//       item
//         Width = 10
//       end>
//     Data = {0A0B0C}                 binary, 32 bytes per line
//     object Child: TChild            owned components
//     end
//   end
//
// Strings: printable ASCII between quotes; every other character as #n with
// its Unicode code point (bytes of 8-bit strings through Windows-1252), the
// quote as #39; texts longer than 64 characters are split into 64-character
// pieces joined by " +" at the end of a line. Reading back, a text that
// Windows-1252 can hold becomes an 8-bit string (vaString / vaLString), any
// other a wide string (vaWString). Lines end with CR LF.
//
// NAN, INF and -INF (with the s or d suffix for singles and dates) stand for
// those float values, so identifiers spelled so are read as floats.
//
// What the writer of component streams produces converts to text and back
// to the same bytes; floats are written so that they read back exactly (an
// Extended that is not a double gets up to 21 digits where the shortest text
// would read as a double). Other streams convert to equivalent ones (for
// example a short text stored as vaLString comes back as vaString).
//
// Errors: the binary reader's (see Filer.h), with errors inside a property
// reported as EReadError "Error reading <object>.<property>: <message>";
// text errors as EParserError "<message> on line <n>" with the runtime's
// messages ("Identifier expected", "String expected", "Number expected",
// "'<c>' expected", "<symbol> expected", "Invalid binary value", "Invalid
// string constant", "Invalid property value"). On failure Output is left
// untouched.
#pragma once

#include "vel/rtl/Filer.h"

namespace vel {

VEL_EXCEPTION(EParserError, Exception);

// Converts the component stream at Input's position to text, written at
// Output's position. Input is left after the component stream.
VEL_API void ObjectBinaryToText(TStream* Input, TStream* Output);
// Converts the text at Input's position (to its end) to a component stream
// written at Output's position.
VEL_API void ObjectTextToBinary(TStream* Input, TStream* Output);

}  // namespace vel
