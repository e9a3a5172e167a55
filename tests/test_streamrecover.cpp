// Recovery of damaged component streams: the conversion of every value type
// into every kind of property, what is and is not consumed, the nested
// object rule, string lists, the debug output of names, and garbage input.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "vel/rtl/Debug.h"
#include "vel/rtl/SysUtils.h"
#include "vel/velStreamRecover.h"

using namespace vel;

namespace recover_test {

enum TRecShape : int32_t { rsCircle, rsSquare, rsTriangle };
VEL_ENUM(TRecShape, "rsCircle", "rsSquare", "rsTriangle")

class TRecFont : public TPersistent {
  VEL_CLASS(TRecFont, TPersistent)
 public:
  int32_t Size = 0;
  std::string Name;
};

class TRecNode : public TPersistent {
  VEL_CLASS(TRecNode, TPersistent)
 public:
  int32_t Value = 0;
  TRecNode* Next = this;  // refers to itself
};

class TRecTarget : public TComponent {
  VEL_CLASS(TRecTarget, TComponent)
 public:
  using TComponent::TComponent;
  ~TRecTarget() override {
    delete Font;
    delete Lines;
  }
  int32_t Int = 5;
  int32_t Mark = 0;
  int64_t Big = 5;
  double Dbl = 5;
  TDateTime When = TDateTime(5);
  TRecShape Shape = rsTriangle;
  std::string Text = "old";
  Variant Var = Variant(std::string("old"));
  TRecFont* Font = new TRecFont;
  TStringList* Lines = new TStringList;
  TRecNode Node;
  TRecNode* NodePtr = &Node;
  int32_t Fixed() const { return 1; }
};

}  // namespace recover_test

using namespace recover_test;

VEL_PUBLISHED(TRecFont, prop("Size", &TRecFont::Size), prop("Name", &TRecFont::Name))
VEL_PUBLISHED(TRecNode, prop("Value", &TRecNode::Value), readonly_prop("Next", &TRecNode::Next))
VEL_PUBLISHED(TRecTarget, prop("Int", &TRecTarget::Int), prop("Mark", &TRecTarget::Mark),
              prop("Big", &TRecTarget::Big), prop("Dbl", &TRecTarget::Dbl),
              prop("When", &TRecTarget::When), prop("Shape", &TRecTarget::Shape),
              prop("Text", &TRecTarget::Text), prop("Var", &TRecTarget::Var),
              readonly_prop("Font", &TRecTarget::Font), readonly_prop("Lines", &TRecTarget::Lines),
              readonly_prop("Node", &TRecTarget::NodePtr), prop("Fixed", &TRecTarget::Fixed))

namespace {

using Bytes = std::vector<uint8_t>;

struct Registered {
  Registered() { RegisterClass(TRecTarget::StaticClass()); }
};
const Registered Once;

void Str(Bytes& B, std::string_view S) {
  B.push_back(static_cast<uint8_t>(S.size()));
  B.insert(B.end(), S.begin(), S.end());
}

// A stream of class TRecTarget named "T" with the given entries.
struct Stream {
  Bytes B{'T', 'P', 'F', '0'};
  Stream() {
    Str(B, "TRecTarget");
    Str(B, "T");
  }
  Stream& Entry(std::string_view Name, std::initializer_list<uint8_t> Value) {
    Str(B, Name);
    B.insert(B.end(), Value);
    return *this;
  }
  Stream& Raw(std::initializer_list<uint8_t> V) {
    B.insert(B.end(), V);
    return *this;
  }
};

void Recover(const Stream& S, TRecTarget& T) {
  TReadOnlyMemoryStream M(S.B.data(), static_cast<int64_t>(S.B.size()));
  RecoverComponentStream(&M, &T);
}

// The value bytes of a few values.
Bytes ExtendedBytes(Extended V) {
  Bytes B(11);
  B[0] = vaExtended;
  ExtendedToBytes(V, B.data() + 1);
  return B;
}
Bytes DoubleBytes(uint8_t Type, double V) {
  Bytes B(9);
  B[0] = Type;
  std::memcpy(B.data() + 1, &V, 8);
  return B;
}

// One entry named Name with Value, followed by "Mark" = 99, which must
// come through: the value's payload was consumed exactly (a payload that is
// not read is taken as the next entry).
TRecTarget* With(const char* Name, const Bytes& Value) {
  static std::unique_ptr<TRecTarget> T;
  T = std::make_unique<TRecTarget>();
  Stream S;
  Str(S.B, Name);
  S.B.insert(S.B.end(), Value.begin(), Value.end());
  S.Entry("Mark", {vaInt8, 99});
  Recover(S, *T);
  EXPECT_EQ(T->Mark, 99) << Name << ": payload not consumed exactly";
  return T.get();
}

// An entry of value type Type whose payload, if it is not read, is taken as
// an entry setting Mark to 7; Read tells whether it must be read (Mark
// stays 0) or left (Mark becomes 7).
TRecTarget* Unread(const char* Name, uint8_t Type, bool Read = false) {
  static std::unique_ptr<TRecTarget> T;
  T = std::make_unique<TRecTarget>();
  Stream S;
  S.Entry(Name, {Type}).Raw({4, 'M', 'a', 'r', 'k', vaInt8, 7});
  Recover(S, *T);
  EXPECT_EQ(T->Mark, Read ? 0 : 7) << Name << " from type " << int(Type);
  return T.get();
}

}  // namespace

