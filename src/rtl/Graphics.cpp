#include "vel/rtl/Graphics.h"

#include "vel/rtl/SysUtils.h"

namespace vel {

namespace {

struct TIdentMapEntry {
  int32_t Value;
  const char* Name;
};

// The runtime's colour map, in its order: the first entry of a value wins
// when a value has two names.
constexpr TIdentMapEntry Colors[] = {
    {clBlack, "clBlack"},
    {clMaroon, "clMaroon"},
    {clGreen, "clGreen"},
    {clOlive, "clOlive"},
    {clNavy, "clNavy"},
    {clPurple, "clPurple"},
    {clTeal, "clTeal"},
    {clGray, "clGray"},
    {clSilver, "clSilver"},
    {clRed, "clRed"},
    {clLime, "clLime"},
    {clYellow, "clYellow"},
    {clBlue, "clBlue"},
    {clFuchsia, "clFuchsia"},
    {clAqua, "clAqua"},
    {clWhite, "clWhite"},
    {clMoneyGreen, "clMoneyGreen"},
    {clSkyBlue, "clSkyBlue"},
    {clCream, "clCream"},
    {clMedGray, "clMedGray"},
    {clActiveBorder, "clActiveBorder"},
    {clActiveCaption, "clActiveCaption"},
    {clAppWorkSpace, "clAppWorkSpace"},
    {clBackground, "clBackground"},
    {clBtnFace, "clBtnFace"},
    {clBtnHighlight, "clBtnHighlight"},
    {clBtnShadow, "clBtnShadow"},
    {clBtnText, "clBtnText"},
    {clCaptionText, "clCaptionText"},
    {clDefault, "clDefault"},
    {clGradientActiveCaption, "clGradientActiveCaption"},
    {clGradientInactiveCaption, "clGradientInactiveCaption"},
    {clGrayText, "clGrayText"},
    {clHighlight, "clHighlight"},
    {clHighlightText, "clHighlightText"},
    {clHotLight, "clHotLight"},
    {clInactiveBorder, "clInactiveBorder"},
    {clInactiveCaption, "clInactiveCaption"},
    {clInactiveCaptionText, "clInactiveCaptionText"},
    {clInfoBk, "clInfoBk"},
    {clInfoText, "clInfoText"},
    {clMenu, "clMenu"},
    {clMenuText, "clMenuText"},
    {clNone, "clNone"},
    {clScrollBar, "clScrollBar"},
    {cl3DDkShadow, "cl3DDkShadow"},
    {cl3DLight, "cl3DLight"},
    {clWindow, "clWindow"},
    {clWindowFrame, "clWindowFrame"},
    {clWindowText, "clWindowText"},
};

constexpr TIdentMapEntry Cursors[] = {
    {crDefault, "crDefault"},
    {crArrow, "crArrow"},
    {crCross, "crCross"},
    {crIBeam, "crIBeam"},
    {crSizeNESW, "crSizeNESW"},
    {crSizeNS, "crSizeNS"},
    {crSizeNWSE, "crSizeNWSE"},
    {crSizeWE, "crSizeWE"},
    {crUpArrow, "crUpArrow"},
    {crHourGlass, "crHourGlass"},
    {crDrag, "crDrag"},
    {crNoDrop, "crNoDrop"},
    {crHSplit, "crHSplit"},
    {crVSplit, "crVSplit"},
    {crMultiDrag, "crMultiDrag"},
    {crSQLWait, "crSQLWait"},
    {crNo, "crNo"},
    {crAppStart, "crAppStart"},
    {crHelp, "crHelp"},
    {crHandPoint, "crHandPoint"},
    {crSizeAll, "crSizeAll"},
    {crNone, "crNone"},
};

template <size_t N>
bool IntToIdent(int32_t Value, std::string& Ident, const TIdentMapEntry (&Map)[N]) {
  for (const TIdentMapEntry& E : Map)
    if (E.Value == Value) {
      Ident = E.Name;
      return true;
    }
  return false;
}

template <size_t N>
bool IdentToInt(std::string_view Ident, int32_t& Value, const TIdentMapEntry (&Map)[N]) {
  for (const TIdentMapEntry& E : Map)
    if (SameText(E.Name, Ident)) {
      Value = E.Value;
      return true;
    }
  return false;
}

}  // namespace

bool ColorToIdent(int32_t Color, std::string& Ident) {
  return IntToIdent(Color, Ident, Colors);
}

bool IdentToColor(std::string_view Ident, int32_t& Color) {
  return IdentToInt(Ident, Color, Colors);
}

std::string ColorToString(int32_t Color) {
  std::string Ident;
  if (ColorToIdent(Color, Ident)) return Ident;
  return "$" + IntToHex(Color, 8);
}

int32_t StringToColor(std::string_view S) {
  int32_t Color;
  if (IdentToColor(S, Color)) return Color;
  return StrToInt(S);
}

bool CursorToIdent(int32_t Cursor, std::string& Ident) {
  return IntToIdent(Cursor, Ident, Cursors);
}

bool IdentToCursor(std::string_view Ident, int32_t& Cursor) {
  return IdentToInt(Ident, Cursor, Cursors);
}

std::string CursorToString(int32_t Cursor) {
  std::string Ident;
  if (CursorToIdent(Cursor, Ident)) return Ident;
  return IntToStr(Cursor);
}

int32_t StringToCursor(std::string_view S) {
  int32_t Cursor;
  if (IdentToCursor(S, Cursor)) return Cursor;
  return StrToInt(S);
}

}  // namespace vel
