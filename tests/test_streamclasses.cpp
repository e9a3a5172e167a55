// The binary object stream: exact bytes of every property kind and container,
// the reader's errors, round trips and the conversion functions.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "StreamTestClasses.h"
#include "TestSupport.h"
#include "vel/StreamClasses.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace sc {

enum TTone : uint8_t { toLow, toMid, toHigh };
VEL_ENUM(TTone, "toLow", "toMid", "toHigh")

class TPoint2 : public TPersistent {
  VEL_CLASS(TPoint2, TPersistent)
 public:
  int32_t X = 0;
  int32_t Y = 0;
  std::string Caption;
};

class TKinds : public TPersistent {
  VEL_CLASS(TKinds, TPersistent)
 public:
  ~TKinds() override { delete Point; }
  int32_t Int = 0;
  char Ch = 'A';
  char16_t WCh = u'B';
  TTone Tone = toLow;
  bool Flag = false;
  TSet<TTone> Tones;
  float Sng = 0;
  double Dbl = 0;
  Extended Ext = 0;
  Currency Cur;
  Comp Cmp;
  TDateTime When;
  ShortString Short;
  std::string Long;
  std::u16string Wide;
  int64_t Big = 0;
  Variant Var;
  TNotifyEvent OnEvent;
  TPoint2* Point = new TPoint2;
  std::string Name = "never";  // never streamed, whatever its class
  int32_t Tag = 99;
  void Handler(TObject*) {}
};

class TItem : public TCollectionItem {
  VEL_CLASS(TItem, TCollectionItem)
 public:
  explicit TItem(TCollection* C = nullptr) : TCollectionItem(C) {}
  int32_t Value = 0;
  std::string Text;
};

class TContainer : public TPersistent {
  VEL_CLASS(TContainer, TPersistent)
 public:
  ~TContainer() override {
    delete Items;
    delete Parts;
    delete Lines;
  }
  TCollection* Items = new TCollection(TItem::StaticClass());
  TObjectList* Parts = new TObjectList(true);
  TStringList* Lines = new TStringList;
};

}  // namespace sc

using namespace sc;
using stream_test::TPart;

VEL_PUBLISHED(TPoint2, prop("X", &TPoint2::X), prop("Y", &TPoint2::Y).defaults(0),
              prop("Caption", &TPoint2::Caption))
VEL_PUBLISHED(TKinds, prop("Int", &TKinds::Int).defaults(0), prop("Ch", &TKinds::Ch),
              prop("WCh", &TKinds::WCh), prop("Tone", &TKinds::Tone).defaults(toLow),
              prop("Flag", &TKinds::Flag).defaults(false), prop("Tones", &TKinds::Tones),
              prop("Sng", &TKinds::Sng), prop("Dbl", &TKinds::Dbl), prop("Ext", &TKinds::Ext),
              prop("Cur", &TKinds::Cur), prop("Cmp", &TKinds::Cmp), prop("When", &TKinds::When),
              prop("Short", &TKinds::Short), prop("Long", &TKinds::Long),
              prop("Wide", &TKinds::Wide), prop("Big", &TKinds::Big), prop("Var", &TKinds::Var),
              prop("OnEvent", &TKinds::OnEvent), prop("Point", &TKinds::Point),
              prop("name", &TKinds::Name), prop("TAG", &TKinds::Tag),
              method<&TKinds::Handler>("Handler"))
VEL_PUBLISHED(TItem, prop("Value", &TItem::Value).defaults(0), prop("Text", &TItem::Text))
VEL_PUBLISHED(TContainer, prop("Items", &TContainer::Items), prop("Parts", &TContainer::Parts),
              prop("Lines", &TContainer::Lines))

