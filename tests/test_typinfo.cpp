// Published properties of every kind, read and written by name through the
// generic accessors; lists, defaults, stored specifiers, class references,
// published methods, message dispatch and the class registry.
#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "vel/rtl/Components.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace tinfo {

enum TShade : uint8_t { shLight, shMedium, shDark };
VEL_ENUM(TShade, "shLight", "shMedium", "shDark")
using TShades = TSet<TShade>;

struct TColorName {
  static constexpr const char* Name = "TColor";
};
using TColor = TNamedInteger<TColorName>;

class TSample : public TPersistent {
  VEL_CLASS(TSample, TPersistent)
 public:
  int32_t Int = 0;
  int8_t Small8 = 0;
  uint16_t Word16 = 0;
  uint32_t Card = 0;
  char Ch = 'a';
  char16_t WCh = u'a';
  TShade Shade = shLight;
  bool Flag = false;
  TShades Shades;
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
  TPersistent* Child = nullptr;
  TNotifyEvent OnPing;
  TColor Color = 0;
  bool KeepIt = true;

  int32_t GetComputed() const { return FComputed * 2; }
  void SetComputed(int32_t V) { FComputed = V; }
  bool StoreComputed() const { return FComputed != 7; }
  void Ping(TObject*) { ++Pings; }
  int Pings = 0;

 private:
  int32_t FComputed = 0;
};

}  // namespace tinfo

using namespace tinfo;

VEL_PUBLISHED(
    TSample, prop("Int", &TSample::Int).defaults(5), prop("Small8", &TSample::Small8),
    prop("Word16", &TSample::Word16), prop("Card", &TSample::Card), prop("Ch", &TSample::Ch),
    prop("WCh", &TSample::WCh), prop("Shade", &TSample::Shade).defaults(shMedium),
    prop("Flag", &TSample::Flag).defaults(false), prop("Shades", &TSample::Shades),
    prop("Sng", &TSample::Sng), prop("Dbl", &TSample::Dbl), prop("Ext", &TSample::Ext),
    prop("Cur", &TSample::Cur), prop("Cmp", &TSample::Cmp), prop("When", &TSample::When),
    prop("Short", &TSample::Short), prop("Long", &TSample::Long).stored(&TSample::KeepIt),
    prop("Wide", &TSample::Wide), prop("Big", &TSample::Big), prop("Var", &TSample::Var),
    prop("Child", &TSample::Child), prop("OnPing", &TSample::OnPing),
    prop("Color", &TSample::Color),
    prop("Computed", &TSample::GetComputed, &TSample::SetComputed).stored(&TSample::StoreComputed),
    prop("ReadOnly", &TSample::GetComputed).stored(false), method<&TSample::Ping>("Ping"))

namespace tinfo {
// A descendant adds a property and redeclares one with another default.
class TSampleEx : public TSample {
  VEL_CLASS(TSampleEx, TSample)
 public:
  int32_t Extra = 0;
};
// A class that publishes nothing of its own and has no published ancestor.
class TPlain : public TObject {
  VEL_CLASS(TPlain, TObject)
};
}  // namespace tinfo

VEL_PUBLISHED(TSampleEx, prop("Extra", &TSampleEx::Extra), prop("int", &TSampleEx::Int).defaults(9))
VEL_IMPLEMENT(TPlain)

// The link check that VEL_CLASS adds (an empty member) takes no storage:
// objects keep the size, and so the layout, they had without it.
static_assert(sizeof(tinfo::TPlain) == sizeof(TObject));
static_assert(sizeof(TPersistent) == sizeof(TObject));

