#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "TestSupport.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/Variants.h"

using namespace vel;

TEST(Variant, TypeCodesOfConstructors) {
  EXPECT_EQ(VarType(Variant()), varEmpty);
  EXPECT_EQ(VarType(Variant::Null()), varNull);
  EXPECT_EQ(VarType(Variant(int16_t(1))), varSmallint);
  EXPECT_EQ(VarType(Variant(1)), varInteger);
  EXPECT_EQ(VarType(Variant(int8_t(1))), varShortInt);
  EXPECT_EQ(VarType(Variant(uint8_t(1))), varByte);
  EXPECT_EQ(VarType(Variant(uint16_t(1))), varWord);
  EXPECT_EQ(VarType(Variant(1u)), varLongWord);
  EXPECT_EQ(VarType(Variant(int64_t(1))), varInt64);
  EXPECT_EQ(VarType(Variant(true)), varBoolean);
  EXPECT_EQ(VarType(Variant(1.5f)), varSingle);
  EXPECT_EQ(VarType(Variant(1.5)), varDouble);
  EXPECT_EQ(VarType(Variant(Currency::FromScaled(1))), varCurrency);
  EXPECT_EQ(VarType(Variant(TDateTime(1.0))), varDate);
  EXPECT_EQ(VarType(Variant("s")), varString);
  EXPECT_EQ(VarType(Variant(std::string("s"))), varString);
  EXPECT_EQ(VarType(Variant('c')), varString);
  EXPECT_EQ(VarType(Variant(std::u16string(u"w"))), varOleStr);
  EXPECT_EQ(VarType(VarArrayCreate({0, 3}, varByte)), varArray | varByte);
  EXPECT_TRUE(VarIsEmpty(Variant()));
  EXPECT_TRUE(VarIsNull(Variant::Null()));
  EXPECT_TRUE(VarIsClear(Variant::Null()));
  EXPECT_TRUE(VarIsNumeric(Variant(Currency())));
  EXPECT_FALSE(VarIsNumeric(Variant(true)));
  EXPECT_TRUE(VarIsStr(Variant(u"x")));
  EXPECT_EQ(VarTypeAsText(varSmallint), "Smallint");
  EXPECT_EQ(VarTypeAsText(varArray | varByte), "Array Byte");
}

TEST(Variant, ToStringConversions) {
  EXPECT_EQ(VarToStr(Variant()), "");
  EXPECT_EQ(VarToStr(Variant::Null()), "");
  EXPECT_EQ(Variant(12).AsString(), "12");
  EXPECT_EQ(Variant(int64_t(-9000000000LL)).AsString(), "-9000000000");
  EXPECT_EQ(Variant(0.1).AsString(), "0.1");
  EXPECT_EQ(Variant(0.1f).AsString(), "0.1");  // shortest for a single
  EXPECT_EQ(Variant(1e20).AsString(), "1E20");
  EXPECT_EQ(Variant(Currency::FromScaled(15000)).AsString(), "1.5");
  EXPECT_EQ(Variant(true).AsString(), "True");
  EXPECT_EQ(Variant(false).AsString(), "False");
  const TDateTime T = ComposeDateTime(EncodeDate(2003, 7, 4), EncodeTime(9, 5, 6, 0));
  EXPECT_EQ(Variant(T).AsString(), "04/07/2003 09:05:06");
  EXPECT_EQ(Variant(u"\u20ACx").AsString(), "\x80x");
  EXPECT_EQ(Variant("\x80x").AsWideString(), u"\u20ACx");
  // Null has no text of its own.
  EXPECT_EQ(vel_test::Raised<EVariantTypeCastError>([] { Variant::Null().AsString(); }),
            "Invalid variant type conversion");
}