TEST(StripFirstToken, RemovesTheFirstTokenAndItsSeparator) {
  EXPECT_EQ(StripFirstToken("Font.Size", "."), "Size");
  EXPECT_EQ(StripFirstToken("a.b.c", "."), "b.c");
  EXPECT_EQ(StripFirstToken(".x", "."), "x");
  EXPECT_EQ(StripFirstToken("x.", "."), "");
  EXPECT_EQ(StripFirstToken("a::b::c", "::"), "b::c");
  EXPECT_EQ(StripFirstToken("Caption", "."), "");
  EXPECT_EQ(StripFirstToken("", "."), "");
  EXPECT_EQ(StripFirstToken("a.b", ""), "");
}

TEST(StreamRecover, IntegerTargets) {
  EXPECT_EQ(With("Int", {vaNull})->Int, 0);
  EXPECT_EQ(With("Int", {vaInt8, 0xFD})->Int, -3);
  EXPECT_EQ(With("Int", {vaSet, 0xFE})->Int, -2);  // read as one signed byte
  EXPECT_EQ(With("Int", {vaInt16, 0x00, 0x80})->Int, -32768);
  EXPECT_EQ(With("Int", {vaInt32, 0x78, 0x56, 0x34, 0x12})->Int, 0x12345678);
  EXPECT_EQ(With("Int", {0x82, 0x11})->Int, 0x11);      // the type byte is masked with 127
  EXPECT_EQ(With("Int", ExtendedBytes(2.5L))->Int, 2);  // halves to even
  EXPECT_EQ(With("Int", ExtendedBytes(3.5L))->Int, 4);
  EXPECT_EQ(With("Int", ExtendedBytes(std::numeric_limits<Extended>::quiet_NaN()))->Int, 0);
  EXPECT_EQ(With("Int", {vaString, 3, '1', '2', '3'})->Int, 123);
  EXPECT_EQ(With("Int", {vaString, 3, '1', '2', 'x'})->Int, 0);
  EXPECT_EQ(With("Int", {vaLString, 3, 0, 0, 0, '$', '1', '0'})->Int, 16);
  // A wide string of count 2 consumes 4 bytes and keeps the first 2.
  EXPECT_EQ(With("Int", {vaWString, 2, 0, 0, 0, '4', '2', 'x', 'y'})->Int, 42);
  EXPECT_EQ(With("Int", {vaFalse})->Int, 0);
  EXPECT_EQ(With("Int", {vaTrue})->Int, 1);
  EXPECT_EQ(With("Int", {vaNil})->Int, 0);
  EXPECT_EQ(With("Int", {vaSingle, 0, 0, 0xC0, 0x3F})->Int, 2);                // 1.5
  EXPECT_EQ(With("Int", {vaCurrency, 0xB8, 0x88, 0, 0, 0, 0, 0, 0})->Int, 4);  // 3.5
  EXPECT_EQ(With("Int", DoubleBytes(vaDate, 3.5))->Int, 4);
  EXPECT_EQ(With("Int", {vaInt64, 5, 0, 0, 0, 1, 0, 0, 0})->Int, 5);  // low 32 bits
  EXPECT_EQ(With("Big", {vaInt64, 5, 0, 0, 0, 1, 0, 0, 0})->Big, 0x100000005LL);
  EXPECT_EQ(With("Big", {vaString, 10, '9', '0', '0', '0', '0', '0', '0', '0', '0', '0'})->Big,
            9000000000LL);

  // No payload read: list, collection, identifier, binary, unknown types.
  for (uint8_t Type : {uint8_t(vaList), uint8_t(vaCollection), uint8_t(vaIdent), uint8_t(vaBinary),
                       uint8_t(vaUTF8String), uint8_t(0x7F)}) {
    EXPECT_EQ(Unread("Int", Type)->Int, 0) << int(Type);
  }
  // A payload that is read is not taken as an entry.
  EXPECT_EQ(Unread("Int", vaString, true)->Int, 0);
}