TEST(TypeInfo, KindsOrdinalsAndTypeData) {
  // The ordinals are part of stream formats and bit masks.
  EXPECT_EQ(tkInteger, 1);
  EXPECT_EQ(tkMethod, 8);
  EXPECT_EQ(tkInt64, 16);
  EXPECT_EQ(tkDynArray, 17);
  TSample S;
  struct Want {
    const char* Name;
    TTypeKind Kind;
    const char* Type;
  } Table[] = {
      {"Int", tkInteger, "Integer"},
      {"Small8", tkInteger, "ShortInt"},
      {"Word16", tkInteger, "Word"},
      {"Card", tkInteger, "Cardinal"},
      {"Ch", tkChar, "Char"},
      {"WCh", tkWChar, "WideChar"},
      {"Shade", tkEnumeration, "TShade"},
      {"Flag", tkEnumeration, "Boolean"},
      {"Shades", tkSet, "set of TShade"},
      {"Sng", tkFloat, "Single"},
      {"Dbl", tkFloat, "Double"},
      {"Ext", tkFloat, "Extended"},
      {"Cur", tkFloat, "Currency"},
      {"Cmp", tkFloat, "Comp"},
      {"When", tkFloat, "TDateTime"},
      {"Short", tkString, "ShortString"},
      {"Long", tkLString, "AnsiString"},
      {"Wide", tkWString, "WideString"},
      {"Big", tkInt64, "Int64"},
      {"Var", tkVariant, "Variant"},
      {"Child", tkClass, "TPersistent"},
      {"OnPing", tkMethod, "TNotifyEvent"},
      {"Color", tkInteger, "TColor"},
  };
  for (const Want& W : Table) {
    PPropInfo P = GetPropInfo(&S, W.Name);
    ASSERT_NE(P, nullptr) << W.Name;
    EXPECT_EQ(P->Kind(), W.Kind) << W.Name;
    EXPECT_EQ(P->PropType->Name, W.Type) << W.Name;
  }
  for (auto [Name, Type] : {std::pair{"Sng", ftSingle},
                            {"Dbl", ftDouble},
                            {"Ext", ftExtended},
                            {"Cmp", ftComp},
                            {"Cur", ftCurr},
                            {"When", ftDouble}})
    EXPECT_EQ(GetTypeData(GetPropInfo(&S, Name)->PropType)->FloatType, Type) << Name;
  PTypeData Shade = GetTypeData(GetPropInfo(&S, "Shade")->PropType);
  EXPECT_EQ(Shade->MinValue, 0);
  EXPECT_EQ(Shade->MaxValue, 2);
  EXPECT_EQ(Shade->NameList.size(), 3u);
  EXPECT_NE(Shade->BaseType, TypeInfoBoolean());
  EXPECT_EQ(GetTypeData(GetPropInfo(&S, "Flag")->PropType)->BaseType, TypeInfoBoolean());
  EXPECT_EQ(GetTypeData(GetPropInfo(&S, "Shades")->PropType)->CompType->Name, "TShade");

  // Class type data: counts include inherited properties.
  EXPECT_EQ(GetTypeData(TSample::StaticClass()->ClassInfo())->PropCount, 25);
  EXPECT_EQ(GetTypeData(TSampleEx::StaticClass()->ClassInfo())->PropCount, 26);
  EXPECT_EQ(GetTypeData(TSampleEx::StaticClass()->ClassInfo())->ParentInfo,
            TSample::StaticClass()->ClassInfo());
}

TEST(TypeInfo, GetPropInfoIsCaseInsensitiveAndFiltersKinds) {
  TSample S;
  PPropInfo A = GetPropInfo(&S, "long");
  ASSERT_NE(A, nullptr);
  EXPECT_EQ(A->Name, "Long");
  EXPECT_EQ(GetPropInfo(&S, "LONG"), A);
  EXPECT_EQ(GetPropInfo(&S, "Long", TTypeKinds{tkLString}), A);
  EXPECT_EQ(GetPropInfo(&S, "Long", TTypeKinds{tkInteger, tkString}), nullptr);
  EXPECT_EQ(GetPropInfo(&S, "NoSuch"), nullptr);
  EXPECT_EQ(GetPropInfo(static_cast<TObject*>(nullptr), "Long"), nullptr);
  EXPECT_TRUE(IsPublishedProp(&S, "computed"));
  EXPECT_FALSE(IsPublishedProp(&S, "FComputed"));
  TPlain P;
  EXPECT_EQ(P.ClassInfo(), nullptr);
  EXPECT_EQ(GetPropInfo(&P, "Anything"), nullptr);
}