namespace {

// Builds expected streams in the notation of the format.
struct Bytes {
  std::string B;
  Bytes& u8(uint8_t V) {
    B.push_back(static_cast<char>(V));
    return *this;
  }
  Bytes& raw(const void* P, size_t N) {
    B.append(static_cast<const char*>(P), N);
    return *this;
  }
  Bytes& str(const std::string& S) {  // a short string item
    u8(0).u8(static_cast<uint8_t>(S.size()));
    B += S;
    return *this;
  }
  Bytes& i8(int8_t V) { return u8(0).u8(static_cast<uint8_t>(V)); }
  Bytes& begin() { return u8(2).str("<"); }
  Bytes& end() { return u8(2).str(">"); }
  Bytes& le64(uint64_t V) {
    for (int I = 0; I < 8; ++I) u8(static_cast<uint8_t>(V >> (8 * I)));
    return *this;
  }
};

std::string Save(TObject* Obj) {
  TMemoryStream S;
  TBinaryStreamer(&S).SaveToStream(Obj);
  return std::string(static_cast<const char*>(S.Memory()), static_cast<size_t>(S.GetSize()));
}

void Load(TObject* Obj, const std::string& Data) {
  TMemoryStream S;
  if (!Data.empty()) S.WriteBuffer(Data.data(), static_cast<int64_t>(Data.size()));
  S.SetPosition(0);
  TBinaryStreamer(&S).LoadFromStream(Obj);
}

std::string Hex(const std::string& S) {
  std::string R;
  for (unsigned char C : S) R += Format("%.2x ", {static_cast<int>(C)});
  return R;
}

using vel_test::ErrorOf;

struct Registered {
  Registered() {
    RegisterClasses({TPoint2::StaticClass(), TKinds::StaticClass(), TItem::StaticClass(),
                     TPart::StaticClass(), TContainer::StaticClass()});
  }
};
const Registered TheRegistration;

}  // namespace

TEST(BinaryStreamer, IntegerAndStringSizeTags) {
  struct Case {
    int32_t V;
    std::string Bytes;
  } Cases[] = {
      {127, std::string("\x00\x7F", 2)},
      {-128, std::string("\x00\x80", 2)},
      {128, std::string("\x01\x80\x00", 3)},
      {-129, std::string("\x01\x7F\xFF", 3)},
      {32767, std::string("\x01\xFF\x7F", 3)},
      {-32768, std::string("\x01\x00\x80", 3)},
      {32768, std::string("\x02\x00\x80\x00\x00", 5)},
      {-32769, std::string("\x02\xFF\x7F\xFF\xFF", 5)},
      {INT32_MIN + 1, std::string("\x02\x01\x00\x00\x80", 5)},
  };
  for (const Case& C : Cases) {
    TPoint2 P;
    P.X = C.V;
    Bytes Want;
    Want.str("TPoint2").begin().str("X").raw(C.Bytes.data(), C.Bytes.size()).end();
    EXPECT_EQ(Hex(Save(&P)), Hex(Want.B)) << C.V;
    TPoint2 Back;
    Load(&Back, Want.B);
    EXPECT_EQ(Back.X, C.V);
  }
  // Without a declared default, only the marker value itself is skipped.
  TPoint2 Marker;
  Marker.X = INT32_MIN;
  EXPECT_EQ(Hex(Save(&Marker)), Hex(Bytes().str("TPoint2").begin().end().B));
  // 255 characters keep the one-byte length; 256 take tag 1 and four bytes.
  for (size_t Len : {size_t(255), size_t(256), size_t(70000)}) {
    TPoint2 P;
    P.Caption = std::string(Len, 'q');
    std::string S = Save(&P);
    size_t At = S.find("Caption") + 7;
    if (Len <= 255) {
      EXPECT_EQ(static_cast<uint8_t>(S[At]), 0);
      EXPECT_EQ(static_cast<uint8_t>(S[At + 1]), Len);
    } else {
      EXPECT_EQ(static_cast<uint8_t>(S[At]), 1);
      uint32_t L;
      std::memcpy(&L, S.data() + At + 1, 4);
      EXPECT_EQ(L, Len);
    }
    TPoint2 Back;
    Load(&Back, S);
    EXPECT_EQ(Back.Caption, P.Caption);
  }
}

