// Component streams: the byte format the writer produces, reading back
// (including streams written by other writers), errors, ownership and
// Loaded, references between components, and damaged input.
#include <gtest/gtest.h>

#include <cstring>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "StreamTestClasses.h"
#include "vel/rtl/Filer.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;
using namespace stream_test;

namespace filer_test {

// A component with nothing of its own to stream.
class TBare : public TComponent {
  VEL_CLASS(TBare, TComponent)
 public:
  using TComponent::TComponent;
};

// Integer and string properties for the byte-level tests.
class TScalars : public TComponent {
  VEL_CLASS(TScalars, TComponent)
 public:
  using TComponent::TComponent;
  int32_t I = 0;
  int64_t L = 0;
  std::string S;
  std::u16string W;
  int32_t ReadOnlyValue() const { return 3; }
};

// A component that makes a named component of its own when constructed.
class TMakesPart : public TComponent {
  VEL_CLASS(TMakesPart, TComponent)
 public:
  explicit TMakesPart(TComponent* AOwner = nullptr) : TComponent(AOwner) {
    (new TScalars(this))->SetName("Part");
  }
};

class TLoopNode : public TPersistent {
  VEL_CLASS(TLoopNode, TPersistent)
 public:
  int32_t Tag = 0;
  TLoopNode* Other = nullptr;
};

class TLoopHolder : public TComponent {
  VEL_CLASS(TLoopHolder, TComponent)
 public:
  using TComponent::TComponent;
  TLoopNode* Node = nullptr;
};

}  // namespace filer_test

using namespace filer_test;

VEL_IMPLEMENT(TMakesPart)
VEL_PUBLISHED(TLoopNode, prop("Tag", &TLoopNode::Tag), readonly_prop("Other", &TLoopNode::Other))
VEL_PUBLISHED(TLoopHolder, readonly_prop("Node", &TLoopHolder::Node))
VEL_IMPLEMENT(TBare)
VEL_PUBLISHED(TScalars, prop("I", &TScalars::I).defaults(0), prop("L", &TScalars::L),
              prop("S", &TScalars::S), prop("W", &TScalars::W),
              prop("RO", &TScalars::ReadOnlyValue))

namespace {

using Bytes = std::vector<uint8_t>;

struct Registered {
  Registered() {
    RegisterClasses({TEveryKind::StaticClass(), TBare::StaticClass(), TScalars::StaticClass(),
                     TMakesPart::StaticClass(), TPart::StaticClass()});
  }
};
const Registered Once;

Bytes Save(TComponent* C) {
  TMemoryStream M;
  WriteComponent(&M, C);
  auto* P = static_cast<const uint8_t*>(M.Memory());
  return Bytes(P, P + M.GetSize());
}

// Reads Data into Root (or a new root) and returns the component.
TComponent* Load(const Bytes& Data, TComponent* Root = nullptr) {
  TReadOnlyMemoryStream S(Data.data(), static_cast<int64_t>(Data.size()));
  return ReadComponent(&S, Root);
}

// The class and text of the exception a read raises. The text is what()
// whole: names from a damaged file must not cut it short at a NUL.
std::string ReadError(const Bytes& B, TComponent* Root = nullptr) {
  try {
    std::unique_ptr<TComponent> C(Load(B, Root));
    if (Root) (void)C.release();
  } catch (const Exception& E) {
    EXPECT_EQ(std::strlen(E.what()), E.Message().size());
    return std::string(E.ClassName()) + ": " + E.what();
  }
  return "no error";
}

// Builders for hand-made streams.
void Str(Bytes& B, std::string_view S) {
  B.push_back(static_cast<uint8_t>(S.size()));
  B.insert(B.end(), S.begin(), S.end());
}
Bytes Header(std::string_view Class, std::string_view Name) {
  Bytes B{'T', 'P', 'F', '0'};
  Str(B, Class);
  Str(B, Name);
  return B;
}
void Append(Bytes& B, const Bytes& L) {
  B.insert(B.end(), L.begin(), L.end());
}
Bytes operator+(Bytes A, const Bytes& B) {
  Append(A, B);
  return A;
}
template <class T>
T* As(TComponent* C) {
  return static_cast<T*>(C);
}

// The bytes of a root (TScalars "R" unless told) holding one property entry.
Bytes OneProp(std::string_view Name, const Bytes& Value, std::string_view Class = "TScalars") {
  Bytes B = Header(Class, "R");
  Str(B, Name);
  Append(B, Value);
  Append(B, {0, 0});
  return B;
}

}  // namespace

