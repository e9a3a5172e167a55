// Component streams: the byte format the writer produces, reading back
// (including streams written by other writers), errors, ownership and
// Loaded, references between components, and damaged input.
#include <gtest/gtest.h>

#include <cstring>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "vel/rtl/Filer.h"
#include "vel/rtl/ObjectText.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace filer_test {

enum TShape : uint8_t { shCircle, shSquare, shTriangle };
VEL_ENUM(TShape, "shCircle", "shSquare", "shTriangle")
enum TStyle : uint8_t { stBold, stItalic, stUnderline };
VEL_ENUM(TStyle, "stBold", "stItalic", "stUnderline")
using TStyles = TSet<TStyle>;

class TFontLike : public TPersistent {
  VEL_CLASS(TFontLike, TPersistent)
 public:
  std::string Name;
  int32_t Size = 10;
  TStyles Styles;
};

class TColItem : public TCollectionItem {
  VEL_CLASS(TColItem, TCollectionItem)
 public:
  using TCollectionItem::TCollectionItem;
  int32_t Width = 0;
  std::string Caption;
  TComponent* Link = nullptr;
};

// Counts instances so that tests can tell what a failed read freed.
inline int LiveParts = 0;

// A component with a property of every kind, owned sub-objects, a
// reference, an event and binary data defined through DefineProperties.
class TEveryKind : public TComponent {
  VEL_CLASS(TEveryKind, TComponent)
 public:
  explicit TEveryKind(TComponent* AOwner = nullptr)
      : TComponent(AOwner), Items(new TCollection(TColItem::StaticClass())) {
    ++LiveParts;
  }
  ~TEveryKind() override {
    --LiveParts;
    delete Font;
    delete Items;
    delete Lines;
  }
  int32_t Int = 0;
  int64_t Big = 0;
  char Ch = 0;
  char16_t WCh = 0;
  TShape Shape = shCircle;
  bool Flag = false;
  TStyles Styles;
  float Sgl = 0;
  double Dbl = 0;
  Extended Ext = 0;
  Currency Cur;
  Comp Cmp;
  TDateTime When;
  ShortString Short;
  std::string Long;
  std::u16string Wide;
  Variant Var;
  TFontLike* Font = new TFontLike;
  TCollection* Items;
  TStringList* Lines = new TStringList;
  TComponent* Buddy = nullptr;
  TNotifyEvent OnClick;
  std::string Blob;  // streamed as binary through DefineProperties
  int Clicks = 0;
  std::vector<std::string> Log;  // what Loaded saw

  void HandleClick(TObject*) { ++Clicks; }
  void DefineProperties(TFiler* Filer) override {
    TComponent::DefineProperties(Filer);
    Filer->DefineBinaryProperty(
        "Blob",
        [this](TStream* S) {
          Blob.resize(static_cast<size_t>(S->GetSize()));
          S->ReadBuffer(Blob.data(), S->GetSize());
        },
        [this](TStream* S) { S->WriteBuffer(Blob.data(), static_cast<int64_t>(Blob.size())); },
        !Blob.empty());
  }
  void Loaded() override {
    TComponent::Loaded();
    Log.push_back("Loaded " + Name() + (Buddy ? " buddy=" + Buddy->Name() : std::string()));
  }
};

