#include <gtest/gtest.h>

#include <unistd.h>
#include <bit>
#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "TestSupport.h"
#include "storage_test_util.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace {

uint64_t DoubleBits(double D) {
  return std::bit_cast<uint64_t>(D);
}

}  // namespace

// ---------------------------------------------------------------------------
// Format

TEST(Format, IntegerAndStringDirectives) {
  EXPECT_EQ(Format("%d|%.4d|%.4d|%5d|%-5d|", {5, 5, -5, 42, 42}), "5|0005|-0005|   42|42   |");
  EXPECT_EQ(Format("%d %d", {INT32_MIN, INT64_MIN}), "-2147483648 -9223372036854775808");
  EXPECT_EQ(Format("%x|%.4x|%0.8x|%X", {255, 26, 26, 48879}), "FF|001A|0000001A|BEEF");
  // Negative values: 32-bit pattern for int arguments, 64-bit for 64-bit ones.
  EXPECT_EQ(Format("%x %x", {-1, int64_t(-1)}), "FFFFFFFF FFFFFFFFFFFFFFFF");
  EXPECT_EQ(Format("%u %u", {-1, 7u}), "4294967295 7");
  EXPECT_EQ(Format("%p", {reinterpret_cast<const void*>(0xABCD)}), "000000000000ABCD");

  EXPECT_EQ(Format("[%s] [%5s] [%-5s] [%.2s]", {"abc", "ab", "ab", "abcdef"}),
            "[abc] [   ab] [ab   ] [ab]");
  EXPECT_EQ(Format("%s%s", {'x', std::string("yz")}), "xyz");
  EXPECT_EQ(Format("%s", {std::u16string(u"\u20AC\u00E9\u4E2D")}), "\x80\xE9?");
  // Indexes are zero-based; later directives continue after the indexed one.
  EXPECT_EQ(Format("%1:s %0:s %s", {"a", "b"}), "b a b");
  EXPECT_EQ(Format("[%*d] [%-*d] [%.*d]", {4, 7, 3, 7, 3, 7}), "[   7] [7  ] [007]");
  EXPECT_EQ(Format("100%% %s", {"done"}), "100% done");
  EXPECT_EQ(Format("no directives", {}), "no directives");
}

TEST(Format, FloatDirectives) {
  EXPECT_EQ(Format("%e", {1000.0}), "1.00000000000000E+003");
  EXPECT_EQ(Format("%.3e|%e", {-0.00012345, 0.0}), "-1.23E-004|0.00000000000000E+000");
  // Half away from zero on the decimal digits, not the C library's ties-to-even.
  EXPECT_EQ(Format("%f|%.0f|%.3f|%.1f", {3.14159, 2.5, -1.0625, 0.25}), "3.14|3|-1.063|0.3");
  EXPECT_EQ(Format("%.3f", {-1.0005}), "-1.000");  // the double is just below -1.0005
  EXPECT_EQ(Format("%f", {-0.001}), "0.00");       // rounds to zero: no sign
  // %g without precision is the shortest round-trip text.
  EXPECT_EQ(Format("%g|%g|%g|%g", {0.1, 1e20, 1.5e-7, 100.0}), "0.1|1E20|1.5E-7|100");
  EXPECT_EQ(Format("%.3g|%.3g|%.15g", {1234.5678, 0.00012345, 0.1}), "1.23E3|0.000123|0.1");
  EXPECT_EQ(Format("%n|%.0n|%n", {1234567.891, 999.5, -1234.5}), "1,234,567.89|1,000|-1,234.50");
  EXPECT_EQ(Format("%m|%m|%.0m", {12.5, -3.0, 1234.0}), "$12.50|-$3.00|$1,234");
  // Currency arguments are exact.
  EXPECT_EQ(Format("%g|%f|%.4f|%m", {Currency::FromScaled(15), Currency::FromScaled(-12345678),
                                     Currency::FromScaled(5), Currency::FromScaled(25000)}),
            "0.0015|-1234.57|0.0005|$2.50");
  EXPECT_EQ(Format("%g %f", {NAN, -INFINITY}), "NAN -INF");
  EXPECT_EQ(Format("%10.2f|", {3.14159}), "      3.14|");
}

TEST(Format, MismatchesRaiseWithTheWholeFormat) {
  const std::string Expected = "Format '%d items' invalid or incompatible with argument";
  EXPECT_EQ(vel_test::Raised<EConvertError>([] { Format("%d items", {"x"}); }), Expected);
  EXPECT_EQ(vel_test::Raised<EConvertError>([] { Format("%d items", {}); }), Expected);
  EXPECT_EQ(vel_test::Raised<EConvertError>([] { Format("%d items", {1.5}); }), Expected);
  EXPECT_EQ(vel_test::Raised<EConvertError>([] { Format("%s", {1}); }),
            "Format '%s' invalid or incompatible with argument");
  for (const char* F : {"%s %s", "%", "%5", "%.s", "%q", "%x", "%f", "%p", "%*d", "%2:s",
                        "%999999999d", "%1:", "%-"}) {
    SCOPED_TRACE(F);
    EXPECT_THROW(Format(F, {"only"}), EConvertError);
  }
  EXPECT_THROW(Format("%s", {true}), EConvertError);
  EXPECT_THROW(Format("%d", {true}), EConvertError);
  EXPECT_THROW(Format("%*d", {"x", 1}), EConvertError);
}