TEST(BinaryStreamer, EveryPropertyKindBytes) {
  TKinds K;
  K.Int = 300;
  K.Ch = 'z';
  K.WCh = u'\u20AC';
  K.Tone = toHigh;
  K.Flag = true;
  K.Tones = {toLow, toHigh};
  K.Sng = 1.5f;
  K.Dbl = 0.25;
  K.Ext = 1.0L / 3.0L;
  K.Cur = Currency(12.34);
  K.Cmp = Comp(int64_t(77));
  K.When = TDateTime(37806.25);
  K.Short = ShortString("s");
  K.Long = "long";
  K.Wide = u"w\u00E9";
  K.Big = -2;
  K.Var = Variant(int32_t(1000));
  K.OnEvent = TNotifyEvent::Bind<&TKinds::Handler>(&K);
  K.Point->Y = 1;

  Bytes W;
  W.str("TKinds").begin();
  W.str("Big").le64(static_cast<uint64_t>(-2));
  W.str("Ch").i8('z');
  W.str("Cmp");  // a comp writes its name and no value
  // Currency: the value times 10000 handed over as a currency, whose
  // scaled representation goes to the stream.
  W.str("Cur").le64(1234000000ull);
  W.str("Dbl");
  double D = 0.25;
  W.raw(&D, 8);
  uint8_t ExtBytes[10];
  ExtendedToBytes(1.0L / 3.0L, ExtBytes);
  W.str("Ext").raw(ExtBytes, 10);
  W.str("Flag").u8(1);
  W.str("Int").u8(1).u8(0x2C).u8(0x01);
  W.str("Long").str("long");
  // OnEvent: events are not in the default kinds.
  W.str("Point").begin().str("X").i8(0).str("Y").i8(1).end();  // X has no default
  W.str("Short").str("s");
  float F = 1.5f;
  W.str("Sng").raw(&F, 4);
  W.str("Tone").i8(2);
  W.str("Tones").i8(0b101);
  W.str("Var").i8(3).u8(1).u8(0xE8).u8(0x03);
  W.str("WCh").u8(1).u8(0xAC).u8(0x20);
  double When = 37806.25;
  W.str("When").raw(&When, 8);
  W.str("Wide").str("w\xE9");
  W.end();
  EXPECT_EQ(Hex(Save(&K)), Hex(W.B));

  // Read back, every value writes the same bytes again (the writer's bytes
  // are pinned above); a comp reads back as 0, and "name" and "TAG" are
  // never streamed.
  TKinds Back;
  Back.Cmp = Comp(int64_t(5));
  Load(&Back, W.B);
  EXPECT_EQ(Back.Cmp.Value, 0);
  Back.Cmp = K.Cmp;
  EXPECT_EQ(Hex(Save(&Back)), Hex(W.B));
  EXPECT_EQ(VarType(Back.Var), varInteger);
  EXPECT_EQ(Back.Ext, 1.0L / 3.0L);
  EXPECT_EQ(Back.Name, "never");
  EXPECT_EQ(Back.Tag, 99);
}

TEST(BinaryStreamer, DefaultsAreSkippedAndEventsOnRequest) {
  TKinds K;
  K.Point->Y = 0;
  Bytes W;
  // Char, wide char, wide string, set and the object are always written;
  // the rest holds defaults. The point's X has no default, so 0 is written.
  W.str("TKinds").begin();
  W.str("Ch").i8('A').str("Point").begin().str("X").i8(0).end();
  W.str("Tones").i8(0).str("WCh").i8('B').str("Wide").str("").end();
  EXPECT_EQ(Hex(Save(&K)), Hex(W.B));

  // With events among the kinds, a method writes the name it is published under.
  K.OnEvent = TNotifyEvent::Bind<&TKinds::Handler>(&K);
  TMemoryStream S;
  TBinaryStreamer B(&S);
  B.SetTypeKinds(tkAny);
  B.SaveToStream(&K);
  std::string Out(static_cast<const char*>(S.Memory()), static_cast<size_t>(S.GetSize()));
  EXPECT_NE(Out.find(Bytes().str("OnEvent").str("Handler").B), std::string::npos);
  TKinds Back;
  S.SetPosition(0);
  TBinaryStreamer R(&S);
  R.LoadFromStream(&Back);
  EXPECT_EQ(Back.OnEvent.Code, MethodCode<&TKinds::Handler>());
}