// ---------------------------------------------------------------------------
// The byte format

TEST(FilerFormat, BareComponentIsSignatureHeaderAndTwoEndMarkers) {
  TBare B;
  B.SetName("Root");
  Bytes Expected = Header("TBare", "Root");
  Append(Expected, {0, 0});
  EXPECT_EQ(Save(&B), Expected);

  // Tag is published with default 0: written only when set; owned
  // components follow the property list, each closed by its own markers.
  B.SetTag(-2);
  (new TBare(&B))->SetName("Kid");
  Expected = Header("TBare", "Root");
  Str(Expected, "Tag");
  Append(Expected, {vaInt8, 0xFE, 0});
  Str(Expected, "TBare");
  Str(Expected, "Kid");
  Append(Expected, {0, 0, 0});
  EXPECT_EQ(Save(&B), Expected);
}

TEST(FilerFormat, IntegersAndStringsTakeTheSmallestForm) {
  const struct {
    std::function<void(TScalars&)> Set;
    Bytes Expected;
  } Cases[] = {
      // Integers: the narrowest width that holds the value; the default (0)
      // is not written at all.
      {[](TScalars& S) { S.I = 1; }, OneProp("I", {vaInt8, 1})},
      {[](TScalars& S) { S.I = -128; }, OneProp("I", {vaInt8, 0x80})},
      {[](TScalars& S) { S.I = 127; }, OneProp("I", {vaInt8, 0x7F})},
      {[](TScalars& S) { S.I = 128; }, OneProp("I", {vaInt16, 0x80, 0x00})},
      {[](TScalars& S) { S.I = -129; }, OneProp("I", {vaInt16, 0x7F, 0xFF})},
      {[](TScalars& S) { S.I = 32767; }, OneProp("I", {vaInt16, 0xFF, 0x7F})},
      {[](TScalars& S) { S.I = -32768; }, OneProp("I", {vaInt16, 0x00, 0x80})},
      {[](TScalars& S) { S.I = 32768; }, OneProp("I", {vaInt32, 0x00, 0x80, 0x00, 0x00})},
      {[](TScalars& S) { S.I = INT32_MIN; }, OneProp("I", {vaInt32, 0x00, 0x00, 0x00, 0x80})},
      {[](TScalars&) {}, Header("TScalars", "R") + Bytes{0, 0}},
      // Int64: within 32 bits like any integer, beyond as vaInt64.
      {[](TScalars& S) { S.L = -1; }, OneProp("L", {vaInt8, 0xFF})},
      {[](TScalars& S) { S.L = int64_t(1) << 31; },
       OneProp("L", {vaInt64, 0, 0, 0, 0x80, 0, 0, 0, 0})},
      // 255 characters keep the one-byte length, 256 take vaLString.
      {[](TScalars& S) { S.S = std::string(255, 'a'); },
       OneProp("S", Bytes{vaString, 255} + Bytes(255, 'a'))},
      {[](TScalars& S) { S.S = std::string(256, 'b'); },
       OneProp("S", Bytes{vaLString, 0x00, 0x01, 0x00, 0x00} + Bytes(256, 'b'))},
      // A wide string that Windows-1252 holds is written as an 8-bit string;
      // one that it cannot hold as UTF-16 code units.
      {[](TScalars& S) { S.W = u"\u20AC\u00E9"; }, OneProp("W", {vaString, 2, 0x80, 0xE9})},
      {[](TScalars& S) { S.W = u"\u03A9!"; },
       OneProp("W", {vaWString, 2, 0, 0, 0, 0xA9, 0x03, '!', 0})},
  };
  for (const auto& C : Cases) {
    TScalars S;
    S.SetName("R");
    C.Set(S);
    EXPECT_EQ(Save(&S), C.Expected);
    // What was written reads back to the same value.
    std::unique_ptr<TComponent> Back(Load(C.Expected));
    EXPECT_EQ(Save(Back.get()), C.Expected);
  }
}