TEST(Variant, NumericConversions) {
  EXPECT_EQ(Variant("42").AsInteger(), 42);
  EXPECT_EQ(Variant(" -7").AsInt64(), -7);
  EXPECT_EQ(Variant("2.5").AsInteger(), 2);  // ties to even
  EXPECT_EQ(Variant("3.5").AsInteger(), 4);
  EXPECT_EQ(Variant(-2.5).AsInteger(), -2);
  EXPECT_EQ(Variant(Currency::FromScaled(25000)).AsInteger(), 2);
  EXPECT_EQ(Variant(Currency::FromScaled(35000)).AsInteger(), 4);
  EXPECT_EQ(Variant(Currency::FromScaled(-15001)).AsInteger(), -2);
  EXPECT_EQ(Variant(true).AsInteger(), -1);
  EXPECT_EQ(Variant(false).AsInteger(), 0);
  EXPECT_EQ(Variant().AsInteger(), 0);
  EXPECT_EQ(Variant("1.5e3").AsDouble(), 1500.0);
  EXPECT_EQ(Variant(uint32_t(4000000000u)).AsInt64(), 4000000000LL);
  EXPECT_EQ(Variant("0.1").AsCurrency().Value, 1000);  // exact, no float detour
  EXPECT_EQ(Variant(1.23456).AsCurrency().Value, 12346);
  EXPECT_EQ(Variant(7).AsCurrency().Value, 70000);
  EXPECT_EQ(Variant("04/07/2003").AsDateTime().Value, 37806.0);
  EXPECT_EQ(Variant(37806.5).AsDateTime().Value, 37806.5);
  EXPECT_TRUE(Variant("TRUE").AsBoolean());
  EXPECT_FALSE(Variant("false").AsBoolean());
  EXPECT_TRUE(Variant("2").AsBoolean());
  EXPECT_FALSE(Variant("0").AsBoolean());
  EXPECT_TRUE(Variant(0.5).AsBoolean());

  for (const char* Bad : {"abc", "", "1x", "True"}) {
    SCOPED_TRACE(Bad);
    EXPECT_EQ(vel_test::Raised<EVariantTypeCastError>([&] { Variant(Bad).AsInteger(); }),
              "Invalid variant type conversion");
  }
  EXPECT_THROW(Variant("abc").AsDouble(), EVariantError);
  EXPECT_THROW(Variant("abc").AsCurrency(), EVariantError);
  EXPECT_THROW(Variant("maybe").AsBoolean(), EVariantError);
  EXPECT_THROW(Variant("31/02/2003").AsDateTime(), EVariantError);
  EXPECT_THROW(Variant::Null().AsInteger(), EVariantTypeCastError);
  EXPECT_THROW(VarArrayCreate({0, 1}, varByte).AsInteger(), EVariantTypeCastError);

  EXPECT_EQ(vel_test::Raised<EVariantOverflowError>([] { Variant(int64_t(1) << 40).AsInteger(); }),
            "Overflow while converting variant of type (Int64) into type (Integer)");
  EXPECT_THROW(Variant(1e30).AsInt64(), EVariantOverflowError);
  EXPECT_THROW(Variant(NAN).AsInteger(), EVariantOverflowError);
  EXPECT_THROW(Variant(1e300).AsCurrency(), EVariantOverflowError);
}

TEST(Variant, VarAsType) {
  const Variant S = VarAsType(Variant(12), varString);
  EXPECT_EQ(VarType(S), varString);
  EXPECT_EQ(S.AsString(), "12");
  const Variant I = VarAsType(Variant("300"), varSmallint);
  EXPECT_EQ(VarType(I), varSmallint);
  EXPECT_EQ(I.AsInteger(), 300);
  EXPECT_EQ(VarType(VarAsType(Variant(1.5), varOleStr)), varOleStr);
  EXPECT_EQ(VarAsType(Variant(1.5), varOleStr).AsWideString(), u"1.5");
  EXPECT_EQ(VarType(VarAsType(Variant(), varInteger)), varInteger);
  EXPECT_EQ(VarType(VarAsType(Variant(5), varNull)), varNull);
  EXPECT_EQ(VarType(VarAsType(Variant(5), varEmpty)), varEmpty);
  EXPECT_EQ(VarAsType(Variant(-1), varBoolean).AsBoolean(), true);
  EXPECT_EQ(VarAsType(Variant("1.25"), varCurrency).AsCurrency().Value, 12500);

  EXPECT_EQ(vel_test::Raised<EVariantTypeCastError>([] { VarAsType(Variant("abc"), varInteger); }),
            "Invalid variant type conversion");
  EXPECT_THROW(VarAsType(Variant::Null(), varInteger), EVariantTypeCastError);
  EXPECT_THROW(VarAsType(Variant(5), varDispatch), EVariantTypeCastError);
  EXPECT_THROW(VarAsType(Variant(5), varArray | varByte), EVariantTypeCastError);
  EXPECT_EQ(vel_test::Raised<EVariantBadVarTypeError>([] { VarAsType(Variant(5), 0x0FF); }),
            "Invalid variant type");
  EXPECT_EQ(vel_test::Raised<EVariantOverflowError>([] { VarAsType(Variant(256), varByte); }),
            "Overflow while converting variant of type (Integer) into type (Byte)");
  EXPECT_THROW(VarAsType(Variant(-1), varWord), EVariantOverflowError);
  EXPECT_THROW(VarAsType(Variant(70000), varSmallint), EVariantOverflowError);
  EXPECT_THROW(VarAsType(Variant(1e300), varSingle), EVariantOverflowError);
  EXPECT_EQ(VarAsType(Variant(-128), varShortInt).AsInteger(), -128);
}