TEST(BinaryStreamer, VariantsOfEachCode) {
  struct Case {
    Variant V;
    uint16_t Type;
  } Cases[] = {
      {Variant(int16_t(-5)), varSmallint},
      {Variant(int32_t(70000)), varInteger},
      {Variant(uint8_t(200)), varByte},
      {Variant(true), varBoolean},
      {Variant(1.25f), varSingle},
      {Variant(2.5), varDouble},
      {Variant(Currency(3.5)), varCurrency},
      {Variant(TDateTime(100.5)), varDate},
      {Variant(std::u16string(u"ole")), varOleStr},
      {Variant(std::string("str")), varString},
      {Variant(int64_t(1) << 40), varInt64},
      {Variant::Null(), varNull},
  };
  for (const Case& C : Cases) {
    TKinds K;
    K.Var = C.V;
    std::string S = Save(&K);
    TKinds Back;
    Load(&Back, S);
    EXPECT_EQ(VarType(Back.Var), C.Type) << C.Type;
    if (C.Type != varNull) {
      EXPECT_EQ(Back.Var.AsString(), C.V.AsString()) << C.Type;
    }
  }
  // Exact payloads of a few codes.
  TKinds K;
  K.Var = Variant(true);
  EXPECT_NE(Save(&K).find(Bytes().str("Var").i8(11).i8(-1).B), std::string::npos);
  K.Var = Variant(Currency(3.5));
  EXPECT_NE(Save(&K).find(Bytes().str("Var").i8(6).le64(35000).B), std::string::npos);
  K.Var = Variant(std::string("str"));
  EXPECT_NE(Save(&K).find(Bytes().str("Var").u8(1).u8(0).u8(1).str("str").B), std::string::npos);
  K.Var = VarArrayCreate({0, 1}, varByte);
  EXPECT_EQ(ErrorOf([&] { Save(&K); }), "EStreamPropError: Array types not supported");
}

TEST(BinaryStreamer, CollectionsObjectListsAndStringLists) {
  TContainer C;
  auto* I0 = static_cast<TItem*>(C.Items->Add());
  I0->Value = 1;
  C.Items->Add();  // all defaults: an empty property block
  auto* Part = new TPart;
  Part->Size = 3;
  C.Parts->Add(Part);
  C.Lines->Add("a");
  C.Lines->AddObject("b", nullptr);
  C.Lines->Add("c");

  Bytes W;
  W.str("TContainer").begin();
  W.str("Items").begin().u8(3).i8(2);
  W.begin().str("Value").i8(1).end();
  W.begin().end();
  W.end();
  W.str("Lines").begin().u8(3).i8(3);
  W.str("a,").u8(1).str("b,").u8(1).str("c").u8(1);
  W.end();
  W.str("Parts").begin().u8(3).i8(1);
  W.u8(4).str("TPart").begin().str("Size").i8(3).end();
  W.end();
  W.end();
  EXPECT_EQ(Hex(Save(&C)), Hex(W.B));

  // Reading appends: collections get new items, lines come back with the
  // "," of every line but the last, object lists get new components.
  TContainer Back;
  Back.Lines->Add("kept");
  Load(&Back, W.B);
  ASSERT_EQ(Back.Items->Count(), 2);
  EXPECT_EQ(static_cast<TItem*>(Back.Items->Items(0))->Value, 1);
  ASSERT_EQ(Back.Lines->Count(), 4);
  EXPECT_EQ(Back.Lines->Strings(0), "kept");
  EXPECT_EQ(Back.Lines->Strings(1), "a,");
  EXPECT_EQ(Back.Lines->Strings(2), "b,");
  EXPECT_EQ(Back.Lines->Strings(3), "c");
  ASSERT_EQ(Back.Parts->Count(), 1);
  ASSERT_EQ(Back.Parts->Items(0)->ClassType(), TPart::StaticClass());
  EXPECT_EQ(static_cast<TPart*>(Back.Parts->Items(0))->Size, 3);
  EXPECT_EQ(static_cast<TPart*>(Back.Parts->Items(0))->Owner(), nullptr);
}