// ---------------------------------------------------------------------------
// Integers

TEST(IntegerText, ReadingAndWriting) {
  EXPECT_EQ(StrToInt("42"), 42);
  EXPECT_EQ(StrToInt("  -17"), -17);
  EXPECT_EQ(StrToInt("+8"), 8);
  EXPECT_EQ(StrToInt("$1F"), 31);
  EXPECT_EQ(StrToInt("0x1f"), 31);
  EXPECT_EQ(StrToInt("-$10"), -16);
  EXPECT_EQ(StrToInt("$FFFFFFFF"), -1);  // hex wraps to the width
  EXPECT_EQ(StrToInt("2147483647"), INT32_MAX);
  EXPECT_EQ(StrToInt("-2147483648"), INT32_MIN);
  EXPECT_EQ(StrToInt64("-9223372036854775808"), INT64_MIN);
  EXPECT_EQ(StrToInt64("$FFFFFFFFFFFFFFFF"), -1);
  EXPECT_EQ(StrToInt64("4294967296"), 4294967296LL);
  for (const char* Bad : {"", " ", "12 ", "1a", "2147483648", "-2147483649", "$", "0x",
                          "$100000000", "1.0", "--1", "+"}) {
    SCOPED_TRACE(Bad);
    int32_t V = 99;
    EXPECT_FALSE(TryStrToInt(Bad, V));
    EXPECT_EQ(V, 99);
    EXPECT_EQ(StrToIntDef(Bad, -7), -7);
  }
  EXPECT_FALSE(StrToInt64Def("9223372036854775808", 0) != 0);
  EXPECT_EQ(vel_test::Raised<EConvertError>([] { StrToInt("12x"); }),
            "'12x' is not a valid integer value");
  EXPECT_EQ(vel_test::Raised<EConvertError>([] { StrToInt64("abc"); }),
            "'abc' is not a valid integer value");

  EXPECT_EQ(IntToStr(0), "0");
  EXPECT_EQ(IntToStr(INT64_MIN), "-9223372036854775808");
  EXPECT_EQ(IntToHex(255, 4), "00FF");
  EXPECT_EQ(IntToHex(-1, 2), "FFFFFFFF");
  EXPECT_EQ(IntToHex(int64_t(-2), 1), "FFFFFFFFFFFFFFFE");
  EXPECT_EQ(IntToHex(uint8_t(0xAB), 0), "AB");
}

// ---------------------------------------------------------------------------
// Floats

TEST(FloatText, KnownTexts) {
  const std::pair<double, const char*> Cases[] = {
      {0.1, "0.1"},
      {1e20, "1E20"},
      {1.5e-7, "1.5E-7"},
      {100, "100"},
      {-0.5, "-0.5"},
      {0, "0"},
      {-0.0, "-0"},
      {1e-5, "0.00001"},
      {1e-6, "1E-6"},
      {1e15, "1E15"},
      {123456789012345.0, "123456789012345"},
      {123456789012345678.0, "1.2345678901234568E17"},
      {0.1 + 0.2, "0.30000000000000004"},
      {5e-324, "5E-324"},
      {1.7976931348623157e308, "1.7976931348623157E308"},
      {INFINITY, "INF"},
      {-INFINITY, "-INF"},
      {NAN, "NAN"},
  };
  for (const auto& [V, Text] : Cases) {
    SCOPED_TRACE(Text);
    EXPECT_EQ(FloatToStr(V), Text);
  }
  EXPECT_EQ(SingleToStr(0.1f), "0.1");
  EXPECT_EQ(SingleToStr(16777216.0f), "16777216");
  EXPECT_EQ(FloatToStr(1.0L / 3), "0.33333333333333333334");
}

TEST(FloatText, RandomDoublesRoundTripBitForBit) {
  std::mt19937_64 Rng(20240607);
  for (int I = 0; I < 200000; ++I) {
    const double D = std::bit_cast<double>(Rng());
    if (std::isnan(D)) continue;
    const std::string S = FloatToStr(D);
    Extended E;
    ASSERT_TRUE(TryStrToFloat(S, E)) << S;
    ASSERT_EQ(DoubleBits(static_cast<double>(E)), DoubleBits(D)) << S;
    double Back;
    ASSERT_TRUE(TryStrToFloat(S, Back)) << S;
    ASSERT_EQ(DoubleBits(Back), DoubleBits(D)) << S;
  }
}

TEST(FloatText, RandomExtendedsRoundTrip) {
  std::mt19937_64 Rng(77);
  for (int I = 0; I < 50000; ++I) {
    const long double M = static_cast<long double>(Rng() | (1ull << 63)) / 18446744073709551616.0L;
    const int Exp = static_cast<int>(Rng() % 400) - 200;
    const long double V = std::ldexp(M, Exp) * ((I & 1) ? -1 : 1);
    const std::string S = FloatToStr(V);
    if (static_cast<long double>(static_cast<double>(V)) == V) {  // a double: read back as one
      ASSERT_EQ(static_cast<double>(StrToFloat(S)), static_cast<double>(V)) << S;
    } else {
      ASSERT_EQ(StrToFloat(S), V) << S;
    }
  }
}

