// Dates and times: TDateTime encoding and decoding, FormatDateTime and the
// date and time text readers.
#include <cmath>
#include <ctime>

#include "vel/rtl/SysUtils.h"

namespace vel {

TFormatSettings FormatSettings;

namespace {

constexpr uint16_t kMonthDays[2][12] = {
    {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31},
    {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31},
};

// The last day a TDateTime may denote: 9999-12-31.
constexpr double kMaxDate = 2958465.0;
constexpr double kMinDate = -693593.0;  // 0001-01-01

struct DateParts {
  uint16_t Year = 0, Month = 0, Day = 0, Hour = 0, Min = 0, Sec = 0, MSec = 0;
  int DayOfWeek = 0;  // 1 = Sunday; 0 when the date is out of range
  bool TimeIsZero = true;
};

// Splits Value into its calendar day (the integer part) and the time of
// day (the absolute fraction), rounded to the millisecond; a fraction that
// rounds to a whole day moves to the next calendar day.
bool SplitDateTime(double Value, int64_t& Days, int32_t& MSecs) {
  if (!std::isfinite(Value) || Value < kMinDate - 1 || Value > kMaxDate + 1) return false;
  const double Whole = std::trunc(Value);
  const double Frac = std::fabs(Value - Whole);
  Days = static_cast<int64_t>(Whole);
  int64_t Ms = static_cast<int64_t>(std::nearbyint(Frac * MSecsPerDay));
  if (Ms >= MSecsPerDay) {
    Ms -= MSecsPerDay;
    ++Days;
  }
  MSecs = static_cast<int32_t>(Ms);
  return true;
}

// Days since 0001-01-01 (day 1) to year, month, day.
bool DaysToDate(int64_t D, uint16_t& Y, uint16_t& M, uint16_t& Dd) {
  if (D <= 0 || D > static_cast<int64_t>(kMaxDate) + DateDelta) return false;
  constexpr int64_t D1 = 365, D4 = D1 * 4 + 1, D100 = D4 * 25 - 1, D400 = D100 * 4 + 1;
  int64_t T = D - 1;
  int64_t Year = 1;
  Year += (T / D400) * 400;
  T %= D400;
  int64_t I = T / D100;
  T %= D100;
  if (I == 4) {
    --I;
    T += D100;
  }
  Year += I * 100;
  Year += (T / D4) * 4;
  T %= D4;
  I = T / D1;
  T %= D1;
  if (I == 4) {
    --I;
    T += D1;
  }
  Year += I;
  const bool Leap = IsLeapYear(static_cast<uint16_t>(Year));
  int Month = 0;
  while (T >= kMonthDays[Leap][Month]) T -= kMonthDays[Leap][Month++];
  Y = static_cast<uint16_t>(Year);
  M = static_cast<uint16_t>(Month + 1);
  Dd = static_cast<uint16_t>(T + 1);
  return true;
}

DateParts Decode(double Value) {
  DateParts P;
  int64_t Days;
  int32_t Ms;
  if (!SplitDateTime(Value, Days, Ms)) return P;
  if (DaysToDate(Days + DateDelta, P.Year, P.Month, P.Day))
    P.DayOfWeek = static_cast<int>((Days + DateDelta) % 7) + 1;
  P.TimeIsZero = Ms == 0;
  P.Hour = static_cast<uint16_t>(Ms / 3600000);
  P.Min = static_cast<uint16_t>(Ms / 60000 % 60);
  P.Sec = static_cast<uint16_t>(Ms / 1000 % 60);
  P.MSec = static_cast<uint16_t>(Ms % 1000);
  return P;
}

}  // namespace

bool IsLeapYear(uint16_t Year) {
  return Year % 4 == 0 && (Year % 100 != 0 || Year % 400 == 0);
}

uint16_t DaysInAMonth(uint16_t Year, uint16_t Month) {
  return (Month >= 1 && Month <= 12) ? kMonthDays[IsLeapYear(Year)][Month - 1] : 0;
}

bool TryEncodeDate(uint16_t Year, uint16_t Month, uint16_t Day, TDateTime& Date) {
  if (Year < 1 || Year > 9999 || Month < 1 || Month > 12 || Day < 1 ||
      Day > DaysInAMonth(Year, Month))
    return false;
  const bool Leap = IsLeapYear(Year);
  int64_t D = Day;
  for (int I = 0; I < Month - 1; ++I) D += kMonthDays[Leap][I];
  const int64_t Y = Year - 1;
  D += Y * 365 + Y / 4 - Y / 100 + Y / 400 - DateDelta;
  Date = TDateTime(static_cast<double>(D));
  return true;
}

TDateTime EncodeDate(uint16_t Year, uint16_t Month, uint16_t Day) {
  TDateTime D;
  if (!TryEncodeDate(Year, Month, Day, D)) throw EConvertError(SDateEncodeError);
  return D;
}

bool TryEncodeTime(uint16_t Hour, uint16_t Min, uint16_t Sec, uint16_t MSec, TDateTime& Time) {
  if (Hour >= 24 || Min >= 60 || Sec >= 60 || MSec >= 1000) return false;
  const int64_t Ms = ((Hour * 60 + Min) * 60 + Sec) * 1000 + MSec;
  Time = TDateTime(static_cast<double>(Ms) / MSecsPerDay);
  return true;
}

TDateTime EncodeTime(uint16_t Hour, uint16_t Min, uint16_t Sec, uint16_t MSec) {
  TDateTime T;
  if (!TryEncodeTime(Hour, Min, Sec, MSec, T)) throw EConvertError(STimeEncodeError);
  return T;
}

TDateTime ComposeDateTime(TDateTime Date, TDateTime Time) {
  const double Day = std::trunc(Date.Value);
  const double Frac = std::fabs(Time.Value - std::trunc(Time.Value));
  return TDateTime(Day < 0 ? Day - Frac : Day + Frac);
}

void DecodeDate(TDateTime Date, uint16_t& Year, uint16_t& Month, uint16_t& Day) {
  const DateParts P = Decode(Date.Value);
  Year = P.Year;
  Month = P.Month;
  Day = P.Day;
}

void DecodeTime(TDateTime Time, uint16_t& Hour, uint16_t& Min, uint16_t& Sec, uint16_t& MSec) {
  const DateParts P = Decode(Time.Value);
  Hour = P.Hour;
  Min = P.Min;
  Sec = P.Sec;
  MSec = P.MSec;
}

void DecodeDateTime(TDateTime Value, uint16_t& Year, uint16_t& Month, uint16_t& Day,
                    uint16_t& Hour, uint16_t& Min, uint16_t& Sec, uint16_t& MSec) {
  const DateParts P = Decode(Value.Value);
  Year = P.Year;
  Month = P.Month;
  Day = P.Day;
  Hour = P.Hour;
  Min = P.Min;
  Sec = P.Sec;
  MSec = P.MSec;
}

int DayOfWeek(TDateTime Date) { return Decode(Date.Value).DayOfWeek; }

TDateTime Now() {
  timespec Ts;
  clock_gettime(CLOCK_REALTIME, &Ts);
  tm Local;
  localtime_r(&Ts.tv_sec, &Local);
  TDateTime D, T;
  if (!TryEncodeDate(static_cast<uint16_t>(Local.tm_year + 1900),
                     static_cast<uint16_t>(Local.tm_mon + 1), static_cast<uint16_t>(Local.tm_mday),
                     D))
    return TDateTime(0.0);
  // A leap second shows as :59.
  TryEncodeTime(static_cast<uint16_t>(Local.tm_hour), static_cast<uint16_t>(Local.tm_min),
                static_cast<uint16_t>(Local.tm_sec > 59 ? 59 : Local.tm_sec),
                static_cast<uint16_t>(Ts.tv_nsec / 1000000), T);
  return ComposeDateTime(D, T);
}

TDateTime Date() { return TDateTime(std::trunc(Now().Value)); }

TDateTime Time() {
  const double N = Now().Value;
  return TDateTime(N - std::trunc(N));
}

// ---------------------------------------------------------------------------
// FormatDateTime

namespace {

inline char Up(char C) { return (C >= 'a' && C <= 'z') ? static_cast<char>(C - 32) : C; }

bool StartsWithText(std::string_view S, size_t I, std::string_view What) {
  if (I + What.size() > S.size()) return false;
  for (size_t K = 0; K < What.size(); ++K)
    if (Up(S[I + K]) != Up(What[K])) return false;
  return true;
}

// Whether the format has an am/pm specifier outside quotes: hours are then
// on a 12-hour clock.
bool HasAmPm(std::string_view F) {
  for (size_t I = 0; I < F.size(); ++I) {
    const char C = F[I];
    if (C == '\'' || C == '"') {
      const size_t E = F.find(C, I + 1);
      if (E == std::string_view::npos) return false;
      I = E;
    } else if (Up(C) == 'A' &&
               (StartsWithText(F, I, "AM/PM") || StartsWithText(F, I, "A/P") ||
                StartsWithText(F, I, "AMPM"))) {
      return true;
    }
  }
  return false;
}

void Pad2(std::string& Out, int V) {
  Out += static_cast<char>('0' + V / 10 % 10);
  Out += static_cast<char>('0' + V % 10);
}

void AppendDateTime(std::string& Out, std::string_view F, const DateParts& P,
                    const TFormatSettings& FS, int Depth) {
  if (Depth > 2) return;  // formats that name each other
  const bool Clock12 = HasAmPm(F);
  char LastToken = ' ';
  size_t I = 0;
  while (I < F.size()) {
    const char C = F[I];
    char Token = Up(C);
    size_t Count = 1;
    if (Token >= 'A' && Token <= 'Z') {
      while (I + Count < F.size() && Up(F[I + Count]) == Token) ++Count;
      if (Token == 'M' && LastToken == 'H') Token = 'N';
    }
    switch (Token) {
      case 'Y':
        if (Count <= 2) {
          Pad2(Out, P.Year % 100);
        } else {
          const std::string Y = std::to_string(P.Year);
          Out.append(Y.size() < 4 ? 4 - Y.size() : 0, '0');
          Out += Y;
        }
        break;
      case 'M':
        if (Count == 1)
          Out += std::to_string(P.Month);
        else if (Count == 2)
          Pad2(Out, P.Month);
        else if (P.Month >= 1 && P.Month <= 12)
          Out += Count == 3 ? FS.ShortMonthNames[P.Month - 1] : FS.LongMonthNames[P.Month - 1];
        break;
      case 'D':
        if (Count == 1)
          Out += std::to_string(P.Day);
        else if (Count == 2)
          Pad2(Out, P.Day);
        else if (Count == 5)
          AppendDateTime(Out, FS.ShortDateFormat, P, FS, Depth + 1);
        else if (Count >= 6)
          AppendDateTime(Out, FS.LongDateFormat, P, FS, Depth + 1);
        else if (P.DayOfWeek >= 1)
          Out += Count == 3 ? FS.ShortDayNames[P.DayOfWeek - 1] : FS.LongDayNames[P.DayOfWeek - 1];
        break;
      case 'H': {
        int H = P.Hour;
        if (Clock12) {
          H %= 12;
          if (H == 0) H = 12;
        }
        if (Count == 1)
          Out += std::to_string(H);
        else
          Pad2(Out, H);
        break;
      }
      case 'N':
        if (Count == 1)
          Out += std::to_string(P.Min);
        else
          Pad2(Out, P.Min);
        break;
      case 'S':
        if (Count == 1)
          Out += std::to_string(P.Sec);
        else
          Pad2(Out, P.Sec);
        break;
      case 'Z':
        if (Count == 1) {
          Out += std::to_string(P.MSec);
        } else {
          Out += static_cast<char>('0' + P.MSec / 100);
          Pad2(Out, P.MSec % 100);
        }
        break;
      case 'T':
        AppendDateTime(Out, Count == 1 ? FS.ShortTimeFormat : FS.LongTimeFormat, P, FS, Depth + 1);
        break;
      case 'C':
        AppendDateTime(Out, FS.ShortDateFormat, P, FS, Depth + 1);
        if (!P.TimeIsZero) {
          Out += ' ';
          AppendDateTime(Out, FS.LongTimeFormat, P, FS, Depth + 1);
        }
        break;
      case 'A': {
        const bool Pm = P.Hour >= 12;
        if (StartsWithText(F, I, "AM/PM")) {
          // Shown in the case the format writes it.
          Out.append(F.substr(I + (Pm ? 3 : 0), 2));
          Count = 5;
        } else if (StartsWithText(F, I, "A/P")) {
          Out += F[I + (Pm ? 2 : 0)];
          Count = 3;
        } else if (StartsWithText(F, I, "AMPM")) {
          Out += Pm ? FS.TimePMString : FS.TimeAMString;
          Count = 4;
        } else {
          Out += C;
          Count = 1;
        }
        break;
      }
      case 'G':
      case 'E':
        break;  // era names and years: none in this calendar
      case '/':
        Out += FS.DateSeparator;
        break;
      case ':':
        Out += FS.TimeSeparator;
        break;
      case '\'':
      case '"': {
        const size_t E = F.find(C, I + 1);
        const size_t End = E == std::string_view::npos ? F.size() : E;
        Out.append(F.substr(I + 1, End - I - 1));
        Count = (E == std::string_view::npos ? F.size() : E + 1) - I;
        break;
      }
      default:
        Out.append(F.substr(I, Count));
        break;
    }
    if (Token >= 'A' && Token <= 'Z') LastToken = Token;
    I += Count;
  }
}

}  // namespace

std::string FormatDateTime(std::string_view Fmt, TDateTime Value, const TFormatSettings& Settings) {
  std::string Out;
  const DateParts P = Decode(Value.Value);
  AppendDateTime(Out, Fmt.empty() ? std::string_view("c") : Fmt, P, Settings, 0);
  return Out;
}

std::string FormatDateTime(std::string_view Fmt, TDateTime Value) {
  return FormatDateTime(Fmt, Value, FormatSettings);
}

std::string DateToStr(TDateTime Value) { return FormatDateTime("ddddd", Value); }
std::string TimeToStr(TDateTime Value) { return FormatDateTime("tt", Value); }
std::string DateTimeToStr(TDateTime Value) { return FormatDateTime("c", Value); }

// ---------------------------------------------------------------------------
// Reading dates and times

namespace {

struct Scanner {
  std::string_view S;
  size_t I = 0;