TEST(StreamRecover, FloatAndDateTargets) {
  EXPECT_EQ(With("Dbl", {vaInt16, 0x10, 0x27})->Dbl, 10000);
  EXPECT_EQ(With("Dbl", ExtendedBytes(0.5L))->Dbl, 0.5);
  EXPECT_EQ(With("Dbl", {vaString, 4, '2', '.', '2', '5'})->Dbl, 2.25);
  EXPECT_EQ(With("Dbl", {vaString, 1, '?'})->Dbl, 0);
  EXPECT_EQ(With("Dbl", {vaTrue})->Dbl, 1.0);
  EXPECT_EQ(With("Dbl", {vaCurrency, 0x98, 0x3A, 0, 0, 0, 0, 0, 0})->Dbl, 1.5);
  EXPECT_EQ(With("Dbl", {vaSingle, 0, 0, 0x20, 0x40})->Dbl, 2.5);
  EXPECT_EQ(With("Dbl", {vaInt64, 0, 0, 0, 0, 0, 1, 0, 0})->Dbl, 1099511627776.0);
  EXPECT_EQ(Unread("Dbl", vaIdent)->Dbl, 0);
  EXPECT_EQ(Unread("Dbl", vaBinary)->Dbl, 0);

  EXPECT_EQ(With("When", DoubleBytes(vaDate, 45000.25))->When.Value, 45000.25);
  EXPECT_EQ(
      With("When", {vaString, 10, '0', '1', '/', '0', '2', '/', '2', '0', '0', '3'})->When.Value,
      EncodeDate(2003, 2, 1).Value);
  EXPECT_EQ(With("When", {vaString, 4, 'n', 'o', 'p', 'e'})->When.Value, 0);
  EXPECT_EQ(With("When", {vaInt8, 3})->When.Value, 3);
}

TEST(StreamRecover, EnumerationTargets) {
  EXPECT_EQ(With("Shape", {vaIdent, 8, 'r', 's', 'S', 'q', 'u', 'a', 'r', 'e'})->Shape, rsSquare);
  // A name that no longer exists, and numbers outside the enumeration.
  EXPECT_EQ(With("Shape", {vaIdent, 6, 'r', 's', 'G', 'o', 'n', 'e'})->Shape, -1);
  EXPECT_EQ(With("Shape", {vaInt8, 1})->Shape, rsSquare);
  EXPECT_EQ(With("Shape", {vaInt8, 3})->Shape, -1);
  EXPECT_EQ(With("Shape", {vaInt32, 0xFF, 0xFF, 0xFF, 0xFF})->Shape, -1);
  EXPECT_EQ(With("Shape", ExtendedBytes(1.5L))->Shape, rsTriangle);
  EXPECT_EQ(With("Shape", {vaString, 10, 'r', 's', 'T', 'r', 'i', 'a', 'n', 'g', 'l', 'e'})->Shape,
            rsTriangle);
  EXPECT_EQ(With("Shape", {vaCurrency, 0x10, 0x27, 0, 0, 0, 0, 0, 0})->Shape, rsSquare);
  EXPECT_EQ(With("Shape", {vaInt64, 9, 0, 0, 0, 0, 0, 0, 0})->Shape, -1);
  EXPECT_EQ(With("Shape", {vaFalse})->Shape, 0);
  EXPECT_EQ(With("Shape", {vaTrue})->Shape, 1);
  // vaDate and vaBinary give 0 and leave their payload.
  EXPECT_EQ(Unread("Shape", vaDate)->Shape, 0);
  EXPECT_EQ(Unread("Shape", vaBinary)->Shape, 0);
  // An identifier's payload is read here.
  EXPECT_EQ(Unread("Shape", vaIdent, true)->Shape, -1);
}