TEST(Variant, Equality) {
  EXPECT_TRUE(Variant() == Variant());
  EXPECT_TRUE(Variant::Null() == Variant::Null());
  EXPECT_FALSE(Variant::Null() == Variant());
  EXPECT_FALSE(Variant::Null() == Variant(0));
  EXPECT_FALSE(Variant("") == Variant::Null());
  EXPECT_TRUE(Variant() == Variant(0));
  EXPECT_TRUE(Variant() == Variant(""));
  EXPECT_FALSE(Variant() == Variant("x"));
  // Numbers of different types compare by value.
  EXPECT_TRUE(Variant(12) == Variant(int64_t(12)));
  EXPECT_TRUE(Variant(uint8_t(12)) == Variant(12.0));
  EXPECT_TRUE(Variant(Currency::FromScaled(15000)) == Variant(1.5));
  EXPECT_TRUE(Variant(Currency::FromScaled(20000)) == Variant(2));
  EXPECT_FALSE(Variant(Currency::FromScaled(20001)) == Variant(2));
  EXPECT_TRUE(Variant(int64_t(INT64_MAX)) == Variant(int64_t(INT64_MAX)));
  EXPECT_FALSE(Variant(int64_t(INT64_MAX)) == Variant(int64_t(INT64_MAX - 1)));
  EXPECT_FALSE(Variant(Currency::FromScaled(INT64_MAX)) == Variant(int64_t(INT64_MAX)));
  EXPECT_TRUE(Variant(TDateTime(2.0)) == Variant(2));
  // Strings: case-sensitive; 8-bit and wide compare by character.
  EXPECT_TRUE(Variant("abc") == Variant("abc"));
  EXPECT_FALSE(Variant("abc") == Variant("ABC"));
  EXPECT_TRUE(Variant("\x80") == Variant(u"\u20AC"));
  // A string and a number compare as numbers.
  EXPECT_TRUE(Variant("12") == Variant(12));
  EXPECT_TRUE(Variant(12) == Variant("12.0"));
  EXPECT_TRUE(Variant(u" 1.5") == Variant(1.5));
  EXPECT_FALSE(Variant("13") == Variant(12));
  EXPECT_EQ(vel_test::Raised<EVariantTypeCastError>([] { (void)(Variant("abc") == Variant(1)); }),
            "Invalid variant type conversion");
  // Booleans are -1 and 0 among numbers, and strings compare as booleans.
  EXPECT_TRUE(Variant(true) == Variant(-1));
  EXPECT_FALSE(Variant(true) == Variant(1));
  EXPECT_TRUE(Variant(false) == Variant(0.0));
  EXPECT_TRUE(Variant(true) == Variant("true"));
  EXPECT_TRUE(Variant("1") == Variant(true));
  EXPECT_TRUE(Variant(true) != Variant(false));
  EXPECT_EQ(vel_test::Raised<EVariantInvalidOpError>([] {
              (void)(VarArrayCreate({0, 0}, varByte) == Variant(1));
            }),
            "Invalid variant operation");
}

TEST(VariantArray, ByteArrays) {
  Variant A = VarArrayCreate({0, 9}, varByte);
  EXPECT_TRUE(VarIsArray(A));
  EXPECT_EQ(VarArrayDimCount(A), 1);
  EXPECT_EQ(VarArrayLowBound(A, 1), 0);
  EXPECT_EQ(VarArrayHighBound(A, 1), 9);
  auto* P = static_cast<uint8_t*>(VarArrayLock(A));
  for (int I = 0; I < 10; ++I) {
    EXPECT_EQ(P[I], 0);
    P[I] = static_cast<uint8_t>(I * 17);
  }
  VarArrayUnlock(A);
  EXPECT_EQ(VarArrayGet(A, 3).AsInteger(), 51);
  EXPECT_EQ(VarType(VarArrayGet(A, 3)), varByte);
  VarArrayPut(A, Variant("200"), 4);
  EXPECT_EQ(VarArrayGet(A, 4).AsInteger(), 200);
  EXPECT_THROW(VarArrayPut(A, Variant(256), 4), EVariantOverflowError);

  // Copies are independent (value semantics).
  Variant B = A;
  VarArrayPut(B, Variant(1), 0);
  EXPECT_EQ(VarArrayGet(A, 0).AsInteger(), 0);
  EXPECT_EQ(VarArrayGet(B, 0).AsInteger(), 1);
  Variant C = std::move(B);
  EXPECT_TRUE(VarIsEmpty(B));
  EXPECT_EQ(VarArrayGet(C, 0).AsInteger(), 1);
  C = A;
  EXPECT_EQ(VarArrayGet(C, 0).AsInteger(), 0);
  C = Variant(5);
  EXPECT_FALSE(VarIsArray(C));

  const uint8_t Bytes[] = {0x54, 0x50, 0x46, 0x30};
  Variant F = VarArrayFromBytes(Bytes, sizeof Bytes);
  EXPECT_EQ(VarArrayHighBound(F, 1), 3);
  EXPECT_EQ(0, std::memcmp(VarArrayLock(F), Bytes, 4));
  VarArrayUnlock(F);
  Variant Empty = VarArrayFromBytes(nullptr, 0);
  EXPECT_EQ(VarArrayHighBound(Empty, 1), -1);
}