TEST(BinaryStreamer, StringListWithAttachedObjects) {
  TStringList L;
  TPoint2 P;
  P.X = 4;
  L.AddObject("one", &P);
  Bytes W;
  W.str("TStringList").begin().u8(3).i8(1);
  W.str("one").u8(4).str("TPoint2").begin().str("X").i8(4).end();
  W.end();
  EXPECT_EQ(Hex(Save(&L)), Hex(W.B));

  // The reader creates the attached object without reading its properties,
  // so the end marker is not where it looks.
  TStringList Back;
  EXPECT_EQ(ErrorOf([&] { Load(&Back, W.B); }),
            "EStreamPropError: Stream property error, end of list not found");
  ASSERT_EQ(Back.Count(), 1);
  delete Back.Objects(0);
  // With a further line, the next string read meets the property block.
  TPoint2 Q;
  L.AddObject("two", &Q);
  TStringList Back2;
  EXPECT_EQ(ErrorOf([&] { Load(&Back2, Save(&L)); }),
            "EStreamPropError: String out of bounds (sstring, LString)");
  for (int I = 0; I < Back2.Count(); ++I) delete Back2.Objects(I);
}

TEST(BinaryStreamer, RootCollectables) {
  TCollection Col(TItem::StaticClass());
  static_cast<TItem*>(Col.Add())->Text = "t";
  Bytes W;
  W.str("TCollection").begin().u8(3).i8(1).begin().str("Text").str("t").end().end();
  EXPECT_EQ(Hex(Save(&Col)), Hex(W.B));
  TCollection Back(TItem::StaticClass());
  Back.Add();
  Load(&Back, W.B);
  ASSERT_EQ(Back.Count(), 2);
  EXPECT_EQ(static_cast<TItem*>(Back.Items(1))->Text, "t");

  TObjectList Parts;
  auto* P = new TPart;
  P->Size = -1;
  Parts.Add(P);
  Bytes WP;
  WP.str("TObjectList")
      .begin()
      .u8(3)
      .i8(1)
      .u8(4)
      .str("TPart")
      .begin()
      .str("Size")
      .i8(-1)
      .end()
      .end();
  EXPECT_EQ(Hex(Save(&Parts)), Hex(WP.B));
  TObjectList PartsBack;
  Load(&PartsBack, WP.B);
  ASSERT_EQ(PartsBack.Count(), 1);
  EXPECT_EQ(static_cast<TPart*>(PartsBack.Items(0))->Size, -1);

  TStringList Lines;
  Lines.SetCommaText("x,y");
  TStringList LinesBack;
  Load(&LinesBack, Save(&Lines));
  EXPECT_EQ(LinesBack.CommaText(), "\"x,\",y");

  // A collection cannot be the root of CreateFromStream.
  TMemoryStream S;
  S.WriteBuffer(W.B.data(), static_cast<int64_t>(W.B.size()));
  S.SetPosition(0);
  EXPECT_EQ(ErrorOf([&] { delete TBinaryStreamer(&S).CreateFromStream(); }),
            "EStreamPropError: Stream Read Error!  Unable to create root object from stream");
}