TEST(StreamRecover, StringTargetsTakeNumbersAsText) {
  EXPECT_EQ(With("Text", {vaNull})->Text, "NULL");
  EXPECT_EQ(With("Text", {vaInt8, 0xF6})->Text, "-10");
  EXPECT_EQ(With("Text", {vaInt32, 0x40, 0x42, 0x0F, 0x00})->Text, "1000000");
  EXPECT_EQ(With("Text", ExtendedBytes(0.5L))->Text, "0.5");
  EXPECT_EQ(With("Text", {vaString, 2, 'h', 'i'})->Text, "hi");
  EXPECT_EQ(With("Text", {vaFalse})->Text, "False");
  EXPECT_EQ(With("Text", {vaTrue})->Text, "True");
  EXPECT_EQ(With("Text", {vaNil})->Text, "nil");
  EXPECT_EQ(With("Text", {vaBinary, 3, 0, 0, 0, 'b', 'i', 'n'})->Text, "bin");
  EXPECT_EQ(With("Text", {vaSingle, 0, 0, 0xC0, 0x3F})->Text, "1.5");
  EXPECT_EQ(With("Text", {vaCurrency, 0x98, 0x3A, 0, 0, 0, 0, 0, 0})->Text, "1.5");
  EXPECT_EQ(With("Text", DoubleBytes(vaDate, 37653.5))->Text, DateTimeToStr(TDateTime(37653.5)));
  EXPECT_EQ(With("Text", {vaInt64, 0, 0, 0, 0, 0, 1, 0, 0})->Text, "1099511627776");
  EXPECT_EQ(With("Text", {vaWString, 3, 0, 0, 0, 'a', 'b', 'c', 'd', 'e', 'f'})->Text, "abc");
  for (uint8_t Type :
       {uint8_t(vaList), uint8_t(vaCollection), uint8_t(vaIdent), uint8_t(vaUTF8String)}) {
    EXPECT_EQ(Unread("Text", Type)->Text, "old") << int(Type);
  }
}

TEST(StreamRecover, VariantTargets) {
  auto TypeOf = [](const Bytes& V) { return VarType(With("Var", V)->Var); };
  EXPECT_EQ(TypeOf({vaNull}), varNull);
  EXPECT_EQ(TypeOf({vaNil}), varEmpty);
  EXPECT_EQ(TypeOf({vaInt8, 0xFF}), varByte);
  EXPECT_EQ(With("Var", {vaInt8, 0xFF})->Var.AsInteger(), 255);
  EXPECT_EQ(TypeOf({vaInt16, 1, 0}), varSmallint);
  EXPECT_EQ(TypeOf({vaInt32, 1, 0, 0, 0}), varInteger);
  EXPECT_EQ(TypeOf(ExtendedBytes(1)), varDouble);
  EXPECT_EQ(TypeOf({vaString, 1, 'x'}), varString);
  EXPECT_EQ(TypeOf({vaBinary, 1, 0, 0, 0, 'x'}), varString);
  EXPECT_EQ(TypeOf({vaTrue}), varBoolean);
  EXPECT_EQ(TypeOf({vaSingle, 0, 0, 0, 0}), varSingle);
  EXPECT_EQ(TypeOf({vaCurrency, 0, 0, 0, 0, 0, 0, 0, 0}), varCurrency);
  EXPECT_EQ(TypeOf(DoubleBytes(vaDate, 1)), varDate);
  // Lists give integer 0 without their payload; vaInt64 an empty string
  // without its payload; unknown types leave the variant alone.
  for (uint8_t Type : {uint8_t(vaList), uint8_t(vaIdent)}) {
    TRecTarget* T = Unread("Var", Type);
    EXPECT_EQ(VarType(T->Var), varInteger);
    EXPECT_EQ(T->Var.AsInteger(), 0);
  }
  TRecTarget* T = Unread("Var", vaInt64);
  EXPECT_EQ(VarType(T->Var), varString);
  EXPECT_EQ(T->Var.AsString(), "");
  EXPECT_EQ(Unread("Var", 25)->Var.AsString(), "old");
}