TEST(TypeInfo, PropListSortedWithInheritedAndRedeclared) {
  PTypeInfo Info = TSampleEx::StaticClass()->ClassInfo();
  std::vector<PPropInfo> All(GetTypeData(Info)->PropCount);
  int N = GetPropList(Info, tkAny, All.data());
  ASSERT_EQ(N, 26);
  for (int I = 1; I < N; ++I)
    EXPECT_LT(CompareText(All[I - 1]->Name, All[I]->Name), 0)
        << All[I - 1]->Name << " " << All[I]->Name;
  // The redeclared "Int" replaced the inherited one in place.
  PPropInfo Int = GetPropInfo(TSampleEx::StaticClass(), "Int");
  EXPECT_EQ(Int->Name, "int");
  EXPECT_EQ(Int->Default, 9);
  EXPECT_EQ(Int->NameIndex, GetPropInfo(TSample::StaticClass(), "Int")->NameIndex);
  EXPECT_EQ(GetPropInfo(TSample::StaticClass(), "Int")->Default, 5);

  // Declaration order, inherited first, when not sorted.
  auto Unsorted = GetPropList(Info, tkAny, false);
  EXPECT_EQ(Unsorted.front()->Name, "int");
  EXPECT_EQ(Unsorted.back()->Name, "Extra");

  // Filtered by kinds: the streamers' default mask leaves out events.
  TTypeKinds Mask = TTypeKinds::FromOrd(0x3FEFE);
  auto NoEvents = GetPropList(Info, Mask);
  EXPECT_EQ(NoEvents.size(), 25u);
  for (PPropInfo P : NoEvents) EXPECT_NE(P->Kind(), tkMethod);
  EXPECT_EQ(GetPropList(Info, TTypeKinds{tkFloat}).size(), 6u);

  // No published properties at all.
  EXPECT_EQ(GetPropList(TPersistent::StaticClass()->ClassInfo(), tkAny, nullptr), 0);
  EXPECT_EQ(GetPropList(nullptr, tkAny, nullptr), 0);
}

TEST(TypeInfo, ValueAccessors) {
  TSample S;
  // Ordinals: what is set is read back, through fields of every width.
  const struct {
    const char* Name;
    int32_t Set, Get;
  } Ordinals[] = {
      {"Int", -123456, -123456}, {"Small8", -5, -5},
      {"Card", -1, -1},  // 0xFFFFFFFF
      {"Ch", 'z', 'z'},          {"WCh", 0x20AC, 0x20AC},
      {"Shade", shDark, shDark}, {"Flag", 1, 1},
      {"Shades", 0b010, 0b010},  {"Color", 0xFF00FF, 0xFF00FF},
      {"Computed", 21, 42},  // through the getter/setter pair
  };
  for (const auto& O : Ordinals) {
    SetOrdProp(&S, O.Name, O.Set);
    EXPECT_EQ(GetOrdProp(&S, O.Name), O.Get) << O.Name;
  }
  EXPECT_EQ(S.Card, 0xFFFFFFFFu);
  EXPECT_EQ(S.WCh, u'\u20AC');
  EXPECT_EQ(S.Shades, TShades{shMedium});
  S.Shades = {shLight, shDark};
  EXPECT_EQ(GetOrdProp(&S, "Shades"), 0b101);

  // Floats keep their precision; currency is read and written as its value.
  const struct {
    const char* Name;
    Extended Value;
  } Floats[] = {{"Sng", 1.5L},     {"Dbl", Extended(0.1)}, {"Ext", 1.0L / 3.0L},
                {"Cur", 12.3456L}, {"Cmp", 1e15L},         {"When", 37806.5L}};
  for (const auto& F : Floats) {
    SetFloatProp(&S, F.Name, F.Value);
    EXPECT_EQ(GetFloatProp(&S, F.Name), F.Value) << F.Name;
  }
  EXPECT_EQ(S.Cur.Value, 123456);
  EXPECT_EQ(S.Cmp.Value, 1000000000000000LL);

  SetStrProp(&S, "Long", "hello");
  EXPECT_EQ(S.Long, "hello");
  SetStrProp(&S, "Short", std::string(300, 'x'));
  EXPECT_EQ(S.Short.size(), 255u);         // short strings hold at most 255 characters
  SetStrProp(&S, "Wide", "caf\xE9 \x80");  // Windows-1252 e-acute and euro
  EXPECT_EQ(S.Wide, u"caf\u00E9 \u20AC");
  EXPECT_EQ(GetStrProp(&S, "Wide"), "caf\xE9 \x80");
  S.Wide = u"\u4E2D";  // not in Windows-1252
  EXPECT_EQ(GetStrProp(&S, "Wide"), "?");
  EXPECT_EQ(GetWideStrProp(&S, GetPropInfo(&S, "Wide")), u"\u4E2D");

  SetInt64Prop(&S, GetPropInfo(&S, "Big"), INT64_MIN);
  EXPECT_EQ(GetInt64Prop(&S, GetPropInfo(&S, "Big")), INT64_MIN);
  SetVariantProp(&S, GetPropInfo(&S, "Var"), Variant(std::string("v")));
  EXPECT_EQ(VarType(S.Var), varString);
  EXPECT_EQ(GetVariantProp(&S, GetPropInfo(&S, "Var")).AsString(), "v");

  // Values as variants: names of enumerations and sets, numbers from text.
  SetPropValue(&S, "Shade", Variant(std::string("shMedium")));
  EXPECT_EQ(GetPropValue(&S, "Shade").AsString(), "shMedium");
  SetPropValue(&S, "Int", Variant(std::string("77")));
  EXPECT_EQ(S.Int, 77);
  SetPropValue(&S, "Cur", Variant(Currency::FromScaled(15)));
  EXPECT_EQ(S.Cur.Value, 15);
  SetPropValue(&S, "Shades", Variant(std::string("[shLight]")));
  EXPECT_EQ(S.Shades, TShades{shLight});
  EXPECT_EQ(VarType(GetPropValue(&S, "When")), varDate);
  EXPECT_EQ(VarType(GetPropValue(&S, "Flag")), varBoolean);
}