  void Blanks() {
    while (I < S.size() && S[I] == ' ') ++I;
  }
  bool Number(int& V, int& Digits) {
    Blanks();
    const size_t Start = I;
    V = 0;
    while (I < S.size() && S[I] >= '0' && S[I] <= '9') {
      if (V < 100000) V = V * 10 + (S[I] - '0');
      ++I;
    }
    Digits = static_cast<int>(I - Start);
    return Digits > 0;
  }
  bool Char(char C) {
    Blanks();
    if (I < S.size() && S[I] == C) {
      ++I;
      return true;
    }
    return false;
  }
  bool Text(std::string_view T) {
    if (T.empty() || !StartsWithText(S, I, T)) return false;
    I += T.size();
    return true;
  }
  bool AtEnd() {
    Blanks();
    return I >= S.size();
  }
};

enum DateOrder { doMDY, doDMY, doYMD };

DateOrder OrderOf(std::string_view Fmt) {
  for (char C : Fmt) {
    switch (Up(C)) {
      case 'D': return doDMY;
      case 'Y': return doYMD;
      case 'M': return doMDY;
      default: break;
    }
  }
  return doMDY;
}

int CurrentYear() {
  uint16_t Y, M, D;
  DecodeDate(Now(), Y, M, D);
  return Y;
}

bool ScanDate(Scanner& Sc, TDateTime& Date, const TFormatSettings& FS) {
  const size_t Save = Sc.I;
  int N1, N2, N3 = 0, L1, L2, L3 = 0;
  const DateOrder Order = OrderOf(FS.ShortDateFormat);
  if (!Sc.Number(N1, L1) || !Sc.Char(FS.DateSeparator) || !Sc.Number(N2, L2)) {
    Sc.I = Save;
    return false;
  }
  int Y, M, D, YLen;
  if (Sc.Char(FS.DateSeparator)) {
    if (!Sc.Number(N3, L3)) {
      Sc.I = Save;
      return false;
    }
    switch (Order) {
      case doMDY: Y = N3, YLen = L3, M = N1, D = N2; break;
      case doDMY: Y = N3, YLen = L3, M = N2, D = N1; break;
      default: Y = N1, YLen = L1, M = N2, D = N3; break;
    }
    if (Y <= 99 && YLen <= 2) {
      int Cur = CurrentYear() - FS.TwoDigitYearCenturyWindow;
      Y += Cur / 100 * 100;
      if (FS.TwoDigitYearCenturyWindow > 0 && Y < Cur) Y += 100;
    }
  } else {
    Y = CurrentYear();
    if (Order == doDMY) {
      D = N1;
      M = N2;
    } else {
      M = N1;
      D = N2;
    }
  }
  if (Y > 9999 || M > 12 || D > 31 ||
      !TryEncodeDate(static_cast<uint16_t>(Y), static_cast<uint16_t>(M), static_cast<uint16_t>(D),
                     Date)) {
    Sc.I = Save;
    return false;
  }
  return true;
}

bool ScanTime(Scanner& Sc, TDateTime& Time, const TFormatSettings& FS) {
  const size_t Save = Sc.I;
  int H, N = 0, S = 0, Z = 0, L;
  auto Fail = [&] {
    Sc.I = Save;
    return false;
  };
  if (!Sc.Number(H, L)) return Fail();
  if (Sc.Char(FS.TimeSeparator)) {
    if (!Sc.Number(N, L)) return Fail();
    if (Sc.Char(FS.TimeSeparator)) {
      if (!Sc.Number(S, L)) return Fail();
      if (Sc.I < Sc.S.size() && Sc.S[Sc.I] == FS.DecimalSeparator) {
        ++Sc.I;
        if (!Sc.Number(Z, L)) return Fail();
      }
    }
  }
  Sc.Blanks();
  int Base = -1;
  if (Sc.Text(FS.TimeAMString) || Sc.Text("AM"))
    Base = 0;
  else if (Sc.Text(FS.TimePMString) || Sc.Text("PM"))
    Base = 12;
  if (Base >= 0) {
    if (H == 0 || H > 12) return Fail();
    if (H == 12) H = 0;
    H += Base;
  }
  if (H > 23 || N > 59 || S > 59 || Z > 999 ||
      !TryEncodeTime(static_cast<uint16_t>(H), static_cast<uint16_t>(N), static_cast<uint16_t>(S),
                     static_cast<uint16_t>(Z), Time))
    return Fail();
  return true;
}

}  // namespace

bool TryStrToDate(std::string_view S, TDateTime& Value) {
  Scanner Sc{S};
  TDateTime D;
  if (!ScanDate(Sc, D, FormatSettings) || !Sc.AtEnd()) return false;
  Value = D;
  return true;
}

TDateTime StrToDate(std::string_view S) {
  TDateTime D;
  if (!TryStrToDate(S, D)) throw EConvertError(Format(SInvalidDate, {S}));
  return D;
}

bool TryStrToTime(std::string_view S, TDateTime& Value) {
  Scanner Sc{S};
  TDateTime T;
  if (!ScanTime(Sc, T, FormatSettings) || !Sc.AtEnd()) return false;
  Value = T;
  return true;
}

TDateTime StrToTime(std::string_view S) {
  TDateTime T;
  if (!TryStrToTime(S, T)) throw EConvertError(Format(SInvalidTime, {S}));
  return T;
}

bool TryStrToDateTime(std::string_view S, TDateTime& Value) {
  Scanner Sc{S};
  TDateTime D, T;
  if (ScanDate(Sc, D, FormatSettings)) {
    if (Sc.AtEnd()) {
      Value = D;
      return true;
    }
    if (!ScanTime(Sc, T, FormatSettings) || !Sc.AtEnd()) return false;
    Value = ComposeDateTime(D, T);
    return true;
  }
  if (!ScanTime(Sc, T, FormatSettings) || !Sc.AtEnd()) return false;
  Value = T;
  return true;
}

TDateTime StrToDateTime(std::string_view S) {
  TDateTime V;
  if (!TryStrToDateTime(S, V)) throw EConvertError(Format(SInvalidDateTime, {S}));
  return V;
}

}  // namespace vel