TEST(FilerFormat, EveryValueType) {
  TEveryKind E;
  E.SetName("R");
  // The bytes one property (or, with no name, DefineProperties) adds.
  auto Entry = [&](const char* Name) {
    TMemoryStream M;
    {
      TWriter W(&M);
      W.SetRoot(&E);
      if (*Name)
        W.WriteProperty(&E, GetPropInfo(&E, Name));
      else
        E.DefineProperties(&W);
    }
    auto* P = static_cast<const uint8_t*>(M.Memory());
    return Bytes(P, P + M.GetSize());
  };
  // Defaults are left out: false, the declared enumeration default, the
  // empty set, zero floats, empty texts, an unassigned variant.
  for (const char* Name : {"Flag", "Shape", "Styles", "Ch", "Dbl", "Sgl", "Cur", "When", "Long",
                           "Var", "Lines", "OnClick", ""})
    EXPECT_EQ(Entry(Name), Bytes()) << Name;

  auto Expect = [](const char* Name, const Bytes& Value) {
    Bytes B;
    Str(B, Name);
    return B + Value;
  };
  // Without a declared default an ordinal is always written, the marker
  // value itself too; a reference to no component is vaNil.
  EXPECT_EQ(Entry("Int"), Expect("Int", {vaInt8, 0}));
  EXPECT_EQ(Entry("Buddy"), Expect("Buddy", {vaNil}));
  E.Int = INT32_MIN;
  EXPECT_EQ(Entry("Int"), Expect("Int", {vaInt32, 0, 0, 0, 0x80}));

  E.Flag = true;
  EXPECT_EQ(Entry("Flag"), Expect("Flag", {vaTrue}));
  E.Shape = shSquare;
  EXPECT_EQ(Entry("Shape"), Expect("Shape", {vaIdent, 8, 's', 'h', 'S', 'q', 'u', 'a', 'r', 'e'}));
  E.Styles = {stItalic, stUnderline};
  EXPECT_EQ(Entry("Styles"),
            Expect("Styles", {vaSet, 8,   's', 't', 'I', 't', 'a', 'l', 'i', 'c', 11, 's',
                              't',   'U', 'n', 'd', 'e', 'r', 'l', 'i', 'n', 'e', 0}));
  E.Ch = 'q';
  EXPECT_EQ(Entry("Ch"), Expect("Ch", {vaString, 1, 'q'}));
  E.Dbl = 1.5;
  EXPECT_EQ(Entry("Dbl"), Expect("Dbl", {vaExtended, 0, 0, 0, 0, 0, 0, 0, 0xC0, 0xFF, 0x3F}));
  E.Ext = -2;
  EXPECT_EQ(Entry("Ext"), Expect("Ext", {vaExtended, 0, 0, 0, 0, 0, 0, 0, 0x80, 0x00, 0xC0}));
  E.Sgl = 1.5f;
  EXPECT_EQ(Entry("Sgl"), Expect("Sgl", {vaSingle, 0, 0, 0xC0, 0x3F}));
  E.Cur = Currency::FromScaled(15000);
  EXPECT_EQ(Entry("Cur"), Expect("Cur", {vaCurrency, 0x98, 0x3A, 0, 0, 0, 0, 0, 0}));
  E.When = TDateTime(1.5);
  EXPECT_EQ(Entry("When"), Expect("When", {vaDate, 0, 0, 0, 0, 0, 0, 0xF8, 0x3F}));
  E.Var = Variant::Null();
  EXPECT_EQ(Entry("Var"), Expect("Var", {vaNull}));
  E.Var = Variant(int16_t(300));
  EXPECT_EQ(Entry("Var"), Expect("Var", {vaInt16, 0x2C, 0x01}));
  E.Font->Name = "A";
  EXPECT_EQ(Entry("Font"), Expect("Font.Name", {vaString, 1, 'A'}));
  E.Lines->Add("x");
  EXPECT_EQ(Entry("Lines"), Expect("Lines.Strings", {vaList, vaString, 1, 'x', vaNull}));
  E.Blob = "\x01\x02";
  EXPECT_EQ(Entry(""), Expect("Blob", {vaBinary, 2, 0, 0, 0, 1, 2}));
  E.OnClick = TNotifyEvent::Bind<&TEveryKind::HandleClick>(&E);
  EXPECT_EQ(Entry("OnClick"), Expect("OnClick", {vaIdent, 11, 'H', 'a', 'n', 'd', 'l', 'e', 'C',
                                                 'l', 'i', 'c', 'k'}));
  E.Buddy = new TBare(&E);
  E.Buddy->SetName("Pal");
  EXPECT_EQ(Entry("Buddy"), Expect("Buddy", {vaIdent, 3, 'P', 'a', 'l'}));
}