TEST(TypeInfo, ObjectAndMethodAccessors) {
  TSample S;
  TPersistent Child;
  PPropInfo P = GetPropInfo(&S, "Child");
  EXPECT_EQ(GetObjectProp(&S, P), nullptr);
  SetObjectProp(&S, P, &Child);
  EXPECT_EQ(S.Child, &Child);
  EXPECT_EQ(GetObjectProp(&S, P), &Child);
  EXPECT_EQ(GetObjectProp(&S, P, TPersistent::StaticClass()), &Child);
  EXPECT_EQ(GetObjectProp(&S, P, TComponent::StaticClass()), nullptr);  // not of the minimum class
  TObject NotPersistent;
  EXPECT_THROW(SetObjectProp(&S, P, &NotPersistent), EPropertyError);

  // Methods: published code addresses, bound to an object.
  void* Code = S.MethodAddress("ping");
  ASSERT_NE(Code, nullptr);
  EXPECT_EQ(Code, MethodCode<&TSample::Ping>());
  EXPECT_EQ(S.MethodName(Code), "Ping");
  EXPECT_EQ(S.MethodAddress("Pong"), nullptr);
  EXPECT_EQ(S.MethodName(nullptr), "");
  TSample Target;
  SetMethodProp(&S, GetPropInfo(&S, "OnPing"), TMethod{Code, static_cast<TObject*>(&Target)});
  ASSERT_TRUE(S.OnPing.Assigned());
  S.OnPing(&S);
  EXPECT_EQ(Target.Pings, 1);
  TMethod M = GetMethodProp(&S, GetPropInfo(&S, "OnPing"));
  EXPECT_EQ(M.Code, Code);
  EXPECT_EQ(M.Data, static_cast<void*>(static_cast<TObject*>(&Target)));
  S.OnPing = TNotifyEvent::Bind<&TSample::Ping>(&S);
  S.OnPing(nullptr);
  EXPECT_EQ(S.Pings, 1);
}

TEST(TypeInfo, WrongChannelAndReadOnlyRaise) {
  TSample S;
  const struct {
    std::function<void()> Call;
    const char* Message;
  } Cases[] = {
      {[&] { GetOrdProp(&S, "Long"); }, "Invalid property type: AnsiString"},
      {[&] { GetStrProp(&S, "Int"); }, "Invalid property type: Integer"},
      {[&] { GetFloatProp(&S, "Big"); }, "Invalid property type: Int64"},
      {[&] { SetOrdProp(&S, "ReadOnly", 1); }, "Property is read-only"},
      {[&] { GetOrdProp(&S, "Missing"); }, "Property Missing does not exist"},
  };
  for (const auto& C : Cases) {
    try {
      C.Call();
      ADD_FAILURE() << "no exception: " << C.Message;
    } catch (const EPropertyError& E) {
      EXPECT_STREQ(E.what(), C.Message);
    }
  }
}

