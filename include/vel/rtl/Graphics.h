// Colours and cursors as the runtime names them: the TColor and TCursor
// integer types (published under those type names), the standard and
// system colour constants, the standard cursor constants, and the
// conversions between values and their identifiers.
//
// A colour is a 32-bit value: $00BBGGRR for an RGB colour, clSystemColor
// (the top byte $FF) or-ed with the Windows system colour index for a
// system colour, and the two special values clNone and clDefault. A cursor
// is a 16-bit value; the predefined cursors are 0 and negative.
//
// Thread safety: every function is reentrant; the name tables are
// constant.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "vel/Export.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

struct TColorTypeName {
  static constexpr const char* Name = "TColor";
};
struct TCursorTypeName {
  static constexpr const char* Name = "TCursor";
};

// Published properties of these types are of kind tkInteger with the type
// names "TColor" and "TCursor".
using TColor = TNamedInteger<TColorTypeName, int32_t>;
using TCursor = TNamedInteger<TCursorTypeName, int16_t>;

// --- Standard colours ($00BBGGRR).
inline constexpr int32_t clBlack = 0x000000;
inline constexpr int32_t clMaroon = 0x000080;
inline constexpr int32_t clGreen = 0x008000;
inline constexpr int32_t clOlive = 0x008080;
inline constexpr int32_t clNavy = 0x800000;
inline constexpr int32_t clPurple = 0x800080;
inline constexpr int32_t clTeal = 0x808000;
inline constexpr int32_t clGray = 0x808080;
inline constexpr int32_t clSilver = 0xC0C0C0;
inline constexpr int32_t clRed = 0x0000FF;
inline constexpr int32_t clLime = 0x00FF00;
inline constexpr int32_t clYellow = 0x00FFFF;
inline constexpr int32_t clBlue = 0xFF0000;
inline constexpr int32_t clFuchsia = 0xFF00FF;
inline constexpr int32_t clAqua = 0xFFFF00;
inline constexpr int32_t clLtGray = 0xC0C0C0;
inline constexpr int32_t clDkGray = 0x808080;
inline constexpr int32_t clWhite = 0xFFFFFF;
inline constexpr int32_t clMoneyGreen = 0xC0DCC0;
inline constexpr int32_t clSkyBlue = 0xF0CAA6;
inline constexpr int32_t clCream = 0xF0FBFF;
inline constexpr int32_t clMedGray = 0xA4A0A0;
inline constexpr int32_t clNone = 0x1FFFFFFF;
inline constexpr int32_t clDefault = 0x20000000;

// --- System colours: clSystemColor or-ed with the system colour index.
inline constexpr int32_t clSystemColor = static_cast<int32_t>(0xFF000000u);
inline constexpr int32_t clScrollBar = clSystemColor | 0;
inline constexpr int32_t clBackground = clSystemColor | 1;
inline constexpr int32_t clActiveCaption = clSystemColor | 2;
inline constexpr int32_t clInactiveCaption = clSystemColor | 3;
inline constexpr int32_t clMenu = clSystemColor | 4;
inline constexpr int32_t clWindow = clSystemColor | 5;
inline constexpr int32_t clWindowFrame = clSystemColor | 6;
inline constexpr int32_t clMenuText = clSystemColor | 7;
inline constexpr int32_t clWindowText = clSystemColor | 8;
inline constexpr int32_t clCaptionText = clSystemColor | 9;
inline constexpr int32_t clActiveBorder = clSystemColor | 10;
inline constexpr int32_t clInactiveBorder = clSystemColor | 11;
inline constexpr int32_t clAppWorkSpace = clSystemColor | 12;
inline constexpr int32_t clHighlight = clSystemColor | 13;
inline constexpr int32_t clHighlightText = clSystemColor | 14;
inline constexpr int32_t clBtnFace = clSystemColor | 15;
inline constexpr int32_t clBtnShadow = clSystemColor | 16;
inline constexpr int32_t clGrayText = clSystemColor | 17;
inline constexpr int32_t clBtnText = clSystemColor | 18;
inline constexpr int32_t clInactiveCaptionText = clSystemColor | 19;
inline constexpr int32_t clBtnHighlight = clSystemColor | 20;
inline constexpr int32_t cl3DDkShadow = clSystemColor | 21;
inline constexpr int32_t cl3DLight = clSystemColor | 22;
inline constexpr int32_t clInfoText = clSystemColor | 23;
inline constexpr int32_t clInfoBk = clSystemColor | 24;
inline constexpr int32_t clHotLight = clSystemColor | 26;
inline constexpr int32_t clGradientActiveCaption = clSystemColor | 27;
inline constexpr int32_t clGradientInactiveCaption = clSystemColor | 28;

// --- Cursors.
inline constexpr int16_t crDefault = 0;
inline constexpr int16_t crNone = -1;
inline constexpr int16_t crArrow = -2;
inline constexpr int16_t crCross = -3;
inline constexpr int16_t crIBeam = -4;
inline constexpr int16_t crSize = -22;
inline constexpr int16_t crSizeNESW = -6;
inline constexpr int16_t crSizeNS = -7;
inline constexpr int16_t crSizeNWSE = -8;
inline constexpr int16_t crSizeWE = -9;
inline constexpr int16_t crUpArrow = -10;
inline constexpr int16_t crHourGlass = -11;
inline constexpr int16_t crDrag = -12;
inline constexpr int16_t crNoDrop = -13;
inline constexpr int16_t crHSplit = -14;
inline constexpr int16_t crVSplit = -15;
inline constexpr int16_t crMultiDrag = -16;
inline constexpr int16_t crSQLWait = -17;
inline constexpr int16_t crNo = -18;
inline constexpr int16_t crAppStart = -19;
inline constexpr int16_t crHelp = -20;
inline constexpr int16_t crHandPoint = -21;
inline constexpr int16_t crSizeAll = -22;

// The identifier of a named colour ("clRed"). Values with two names
// (clGray/clDkGray, clSilver/clLtGray) give the first (clGray, clSilver).
VEL_API bool ColorToIdent(int32_t Color, std::string& Ident);
// The colour of an identifier, in any letter case.
VEL_API bool IdentToColor(std::string_view Ident, int32_t& Color);
// The identifier, or "$" and eight upper-case hex digits ("$00123456").
VEL_API std::string ColorToString(int32_t Color);
// An identifier, or a number as StrToInt reads it ("$FF0000", "255").
// Raises EConvertError "'<S>' is not a valid integer value" otherwise.
VEL_API int32_t StringToColor(std::string_view S);

// The identifier of a predefined cursor ("crHandPoint"; -22 gives
// "crSizeAll").
VEL_API bool CursorToIdent(int32_t Cursor, std::string& Ident);
VEL_API bool IdentToCursor(std::string_view Ident, int32_t& Cursor);
// The identifier, or the decimal number.
VEL_API std::string CursorToString(int32_t Cursor);
// An identifier or a number; raises EConvertError as StringToColor.
VEL_API int32_t StringToCursor(std::string_view S);

}  // namespace vel