TEST(StreamRecover, AfterTheFirstDottedNameEverythingGoesToTheNestedObject) {
  std::vector<std::string> Names;
  TDebugOutputSink Old = SetDebugOutputSink([&](const std::string& S) { Names.push_back(S); });
  Stream S;
  S.Entry("Int", {vaInt8, 1})
      .Entry("Font.Size", {vaInt8, 12})
      .Entry("Font.Name", {vaString, 5, 'A', 'r', 'i', 'a', 'l'})
      .Entry("Other.Size", {vaInt8, 20})  // any first part: still Font.Size
      .Entry("Int", {vaInt8, 9});         // stripped to "": lost, and its value misread
  TRecTarget T;
  Recover(S, T);
  SetDebugOutputSink(Old);
  EXPECT_EQ(T.Int, 1);
  EXPECT_EQ(T.Font->Size, 20);
  EXPECT_EQ(T.Font->Name, "Arial");
  // Every name read, as read: the dotted one twice (once by the component,
  // once again by the nested object), then the value bytes of the lost
  // "Int" entry read as a name of length 2.
  ASSERT_GE(Names.size(), 6u);
  EXPECT_EQ(std::vector<std::string>(Names.begin(), Names.begin() + 6),
            std::vector<std::string>(
                {"Int", "Font.Size", "Font.Size", "Font.Name", "Other.Size", "Int"}));
  EXPECT_EQ(Names[6], std::string("\x09", 1) + std::string(1, '\0'));
}

TEST(StreamRecover, StringListsAndTheOuterObjectAfterThem) {
  std::vector<std::string> Out;
  TDebugOutputSink Old = SetDebugOutputSink([&](const std::string& S) { Out.push_back(S); });
  TRecTarget T;
  T.Lines->Add("stale");
  Stream S;
  S.Entry("Lines.Strings",
          {vaList, vaString, 1, 'a', vaLString, 3, 0, 0, 0, 'c', 'c', 'c', vaTrue, vaNull})
      .Entry("Int", {vaInt8, 4});
  Recover(S, T);
  SetDebugOutputSink(Old);
  EXPECT_EQ(T.Lines->CommaText(), "a,ccc,ccc");  // a value other than a string repeats the last
  EXPECT_EQ(T.Int, 4);                           // the outer object reads on
  EXPECT_EQ(Out, std::vector<std::string>({"Lines.Strings", "a", "ccc", "ccc", "", "Int"}));
}

TEST(StreamRecover, CreatesRegisteredComponents) {
  Stream S;
  S.Entry("Int", {vaInt8, 3});
  TReadOnlyMemoryStream M(S.B.data(), static_cast<int64_t>(S.B.size()));
  std::unique_ptr<TComponent> C(RecoverComponentFromStream(&M));
  auto* T = dynamic_cast<TRecTarget*>(C.get());
  ASSERT_NE(T, nullptr);
  EXPECT_EQ(T->Name(), "T");
  EXPECT_EQ(T->Owner(), nullptr);
  EXPECT_EQ(T->Int, 3);

  Bytes Unknown{'T', 'P', 'F', '0'};
  Str(Unknown, "TNope");
  Str(Unknown, "X");
  TReadOnlyMemoryStream U(Unknown.data(), static_cast<int64_t>(Unknown.size()));
  try {
    RecoverComponentFromStream(&U);
    FAIL();
  } catch (const EClassNotFound& E) {
    EXPECT_STREQ(E.what(), "Class TNope not found");
  }
  // A damaged class name is quoted with its control bytes escaped.
  Bytes Garbled{'T', 'P', 'F', '0'};
  Str(Garbled, std::string_view("TN\0pe\x1b[2J", 9));
  Str(Garbled, "X");
  TReadOnlyMemoryStream G(Garbled.data(), static_cast<int64_t>(Garbled.size()));
  try {
    RecoverComponentFromStream(&G);
    FAIL();
  } catch (const EClassNotFound& E) {
    EXPECT_STREQ(E.what(), "Class TN#0pe#27[2J not found");
  }
  const uint8_t Short[] = {'T', 'P', 'F'};
  TReadOnlyMemoryStream Sh(Short, 3);
  EXPECT_THROW(RecoverComponentFromStream(&Sh), EReadError);
  // An invalid name is bad data like the rest.
  Bytes BadName{'T', 'P', 'F', '0'};
  Str(BadName, "TRecTarget");
  Str(BadName, "1 bad");
  TReadOnlyMemoryStream BN(BadName.data(), static_cast<int64_t>(BadName.size()));
  std::unique_ptr<TComponent> C2(RecoverComponentFromStream(&BN));
  EXPECT_EQ(C2->Name(), "");
}