TEST(TypeInfo, DefaultsAndStoredSpecifiers) {
  TSample S;
  PPropInfo Int = GetPropInfo(&S, "Int");
  PPropInfo Small = GetPropInfo(&S, "Small8");
  EXPECT_EQ(Int->Default, 5);
  EXPECT_EQ(Small->Default, NoDefault);
  EXPECT_EQ(NoDefault, INT32_MIN);
  EXPECT_EQ(GetPropInfo(&S, "Shade")->Default, shMedium);
  EXPECT_EQ(GetPropInfo(&S, "Flag")->Default, 0);
  // Ordinals are default at their declared default; without one only the
  // marker value itself counts. Floats, strings, int64 and variants are
  // default when zero or empty, whatever was declared; other kinds never.
  auto IsDefault = [&](const char* Name) { return IsDefaultPropValue(&S, GetPropInfo(&S, Name)); };
  for (const char* Name : {"Small8", "Wide", "Shades", "Ch"}) EXPECT_FALSE(IsDefault(Name)) << Name;
  for (const char* Name : {"Dbl", "Long", "Short", "Big", "Var"})
    EXPECT_TRUE(IsDefault(Name)) << Name;
  for (int32_t V : {0, INT32_MIN}) {
    S.Int = V;
    EXPECT_FALSE(IsDefault("Int")) << V;
  }
  S.Int = 5;
  EXPECT_TRUE(IsDefault("Int"));
  S.Dbl = -0.0;
  EXPECT_TRUE(IsDefault("Dbl"));
  S.Var = Variant::Null();
  EXPECT_FALSE(IsDefault("Var"));

  // Stored: constant, field and method.
  EXPECT_FALSE(IsStoredProp(&S, "ReadOnly"));
  EXPECT_TRUE(IsStoredProp(&S, "Int"));
  EXPECT_EQ(GetPropInfo(&S, "ReadOnly")->StoredProc.Kind, skConstant);
  EXPECT_EQ(GetPropInfo(&S, "Long")->StoredProc.Kind, skField);
  EXPECT_EQ(GetPropInfo(&S, "Computed")->StoredProc.Kind, skMethod);
  EXPECT_TRUE(IsStoredProp(&S, "Long"));
  S.KeepIt = false;
  EXPECT_FALSE(IsStoredProp(&S, "Long"));
  SetOrdProp(&S, "Computed", 7);
  EXPECT_FALSE(IsStoredProp(&S, "Computed"));
  SetOrdProp(&S, "Computed", 8);
  EXPECT_TRUE(IsStoredProp(&S, "Computed"));
}

TEST(TypeInfo, EnumAndSetNames) {
  PTypeInfo Shade = TypeInfoOf<TShade>();
  EXPECT_EQ(GetEnumName(Shade, 1), "shMedium");
  EXPECT_EQ(GetEnumName(Shade, 3), "");
  EXPECT_EQ(GetEnumName(Shade, -1), "");
  EXPECT_EQ(GetEnumValue(Shade, "SHDARK"), 2);
  EXPECT_EQ(GetEnumValue(Shade, "shBright"), -1);
  EXPECT_EQ(GetEnumName(TypeInfoBoolean(), 1), "True");
  EXPECT_EQ(GetEnumValue(TypeInfoBoolean(), "false"), 0);
  EXPECT_EQ(GetEnumName(TypeInfoInteger(), -42), "-42");

  TSample S;
  PPropInfo P = GetPropInfo(&S, "Shades");
  S.Shades = {shLight, shDark};
  EXPECT_EQ(GetSetProp(&S, P), "shLight,shDark");
  EXPECT_EQ(GetSetProp(&S, P, true), "[shLight,shDark]");
  S.Shades = {};
  EXPECT_EQ(GetSetProp(&S, P, true), "[]");
  SetSetProp(&S, P, "[ shMedium , shdark ]");
  EXPECT_EQ(S.Shades, (TShades{shMedium, shDark}));
  EXPECT_THROW(SetSetProp(&S, P, "[shMedium,shNone]"), EPropertyConvertError);
}

TEST(ClassReferences, NamesParentsAndConstruction) {
  TClass C = TSampleEx::StaticClass();
  EXPECT_EQ(C->ClassName(), "TSampleEx");  // the namespace is not part of the name
  EXPECT_EQ(C->ClassParent(), TSample::StaticClass());
  EXPECT_TRUE(C->InheritsFrom(TPersistent::StaticClass()));
  EXPECT_TRUE(C->InheritsFrom(TObject::StaticClass()));
  EXPECT_FALSE(TSample::StaticClass()->InheritsFrom(C));
  EXPECT_EQ(TObject::StaticClass()->ClassParent(), nullptr);
  EXPECT_TRUE(C->ClassNameIs("tsampleex"));
  EXPECT_EQ(TObject::StaticClass()->ClassInfo(), nullptr);
  EXPECT_NE(TPersistent::StaticClass()->ClassInfo(), nullptr);

  // The plain constructor through the class reference.
  TObject* O = C->Create();
  EXPECT_EQ(O->ClassType(), C);
  EXPECT_EQ(O->ClassName(), "TSampleEx");
  delete O;

  // The virtual component constructor gets the owner.
  TComponent Owner;
  TObject* Comp = TComponent::StaticClass()->CreateWith(&Owner);
  EXPECT_EQ(static_cast<TComponent*>(Comp)->Owner(), &Owner);
  EXPECT_EQ(Owner.ComponentCount(), 1);
}