TEST(BinaryStreamer, ReaderErrorsFromBuiltStreams) {
  EXPECT_EQ(ErrorOf([] { TBinaryStreamer B(nullptr); }),
            "EStreamPropError: Stream is not valid (nil)");
  auto P = [] { return Bytes().str("TPoint2").begin(); };
  auto C = [] { return Bytes().str("T").begin(); };
  const struct {
    bool Container;  // read into a TContainer, else into a TPoint2
    std::string Data;
    std::string Expected;
  } Cases[] = {
      {false, "", "EStreamPropError: Cannot read from an empty stream"},
      {false, Bytes().str("TPoint2").B,
       "EStreamPropError: Stream property error, begin of list not found"},
      // An unknown property: the message names the entry after it (here the
      // value's bytes read as a name: its control byte is escaped).
      {false, P().str("Z").i8(1).end().B, "EStreamPropError: Unable to property info for #2"},
      // Size tags out of range.
      {false, P().str("X").u8(3).u8(0).end().B,
       "EStreamPropError: Integer out of bounds (8, 16, 32 bit)"},
      {false, P().u8(7).end().B, "EStreamPropError: String out of bounds (sstring, LString)"},
      // Truncated in the middle of a value: the missing bytes read as zeros
      // and the walk fails on the next name it looks for.
      {false, P().str("X").u8(2).u8(1).B, "EStreamPropError: Unable to property info for "},
      // A 4-byte length of 2 GiB in a 20-byte stream, and a negative one.
      {false, P().str("Caption").u8(1).u8(0).u8(0).u8(0).u8(0x7F).B,
       "EReadError: Stream read error"},
      {false, P().str("Caption").u8(1).u8(0xFF).u8(0xFF).u8(0xFF).u8(0xFF).B,
       "EReadError: Stream read error"},
      // Lists without count or end.
      {true, C().str("Items").begin().end().end().B,
       "EStreamPropError: Failed to read count for List TCollection"},
      {true, C().str("Parts").begin().u8(1).end().B,
       "EStreamPropError: Failed to read count for List TObjectList"},
      {true, C().str("Lines").u8(9).end().B,
       "EStreamPropError: Failed to read count for List TStringList"},
      {true, C().str("Items").begin().u8(3).i8(0).begin().end().B,
       "EStreamPropError: Stream property error, end of list not found"},
      // An object list item without its class name, and of an unregistered
      // class (the runtime's error).
      {true, C().str("Parts").begin().u8(3).i8(1).str("TPart").B,
       "EStreamPropError: Read Error - Expecting Class name - not found"},
      {true, C().str("Parts").begin().u8(3).i8(1).u8(4).str("TNope").B,
       "EClassNotFound: Class TNope not found"},
  };
  for (const auto& Case : Cases) {
    TPoint2 Pt;
    TContainer Co;
    EXPECT_EQ(ErrorOf([&] { Load(Case.Container ? static_cast<TObject*>(&Co) : &Pt, Case.Data); }),
              Case.Expected)
        << Hex(Case.Data);
  }
  // CreateFromStream of an unregistered or non-persistent class.
  for (const char* Name : {"TUnregistered", "TObject"}) {
    TMemoryStream S;
    std::string B = Bytes().str(Name).begin().end().B;
    S.WriteBuffer(B.data(), static_cast<int64_t>(B.size()));
    S.SetPosition(0);
    EXPECT_EQ(ErrorOf([&] { delete TBinaryStreamer(&S).CreateFromStream(); }),
              "EStreamPropError: Stream Read Error!  Unable to create root object from stream");
  }
}

TEST(BinaryStreamer, HugeCountsEndWithTheStream) {
  // Counts that promise more items than the stream holds stop at its end
  // instead of adding two billion empty lines or items.
  TContainer C;
  Bytes Lines;
  Lines.str("T").begin().str("Lines").begin().u8(3).u8(2).u8(0xFF).u8(0xFF).u8(0xFF).u8(0x7F);
  EXPECT_EQ(ErrorOf([&] { Load(&C, Lines.B); }),
            "EStreamPropError: Stream property error, end of list not found");
  EXPECT_EQ(C.Lines->Count(), 0);
  Bytes Items;
  Items.str("T").begin().str("Items").begin().u8(3).u8(2).u8(0xFF).u8(0xFF).u8(0xFF).u8(0x7F);
  Items.begin().end();
  EXPECT_EQ(ErrorOf([&] { Load(&C, Items.B); }),
            "EStreamPropError: Stream property error, end of list not found");
  EXPECT_EQ(C.Items->Count(), 1);
}