TEST(FilerFormat, CollectionItemsAreListsEndedByNull) {
  TEveryKind E;
  E.SetName("R");
  static_cast<TColItem*>(E.Items->Add())->Width = 7;
  E.Items->Add();
  Bytes B = Save(&E);
  Bytes Items;
  Str(Items, "Items");
  Append(Items, {vaCollection, vaList});
  Str(Items, "Width");
  Append(Items, {vaInt8, 7});
  Str(Items, "Link");
  Append(Items, {vaNil, vaNull, vaList});
  Str(Items, "Link");
  Append(Items, {vaNil, vaNull, vaNull});
  EXPECT_NE(std::search(B.begin(), B.end(), Items.begin(), Items.end()), B.end());
}

// ---------------------------------------------------------------------------
// Round trips

TEST(FilerRoundTrip, EveryKindReadsBackEqual) {
  TEveryKind E;
  FillEveryKind(E);
  Bytes B = Save(&E);

  LiveParts = 0;
  std::unique_ptr<TComponent> Back(Load(B));
  auto* R = dynamic_cast<TEveryKind*>(Back.get());
  ASSERT_NE(R, nullptr);
  // Writing what was read gives the same bytes (the writer's bytes for
  // each kind are pinned above; the text form of these is pinned in the
  // object text tests).
  EXPECT_EQ(Save(R), B);
  // Values whose byte form is not pinned elsewhere.
  EXPECT_EQ(R->Big, 1LL << 40);
  EXPECT_EQ(R->WCh, u'\u03A9');
  EXPECT_EQ(R->Ext, 0.1L);
  EXPECT_EQ(R->Cmp.Value, -9000000000LL);
  EXPECT_EQ(R->Short.str(), "short");
  EXPECT_EQ(R->Long, E.Long);
  EXPECT_EQ(R->Wide, E.Wide);
  EXPECT_EQ(R->Blob, E.Blob);
  EXPECT_EQ(R->Font->Styles, TStyles({stItalic}));
  // The event is bound to the new root's published method.
  ASSERT_TRUE(R->OnClick.Assigned());
  R->OnClick(R);
  EXPECT_EQ(R->Clicks, 1);
  // The owned tree is rebuilt with the enclosing component as owner, and
  // references find their components in it.
  ASSERT_EQ(R->ComponentCount(), 1);
  auto* Child = dynamic_cast<TEveryKind*>(R->Components(0));
  ASSERT_NE(Child, nullptr);
  EXPECT_EQ(Child->Name(), "Child");
  ASSERT_EQ(Child->ComponentCount(), 1);
  EXPECT_EQ(R->Buddy, Child->Components(0));
  EXPECT_EQ(static_cast<TColItem*>(R->Items->Items(0))->Link, Child);
  EXPECT_EQ(LiveParts, 2);
}