TEST(StreamRecover, GarbageNeverRaisesAndAlwaysEnds) {
  std::mt19937 Rng(12345);
  const std::vector<std::string> Names = {
      "Int",  "Big", "Dbl",       "When",          "Shape",
      "Text", "Var", "Font.Size", "Lines.Strings", "Node.Next.Value",
      "Fixed"};
  for (int Round = 0; Round < 400; ++Round) {
    Stream S;
    const int Entries = static_cast<int>(Rng() % 12);
    for (int E = 0; E < Entries; ++E) {
      Str(S.B, Names[Rng() % Names.size()]);
      const int N = static_cast<int>(Rng() % 12);
      for (int K = 0; K < N; ++K)
        S.B.push_back(static_cast<uint8_t>(Rng() % 3 == 0 ? Rng() % 24 : Rng()));
    }
    // Lengths that claim far more than the stream holds.
    if (Round % 5 == 0) S.Raw({4, 'T', 'e', 'x', 't', vaLString, 0xFF, 0xFF, 0xFF, 0x7F, 'x'});
    TRecTarget T;
    TReadOnlyMemoryStream M(S.B.data(), static_cast<int64_t>(S.B.size()));
    EXPECT_NO_THROW(RecoverComponentStream(&M, &T)) << Round;
    EXPECT_EQ(M.GetPosition(), M.GetSize()) << Round;
    EXPECT_EQ(T.Fixed(), 1);
  }
}

TEST(StreamRecover, SelfReferringObjectsDoNotRecurseForever) {
  // Each level strips only the first part of the name it reads again, and
  // Node.Next is Node itself: without a limit this would never end.
  int NamesRead = 0;
  TDebugOutputSink Old = SetDebugOutputSink([&](const std::string&) { ++NamesRead; });
  Stream S;
  S.Entry("Node.Next.Value", {vaInt8, 1}).Entry("Node.Value", {vaInt8, 8});
  TRecTarget T;
  TReadOnlyMemoryStream M(S.B.data(), static_cast<int64_t>(S.B.size()));
  RecoverComponentStream(&M, &T);
  SetDebugOutputSink(Old);
  EXPECT_EQ(M.GetPosition(), M.GetSize());
  EXPECT_GT(NamesRead, 32);
  EXPECT_LT(NamesRead, 100);
}

TEST(DebugOutput, SinksAreReplacedAndCalledFromAnyThread) {
  std::atomic<int> A{0}, B{0};
  const TDebugOutputSink SinkA = [&](const std::string& S) { A += static_cast<int>(S.size()); };
  const TDebugOutputSink SinkB = [&](const std::string& S) { B += static_cast<int>(S.size()); };
  const TDebugOutputSink Old = SetDebugOutputSink(SinkA);
  OutputDebugStringA("abc");
  EXPECT_EQ(A, 3);
  // Installing a sink hands back the one it replaces.
  const TDebugOutputSink Prev = SetDebugOutputSink(SinkB);
  ASSERT_TRUE(Prev);
  Prev("xy");
  EXPECT_EQ(A, 5);
  // Messages sent while sinks are swapped reach one of them; none is lost.
  std::vector<std::thread> Writers;
  for (int T = 0; T < 4; ++T)
    Writers.emplace_back([] {
      for (int I = 0; I < 2000; ++I) OutputDebugStringA("x");
    });
  for (int I = 0; I < 200; ++I) SetDebugOutputSink(I % 2 ? SinkA : SinkB);
  for (std::thread& W : Writers) W.join();
  EXPECT_EQ(A + B, 5 + 8000);
  // The default sink is installed with an empty function and reported as one.
  EXPECT_TRUE(SetDebugOutputSink(nullptr));
  EXPECT_FALSE(SetDebugOutputSink(Old));
}