TEST(BinaryStreamer, LoadAcceptsOtherSignatureAndCreateFromStreamMakesTheRoot) {
  TPoint2 P;
  P.X = 9;
  std::string S = Save(&P);
  // The signature is not compared.
  TPoint2 Q;
  std::string Renamed = Bytes().str("TSomethingElse").B + S.substr(S.find('\x02'));
  Load(&Q, Renamed);
  EXPECT_EQ(Q.X, 9);

  TMemoryStream M;
  M.WriteBuffer(S.data(), static_cast<int64_t>(S.size()));
  M.SetPosition(0);
  TBinaryStreamer B(&M);
  TObject* Made = B.CreateFromStream();
  ASSERT_EQ(Made->ClassType(), TPoint2::StaticClass());
  EXPECT_EQ(static_cast<TPoint2*>(Made)->X, 9);
  EXPECT_EQ(B.StreamState(), ssNone);
  EXPECT_EQ(B.RootComponent(), Made);
  delete Made;
}

TEST(Conversion, DeepGraphRoundTripAndDeepCopy) {
  TContainer Src;
  for (int I = 0; I < 50; ++I) {
    auto* It = static_cast<TItem*>(Src.Items->Add());
    It->Value = I * 1000 - 7;
    It->Text = "item " + IntToStr(I);
    auto* Part = new TPart;
    Part->Size = I;
    Src.Parts->Add(Part);
    Src.Lines->Add("line" + IntToStr(I));
  }
  TMemoryStream S;
  S.WriteBuffer("prefix", 6);
  ObjectToStream(&Src, &S);
  int64_t End = S.GetPosition();
  S.SetPosition(6);
  TContainer Dst;
  StreamToObject(&Dst, &S);
  EXPECT_EQ(S.GetPosition(), End);
  ASSERT_EQ(Dst.Items->Count(), 50);
  ASSERT_EQ(Dst.Parts->Count(), 50);
  for (int I = 0; I < 50; ++I) {
    EXPECT_EQ(static_cast<TItem*>(Dst.Items->Items(I))->Value, I * 1000 - 7);
    EXPECT_EQ(static_cast<TItem*>(Dst.Items->Items(I))->Text, "item " + IntToStr(I));
    EXPECT_EQ(static_cast<TPart*>(Dst.Parts->Items(I))->Size, I);
  }
  EXPECT_EQ(Dst.Lines->Strings(49), "line49");

  TKinds A, B;
  A.Long = "";
  B.Long = "x";  // a default in the source leaves the target's value
  A.Int = 12;
  A.Point->X = 3;
  A.Ext = 2.5L;
  DeepCopy(&B, &A);
  EXPECT_EQ(B.Long, "x");
  EXPECT_EQ(B.Int, 12);
  EXPECT_EQ(B.Point->X, 3);
  EXPECT_EQ(B.Ext, 2.5L);
}

TEST(Conversion, VariantsOfObjects) {
  TPoint2 P;
  P.Caption = "v";
  Variant V = ObjectToVariant(&P);
  ASSERT_TRUE(VarIsArray(V));
  EXPECT_EQ(VarType(V), varArray | varByte);
  EXPECT_EQ(VarArrayLowBound(V, 1), 0);
  EXPECT_EQ(VarArrayHighBound(V, 1), static_cast<int32_t>(Save(&P).size()) - 1);
  TPoint2 Q;
  EXPECT_EQ(VariantToObject(V, &Q), &Q);
  EXPECT_EQ(Q.Caption, "v");
  TObject* Made = VariantToObject(V, nullptr);
  ASSERT_NE(Made, nullptr);
  EXPECT_EQ(static_cast<TPoint2*>(Made)->Caption, "v");
  delete Made;

  TComponentList CL;
  EXPECT_TRUE(VarIsEmpty(ObjectToVariant(&CL)));
  EXPECT_EQ(VariantToObject(V, &CL), nullptr);

  // An object of an unregistered class cannot be recreated.
  TStringList L;  // TStringList is not registered here
  Variant LV = ObjectToVariant(&L);
  EXPECT_EQ(ErrorOf([&] { delete VariantToObject(LV, nullptr); }),
            "EStreamPropError: Stream Read Error!  Unable to create root object from stream");
}

