// String lists: index errors, objects riding with their lines, comma and
// delimited text, name=value pairs, text and streams, sorting with
// duplicates and case, the bulk paths against the line-by-line ones, and
// change notifications.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "storage_test_util.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/TypInfo.h"

namespace vel::test_stringlists {
namespace {

using storage_test::ErrorOf;
using storage_test::Lines;
using V = std::vector<std::string>;

void Fill(TStrings& L, const V& Values) {
  for (const std::string& S : Values) L.Add(S);
}

// The message of the EStringListError Body raises.
template <class F>
std::string MessageOf(F&& Body) {
  const std::string E = ErrorOf(Body);
  return E.rfind("EStringListError: ", 0) == 0 ? E.substr(18) : E;
}

V CommaSplit(const std::string& Text) {
  TStringList L;
  L.SetCommaText(Text);
  return Lines(L);
}

std::string CommaJoin(const V& Values) {
  TStringList L;
  Fill(L, Values);
  return L.CommaText();
}

// Counts OnChanging/OnChange and what the list held at each call.
class TWatcher : public TObject {
 public:
  int Changing = 0, Changed = 0;
  std::vector<int> CountAtChanging, CountAtChanged;
  bool FailChanging = false;
  void OnChanging(TObject* Sender) {
    if (FailChanging) throw EAbort("refused");
    ++Changing;
    CountAtChanging.push_back(static_cast<TStrings*>(Sender)->Count());
  }
  void OnChange(TObject* Sender) {
    ++Changed;
    CountAtChanged.push_back(static_cast<TStrings*>(Sender)->Count());
  }
  void Attach(TStringList& L) {
    L.OnChanging = TNotifyEvent::Bind<&TWatcher::OnChanging>(this);
    L.OnChange = TNotifyEvent::Bind<&TWatcher::OnChange>(this);
  }
};

class TMarker : public TObject {
 public:
  static inline int Destroyed = 0;
  ~TMarker() override { ++Destroyed; }
};

// The smallest TStrings: lines only, no objects, to check the defaults of
// the base class.
class TPlainStrings : public TStrings {
 public:
  V Data;
  std::string Get(int Index) const override { return Data.at(static_cast<size_t>(Index)); }
  int GetCount() const override { return static_cast<int>(Data.size()); }
  void Insert(int Index, const std::string& S) override { Data.insert(Data.begin() + Index, S); }
  void Delete(int Index) override { Data.erase(Data.begin() + Index); }
  void Clear() override { Data.clear(); }
};

TEST(TStringListTest, IndexErrorsCarryTheRuntimeMessages) {
  TStringList L;
  Fill(L, {"a", "b"});
  EXPECT_EQ(MessageOf([&] { L.Get(2); }), "List index out of bounds (2)");
  EXPECT_EQ(MessageOf([&] { L.Strings(-1); }), "List index out of bounds (-1)");
  EXPECT_EQ(MessageOf([&] { L.Objects(5); }), "List index out of bounds (5)");
  EXPECT_EQ(MessageOf([&] { L.SetStrings(2, "x"); }), "List index out of bounds (2)");
  EXPECT_EQ(MessageOf([&] { L.SetObjects(-3, nullptr); }), "List index out of bounds (-3)");
  EXPECT_EQ(MessageOf([&] { L.Delete(2); }), "List index out of bounds (2)");
  EXPECT_EQ(MessageOf([&] { L.Insert(3, "x"); }), "List index out of bounds (3)");
  EXPECT_EQ(MessageOf([&] { L.Exchange(0, 2); }), "List index out of bounds (2)");
  EXPECT_EQ(MessageOf([&] { L.Move(0, 2); }), "List index out of bounds (2)");
  EXPECT_EQ(MessageOf([&] { L.Move(4, 0); }), "List index out of bounds (4)");
  EXPECT_EQ(MessageOf([&] { L.SetCapacity(1); }), "List capacity out of bounds (1)");
  EXPECT_EQ(Lines(L), (V{"a", "b"}));
  EXPECT_EQ(ErrorOf([&] { L.Get(9); }), "EStringListError: List index out of bounds (9)");
}

// Objects move with their lines and are never freed by the list.
TEST(TStringListTest, EditingKeepsObjectsWithTheirLines) {
  TMarker::Destroyed = 0;
  TMarker A, B, C;
  {
    TStringList L;
    L.AddObject("a", &A);
    L.AddObject("b", &B);
    L.Add("c");
    L.InsertObject(1, "x", &C);
    L.Move(0, 3);
    L.Move(3, 1);
    L.Exchange(0, 3);
    L.SetStrings(0, "y");
    EXPECT_EQ(Lines(L), (V{"y", "a", "b", "x"}));
    EXPECT_EQ(L.Objects(0), nullptr);
    EXPECT_EQ(L.Objects(1), &A);
    EXPECT_EQ(L.IndexOfObject(&C), 3);

    // Adding a list to itself doubles it, objects included.
    L.AddStrings(&L);
    EXPECT_EQ(Lines(L), (V{"y", "a", "b", "x", "y", "a", "b", "x"}));
    EXPECT_EQ(L.Objects(6), &B);

    // Equals compares lines exactly and ignores objects.
    TStringList M;
    Fill(M, Lines(L));
    EXPECT_TRUE(L.Equals(&M));
    M.SetStrings(0, "Y");
    EXPECT_FALSE(L.Equals(&M));
    L.SetObjects(1, &B);
    L.Delete(2);
    L.Clear();
    L.AddObject("z", &C);
  }
  EXPECT_EQ(TMarker::Destroyed, 0);
}

TEST(TStringListTest, AssignCopiesLinesObjectsAndSettings) {
  TMarker A;
  TStringList Src;
  Src.AddObject("one", &A);
  Src.Add("two");
  Src.SetDelimiter(';');
  Src.SetQuoteChar('\'');
  Src.SetNameValueSeparator(':');
  Src.SetLineBreak("\n");
  TStringList Dst;
  Fill(Dst, {"old"});
  TWatcher W;
  W.Attach(Dst);
  Dst.Assign(&Src);
  EXPECT_EQ(Lines(Dst), (V{"one", "two"}));
  EXPECT_EQ(Dst.Objects(0), &A);
  EXPECT_EQ(Dst.Delimiter(), ';');
  EXPECT_EQ(Dst.QuoteChar(), '\'');
  EXPECT_EQ(Dst.NameValueSeparator(), ':');
  EXPECT_EQ(Dst.Text(), "one\ntwo\n");
  EXPECT_EQ(W.Changing, 1);
  EXPECT_EQ(W.Changed, 1);

  Dst.Assign(&Dst);  // no change
  EXPECT_EQ(Lines(Dst), (V{"one", "two"}));
  // Sources that are not string lists go to TPersistent, which refuses.
  EXPECT_THROW(Dst.Assign(nullptr), EConvertError);
}

TEST(TStringsTest, BaseClassDefaultsWorkThroughGetInsertDelete) {
  TPlainStrings L;
  Fill(L, {"b", "c", "A"});
  EXPECT_EQ(L.IndexOf("a"), 2);  // case-insensitive
  EXPECT_EQ(L.IndexOf("z"), -1);
  L.Exchange(0, 2);
  EXPECT_EQ(L.Data, (V{"A", "c", "b"}));
  L.Move(2, 0);
  EXPECT_EQ(L.Data, (V{"b", "A", "c"}));
  L.SetStrings(1, "x");  // Put = Delete + InsertObject
  EXPECT_EQ(L.Data, (V{"b", "x", "c"}));
  EXPECT_EQ(L.AddObject("o", &L), 3);
  EXPECT_EQ(L.Objects(3), nullptr);  // no object storage
  EXPECT_EQ(L.Capacity(), 4);
  EXPECT_THROW(L.Move(0, 4), EStringListError);
  EXPECT_EQ(L.Data, (V{"b", "x", "c", "o"}));
}

// Joining quotes only where needed (bytes above 0x7F are ordinary
// characters; blanks, controls and NUL force quotes); parsing takes what
// hands write too ("a, " ends without an empty item, text after a closing
// quote is a new item); any joined list parses back to itself.
TEST(TStringsTest, CommaText) {
  const std::pair<V, std::string> Joins[] = {
      {{}, ""},
      {{""}, "\"\""},
      {{"", ""}, ","},
      {{"a", "", "b"}, "a,,b"},
      {{"a", ""}, "a,"},
      {{"plain", "two words", "x,y", "say \"hi\"", "tab\there"},
       "plain,\"two words\",\"x,y\",\"say \"\"hi\"\"\",\"tab\there\""},
      {{"\"", " "}, "\"\"\"\",\" \""},
      {{"caf\xE9", "\xA0"}, "caf\xE9,\xA0"},
      {{std::string("a\0b", 3), "\x01"}, std::string("\"a\0b\",\"\x01\"", 9)}};
  for (const auto& [List, Text] : Joins) EXPECT_EQ(CommaJoin(List), Text);
  const std::pair<std::string, V> Splits[] = {{"", {}},
                                              {"  \t ", {}},
                                              {"a b,c", {"a", "b", "c"}},
                                              {"\"a b\",c", {"a b", "c"}},
                                              {"  a ,  b  ", {"a", "b"}},
                                              {"a,,b", {"a", "", "b"}},
                                              {"a,  ,b", {"a", "", "b"}},
                                              {",a", {"", "a"}},
                                              {"a,", {"a", ""}},
                                              {"a, ", {"a"}},
                                              {",", {"", ""}},
                                              {"\"\"", {""}},
                                              {"\"a\"\"b\",\"\"\"\"", {"a\"b", "\""}},
                                              {"\"a\"b,c", {"a", "b", "c"}},
                                              {"\"a,b\" , \"c\"", {"a,b", "c"}},
                                              {"\"unterminated, text", {"unterminated, text"}},
                                              {"a\r\nb", {"a", "b"}},
                                              {"x\xE9y,z", {"x\xE9y", "z"}}};
  for (const auto& [Text, List] : Splits) {
    EXPECT_EQ(CommaSplit(Text), List) << Text;
  }

  // Random lists over an alphabet rich in the characters that matter.
  const std::string Alphabet = std::string("ab ,\"\t;'\xE9", 9) + std::string(1, '\0');
  std::mt19937 Rng(11);
  for (int Round = 0; Round < 2000; ++Round) {
    V Items(Rng() % 5);
    for (std::string& S : Items) {
      for (size_t I = Rng() % 4; I > 0; --I) S += Alphabet[Rng() % Alphabet.size()];
    }
    ASSERT_EQ(CommaSplit(CommaJoin(Items)), Items) << "text: " << CommaJoin(Items);
  }
}

TEST(TStringsTest, DelimitedTextWithOtherDelimiters) {
  TStringList L;
  L.SetDelimiter(';');
  L.SetQuoteChar('\'');
  Fill(L, {"a;b", "x,y", "it's", "c d", ""});
  EXPECT_EQ(L.DelimitedText(), "'a;b';x,y;'it''s';'c d';");
  // CommaText keeps to ',' and '"' whatever the settings.
  EXPECT_EQ(L.CommaText(), "a;b,\"x,y\",it's,\"c d\",");
  EXPECT_EQ(L.Delimiter(), ';');

  L.SetDelimitedText("'a;b';x,y;'it''s';'c d';");
  EXPECT_EQ(Lines(L), (V{"a;b", "x,y", "it's", "c d", ""}));
  L.SetDelimitedText("p q;r\"s\"");  // blanks still separate; '"' is ordinary here
  EXPECT_EQ(Lines(L), (V{"p", "q", "r\"s\""}));

  // A blank as delimiter: runs of blanks are one separator, no empty items.
  L.SetDelimiter(' ');
  L.SetDelimitedText("  one   two 'three four' ");
  EXPECT_EQ(Lines(L), (V{"one", "two", "three four"}));
  EXPECT_EQ(L.DelimitedText(), "one two 'three four'");
  L.SetDelimiter('\t');
  L.SetDelimitedText("a\t\tb");
  EXPECT_EQ(Lines(L), (V{"a", "b"}));

  L.SetDelimiter('|');
  L.SetQuoteChar('"');
  L.SetDelimitedText("|x||");
  EXPECT_EQ(Lines(L), (V{"", "x", "", ""}));
  EXPECT_EQ(L.DelimitedText(), "|x||");
}

// ---------------------------------------------------------------------------
// Name=value pairs

TEST(TStringsTest, NamesAndValues) {
  TStringList L;
  Fill(L, {"a=1", "Key=Two", "novalue", "d==x", "=anon", "a=second"});
  // Each line's name and value; Values gives the first match.
  V Names, Values, Found;
  for (int I = 0; I < L.Count(); ++I) {
    Names.push_back(L.Names(I));
    Values.push_back(L.ValueFromIndex(I));
  }
  EXPECT_EQ(Names, (V{"a", "Key", "", "d", "", "a"}));
  EXPECT_EQ(Values, (V{"1", "Two", "", "=x", "anon", "second"}));
  EXPECT_EQ(L.ValueFromIndex(-1), "");
  for (const char* N : {"KEY", "a", "d", "", "novalue", "missing"}) Found.push_back(L.Values(N));
  EXPECT_EQ(Found, (V{"Two", "1", "=x", "anon", "", ""}));
  EXPECT_EQ(L.IndexOfName("kEy"), 1);
  EXPECT_EQ(L.IndexOfName("novalue"), -1);

  L.SetValues("key", "3");  // replaced in place, with the given spelling
  EXPECT_EQ(L[1], "key=3");
  L.SetValues("new", "v");
  EXPECT_EQ(L[L.Count() - 1], "new=v");
  L.SetValues("A", "");  // deletes the first "a" line
  EXPECT_EQ(Lines(L), (V{"key=3", "novalue", "d==x", "=anon", "a=second", "new=v"}));
  L.SetValues("absent", "");  // nothing to delete
  EXPECT_EQ(L.Count(), 6);
  L.SetValueFromIndex(2, "y");
  EXPECT_EQ(L[2], "d=y");
  L.SetValueFromIndex(0, "");
  EXPECT_EQ(L[0], "novalue");

  L.SetNameValueSeparator(':');
  L.Clear();
  Fill(L, {"host:example", "a=b"});
  EXPECT_EQ(L.Values("HOST"), "example");
  EXPECT_EQ(L.Values("a"), "");

  // A sorted list places a new pair; replacing one in place is refused.
  TStringList S;
  S.SetSorted(true);
  Fill(S, {"m=1", "z=2"});
  S.SetValues("a", "0");
  EXPECT_EQ(Lines(S), (V{"a=0", "m=1", "z=2"}));
  EXPECT_EQ(MessageOf([&] { S.SetValues("m", "9"); }),
            "Operation not allowed on sorted string list");
  EXPECT_EQ(Lines(S), (V{"a=0", "m=1", "z=2"}));
}

// ---------------------------------------------------------------------------
// Text, streams and files

TEST(TStringsTest, TextJoinsWithLineBreakAndSplitsOnCrLf) {
  TStringList L;
  EXPECT_EQ(L.Text(), "");
  Fill(L, {"a", "", "b"});
  EXPECT_EQ(L.Text(), "a\r\n\r\nb\r\n");
  L.SetLineBreak("\n");
  EXPECT_EQ(L.Text(), "a\n\nb\n");

  const std::pair<std::string, V> Splits[] = {
      {"", {}},
      {"one", {"one"}},
      {"a\r\nb\nc\rd", {"a", "b", "c", "d"}},
      {"a\r\n", {"a"}},
      {"\r\n", {""}},
      {"a\n\n", {"a", ""}},
      {"a\n\rb", {"a", "", "b"}},
      {"a\r\r\nb", {"a", "", "b"}},
      {std::string("x\0y\nz", 5), {std::string("x\0y", 3), "z"}}};
  for (const auto& [Text, List] : Splits) {
    L.SetText(Text);
    EXPECT_EQ(Lines(L), List) << Text;
  }
}

TEST(TStringsTest, StreamRoundTripIsByteExact) {
  TStringList L;
  Fill(L, {"first", "", "caf\xE9", "last"});
  TMemoryStream M;
  M.WriteBuffer("HDR", 3);
  L.SaveToStream(&M);
  ASSERT_EQ(M.GetSize(), 3 + 21);
  std::string Bytes(static_cast<const char*>(M.Memory()), static_cast<size_t>(M.GetSize()));
  EXPECT_EQ(Bytes, "HDRfirst\r\n\r\ncaf\xE9\r\nlast\r\n");

  // Loading reads from the position to the end and replaces the lines.
  TStringList R;
  Fill(R, {"stale"});
  M.SetPosition(3);
  R.LoadFromStream(&M);
  EXPECT_TRUE(R.Equals(&L));
  EXPECT_EQ(M.GetPosition(), M.GetSize());
  R.LoadFromStream(&M);  // nothing left
  EXPECT_EQ(R.Count(), 0);

  // Text written on Linux with bare LF, or with no final break, reads too.
  TStringStream Unix("x\ny\nz");
  R.LoadFromStream(&Unix);
  EXPECT_EQ(Lines(R), (V{"x", "y", "z"}));
}

class StringsFiles : public storage_test::ScratchDir {};

// Saving again replaces the file rather than appending to it; a failed load
// keeps the lines.
TEST_F(StringsFiles, FileRoundTrip) {
  TStringList L, R;
  for (int I = 0; I < 1000; ++I) L.Add("line " + std::to_string(I));
  L.SaveToFile(Path("list.txt"));
  R.LoadFromFile(Path("list.txt"));
  EXPECT_TRUE(R.Equals(&L));
  L.SetText("short");
  L.SaveToFile(Path("list.txt"));
  R.LoadFromFile(Path("list.txt"));
  EXPECT_EQ(Lines(R), (V{"short"}));
  EXPECT_THROW(R.LoadFromFile(Path("missing")), EFOpenError);
  EXPECT_EQ(Lines(R), (V{"short"}));
}

// ---------------------------------------------------------------------------
// Sorting, searching and duplicates

TEST(TStringListTest, SortedListsAndDuplicates) {
  TStringList L;
  Fill(L, {"pear", "Apple", "fig", "apple"});
  L.SetSorted(true);
  // Equal lines end in the order the runtime's quicksort leaves them.
  EXPECT_EQ(Lines(L), (V{"apple", "Apple", "fig", "pear"}));
  EXPECT_EQ(L.Add("banana"), 2);
  EXPECT_EQ(L.IndexOf("BANANA"), 2);
  EXPECT_EQ(L.IndexOf("cherry"), -1);
  int Index = -1;
  EXPECT_FALSE(L.Find("cherry", Index));
  EXPECT_EQ(Index, 3);

  // dupIgnore (the default): the existing index comes back, nothing added.
  EXPECT_EQ(L.Duplicates(), dupIgnore);
  EXPECT_EQ(L.Add("FIG"), 3);
  EXPECT_EQ(L.Count(), 5);
  // dupError: refused with the runtime's message, list unchanged.
  L.SetDuplicates(dupError);
  EXPECT_EQ(MessageOf([&] { L.Add("Pear"); }), "String list does not allow duplicates");
  EXPECT_EQ(L.Count(), 5);
  // dupAccept: a duplicate goes before its equals; Find gives the first.
  L.SetDuplicates(dupAccept);
  EXPECT_EQ(L.Add("PEAR"), 4);
  EXPECT_EQ(L.Add("Fig"), 3);
  EXPECT_TRUE(L.Find("fig", Index));
  EXPECT_EQ(Index, 3);
  EXPECT_EQ(Lines(L), (V{"apple", "Apple", "banana", "Fig", "fig", "PEAR", "pear"}));
  // Outside dupAccept the search stops at the first equal line it meets
  // (here the middle one), as the runtime's does.
  TStringList B;
  B.SetDuplicates(dupAccept);
  B.SetSorted(true);
  Fill(B, {"a", "b", "b", "b", "c"});
  B.SetDuplicates(dupIgnore);
  EXPECT_TRUE(B.Find("B", Index));
  EXPECT_EQ(Index, 2);
  EXPECT_EQ(B.Add("b"), 2);

  // Position-changing edits are refused and change nothing.
  const V Before = Lines(L);
  const std::string Refused = "Operation not allowed on sorted string list";
  EXPECT_EQ(MessageOf([&] { L.Insert(0, "z"); }), Refused);
  EXPECT_EQ(MessageOf([&] { L.InsertObject(0, "z", nullptr); }), Refused);
  EXPECT_EQ(MessageOf([&] { L.SetStrings(0, "z"); }), Refused);
  EXPECT_EQ(MessageOf([&] { L.Exchange(0, 1); }), Refused);
  EXPECT_EQ(MessageOf([&] { L.Move(0, 1); }), Refused);
  EXPECT_EQ(Lines(L), Before);
  // Objects may still be set, and lines deleted.
  TMarker M;
  L.SetObjects(0, &M);
  L.Delete(1);
  EXPECT_EQ(L.Objects(0), &M);

  // Unsorting allows editing again; sorting a sorted list does nothing.
  L.SetSorted(false);
  L.Insert(0, "zz");
  L.Sort();
  EXPECT_EQ(L[6], "zz");
}

TEST(TStringListTest, CaseSensitivity) {
  TStringList L;
  Fill(L, {"b", "B", "a", "A", "_x", "\xC9t\xE9", "\xE9t\xE9"});
  EXPECT_EQ(L.IndexOf("\xC9T\xC9"), 5);  // accented letters fold too
  EXPECT_EQ(L.IndexOf("a"), 2);
  L.SetCaseSensitive(true);
  EXPECT_EQ(L.IndexOf("A"), 3);
  EXPECT_EQ(L.IndexOf("\xC9T\xC9"), -1);
  L.SetSorted(true);
  EXPECT_EQ(Lines(L), (V{"_x", "a", "A", "b", "B", "\xE9t\xE9", "\xC9t\xE9"}));
  EXPECT_EQ(L.IndexOf("A"), 2);
  EXPECT_EQ(L.IndexOf("B"), 4);
  EXPECT_EQ(L.Add("a"), 1);  // dupIgnore: exact match only
  EXPECT_EQ(L.Add("Ab"), 3);
  EXPECT_EQ(L.Count(), 8);

  // Switching the comparison on a sorted list re-sorts it, so binary
  // search keeps finding every line.
  L.SetDuplicates(dupAccept);
  L.SetCaseSensitive(false);
  for (int I = 0; I < L.Count(); ++I) {
    int Found;
    ASSERT_TRUE(L.Find(L[I], Found)) << L[I];
    EXPECT_EQ(L.CompareStrings(L[Found], L[I]), 0);
  }
  L.SetCaseSensitive(true);
  EXPECT_EQ(Lines(L), (V{"_x", "a", "A", "Ab", "b", "B", "\xE9t\xE9", "\xC9t\xE9"}));
}

TEST(TStringListTest, CustomSortUsesTheRuntimeQuicksort) {
  // Compared by the first character only: the runtime's quicksort turns
  // 2a 1a 2b 1b into 1b 1a 2a 2b.
  TStringList L;
  Fill(L, {"2a", "1a", "2b", "1b"});
  TWatcher W;
  W.Attach(L);
  L.CustomSort([](TStringList* List, int I, int J) {
    return static_cast<int>((*List)[I][0]) - static_cast<int>((*List)[J][0]);
  });
  EXPECT_EQ(Lines(L), (V{"1b", "1a", "2a", "2b"}));
  EXPECT_EQ(W.Changing, 1);
  EXPECT_EQ(W.Changed, 1);

  // A comparison that deletes lines while sorting is stopped, not followed
  // into freed memory.
  TStringList D;
  for (int I = 0; I < 50; ++I) D.Add(std::to_string(I));
  EXPECT_THROW(D.CustomSort([](TStringList* List, int, int) {
    if (List->Count() > 10) List->Delete(List->Count() - 1);
    return -1;
  }),
               EStringListError);
}

// A subclass gets the line-by-line path of the bulk operations, a plain
// TStringList merges; both must end the same way.
class TLineByLineList : public TStringList {};

std::string RandomWord(std::mt19937& Rng, int MaxLen) {
  static const char Letters[] = {'a', 'A', 'b', '\xE9', '\xC9'};
  std::string W;
  // Lengths MaxLen/2..MaxLen: short words repeat often, long ones rarely.
  int Len = MaxLen / 2 + static_cast<int>(Rng() % static_cast<unsigned>(MaxLen - MaxLen / 2 + 1));
  for (int I = 0; I < Len; ++I) W += Letters[Rng() % 5];
  return W;
}

TEST(TStringListTest, BulkAddsToSortedListsMatchAddingOneByOne) {
  static TMarker Marks[128];
  std::mt19937 Rng(21);
  int Raised = 0, DupErrorCompleted = 0;
  for (int Round = 0; Round < 900; ++Round) {
    const auto Mode = static_cast<TDuplicates>(Round % 3);
    const int MaxLen = 1 + Round % 12;
    TStringList Fast;
    TLineByLineList Slow;
    for (TStringList* L : {&Fast, static_cast<TStringList*>(&Slow)}) {
      L->SetCaseSensitive(Round / 3 % 2 == 1);
      L->SetDuplicates(dupAccept);
      L->SetSorted(true);
    }
    for (int I = static_cast<int>(Rng() % 10); I > 0; --I) {
      std::string W = RandomWord(Rng, MaxLen);
      Fast.AddObject(W, &Marks[I]);
      Slow.AddObject(W, &Marks[I]);
    }
    Fast.SetDuplicates(Mode);
    Slow.SetDuplicates(Mode);
    TStringList Src;
    for (int I = 16 + static_cast<int>(Rng() % 100); I > 0; --I)
      Src.AddObject(RandomWord(Rng, MaxLen), &Marks[10 + I]);

    const std::string FastError = MessageOf([&] { Fast.AddStrings(&Src); });
    ASSERT_EQ(FastError, MessageOf([&] { Slow.AddStrings(&Src); })) << "round " << Round;
    const bool FastRaised = FastError != "no error";
    if (FastRaised) {
      EXPECT_EQ(FastError, "String list does not allow duplicates");
    }
    ASSERT_EQ(Lines(Fast), Lines(Slow)) << "round " << Round;
    for (int I = 0; I < Fast.Count(); ++I) ASSERT_EQ(Fast.Objects(I), Slow.Objects(I));
    ASSERT_EQ(Fast.Capacity(), Slow.Capacity());
    if (FastRaised)
      ++Raised;
    else if (Mode == dupError)
      ++DupErrorCompleted;
  }
  // Both outcomes of dupError occurred.
  EXPECT_GT(Raised, 20);
  EXPECT_GT(DupErrorCompleted, 20);
}

// ---------------------------------------------------------------------------
// Change notifications

TEST(TStringListTest, ChangeEventsAroundEveryChange) {
  TStringList L;
  TWatcher W;
  W.Attach(L);
  L.Add("a");
  L.Add("b");
  EXPECT_EQ(W.CountAtChanging, (std::vector<int>{0, 1}));  // before the change
  EXPECT_EQ(W.CountAtChanged, (std::vector<int>{1, 2}));   // after it
  L.SetStrings(0, "c");
  L.SetObjects(0, nullptr);
  L.Exchange(0, 1);
  L.Move(0, 1);
  L.Delete(0);
  EXPECT_EQ(W.Changing, 7);
  EXPECT_EQ(W.Changed, 7);
  L.Clear();
  L.Clear();  // already empty: silent
  EXPECT_EQ(W.Changed, 8);

  // One pair for a whole update, however nested and however much changes.
  L.BeginUpdate();
  L.BeginUpdate();
  for (int I = 0; I < 10; ++I) L.Add(std::to_string(I));
  L.EndUpdate();
  EXPECT_EQ(W.Changed, 8);
  L.Delete(0);
  L.EndUpdate();
  EXPECT_EQ(W.Changing, 9);
  EXPECT_EQ(W.Changed, 9);
  EXPECT_EQ(W.CountAtChanged.back(), 9);
  L.EndUpdate();  // unmatched: ignored, events keep working
  L.Add("z");
  EXPECT_EQ(W.Changed, 10);

  // Bulk setters are one update each.
  L.SetText("a\nb\nc");
  L.SetCommaText("x,y");
  L.SetSorted(true);
  TStringList Other;
  Fill(Other, {"p", "q"});
  L.SetSorted(false);
  L.AddStrings(&Other);
  EXPECT_EQ(W.Changed, 14);
  EXPECT_EQ(W.Changing, 14);

  // A refusing OnChanging leaves the list alone.
  const V Before = Lines(L);
  W.FailChanging = true;
  EXPECT_THROW(L.Add("c"), EAbort);
  EXPECT_THROW(L.Delete(0), EAbort);
  EXPECT_THROW(L.Clear(), EAbort);
  EXPECT_THROW(L.SetText("x"), EAbort);
  W.FailChanging = false;
  EXPECT_EQ(Lines(L), Before);
  L.Add("c");  // the failed BeginUpdate inside SetText left no update open
  EXPECT_EQ(W.Changed, 15);
}

}  // namespace
}  // namespace vel::test_stringlists