TEST(FilerRoundTrip, LoadedRunsOnceForEveryComponentAfterReferencesResolve) {
  TEveryKind E;
  FillEveryKind(E);
  static_cast<TEveryKind*>(E.Components(0))->Buddy = &E;  // written as "Owner"
  Bytes B = Save(&E);

  TEveryKind Into;
  std::unique_ptr<TComponent> Same(Load(B, &Into));
  EXPECT_EQ(Same.release(), &Into);
  EXPECT_EQ(Into.Log, std::vector<std::string>({"Loaded Root buddy=Grand"}));
  auto* NewChild = static_cast<TEveryKind*>(Into.Components(0));
  EXPECT_EQ(NewChild->Log, std::vector<std::string>({"Loaded Child buddy=Root"}));
  EXPECT_FALSE(Into.ComponentState().Contains(csLoading));
  EXPECT_FALSE(Into.ComponentState().Contains(csReading));
  EXPECT_FALSE(NewChild->ComponentState().Contains(csLoading));
}

TEST(FilerRoundTrip, StreamIsLeftAfterTheComponent) {
  TBare B;
  B.SetName("Root");
  // A memory stream (read in place) and a string stream (read through the
  // buffer, then moved back).
  TMemoryStream M;
  TStringStream S;
  for (TStream* Stream : {static_cast<TStream*>(&M), static_cast<TStream*>(&S)}) {
    Stream->WriteU8(0xAA);
    WriteComponent(Stream, &B);
    const int64_t End = Stream->GetPosition();
    Stream->WriteU32LE(0xDEADBEEF);
    Stream->SetPosition(1);
    std::unique_ptr<TComponent> Back(ReadComponent(Stream));
    EXPECT_EQ(Back->Name(), "Root");
    EXPECT_EQ(Stream->GetPosition(), End);
    EXPECT_EQ(Stream->ReadU32LE(), 0xDEADBEEFu);
  }
}

TEST(FilerRoundTrip, ComponentsTheOwnerMakesAreReadIntoNotMadeTwice) {
  TMakesPart P;
  P.SetName("Maker");
  auto* First = new TBare(&P);
  First->SetName("First");
  First->SetComponentIndex(0);  // before the part the constructor made
  static_cast<TScalars*>(P.FindComponent("Part"))->I = 5;
  const Bytes B = Save(&P);

  std::unique_ptr<TComponent> Back(Load(B));
  ASSERT_EQ(Back->ComponentCount(), 2);
  EXPECT_EQ(Back->Components(0)->Name(), "First");
  EXPECT_EQ(Back->Components(1)->Name(), "Part");
  EXPECT_EQ(static_cast<TScalars*>(Back->Components(1))->I, 5);
  EXPECT_EQ(Save(Back.get()), B);
}