TEST(Conversion, ComponentListsEqual) {
  TComponentList A, B;
  EXPECT_FALSE(ComponentListsEqual(&A, &B));  // two empty lists are unequal
  auto Fill = [](TComponentList& L, int Size) {
    auto* P = new TPart;
    P->Size = Size;
    L.Add(P);
  };
  Fill(A, 1);
  Fill(B, 1);
  EXPECT_TRUE(ComponentListsEqual(&A, &B));
  static_cast<TPart*>(B.Items(0))->Size = 2;
  EXPECT_FALSE(ComponentListsEqual(&A, &B));
  static_cast<TPart*>(B.Items(0))->Size = 1;
  B.Add(new TComponent);
  A.Add(new TPart);
  EXPECT_FALSE(ComponentListsEqual(&A, &B));  // item classes differ
  EXPECT_FALSE(ComponentListsEqual(&A, nullptr));
}

namespace {
// A descendant that overrides nothing still takes the general paths (the
// in-place fast paths are for the binary streamer itself on memory).
class TPlainBinary : public TBinaryStreamer {
 public:
  using TBinaryStreamer::TBinaryStreamer;
};
}  // namespace

TEST(BinaryStreamer, SameBytesAndValuesThroughEveryStreamPath) {
  TContainer C;
  for (int I = 0; I < 3; ++I) {
    auto* It = static_cast<TItem*>(C.Items->Add());
    It->Value = I * 300;
    It->Text = std::string(static_cast<size_t>(I) * 200, 'x');
  }
  C.Lines->Add("l");
  std::string Mem = Save(&C);

  TStringStream SS("");
  TPlainBinary(&SS).SaveToStream(&C);
  EXPECT_EQ(Hex(SS.DataString()), Hex(Mem));

  for (int Path = 0; Path < 3; ++Path) {
    TContainer Back;
    TStringStream In(Mem);
    TMemoryStream InMem;
    InMem.WriteBuffer(Mem.data(), static_cast<int64_t>(Mem.size()));
    InMem.SetPosition(0);
    TReadOnlyMemoryStream InView(Mem.data(), static_cast<int64_t>(Mem.size()));
    if (Path == 0) TBinaryStreamer(&In).LoadFromStream(&Back);
    if (Path == 1) TPlainBinary(&InMem).LoadFromStream(&Back);
    if (Path == 2) TBinaryStreamer(&InView).LoadFromStream(&Back);
    ASSERT_EQ(Back.Items->Count(), 3) << Path;
    EXPECT_EQ(static_cast<TItem*>(Back.Items->Items(2))->Value, 600) << Path;
    EXPECT_EQ(static_cast<TItem*>(Back.Items->Items(2))->Text.size(), 400u) << Path;
    EXPECT_EQ(Back.Lines->Strings(0), "l") << Path;
  }
  // Truncation fails the same way on every path.
  std::string Cut = Mem.substr(0, Mem.size() - 5);
  TStringStream CutS(Cut);
  TReadOnlyMemoryStream CutM(Cut.data(), static_cast<int64_t>(Cut.size()));
  TContainer B1, B2;
  EXPECT_EQ(ErrorOf([&] { TBinaryStreamer(&CutS).LoadFromStream(&B1); }),
            ErrorOf([&] { TBinaryStreamer(&CutM).LoadFromStream(&B2); }));
}