TEST(ClassReferences, RegistryLookupsAndErrors) {
  EXPECT_EQ(GetClass("TSample"), nullptr);
  RegisterClasses({TSample::StaticClass(), TSampleEx::StaticClass()});
  EXPECT_EQ(GetClass("tsample"), TSample::StaticClass());
  EXPECT_EQ(FindClass("TSampleEx"), TSampleEx::StaticClass());
  RegisterClass(TSample::StaticClass());  // the same class again is fine
  UnRegisterClass(TSampleEx::StaticClass());
  EXPECT_EQ(GetClass("TSampleEx"), nullptr);
  try {
    FindClass("TSampleEx");
    FAIL() << "no exception";
  } catch (const EClassNotFound& E) {
    EXPECT_STREQ(E.what(), "Class TSampleEx not found");
  }
  UnRegisterClass(TSample::StaticClass());
}

namespace tinfo {
// Classes that refer to themselves and to each other through published
// object properties build without deadlock.
class TNode;
class TPeer : public TPersistent {
  VEL_CLASS(TPeer, TPersistent)
 public:
  TNode* Node = nullptr;
};
class TNode : public TPersistent {
  VEL_CLASS(TNode, TPersistent)
 public:
  TNode* Next = nullptr;
  TPeer* Peer = nullptr;
};
}  // namespace tinfo
VEL_PUBLISHED(TPeer, prop("Node", &TPeer::Node))
VEL_PUBLISHED(TNode, prop("Next", &TNode::Next), prop("Peer", &TNode::Peer))

TEST(ClassReferences, SelfAndMutualReferencesBuildConcurrently) {
  TClass A = nullptr, B = nullptr;
  std::thread T1([&] { A = TNode::StaticClass(); });
  std::thread T2([&] { B = TPeer::StaticClass(); });
  T1.join();
  T2.join();
  EXPECT_EQ(GetPropInfo(A, "Next")->PropType, A->TypeInfo);
  EXPECT_EQ(GetPropInfo(A, "Peer")->PropType, B->TypeInfo);
  EXPECT_EQ(GetPropInfo(B, "Node")->PropType, A->TypeInfo);
}

namespace tinfo {
struct TTestMsg {
  uint32_t Msg;
  int32_t Value;
  int32_t Result;
};
class TReceiver : public TObject {
  VEL_CLASS(TReceiver, TObject)
 public:
  void OnTen(TTestMsg& M) { M.Result = M.Value * 10; }
  void DefaultHandler(void* Message) override { static_cast<TTestMsg*>(Message)->Result = -1; }
};
class TReceiver2 : public TReceiver {
  VEL_CLASS(TReceiver2, TReceiver)
 public:
  void OnTwenty(TTestMsg& M) { M.Result = M.Value * 20; }
  void OnTenAgain(TTestMsg& M) { M.Result = M.Value + 1; }
};
}  // namespace tinfo
VEL_IMPLEMENT(TReceiver, message<&TReceiver::OnTen>(10))
VEL_IMPLEMENT(TReceiver2, message<&TReceiver2::OnTwenty>(20), message<&TReceiver2::OnTenAgain>(10))

TEST(ClassReferences, DispatchByMessageNumber) {
  TReceiver R;
  TTestMsg M{10, 4, 0};
  R.Dispatch(&M);
  EXPECT_EQ(M.Result, 40);
  M = {20, 4, 0};
  R.Dispatch(&M);
  EXPECT_EQ(M.Result, -1);  // no handler: DefaultHandler
  TReceiver2 R2;
  M = {20, 4, 0};
  R2.Dispatch(&M);
  EXPECT_EQ(M.Result, 80);
  M = {10, 4, 0};
  R2.Dispatch(&M);  // the descendant's handler overrides the ancestor's
  EXPECT_EQ(M.Result, 5);
  M = {99, 4, 0};
  R2.Dispatch(&M);
  EXPECT_EQ(M.Result, -1);
  EXPECT_EQ(R2.ClassInfo(), nullptr);  // handlers alone publish nothing
}