TEST(FilerRead, AcceptsEveryEncodingOfAValue) {
  const struct {
    Bytes Data;
    std::function<bool(TComponent*)> Check;
  } Cases[] = {
      // Integers written wider than needed, and an Int64 from vaInt16.
      {OneProp("I", {vaInt32, 5, 0, 0, 0}), [](TComponent* C) { return As<TScalars>(C)->I == 5; }},
      {OneProp("L", {vaInt16, 0xFF, 0xFF}), [](TComponent* C) { return As<TScalars>(C)->L == -1; }},
      // Short text as vaLString, UTF-8 and UTF-16 into an 8-bit string.
      {OneProp("S", {vaLString, 2, 0, 0, 0, 'h', 'i'}),
       [](TComponent* C) { return As<TScalars>(C)->S == "hi"; }},
      {OneProp("S", {vaUTF8String, 3, 0, 0, 0, 0xE2, 0x82, 0xAC}),
       [](TComponent* C) { return As<TScalars>(C)->S == "\x80"; }},
      {OneProp("S", {vaWString, 1, 0, 0, 0, 0xE9, 0x00}),
       [](TComponent* C) { return As<TScalars>(C)->S == "\xE9"; }},
      {OneProp("W", {vaUTF8String, 2, 0, 0, 0, 0xCE, 0xA9}),
       [](TComponent* C) { return As<TScalars>(C)->W == u"\u03A9"; }},
      // Property names are matched in any letter case.
      {OneProp("i", {vaInt8, 9}), [](TComponent* C) { return As<TScalars>(C)->I == 9; }},
      // Floats from any numeric type.
      {OneProp("Ext", {vaInt8, 0xFE}, "TEveryKind"),
       [](TComponent* C) { return As<TEveryKind>(C)->Ext == -2.0L; }},
      {OneProp("Ext", {vaSingle, 0, 0, 0xC0, 0x3F}, "TEveryKind"),
       [](TComponent* C) { return As<TEveryKind>(C)->Ext == 1.5L; }},
      {OneProp("Ext", {vaCurrency, 0x98, 0x3A, 0, 0, 0, 0, 0, 0}, "TEveryKind"),
       [](TComponent* C) { return As<TEveryKind>(C)->Ext == 1.5L; }},
      {OneProp("Ext", {vaInt64, 0, 0, 0, 0, 1, 0, 0, 0}, "TEveryKind"),
       [](TComponent* C) { return As<TEveryKind>(C)->Ext == 4294967296.0L; }},
  };
  for (const auto& C : Cases) {
    std::unique_ptr<TComponent> R(Load(C.Data));
    EXPECT_TRUE(C.Check(R.get())) << ::testing::PrintToString(C.Data);
  }

  // A prefix with a child position is read (and the flags kept apart).
  Bytes B = Header("TBare", "Root");
  Append(B, {0, 0xF2, vaInt8, 0});
  Str(B, "TBare");
  Str(B, "Second");
  Append(B, {0, 0});
  Str(B, "TBare");
  Str(B, "First");
  Append(B, {0, 0, 0});
  std::unique_ptr<TComponent> R(Load(B));
  ASSERT_EQ(R->ComponentCount(), 2);
  EXPECT_EQ(R->Components(0)->Name(), "Second");
}

TEST(FilerRead, InheritedComponentsAreFoundNotCreated) {
  TBare Root;
  auto* Existing = new TScalars(&Root);
  Existing->SetName("Kept");
  for (const char* Name : {"Kept", "Gone"}) {
    Bytes B = Header("TBare", "Root");
    Append(B, {0, 0xF1});
    Str(B, "TScalars");
    Str(B, Name);
    Str(B, "I");
    Append(B, {vaInt8, 42, 0, 0, 0});
    EXPECT_EQ(ReadError(B, &Root),
              *Name == 'K' ? "no error" : "EReadError: Ancestor for 'Gone' not found");
  }
  ASSERT_EQ(Root.ComponentCount(), 1);
  EXPECT_EQ(Root.Components(0), Existing);
  EXPECT_EQ(Existing->I, 42);
}

// ---------------------------------------------------------------------------
// Errors