TEST(FloatText, HalfwayExtendedsDoNotRoundTwice) {
  // d has an odd last mantissa bit; m lies exactly halfway to the next
  // double, so converting m to double rounds up to the even neighbour.
  const double D = 1.0000000000000002;  // 1 + 2^-52
  const long double M = static_cast<long double>(D) + std::ldexp(1.0L, -53);
  ASSERT_NE(static_cast<double>(M), D);
  // A text just below m reads as m in Extended, but denotes d as a double.
  const char* Text = "1.000000000000000333066907";
  EXPECT_EQ(static_cast<double>(StrToFloat(Text)), D);
  // m itself is written with enough digits to come back exactly.
  EXPECT_EQ(StrToFloat(FloatToStr(M)), M);
}

TEST(FloatText, Reading) {
  EXPECT_EQ(StrToFloat("1e5"), 100000.0L);
  EXPECT_EQ(static_cast<double>(StrToFloat(" 1.5E-3 ")), 0.0015);
  EXPECT_EQ(StrToFloat("-.5"), -0.5L);
  EXPECT_EQ(StrToFloat("+5."), 5.0L);
  EXPECT_EQ(StrToFloat("1e-99999"), 0.0L);
  EXPECT_TRUE(std::signbit(StrToFloat("-0")));
  for (const char* Bad : {"", " ", ".", "e5", "1e", "1e+", "1,5", "1,000.5", "NAN", "INF", "0x10",
                          "1.5.2", "1 5", "1e99999", "- 1"}) {
    SCOPED_TRACE(Bad);
    Extended E = 9;
    EXPECT_FALSE(TryStrToFloat(Bad, E));
    EXPECT_EQ(E, 9);
  }
  double D;
  EXPECT_FALSE(TryStrToFloat("1e400", D));  // out of double range
  EXPECT_EQ(StrToFloat("1e400"), 1e400L);   // but fine as Extended
  EXPECT_EQ(StrToFloatDef("x", 2.5), 2.5L);
  EXPECT_EQ(vel_test::Raised<EConvertError>([] { StrToFloat("1,5"); }),
            "'1,5' is not a valid floating point value");
}

// Switches LC_NUMERIC to a locale with a decimal comma, compiling one into
// a scratch folder when none is installed; false when that is impossible.
bool UseCommaLocale() {
  if (std::setlocale(LC_NUMERIC, "de_DE.UTF-8")) return true;
#ifdef VEL_TEST_TMPDIR
  const std::string Dir = std::string(VEL_TEST_TMPDIR) + "/locales";
#else
  const std::string Dir = "/tmp/vel_test_locales";
#endif
  std::filesystem::create_directories(Dir);
  const std::string Cmd = "localedef -i de_DE -f UTF-8 '" + Dir + "/de_DE.UTF-8' >/dev/null 2>&1";
  if (std::system(Cmd.c_str()) == -1) return false;
  // Locale data is loaded when the locale is set; the variable is not
  // needed afterwards.
  const char* OldPath = std::getenv("LOCPATH");
  const std::string Saved = OldPath ? OldPath : "";
  setenv("LOCPATH", Dir.c_str(), 1);
  const bool Ok = std::setlocale(LC_NUMERIC, "de_DE.UTF-8") != nullptr;
  if (OldPath)
    setenv("LOCPATH", Saved.c_str(), 1);
  else
    unsetenv("LOCPATH");
  return Ok;
}

TEST(FloatText, IgnoresTheProcessLocale) {
  const char* Old = std::setlocale(LC_NUMERIC, nullptr);
  const std::string Saved = Old ? Old : "C";
  if (!UseCommaLocale()) GTEST_SKIP() << "no locale with a decimal comma available";
  char Probe[16];
  std::snprintf(Probe, sizeof Probe, "%.1f", 1.5);
  ASSERT_STREQ(Probe, "1,5");  // the C library now writes commas
  EXPECT_EQ(FloatToStr(1.5), "1.5");
  EXPECT_EQ(FloatToStr(1.0L / 3), "0.33333333333333333334");
  EXPECT_EQ(SingleToStr(2.25f), "2.25");
  EXPECT_EQ(StrToFloat("2.25"), 2.25L);
  Extended E;
  EXPECT_FALSE(TryStrToFloat("2,25", E));
  EXPECT_EQ(Format("%.2f %e %g", {1.5, 1000.0, 0.1}), "1.50 1.00000000000000E+003 0.1");
  EXPECT_EQ(CurrToStr(StrToCurr("1.25")), "1.25");
  std::setlocale(LC_NUMERIC, Saved.c_str());
}

TEST(FloatText, FloatToStrF) {
  EXPECT_EQ(FloatToStrF(1234.5678, ffGeneral, 6, 0), "1234.57");
  EXPECT_EQ(FloatToStrF(1234.5678, ffExponent, 4, 2), "1.235E+03");
  EXPECT_EQ(FloatToStrF(1234.5678, ffFixed, 5, 2), "1234.60");  // 5 significant digits
  EXPECT_EQ(FloatToStrF(1e20, ffFixed, 15, 2), "1E20");         // too wide for fixed
  EXPECT_EQ(FloatToStrF(2.675, ffFixed, 15, 2), "2.67");        // the double is below 2.675
  EXPECT_EQ(FloatToStrF(0.125, ffFixed, 15, 2), "0.13");        // half away from zero
  EXPECT_EQ(FloatToStrF(9.99, ffFixed, 15, 1), "10.0");
  EXPECT_EQ(CurrToStrF(Currency::FromScaled(-123456789), ffNumber, 2), "-12,345.68");
}