TEST(VariantArray, OtherElementTypesAndErrors) {
  Variant V = VarArrayCreate({1, 3}, varVariant);
  VarArrayPut(V, Variant("x"), 1);
  VarArrayPut(V, Variant(2.5), 2);
  VarArrayPut(V, VarArrayCreate({0, 1}, varByte), 3);
  EXPECT_EQ(VarType(VarArrayGet(V, 1)), varString);
  EXPECT_EQ(VarArrayGet(V, 2).AsDouble(), 2.5);
  EXPECT_TRUE(VarIsArray(VarArrayGet(V, 3)));
  auto* Elems = static_cast<Variant*>(VarArrayLock(V));
  EXPECT_EQ(Elems[0].AsString(), "x");
  VarArrayUnlock(V);

  Variant I = VarArrayCreate({-2, 2}, varInteger);
  VarArrayPut(I, Variant(-5), -2);
  VarArrayPut(I, Variant(1.5), 2);
  auto* Ints = static_cast<int32_t*>(VarArrayLock(I));
  EXPECT_EQ(Ints[0], -5);
  EXPECT_EQ(Ints[4], 2);
  VarArrayUnlock(I);

  Variant Bools = VarArrayCreate({0, 1}, varBoolean);
  VarArrayPut(Bools, Variant(true), 1);
  auto* Vb = static_cast<int16_t*>(VarArrayLock(Bools));
  EXPECT_EQ(Vb[0], 0);
  EXPECT_EQ(Vb[1], -1);  // VARIANT_BOOL
  VarArrayUnlock(Bools);
  EXPECT_EQ(VarType(VarArrayGet(Bools, 1)), varBoolean);

  Variant W = VarArrayCreate({0, 0}, varOleStr);
  VarArrayPut(W, Variant("\x80"), 0);
  EXPECT_EQ(VarArrayGet(W, 0).AsWideString(), u"\u20AC");

  EXPECT_EQ(vel_test::Raised<EVariantBadIndexError>([&] { VarArrayGet(I, 3); }),
            "Variant or safe array index out of bounds");
  EXPECT_THROW(VarArrayGet(I, -3), EVariantBadIndexError);
  EXPECT_THROW(VarArrayPut(I, Variant(1), INT32_MAX), EVariantBadIndexError);
  EXPECT_THROW(VarArrayHighBound(I, 2), EVariantBadIndexError);
  EXPECT_EQ(vel_test::Raised<EVariantNotAnArrayError>([] { VarArrayHighBound(Variant(1), 1); }),
            "Variant is not an array");
  Variant NotArray(1);
  EXPECT_THROW(VarArrayLock(NotArray), EVariantNotAnArrayError);
  EXPECT_EQ(VarArrayDimCount(NotArray), 0);
  EXPECT_EQ(vel_test::Raised<EVariantArrayCreateError>([] {
              VarArrayCreate({0, 1}, varString);
            }),
            "Error creating variant or safe array");
  EXPECT_THROW(VarArrayCreate({0, 1, 0, 1}, varByte), EVariantArrayCreateError);
  EXPECT_THROW(VarArrayCreate({5, 3}, varByte), EVariantArrayCreateError);
  EXPECT_EQ(vel_test::Raised<EVariantUnexpectedError>([&] { VarArrayUnlock(I); }),
            "Unexpected variant error");
}

TEST(VariantArray, RedimRespectsLocks) {
  Variant A = VarArrayCreate({0, 2}, varByte);
  VarArrayPut(A, Variant(7), 2);
  VarArrayLock(A);
  VarArrayLock(A);  // locks nest
  EXPECT_EQ(vel_test::Raised<EVariantArrayLockedError>([&] { VarArrayRedim(A, 5); }),
            "Variant or safe array is locked");
  VarArrayUnlock(A);
  EXPECT_THROW(VarArrayRedim(A, 5), EVariantArrayLockedError);
  VarArrayUnlock(A);
  VarArrayRedim(A, 5);
  EXPECT_EQ(VarArrayHighBound(A, 1), 5);
  EXPECT_EQ(VarArrayGet(A, 2).AsInteger(), 7);
  EXPECT_EQ(VarArrayGet(A, 5).AsInteger(), 0);
  VarArrayRedim(A, 0);
  EXPECT_THROW(VarArrayGet(A, 1), EVariantBadIndexError);
  // A copy of a locked array starts unlocked.
  VarArrayLock(A);
  Variant B = A;
  EXPECT_NO_THROW(VarArrayRedim(B, 3));
  EXPECT_THROW(VarArrayUnlock(B), EVariantUnexpectedError);
}