TEST(FilerErrors, MessagesOfTheRuntime) {
  using namespace std::string_view_literals;
  Bytes Bad = Header("TBare", "R");
  Bad[3] = '1';
  // A truncated value inside a property.
  Bytes Short = OneProp("S", {vaLString, 10, 0, 0, 0, 'a'});
  Short.resize(Short.size() - 2);
  Bytes Item = Header("TEveryKind", "R");
  Str(Item, "Items");
  Append(Item, {vaCollection, vaList});
  Str(Item, "Bogus");
  Append(Item, {vaInt8, 1, 0, 0, 0, 0});
  Bytes Clash = Header("TMakesPart", "M");
  Append(Clash, {0});
  Str(Clash, "TBare");
  Str(Clash, "Part");
  Append(Clash, {0, 0, 0});
  const struct {
    Bytes Data;
    const char* Expected;
  } Cases[] = {
      {Bad, "EReadError: Invalid stream format"},
      {Bytes{'T', 'P'}, "EReadError: Stream read error"},
      {Header("TNoSuchClass", "R") + Bytes{0, 0}, "EClassNotFound: Class TNoSuchClass not found"},
      {OneProp("Nope", {vaInt8, 1}),
       "EReadError: Error reading R.Nope: Property Nope does not exist"},
      {OneProp("I", {vaString, 1, 'x'}), "EReadError: Error reading R.I: Invalid property value"},
      {OneProp("I", {21, 0}), "EReadError: Error reading R.I: Invalid stream format"},
      {OneProp("RO", {vaInt8, 1}), "EReadError: Error reading R.RO: Property is read-only"},
      {OneProp("S.X", {vaInt8, 1}), "EReadError: Error reading R.S: Invalid property path"},
      {Short, "EReadError: Error reading R.S: Stream read error"},
      // Collection items are named by their class.
      {Item, "EReadError: Error reading TColItem.Bogus: Property Bogus does not exist"},
      // A component of the name of one the owner made, but of another class.
      {Clash, "EComponentError: A component named Part already exists"},
      // Names taken from a damaged file reach the message with each control
      // byte written as #n, so nothing in it steers a terminal.
      {Header("TNo\0Such\x1b[2J"sv, "R") + Bytes{0, 0},
       "EClassNotFound: Class TNo#0Such#27[2J not found"},
      {Header("TBare", "R\x01\r\n"sv) + Bytes{0, 0},
       "EComponentError: 'R#1#13#10' is not a valid component name"},
      {OneProp("N\0pe\x7f"sv, {vaInt8, 1}),
       "EReadError: Error reading R.N#0pe#127: Property N#0pe#127 does not exist"},
  };
  for (const auto& C : Cases) EXPECT_EQ(ReadError(C.Data), C.Expected);
}

TEST(FilerErrors, DamagedLengthsFailWithoutHugeAllocations) {
  // A 2 GB string announced in a few bytes, a negative length, a wide
  // string and binary data running past the end.
  for (const Bytes& B : {OneProp("S", {vaLString, 0xF0, 0xFF, 0xFF, 0x7F, 'a', 'b'}),
                         OneProp("S", {vaLString, 0xFF, 0xFF, 0xFF, 0xFF}),
                         OneProp("W", {vaWString, 0xFF, 0xFF, 0xFF, 0x3F, 1, 0}),
                         OneProp("S", {vaUTF8String, 0xFF, 0xFF, 0xFF, 0x7F})}) {
    std::string E = ReadError(B);
    EXPECT_TRUE(E.find("Stream read error") != std::string::npos ||
                E.find("Invalid stream format") != std::string::npos)
        << E;
  }
  // Nesting deeper than any real stream is refused, not recursed into.
  Bytes Deep = Header("TScalars", "R");
  Str(Deep, "Unknown");
  Deep.insert(Deep.end(), 100000, vaList);
  TScalars S;
  bool Handled = false;
  TReadOnlyMemoryStream M(Deep.data(), static_cast<int64_t>(Deep.size()));
  TReader R(&M);
  R.OnError = [&](TReader*, const std::string&, bool& H) { H = Handled = true; };
  EXPECT_THROW(R.ReadRootComponent(&S), EReadError);
  EXPECT_TRUE(Handled);
}