// ---------------------------------------------------------------------------
// Currency

TEST(CurrencyText, ExactBothWays) {
  EXPECT_EQ(CurrToStr(Currency::FromScaled(15000)), "1.5");
  EXPECT_EQ(CurrToStr(Currency::FromScaled(20000)), "2");
  EXPECT_EQ(CurrToStr(Currency::FromScaled(-1)), "-0.0001");
  EXPECT_EQ(CurrToStr(Currency::FromScaled(0)), "0");
  EXPECT_EQ(CurrToStr(Currency::FromScaled(INT64_MAX)), "922337203685477.5807");
  EXPECT_EQ(CurrToStr(Currency::FromScaled(INT64_MIN)), "-922337203685477.5808");
  EXPECT_EQ(StrToCurr("922337203685477.5807").Value, INT64_MAX);
  EXPECT_EQ(StrToCurr("-922337203685477.5808").Value, INT64_MIN);
  EXPECT_EQ(StrToCurr("0.1").Value, 1000);
  EXPECT_EQ(StrToCurr(" 1.23e2 ").Value, 1230000);
  EXPECT_EQ(StrToCurr("12345e-8").Value, 1);  // 0.00012345
  EXPECT_EQ(StrToCurr("0.00005").Value, 0);   // ties to even
  EXPECT_EQ(StrToCurr("0.00015").Value, 2);
  EXPECT_EQ(StrToCurr("0.000050001").Value, 1);
  EXPECT_EQ(StrToCurr("-0.00015").Value, -2);
  std::mt19937_64 Rng(5);
  for (int I = 0; I < 20000; ++I) {
    const Currency C = Currency::FromScaled(static_cast<int64_t>(Rng()));
    ASSERT_EQ(StrToCurr(CurrToStr(C)).Value, C.Value) << CurrToStr(C);
  }
  for (const char* Bad : {"922337203685477.5808", "1e16", "abc", "", "1.2.3"}) {
    SCOPED_TRACE(Bad);
    Currency C;
    EXPECT_FALSE(TryStrToCurr(Bad, C));
  }
  EXPECT_EQ(vel_test::Raised<EConvertError>([] { StrToCurr("x1"); }),
            "'x1' is not a valid floating point value");
}

// ---------------------------------------------------------------------------
// Extended codec