// A component with nothing of its own to stream.
class TBare : public TComponent {
  VEL_CLASS(TBare, TComponent)
 public:
  using TComponent::TComponent;
  ~TBare() override = default;
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

VEL_PUBLISHED(TFontLike, prop("Name", &TFontLike::Name), prop("Size", &TFontLike::Size).defaults(10),
              prop("Styles", &TFontLike::Styles).defaults(0))
VEL_PUBLISHED(TColItem, prop("Width", &TColItem::Width).defaults(0), prop("Caption", &TColItem::Caption),
              prop("Link", &TColItem::Link))
VEL_PUBLISHED(TEveryKind, prop("Int", &TEveryKind::Int), prop("Big", &TEveryKind::Big),
              prop("Ch", &TEveryKind::Ch).defaults(0), prop("WCh", &TEveryKind::WCh).defaults(0),
              prop("Shape", &TEveryKind::Shape).defaults(shCircle),
              prop("Flag", &TEveryKind::Flag).defaults(false), prop("Styles", &TEveryKind::Styles).defaults(0),
              prop("Sgl", &TEveryKind::Sgl), prop("Dbl", &TEveryKind::Dbl), prop("Ext", &TEveryKind::Ext),
              prop("Cur", &TEveryKind::Cur), prop("Cmp", &TEveryKind::Cmp), prop("When", &TEveryKind::When),
              prop("Short", &TEveryKind::Short), prop("Long", &TEveryKind::Long),
              prop("Wide", &TEveryKind::Wide), prop("Var", &TEveryKind::Var),
              prop("Font", &TEveryKind::Font), readonly_prop("Items", &TEveryKind::Items),
              readonly_prop("Lines", &TEveryKind::Lines), prop("Buddy", &TEveryKind::Buddy),
              prop("OnClick", &TEveryKind::OnClick), method<&TEveryKind::HandleClick>("HandleClick"))
VEL_IMPLEMENT(TBare)
VEL_PUBLISHED(TScalars, prop("I", &TScalars::I).defaults(0), prop("L", &TScalars::L),
              prop("S", &TScalars::S), prop("W", &TScalars::W),
              prop("RO", &TScalars::ReadOnlyValue))

namespace {

using Bytes = std::vector<uint8_t>;

struct Registered {
  Registered() {
    RegisterClasses({TEveryKind::StaticClass(), TBare::StaticClass(), TScalars::StaticClass(),
                     TMakesPart::StaticClass()});
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

std::string ReadError(const Bytes& B, TComponent* Root = nullptr) {
  try {
    std::unique_ptr<TComponent> C(Load(B, Root));
    if (Root) (void)C.release();
  } catch (const Exception& E) {
    return std::string(E.ClassName()) + ": " + E.Message();
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
void Append(Bytes& B, std::initializer_list<uint8_t> L) { B.insert(B.end(), L); }

// The bytes of a TScalars root "R" holding one property entry.
Bytes OneProp(std::string_view Name, std::initializer_list<uint8_t> Value) {
  Bytes B = Header("TScalars", "R");
  Str(B, Name);
  Append(B, Value);
  Append(B, {0, 0});
  return B;
}

Bytes ScalarsWithInt(int32_t V) {
  TScalars S;
  S.SetName("R");
  S.I = V;
  return Save(&S);
}

void FillEveryKind(TEveryKind& E) {
  E.SetName("Root");
  E.Int = -5;
  E.Big = 1LL << 40;
  E.Ch = 'x';
  E.WCh = u'\u03A9';
  E.Shape = shTriangle;
  E.Flag = true;
  E.Styles = {stBold, stUnderline};
  E.Sgl = 0.1f;
  E.Dbl = 0.1;
  E.Ext = 3.14L;
  E.Cur = Currency::FromScaled(123456789);
  E.Cmp = Comp(int64_t(-9000000000LL));
  E.When = TDateTime(45000.75);
  E.Short = ShortString("short");
  E.Long = std::string(300, 'L') + "\xE9\x80";
  E.Wide = u"Gr\u00FC\u00DFe \u20AC and \u4E2D";
  E.Var = Variant(int32_t(77));
  E.Font->Name = "Courier";
  E.Font->Size = 12;
  E.Font->Styles = {stItalic};
  auto* I1 = static_cast<TColItem*>(E.Items->Add());
  I1->Width = 40;
  I1->Caption = "first";
  auto* I2 = static_cast<TColItem*>(E.Items->Add());
  I2->Caption = "second";
  E.Lines->Add("alpha");
  E.Lines->Add("");
  E.Lines->Add("gamma 'quoted'");
  E.Blob = std::string("\x00\x01\xFF\x7F", 4);
  E.OnClick = TNotifyEvent::Bind<&TEveryKind::HandleClick>(&E);
  auto* Child = new TEveryKind(&E);
  Child->SetName("Child");
  Child->Int = 1;
  auto* Grand = new TBare(Child);
  Grand->SetName("Grand");
  E.Buddy = Grand;
  I1->Link = Child;
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
  auto* C = new TBare(&B);
  C->SetName("Kid");
  Expected = Header("TBare", "Root");
  Str(Expected, "Tag");
  Append(Expected, {vaInt8, 0xFE, 0});
  Str(Expected, "TBare");
  Str(Expected, "Kid");
  Append(Expected, {0, 0, 0});
  EXPECT_EQ(Save(&B), Expected);
}

TEST(FilerFormat, IntegersTakeTheSmallestWidth) {
  struct Case {
    int32_t V;
    Bytes Value;
  } Cases[] = {
      {1, {vaInt8, 1}},
      {-128, {vaInt8, 0x80}},
      {127, {vaInt8, 0x7F}},
      {128, {vaInt16, 0x80, 0x00}},
      {-129, {vaInt16, 0x7F, 0xFF}},
      {32767, {vaInt16, 0xFF, 0x7F}},
      {-32768, {vaInt16, 0x00, 0x80}},
      {32768, {vaInt32, 0x00, 0x80, 0x00, 0x00}},
      {INT32_MIN, {vaInt32, 0x00, 0x00, 0x00, 0x80}},
  };
  for (const Case& C : Cases) {
    Bytes Expected = Header("TScalars", "R");
    Str(Expected, "I");
    Expected.insert(Expected.end(), C.Value.begin(), C.Value.end());
    Append(Expected, {0, 0});
    EXPECT_EQ(ScalarsWithInt(C.V), Expected) << C.V;
    std::unique_ptr<TComponent> Back(Load(Expected));
    EXPECT_EQ(static_cast<TScalars*>(Back.get())->I, C.V);
  }
  // The default (0) is not written at all.
  Bytes Empty = Header("TScalars", "R");
  Append(Empty, {0, 0});
  EXPECT_EQ(ScalarsWithInt(0), Empty);

  // Int64: within 32 bits like any integer, beyond as vaInt64.
  TScalars S;
  S.SetName("R");
  S.L = -1;
  EXPECT_EQ(Save(&S), OneProp("L", {vaInt8, 0xFF}));
  S.L = int64_t(1) << 31;
  EXPECT_EQ(Save(&S), OneProp("L", {vaInt64, 0, 0, 0, 0x80, 0, 0, 0, 0}));
}

TEST(FilerFormat, ShortLongAndWideStrings) {
  TScalars S;
  S.SetName("R");
  S.S = std::string(255, 'a');
  Bytes B = Save(&S);
  Bytes Expected = Header("TScalars", "R");
  Str(Expected, "S");
  Append(Expected, {vaString, 255});
  Expected.insert(Expected.end(), 255, 'a');
  Append(Expected, {0, 0});
  EXPECT_EQ(B, Expected);

  S.S = std::string(256, 'b');
  Expected = Header("TScalars", "R");
  Str(Expected, "S");
  Append(Expected, {vaLString, 0x00, 0x01, 0x00, 0x00});
  Expected.insert(Expected.end(), 256, 'b');
  Append(Expected, {0, 0});
  EXPECT_EQ(Save(&S), Expected);

  // A wide string that Windows-1252 holds is written as an 8-bit string;
  // one that it cannot hold as UTF-16 code units.
  S.S.clear();
  S.W = u"\u20AC\u00E9";
  EXPECT_EQ(Save(&S), OneProp("W", {vaString, 2, 0x80, 0xE9}));
  S.W = u"\u03A9!";
  EXPECT_EQ(Save(&S), OneProp("W", {vaWString, 2, 0, 0, 0, 0xA9, 0x03, '!', 0}));
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
      if (*Name) W.WriteProperty(&E, GetPropInfo(&E, Name));
      else E.DefineProperties(&W);
    }
    auto* P = static_cast<const uint8_t*>(M.Memory());
    return Bytes(P, P + M.GetSize());
  };
  auto Expect = [](const char* Name, std::initializer_list<uint8_t> Value) {
    Bytes B;
    Str(B, Name);
    Append(B, Value);
    return B;
  };
  // Defaults are left out: false, the declared enumeration default, the
  // empty set, zero floats, empty texts, an unassigned variant.
  for (const char* Name : {"Flag", "Shape", "Styles", "Ch", "Dbl", "Sgl", "Cur", "When", "Long", "Var",
                           "Lines", "OnClick", ""})
    EXPECT_EQ(Entry(Name), Bytes()) << Name;
  // Without a declared default an ordinal is always written.
  EXPECT_EQ(Entry("Int"), Expect("Int", {vaInt8, 0}));
  // A reference to no component is vaNil.
  EXPECT_EQ(Entry("Buddy"), Expect("Buddy", {vaNil}));

  E.Flag = true;
  EXPECT_EQ(Entry("Flag"), Expect("Flag", {vaTrue}));
  E.Shape = shSquare;
  EXPECT_EQ(Entry("Shape"), Expect("Shape", {vaIdent, 8, 's', 'h', 'S', 'q', 'u', 'a', 'r', 'e'}));
  E.Styles = {stItalic, stUnderline};
  EXPECT_EQ(Entry("Styles"), Expect("Styles", {vaSet, 8, 's', 't', 'I', 't', 'a', 'l', 'i', 'c', 11, 's',
                                               't', 'U', 'n', 'd', 'e', 'r', 'l', 'i', 'n', 'e', 0}));
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
  EXPECT_EQ(Entry("OnClick"),
            Expect("OnClick", {vaIdent, 11, 'H', 'a', 'n', 'd', 'l', 'e', 'C', 'l', 'i', 'c', 'k'}));
  auto* Other = new TBare(&E);
  Other->SetName("Pal");
  E.Buddy = Other;
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
  EXPECT_EQ(R->Name(), "Root");
  EXPECT_EQ(R->Int, -5);
  EXPECT_EQ(R->Big, 1LL << 40);
  EXPECT_EQ(R->Ch, 'x');
  EXPECT_EQ(R->WCh, u'\u03A9');
  EXPECT_EQ(R->Shape, shTriangle);
  EXPECT_TRUE(R->Flag);
  EXPECT_EQ(R->Styles, TStyles({stBold, stUnderline}));
  EXPECT_EQ(R->Sgl, 0.1f);
  EXPECT_EQ(R->Dbl, 0.1);
  EXPECT_EQ(R->Ext, 3.14L);
  EXPECT_EQ(R->Cur.Value, 123456789);
  EXPECT_EQ(R->Cmp.Value, -9000000000LL);
  EXPECT_EQ(R->When.Value, 45000.75);
  EXPECT_EQ(R->Short.str(), "short");
  EXPECT_EQ(R->Long, E.Long);
  EXPECT_EQ(R->Wide, E.Wide);
  EXPECT_EQ(R->Var.AsInteger(), 77);
  EXPECT_EQ(R->Font->Name, "Courier");
  EXPECT_EQ(R->Font->Size, 12);
  EXPECT_EQ(R->Font->Styles, TStyles({stItalic}));
  ASSERT_EQ(R->Items->Count(), 2);
  auto* I1 = static_cast<TColItem*>(R->Items->Items(0));
  EXPECT_EQ(I1->Width, 40);
  EXPECT_EQ(I1->Caption, "first");
  EXPECT_EQ(static_cast<TColItem*>(R->Items->Items(1))->Caption, "second");
  ASSERT_EQ(R->Lines->Count(), 3);
  EXPECT_EQ(R->Lines->Strings(2), "gamma 'quoted'");
  EXPECT_EQ(R->Blob, E.Blob);
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
  EXPECT_EQ(Child->Int, 1);
  ASSERT_EQ(Child->ComponentCount(), 1);
  EXPECT_EQ(R->Buddy, Child->Components(0));
  EXPECT_EQ(I1->Link, Child);
  EXPECT_EQ(LiveParts, 2);

  // Writing what was read gives the same bytes, and so does the text form.
  EXPECT_EQ(Save(R), B);
  TReadOnlyMemoryStream In(B.data(), static_cast<int64_t>(B.size()));
  TMemoryStream Text, Again;
  ObjectBinaryToText(&In, &Text);
  Text.SetPosition(0);
  ObjectTextToBinary(&Text, &Again);
  auto* P = static_cast<const uint8_t*>(Again.Memory());
  EXPECT_EQ(Bytes(P, P + Again.GetSize()), B);
}

TEST(FilerRoundTrip, LoadedRunsOnceForEveryComponentAfterReferencesResolve) {
  TEveryKind E;
  FillEveryKind(E);
  auto* Child = static_cast<TEveryKind*>(E.Components(0));
  Child->Buddy = &E;  // written as "Owner"
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

  // A component of the same name but another class is an error.
  Bytes Clash = Header("TMakesPart", "M");
  Append(Clash, {0});
  Str(Clash, "TBare");
  Str(Clash, "Part");
  Append(Clash, {0, 0, 0});
  EXPECT_EQ(ReadError(Clash), "EComponentError: A component named Part already exists");
}

TEST(FilerRead, AcceptsEveryEncodingOfAValue) {
  auto ReadInto = [](const Bytes& B) {
    TScalars S;
    Load(B, &S);
    return std::make_tuple(S.I, S.L, S.S, S.W);
  };
  // Integers written wider than needed, and an Int64 from vaInt32.
  EXPECT_EQ(std::get<0>(ReadInto(OneProp("I", {vaInt32, 5, 0, 0, 0}))), 5);
  EXPECT_EQ(std::get<1>(ReadInto(OneProp("L", {vaInt16, 0xFF, 0xFF}))), -1);
  // Short text as vaLString, UTF-8 and UTF-16 into an 8-bit string.
  EXPECT_EQ(std::get<2>(ReadInto(OneProp("S", {vaLString, 2, 0, 0, 0, 'h', 'i'}))), "hi");
  EXPECT_EQ(std::get<2>(ReadInto(OneProp("S", {vaUTF8String, 3, 0, 0, 0, 0xE2, 0x82, 0xAC}))), "\x80");
  EXPECT_EQ(std::get<2>(ReadInto(OneProp("S", {vaWString, 1, 0, 0, 0, 0xE9, 0x00}))), "\xE9");
  EXPECT_EQ(std::get<3>(ReadInto(OneProp("W", {vaUTF8String, 2, 0, 0, 0, 0xCE, 0xA9}))), u"\u03A9");
  // Property names are matched in any letter case.
  EXPECT_EQ(std::get<0>(ReadInto(OneProp("i", {vaInt8, 9}))), 9);

  // Floats from any numeric type.
  auto ReadFloatFrom = [](std::initializer_list<uint8_t> V) {
    Bytes B = Header("TEveryKind", "R");
    Str(B, "Ext");
    Append(B, V);
    Append(B, {0, 0});
    TEveryKind E;
    Load(B, &E);
    return E.Ext;
  };
  EXPECT_EQ(ReadFloatFrom({vaInt8, 0xFE}), -2.0L);
  EXPECT_EQ(ReadFloatFrom({vaSingle, 0, 0, 0xC0, 0x3F}), 1.5L);
  EXPECT_EQ(ReadFloatFrom({vaCurrency, 0x98, 0x3A, 0, 0, 0, 0, 0, 0}), 1.5L);
  EXPECT_EQ(ReadFloatFrom({vaInt64, 0, 0, 0, 0, 1, 0, 0, 0}), 4294967296.0L);

  // A prefix with a child position is read (and the flags kept apart).
  Bytes B = Header("TBare", "Root");
  Append(B, {0});
  Append(B, {0xF2, vaInt8, 0});
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
  Bytes B = Header("TBare", "Root");
  Append(B, {0, 0xF1});
  Str(B, "TScalars");
  Str(B, "Kept");
  Str(B, "I");
  Append(B, {vaInt8, 42, 0, 0, 0});
  Load(B, &Root);
  ASSERT_EQ(Root.ComponentCount(), 1);
  EXPECT_EQ(Root.Components(0), Existing);
  EXPECT_EQ(Existing->I, 42);

  Bytes Missing = Header("TBare", "Root");
  Append(Missing, {0, 0xF1});
  Str(Missing, "TScalars");
  Str(Missing, "Gone");
  Append(Missing, {0, 0, 0});
  TBare Other;
  try {
    Load(Missing, &Other);
    FAIL();
  } catch (const EReadError& E) {
    EXPECT_STREQ(E.what(), "Ancestor for 'Gone' not found");
  }
}

// ---------------------------------------------------------------------------
// Errors


TEST(FilerErrors, MessagesOfTheRuntime) {
  Bytes Bad = Header("TBare", "R");
  Bad[3] = '1';
  EXPECT_EQ(ReadError(Bad), "EReadError: Invalid stream format");
  EXPECT_EQ(ReadError(Bytes{'T', 'P'}), "EReadError: Stream read error");
  Bytes Unknown = Header("TNoSuchClass", "R");
  Append(Unknown, {0, 0});
  EXPECT_EQ(ReadError(Unknown), "EClassNotFound: Class TNoSuchClass not found");

  EXPECT_EQ(ReadError(OneProp("Nope", {vaInt8, 1})),
            "EReadError: Error reading R.Nope: Property Nope does not exist");
  EXPECT_EQ(ReadError(OneProp("I", {vaString, 1, 'x'})),
            "EReadError: Error reading R.I: Invalid property value");
  EXPECT_EQ(ReadError(OneProp("I", {21, 0})), "EReadError: Error reading R.I: Invalid stream format");
  EXPECT_EQ(ReadError(OneProp("RO", {vaInt8, 1})),
            "EReadError: Error reading R.RO: Property is read-only");
  EXPECT_EQ(ReadError(OneProp("S.X", {vaInt8, 1})), "EReadError: Error reading R.S: Invalid property path");
  // A truncated value inside a property.
  Bytes Short = OneProp("S", {vaLString, 10, 0, 0, 0, 'a'});
  Short.resize(Short.size() - 2);
  EXPECT_EQ(ReadError(Short), "EReadError: Error reading R.S: Stream read error");
  // Collection items are named by their class.
  Bytes Item = Header("TEveryKind", "R");
  Str(Item, "Items");
  Append(Item, {vaCollection, vaList});
  Str(Item, "Bogus");
  Append(Item, {vaInt8, 1, 0, 0, 0, 0});
  EXPECT_EQ(ReadError(Item), "EReadError: Error reading TColItem.Bogus: Property Bogus does not exist");
}

// Names taken from a damaged file reach the message with each control byte
// written as #n, so what() holds the whole message and nothing in it
// steers a terminal.
TEST(FilerErrors, NamesFromTheFileAreQuotedWithControlBytesEscaped) {
  using namespace std::string_view_literals;
  Bytes Class = Header("TNo\0Such\x1b[2J"sv, "R");
  Append(Class, {0, 0});
  Bytes Name = Header("TBare", "R\x01\r\n"sv);
  Append(Name, {0, 0});
  const struct {
    Bytes Data;
    std::string Expected;
  } Cases[] = {
      {Class, "Class TNo#0Such#27[2J not found"},
      {Name, "'R#1#13#10' is not a valid component name"},
      {OneProp("N\0pe\x7f"sv, {vaInt8, 1}), "Error reading R.N#0pe#127: Property N#0pe#127 does not exist"},
  };
  for (const auto& C : Cases) {
    try {
      std::unique_ptr<TComponent> Got(Load(C.Data));
      ADD_FAILURE() << "no error for " << C.Expected;
    } catch (const Exception& E) {
      EXPECT_EQ(std::string(E.what()), C.Expected);
      EXPECT_EQ(std::strlen(E.what()), E.Message().size());
    }
  }
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
  Append(B, {vaString, 2, 'o', 'k'});
  Append(B, {0});
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
  EXPECT_EQ(Messages, std::vector<std::string>({"Error reading R.Gone: Property Gone does not exist",
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

  // Variant arrays have no component-stream form; nothing is half-written.
  TEveryKind E;
  E.SetName("R");
  E.Var = VarArrayCreate({0, 1}, varInteger);
  TMemoryStream M;
  EXPECT_THROW(WriteComponent(&M, &E), EWriteError);
}

TEST(FilerFormat, PropertyWithoutDefaultIsWrittenEvenAtTheMarkerValue) {
  // Without a declared default every value is written, the marker itself too,
  // so that what was read writes back the same.
  TEveryKind E;
  E.SetName("Root");
  E.Int = INT32_MIN;
  Bytes Out = Save(&E);
  const Bytes Entry = {3, 'I', 'n', 't', vaInt32, 0x00, 0x00, 0x00, 0x80};
  EXPECT_NE(std::search(Out.begin(), Out.end(), Entry.begin(), Entry.end()), Out.end());
  std::unique_ptr<TComponent> Back(Load(Out));
  EXPECT_EQ(static_cast<TEveryKind*>(Back.get())->Int, INT32_MIN);
  EXPECT_EQ(Save(Back.get()), Out);
}