TEST(FilerErrors, EveryTruncationFailsCleanly) {
  TEveryKind E;
  FillEveryKind(E);
  const Bytes B = Save(&E);
  LiveParts = 0;
  for (size_t N = 0; N < B.size(); ++N) {
    Bytes Cut(B.begin(), B.begin() + static_cast<long>(N));
    EXPECT_THROW(Load(Cut), Exception) << N;
    EXPECT_EQ(LiveParts, 0) << N;  // whatever was created is freed
    TEveryKind Into;
    EXPECT_THROW(Load(Cut, &Into), Exception) << N;
    EXPECT_FALSE(Into.ComponentState().Contains(csLoading));
  }
}

TEST(FilerErrors, OnErrorSkipsPropertiesAndComponents) {
  Bytes B = Header("TScalars", "R");
  Str(B, "Gone");
  Append(B, {vaList, vaInt8, 1, vaString, 2, 'x', 'y', vaNull});
  Str(B, "I");
  Append(B, {vaString, 1, 'x'});  // wrong type
  Str(B, "S");
  Append(B, {vaString, 2, 'o', 'k', 0});
  Str(B, "TUnregistered");
  Str(B, "Lost");
  Str(B, "P");
  Append(B, {vaInt8, 1, 0, 0});
  Str(B, "TBare");
  Str(B, "Kept");
  Append(B, {0, 0, 0});

  TScalars S;
  S.I = 3;
  TReadOnlyMemoryStream M(B.data(), static_cast<int64_t>(B.size()));
  TReader R(&M);
  std::vector<std::string> Messages;
  R.OnError = [&](TReader*, const std::string& Msg, bool& Handled) {
    Messages.push_back(Msg);
    Handled = true;
  };
  R.ReadRootComponent(&S);
  EXPECT_EQ(Messages,
            std::vector<std::string>({"Error reading R.Gone: Property Gone does not exist",
                                      "Error reading R.I: Invalid property value",
                                      "Class TUnregistered not found"}));
  EXPECT_EQ(S.I, 3);
  EXPECT_EQ(S.S, "ok");
  ASSERT_EQ(S.ComponentCount(), 1);
  EXPECT_EQ(S.Components(0)->Name(), "Kept");
}

TEST(FilerErrors, ReReadCollectionDropsReferencesOfFreedItems) {
  // The same collection twice, the first time with a reference in an item:
  // the second read frees that item, whose pending reference must go too.
  Bytes B = Header("TEveryKind", "R");
  for (int Pass = 0; Pass < 2; ++Pass) {
    Str(B, "Items");
    Append(B, {vaCollection, vaList});
    Str(B, "Link");
    Append(B, {vaIdent});
    Str(B, "Kid");
    Append(B, {0, 0});
  }
  Append(B, {0});
  Str(B, "TBare");
  Str(B, "Kid");
  Append(B, {0, 0, 0});
  std::unique_ptr<TComponent> C(Load(B));
  auto* E = static_cast<TEveryKind*>(C.get());
  ASSERT_EQ(E->Items->Count(), 1);
  EXPECT_EQ(static_cast<TColItem*>(E->Items->Items(0))->Link, E->Components(0));
}

TEST(FilerWriter, CyclesAreCutAndArraysRefused) {
  // A nested object that refers back to an object being written is left
  // out instead of recursing forever.
  TLoopHolder H;
  H.SetName("H");
  TLoopNode A, B;
  A.Tag = 1;
  B.Tag = 2;
  A.Other = &B;
  B.Other = &A;
  H.Node = &A;
  Bytes Expected = Header("TLoopHolder", "H");
  Str(Expected, "Node.Tag");
  Append(Expected, {vaInt8, 1});
  Str(Expected, "Node.Other.Tag");
  Append(Expected, {vaInt8, 2, 0, 0});
  EXPECT_EQ(Save(&H), Expected);

  // Variant arrays have no component-stream form.
  TEveryKind E;
  E.SetName("R");
  E.Var = VarArrayCreate({0, 1}, varInteger);
  TMemoryStream M;
  EXPECT_THROW(WriteComponent(&M, &E), EWriteError);
}