TEST(ExtendedCodec, KnownLayouts) {
  const struct {
    long double Value;
    uint8_t Bytes[10];
  } Cases[] = {
      {1.0L, {0, 0, 0, 0, 0, 0, 0, 0x80, 0xFF, 0x3F}},
      {-2.5L, {0, 0, 0, 0, 0, 0, 0, 0xA0, 0x00, 0xC0}},
      {-0.0L, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80}},
      {std::numeric_limits<long double>::denorm_min(), {1, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {-INFINITY, {0, 0, 0, 0, 0, 0, 0, 0x80, 0xFF, 0xFF}},
  };
  for (const auto& C : Cases) {
    uint8_t B[10];
    ExtendedToBytes(C.Value, B);
    EXPECT_EQ(0, std::memcmp(B, C.Bytes, 10)) << static_cast<double>(C.Value);
  }
}

TEST(ExtendedCodec, MatchesTheHostLayoutForRandomValues) {
  static_assert(std::numeric_limits<long double>::digits == 64, "x87 host expected");
  std::mt19937_64 Rng(1234);
  for (int I = 0; I < 200000; ++I) {
    uint8_t Raw[16] = {};
    const uint64_t Mant = Rng();
    uint16_t SE = static_cast<uint16_t>(Rng());
    uint64_t M = Mant;
    if (I % 8 == 0) SE &= 0x8000;  // many denormals
    if (I % 8 == 1) SE |= 0x7FFF;  // many NaNs and infinities
    if (I % 64 == 1) M = 0;        // exact infinities
    // Only valid encodings: the integer bit is set exactly for normal,
    // infinite and NaN values.
    if ((SE & 0x7FFF) == 0)
      M &= ~(1ull << 63);
    else
      M |= 1ull << 63;
    std::memcpy(Raw, &M, 8);
    std::memcpy(Raw + 8, &SE, 2);
    long double V;
    std::memcpy(&V, Raw, sizeof V);
    uint8_t Out[10];
    ExtendedToBytes(V, Out);
    ASSERT_EQ(0, std::memcmp(Out, Raw, 10)) << "pattern " << I;
    const long double Back = BytesToExtended(Raw);
    ASSERT_EQ(0, std::memcmp(&Back, Raw, 10)) << "pattern " << I;
  }
}

TEST(ExtendedCodec, EveryDoubleConvertsExactly) {
  std::mt19937_64 Rng(99);
  for (int I = 0; I < 200000; ++I) {
    uint64_t Bits = Rng();
    if (I % 16 == 0) Bits &= 0x800FFFFFFFFFFFFFull;  // double denormals
    const double D = std::bit_cast<double>(Bits);
    uint8_t A[10], B[10];
    ExtendedToBytes(static_cast<long double>(D), A);
    DoubleToExtendedBytes(D, B);
    ASSERT_EQ(0, std::memcmp(A, B, 10)) << std::hex << Bits;
    if (!std::isnan(D)) {
      ASSERT_EQ(DoubleBits(static_cast<double>(BytesToExtended(A))), Bits);
    }
  }
}

TEST(ExtendedCodec, IrregularEncodingsReadByValue) {
  // An unnormal (integer bit clear with a non-zero exponent) reads as its
  // numeric value; a pseudo-infinity reads as NaN.
  uint8_t Unnormal[10] = {0, 0, 0, 0, 0, 0, 0, 0x40, 0xFF, 0x3F};  // 0.5 x 2^0 written unnormalised
  EXPECT_EQ(BytesToExtended(Unnormal), 0.5L);
  uint8_t PseudoDenormal[10] = {0, 0, 0, 0, 0, 0, 0, 0x80, 0x00, 0x00};
  EXPECT_EQ(BytesToExtended(PseudoDenormal), std::ldexp(1.0L, -16382));
  uint8_t PseudoInf[10] = {0, 0, 0, 0, 0, 0, 0, 0x00, 0xFF, 0x7F};
  EXPECT_TRUE(std::isnan(BytesToExtended(PseudoInf)));
}

// ---------------------------------------------------------------------------
// Dates

TEST(Dates, EncodeAndDecode) {
  EXPECT_EQ(EncodeDate(1899, 12, 30).Value, 0.0);
  EXPECT_EQ(EncodeDate(1900, 1, 1).Value, 2.0);
  EXPECT_EQ(EncodeDate(2003, 7, 4).Value, 37806.0);
  EXPECT_EQ(EncodeDate(1, 1, 1).Value, -693593.0);
  EXPECT_EQ(EncodeDate(9999, 12, 31).Value, 2958465.0);
  const TDateTime T = ComposeDateTime(EncodeDate(2003, 7, 4), EncodeTime(9, 5, 6, 789));
  uint16_t Y, M, D, H, N, S, Ms;
  DecodeDateTime(T, Y, M, D, H, N, S, Ms);
  EXPECT_EQ((std::vector<int>{Y, M, D, H, N, S, Ms}), (std::vector<int>{2003, 7, 4, 9, 5, 6, 789}));
  EXPECT_EQ(DayOfWeek(EncodeDate(2003, 7, 4)), 6);  // Friday
  EXPECT_EQ(DayOfWeek(0.0), 7);                     // 1899-12-30 was a Saturday
  // Every day from year 1 to 9999 decodes to itself.
  int Count = 0;
  for (int Yr = 1; Yr <= 9999; Yr += (Yr < 2100 ? 1 : 37))
    for (int Mo = 1; Mo <= 12; ++Mo)
      for (int Dy = 1; Dy <= DaysInAMonth(Yr, Mo); ++Dy) {
        DecodeDate(EncodeDate(Yr, Mo, Dy), Y, M, D);
        ASSERT_EQ(Y * 10000 + M * 100 + D, Yr * 10000 + Mo * 100 + Dy);
        ++Count;
      }
  EXPECT_GT(Count, 700000);
}

TEST(Dates, LeapYearsAndInvalidArguments) {
  for (auto [Y, Leap] : {std::pair{2000, true}, {2004, true}, {1900, false}, {2003, false}}) {
    EXPECT_EQ(IsLeapYear(Y), Leap) << Y;
  }
  EXPECT_NO_THROW(EncodeDate(2004, 2, 29));
  for (auto [Y, M, D] : {std::tuple{2003, 2, 29},
                         {1900, 2, 29},
                         {0, 1, 1},
                         {10000, 1, 1},
                         {2003, 13, 1},
                         {2003, 0, 1},
                         {2003, 4, 31},
                         {2003, 1, 0}}) {
    TDateTime Out;
    EXPECT_FALSE(TryEncodeDate(Y, M, D, Out));
  }
  EXPECT_EQ(vel_test::Raised<EConvertError>([] { EncodeDate(2003, 2, 29); }),
            "Invalid argument to date encode");
  EXPECT_EQ(vel_test::Raised<EConvertError>([] { EncodeTime(24, 0, 0, 0); }),
            "Invalid argument to time encode");
  for (auto [N, S, Ms] : {std::tuple{60, 0, 0}, {0, 60, 0}, {0, 0, 1000}}) {
    EXPECT_THROW(EncodeTime(1, N, S, Ms), EConvertError);
  }
}

TEST(Dates, NegativeValuesAndRounding) {
  uint16_t Y, M, D, H, N, S, Ms;
  DecodeDateTime(-1.25, Y, M, D, H, N, S, Ms);
  EXPECT_EQ((std::vector<int>{Y, M, D, H, N}), (std::vector<int>{1899, 12, 29, 6, 0}));
  EXPECT_EQ(ComposeDateTime(EncodeDate(1899, 12, 29), EncodeTime(6, 0, 0, 0)).Value, -1.25);
  DecodeDateTime(-0.5, Y, M, D, H, N, S, Ms);
  EXPECT_EQ((std::vector<int>{Y, M, D, H}), (std::vector<int>{1899, 12, 30, 12}));
  // 23:59:59.9996 rounds to the next day's midnight, never to hour 24.
  DecodeDateTime(1.0 - 0.0004 / 86400, Y, M, D, H, N, S, Ms);
  EXPECT_EQ((std::vector<int>{Y, M, D, H, N, S, Ms}), (std::vector<int>{1899, 12, 31, 0, 0, 0, 0}));
  DecodeDateTime(NAN, Y, M, D, H, N, S, Ms);
  EXPECT_EQ(Y, 0);
  DecodeDate(1e300, Y, M, D);
  EXPECT_EQ(Y, 0);
}

TEST(Dates, FormatDateTime) {
  const TDateTime T = ComposeDateTime(EncodeDate(2003, 7, 4), EncodeTime(9, 5, 6, 7));
  EXPECT_EQ(FormatDateTime("dd/mm/yyyy hh:nn:ss", T), "04/07/2003 09:05:06");
  EXPECT_EQ(FormatDateTime("d/m/yy h:n:s z zzz", T), "4/7/03 9:5:6 7 007");
  EXPECT_EQ(FormatDateTime("ddd dddd mmm mmmm", T), "Fri Friday Jul July");
  EXPECT_EQ(FormatDateTime("hh:mm", T), "09:05");  // m after h is minutes
  EXPECT_EQ(FormatDateTime("ddddd|dddddd|t|tt", T), "04/07/2003|04 July 2003|09:05|09:05:06");
  EXPECT_EQ(FormatDateTime("c", T), "04/07/2003 09:05:06");
  EXPECT_EQ(FormatDateTime("c", EncodeDate(2003, 7, 4)), "04/07/2003");
  EXPECT_EQ(FormatDateTime("h:nn am/pm|h AMPM|h a/p", T + 0.5), "9:05 pm|9 PM|9 p");
  EXPECT_EQ(FormatDateTime("hh AM/PM", EncodeTime(0, 30, 0, 0)), "12 AM");
  EXPECT_EQ(FormatDateTime("'yyyy is' yyyy \"dd\"", T), "yyyy is 2003 dd");
  EXPECT_EQ(FormatDateTime("'unterminated", T), "unterminated");
  TFormatSettings FS;
  FS.DateSeparator = '-';
  FS.TimeSeparator = '.';
  EXPECT_EQ(FormatDateTime("yyyy/mm/dd hh:nn", T, FS), "2003-07-04 09.05");
  FS.ShortDateFormat = "c";  // formats that refer to themselves end
  EXPECT_NO_THROW(FormatDateTime("c", T, FS));
  EXPECT_EQ(DateTimeToStr(T), "04/07/2003 09:05:06");
  EXPECT_EQ(DateToStr(T), "04/07/2003");
  EXPECT_EQ(TimeToStr(T), "09:05:06");
  EXPECT_EQ(DateTimeToStr(-1.25), "29/12/1899 06:00:00");
}

TEST(Dates, ReadingText) {
  EXPECT_EQ(StrToDate("04/07/2003").Value, 37806.0);
  EXPECT_EQ(StrToDate(" 4/7/2003 ").Value, 37806.0);
  EXPECT_EQ(StrToDateTime("04/07/2003 09:05:06").Value,
            ComposeDateTime(EncodeDate(2003, 7, 4), EncodeTime(9, 5, 6, 0)).Value);
  EXPECT_EQ(StrToDateTime("29/12/1899 06:00").Value, -1.25);
  EXPECT_EQ(StrToTime("9:05 PM").Value, EncodeTime(21, 5, 0, 0).Value);
  EXPECT_EQ(StrToTime("12:00 am").Value, 0.0);
  EXPECT_EQ(StrToTime("1:02:03.456").Value, EncodeTime(1, 2, 3, 456).Value);
  EXPECT_EQ(StrToDateTime("13:30").Value, EncodeTime(13, 30, 0, 0).Value);
  // Two-digit years fall within 50 years of now.
  uint16_t Y, M, D;
  DecodeDate(StrToDate("01/01/05"), Y, M, D);
  uint16_t NowY, NowM, NowD;
  DecodeDate(Now(), NowY, NowM, NowD);
  EXPECT_LE(std::abs(int(Y) - int(NowY)), 50);
  EXPECT_EQ(Y % 100, 5);
  for (const char* Bad : {"", "31/02/2003", "04-07-2003", "04/07/2003x", "4/13/2003", "32/1/2003",
                          "04/07/2003 25:00", "1/1/10000"}) {
    SCOPED_TRACE(Bad);
    TDateTime Out;
    EXPECT_FALSE(TryStrToDateTime(Bad, Out));
  }
  EXPECT_EQ(vel_test::Raised<EConvertError>([] { StrToDate("x"); }), "'x' is not a valid date");
  EXPECT_EQ(vel_test::Raised<EConvertError>([] { StrToTime("25:00"); }),
            "'25:00' is not a valid time");
  EXPECT_EQ(vel_test::Raised<EConvertError>([] { StrToDateTime("1/1/2000 x"); }),
            "'1/1/2000 x' is not a valid date and time");
  EXPECT_THROW(StrToDate("04/07/2003 10:00"), EConvertError);

  const double A = Now().Value;
  const double Dd = Date().Value, Tt = Time().Value;
  EXPECT_GT(A, EncodeDate(2020, 1, 1).Value);
  EXPECT_EQ(Dd, std::trunc(Dd));
  EXPECT_GE(Tt, 0.0);
  EXPECT_LT(Tt, 1.0);
}

// ---------------------------------------------------------------------------
// Strings and file names

TEST(Strings, CaseComparisonTrimQuoteReplace) {
  EXPECT_EQ(UpperCase("abc\xE9z"), "ABC\xE9Z");  // ASCII only
  EXPECT_EQ(LowerCase("ABC\xC9Z"), "abc\xC9z");
  EXPECT_EQ(AnsiUpperCase("\xE9\x9A\x9C\x9E\xFF\xF7\xDF"), "\xC9\x8A\x8C\x8E\x9F\xF7\xDF");
  EXPECT_EQ(AnsiLowerCase("\xC9\x8A\xD7"), "\xE9\x9A\xD7");
  EXPECT_EQ(CompareText("abc", "ABC"), 0);
  EXPECT_LT(CompareText("abc", "ABD"), 0);
  EXPECT_LT(CompareText("ab", "abc"), 0);
  EXPECT_GT(CompareStr("a", "B"), 0);     // ordinal: 'a' > 'B'
  EXPECT_GT(CompareStr("\xE9", "z"), 0);  // bytes compare unsigned
  EXPECT_TRUE(SameText("Hello", "hELLO"));
  EXPECT_FALSE(SameText("\xE9", "\xC9"));
  EXPECT_TRUE(AnsiSameText("\xE9", "\xC9"));
  EXPECT_EQ(AnsiCompareText("\xE9T\xC9", "\xC9t\xE9"), 0);

  EXPECT_EQ(Trim("\t\r\n x y \x01"), "x y");
  EXPECT_EQ(TrimLeft("  x "), "x ");
  EXPECT_EQ(TrimRight("  x "), "  x");
  EXPECT_EQ(Trim("   "), "");
  EXPECT_EQ(QuotedStr("it's"), "'it''s'");
  EXPECT_EQ(AnsiQuotedStr("a\"b", '"'), "\"a\"\"b\"");

  std::string_view S = "'it''s' rest";
  EXPECT_EQ(AnsiExtractQuotedStr(S, '\''), "it's");
  EXPECT_EQ(S, " rest");
  size_t P = 3;
  EXPECT_EQ(AnsiExtractQuotedStr("ab 'c'd", P, '\''), "c");
  EXPECT_EQ(P, 6u);
  P = 0;
  EXPECT_EQ(AnsiExtractQuotedStr("x'y'", P, '\''), "");
  EXPECT_EQ(P, 0u);
  P = 0;
  EXPECT_EQ(AnsiExtractQuotedStr("'open''", P, '\''), "open'");
  EXPECT_EQ(P, 7u);
  EXPECT_EQ(AnsiDequotedStr("'a''b'", '\''), "a'b");
  EXPECT_EQ(AnsiDequotedStr("'a'b", '\''), "'a'b");
  EXPECT_EQ(AnsiDequotedStr("'a''", '\''), "'a''");

  EXPECT_EQ(StringReplace("aXbxc", "x", "-", {}), "aXb-c");
  EXPECT_EQ(StringReplace("aXbxc", "x", "-", {rfIgnoreCase}), "a-bxc");
  EXPECT_EQ(StringReplace("aXbxc", "x", "--", {rfIgnoreCase, rfReplaceAll}), "a--b--c");
  EXPECT_EQ(StringReplace("aaaa", "aa", "a", {rfReplaceAll}), "aa");
  EXPECT_EQ(StringReplace("abc", "", "z", {rfReplaceAll}), "abc");
  EXPECT_EQ(Pos("lo", "hello"), 4u);
  EXPECT_EQ(Pos("z", "hello"), 0u);
}

class FileNames : public storage_test::ScratchDir {};

TEST_F(FileNames, SplittingAcceptsBothDelimiters) {
  EXPECT_EQ(ExtractFilePath("/usr/lib/x.so"), "/usr/lib/");
  EXPECT_EQ(ExtractFilePath("C:\\Data\\Misc\\Corvane.config"), "C:\\Data\\Misc\\");
  EXPECT_EQ(ExtractFileName("C:\\Data\\Misc\\Corvane.config"), "Corvane.config");
  EXPECT_EQ(ExtractFileName("plain"), "plain");
  EXPECT_EQ(ExtractFileDir("/usr/lib/x.so"), "/usr/lib");
  EXPECT_EQ(ExtractFileDir("/x"), "/");
  EXPECT_EQ(ExtractFileExt("/a.b/c.tar.gz"), ".gz");
  EXPECT_EQ(ExtractFileExt("/a.b/c"), "");
  EXPECT_EQ(ChangeFileExt("/a.b/c", ".txt"), "/a.b/c.txt");
  EXPECT_EQ(ChangeFileExt("dir\\file.dat", ".bak"), "dir\\file.bak");
  EXPECT_EQ(ChangeFileExt("file.dat", ""), "file");
  EXPECT_EQ(IncludeTrailingPathDelimiter("/tmp"), "/tmp/");
  EXPECT_EQ(IncludeTrailingPathDelimiter("/tmp/"), "/tmp/");
  EXPECT_EQ(ExcludeTrailingPathDelimiter("/tmp/"), "/tmp");
  EXPECT_EQ(ExcludeTrailingPathDelimiter("/tmp"), "/tmp");
}

TEST_F(FileNames, FileSystemOperations) {
  const std::string Deep = Path("a/b/c");
  EXPECT_FALSE(DirectoryExists(Deep));
  EXPECT_TRUE(ForceDirectories(Deep + "/"));
  EXPECT_TRUE(DirectoryExists(Deep));
  EXPECT_TRUE(ForceDirectories(Deep));  // already there
  EXPECT_FALSE(ForceDirectories(""));
  const std::string File = Deep + "/f.txt";
  EXPECT_FALSE(FileExists(File));
  vel_test::WriteFile(File, "");
  EXPECT_TRUE(FileExists(File));
  EXPECT_FALSE(FileExists(Deep));  // a directory is not a file
  EXPECT_FALSE(DirectoryExists(File));
  EXPECT_FALSE(ForceDirectories(File + "/sub"));  // a file is in the way
  EXPECT_FALSE(DeleteFile(Deep));                 // directories are not deleted
  EXPECT_TRUE(RenameFile(File, File + ".2"));
  EXPECT_TRUE(DeleteFile(File + ".2"));
  EXPECT_FALSE(DeleteFile(File + ".2"));
}

// ---------------------------------------------------------------------------
// Windows-1252

TEST(Cp1252, AllBytesRoundTrip) {
  std::string All;
  for (int C = 0; C < 256; ++C) All += static_cast<char>(C);
  const std::u16string W = Cp1252ToWide(All);
  ASSERT_EQ(W.size(), 256u);
  // 0x80-0x9F: the code page's own characters, the five undefined bytes as
  // the C1 controls of the same value; every other byte is its own code.
  EXPECT_EQ(W.substr(0x80, 32),
            u"\u20AC\u0081\u201A\u0192\u201E\u2026\u2020\u2021\u02C6\u2030\u0160\u2039\u0152"
            u"\u008D\u017D\u008F\u0090\u2018\u2019\u201C\u201D\u2022\u2013\u2014\u02DC\u2122"
            u"\u0161\u203A\u0153\u009D\u017E\u0178");
  for (int C = 0; C < 256; ++C) {
    if (C < 0x80 || C > 0x9F) {
      ASSERT_EQ(W[C], C);
    }
  }
  EXPECT_EQ(WideToCp1252(W), All);
  const std::string U = Cp1252ToUtf8(All);
  EXPECT_EQ(Utf8ToCp1252(U), All);
  EXPECT_EQ(Utf8ToWide(U), W);
  EXPECT_EQ(WideToUtf8(W), U);
  EXPECT_EQ(Cp1252ToUtf8("\x80"), "\xE2\x82\xAC");
}

TEST(Cp1252, UnmappableInvalidAndSurrogates) {
  EXPECT_EQ(WideToCp1252(u"a\u4E2Db\u0080c"), "a?b?c");
  EXPECT_EQ(WideToCp1252(u"\U0001F600"), "?");  // one character, one '?'
  EXPECT_EQ(Utf8ToCp1252("\xF0\x9F\x98\x80"), "?");
  // Each maximal invalid subsequence becomes one '?'.
  EXPECT_EQ(Utf8ToCp1252("a\xC3"
                         "b"),
            "a?b");
  EXPECT_EQ(Utf8ToCp1252("\xE2\x82"), "?");
  EXPECT_EQ(Utf8ToCp1252("\xC0\x80"), "??");            // overlong
  EXPECT_EQ(Utf8ToCp1252("\xED\xA0\x80"), "???");       // encoded surrogate
  EXPECT_EQ(Utf8ToCp1252("\xF4\x90\x80\x80"), "????");  // above U+10FFFF
  EXPECT_EQ(Utf8ToCp1252("\xFF"), "?");
  EXPECT_EQ(Utf8ToWide("x\xE2\x28"), u"x\uFFFD(");

  const std::u16string W = u"\U0001F600z";
  EXPECT_EQ(WideToUtf8(W), "\xF0\x9F\x98\x80z");
  EXPECT_EQ(Utf8ToWide("\xF0\x9F\x98\x80z"), W);
  EXPECT_EQ(WideToUtf8(std::u16string(1, char16_t(0xD800)) + u"a"),
            "\xEF\xBF\xBD"
            "a");
  EXPECT_EQ(WideToUtf8(std::u16string(1, char16_t(0xDC00))), "\xEF\xBF\xBD");
}

TEST(FormatFloatPatterns, CommonPatterns) {
  EXPECT_EQ(FormatFloat("0.00", 1234.567), "1234.57");
  EXPECT_EQ(FormatFloat("#,##0.00", 1234567.891), "1,234,567.89");
  EXPECT_EQ(FormatFloat("#,##0.00", -5), "-5.00");
  EXPECT_EQ(FormatFloat("0.###E+00", 12345.678), "1.235E+04");
  EXPECT_EQ(FormatFloat("0.###E+00", 0.00012), "1.2E-04");
  EXPECT_EQ(FormatFloat("00.00E-0", 0.000123), "12.30E-5");
  EXPECT_EQ(FormatFloat("#.##", 0.5), ".5");
  EXPECT_EQ(FormatFloat("0", -0.1), "0");
  EXPECT_EQ(FormatFloat("0.00;(0.00);'zero'", -3.456), "(3.46)");
  EXPECT_EQ(FormatFloat("0.00;(0.00);'zero'", 0), "zero");
  EXPECT_EQ(FormatFloat("000-000", 12345), "012-345");
  EXPECT_EQ(FormatFloat("#,##0", 1000), "1,000");
  EXPECT_EQ(FormatFloat("0.0#", 1.456), "1.46");
  EXPECT_EQ(FormatFloat("'$'#,##0.00", 1e6), "$1,000,000.00");
  EXPECT_EQ(FormatFloat("", 0.1), "0.1");
}
