#include "vel/rtl/StringLists.h"

#include <algorithm>
#include <typeinfo>
#include <utility>

#include "vel/rtl/Filer.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

namespace {
constexpr const char* SListIndexError = "List index out of bounds (%d)";
constexpr const char* SListCapacityError = "List capacity out of bounds (%d)";
constexpr const char* SDuplicateString = "String list does not allow duplicates";
constexpr const char* SSortedListError = "Operation not allowed on sorted string list";

// Replaces the %d of a list message (if any) with Data.
std::string FormatListMessage(const char* Msg, int Data) {
  std::string S(Msg);
  size_t P = S.find("%d");
  if (P != std::string::npos) S.replace(P, 2, std::to_string(Data));
  return S;
}

// Characters that end an unquoted item of delimited text and are skipped
// between items: the control characters and the blank. The runtime stops
// reading at a NUL; here a NUL is data inside quotes and a separator
// outside, so no text is dropped and the parse always advances.
inline bool IsBlank(char C) { return static_cast<unsigned char>(C) <= ' '; }

// Runs Body between BeginUpdate and EndUpdate, ending the update also when
// Body raises (an exception of EndUpdate itself then takes its place, as in
// the runtime's try/finally).
template <class F>
void WithUpdate(TStrings* S, F&& Body) {
  S->BeginUpdate();
  try {
    Body();
  } catch (...) {
    S->EndUpdate();
    throw;
  }
  S->EndUpdate();
}

// Case-sensitive order: the case-insensitive order first; where the texts
// differ only in case, the first differing letter decides, lower case
// first. In Windows-1252 the upper-case form of every letter pair has the
// smaller code (A/a, À/à, Š/š, Œ/œ, Ž/ž, Ÿ/ÿ), so the larger byte is the
// lower-case one.
int AnsiCompareStrOrdered(std::string_view A, std::string_view B) {
  int R = AnsiCompareText(A, B);
  if (R != 0) return R < 0 ? -1 : 1;
  for (size_t I = 0; I < A.size(); ++I) {
    unsigned char X = static_cast<unsigned char>(A[I]);
    unsigned char Y = static_cast<unsigned char>(B[I]);
    if (X != Y) return X > Y ? -1 : 1;
  }
  return 0;
}
}  // namespace

VEL_IMPLEMENT(TStrings)
VEL_IMPLEMENT(TStringList)

void TStrings::DefineProperties(TFiler* Filer) {
  bool HasData;
  if (auto* A = dynamic_cast<TStrings*>(Filer->Ancestor())) HasData = !Equals(A);
  else HasData = Count() > 0;
  Filer->DefineProperty(
      "Strings",
      [this](TReader* Reader) {
        Reader->ReadListBegin();
        WithUpdate(this, [&] {
          Clear();
          while (!Reader->EndOfList()) Add(Reader->ReadString());
        });
        Reader->ReadListEnd();
      },
      [this](TWriter* Writer) {
        Writer->WriteListBegin();
        for (int I = 0; I < Count(); ++I) Writer->WriteString(Get(I));
        Writer->WriteListEnd();
      },
      HasData);
}

// ---------------------------------------------------------------------------
// TStrings

TStrings::~TStrings() = default;

void TStrings::Error(const char* Msg, int Data) {
  throw EStringListError(FormatListMessage(Msg, Data));
}

int TStrings::Add(const std::string& S) {
  int Result = GetCount();
  Insert(Result, S);
  return Result;
}

int TStrings::AddObject(const std::string& S, TObject* AObject) {
  int Result = Add(S);
  PutObject(Result, AObject);
  return Result;
}

void TStrings::AddStrings(TStrings* Strings) {
  if (!Strings) return;
  WithUpdate(this, [&] {
    // Taken as a snapshot, so adding a list to itself doubles it.
    const int N = Strings->GetCount();
    std::vector<TStringItem> Lines;
    Lines.reserve(static_cast<size_t>(N));
    for (int I = 0; I < N; ++I) Lines.push_back({Strings->Get(I), Strings->GetObject(I)});
    AddLines(Lines, true);
  });
}

void TStrings::InsertObject(int Index, const std::string& S, TObject* AObject) {
  Insert(Index, S);
  PutObject(Index, AObject);
}

void TStrings::Assign(TPersistent* Source) {
  if (TStrings* Src = dynamic_cast<TStrings*>(Source)) {
    if (Src == this) return;
    WithUpdate(this, [&] {
      Clear();
      FDelimiter = Src->FDelimiter;
      FQuoteChar = Src->FQuoteChar;
      FNameValueSeparator = Src->FNameValueSeparator;
      FLineBreak = Src->FLineBreak;
      AddStrings(Src);
    });
    return;
  }
  TPersistent::Assign(Source);
}

void TStrings::Exchange(int Index1, int Index2) {
  WithUpdate(this, [&] {
    std::string TempString = Get(Index1);
    TObject* TempObject = GetObject(Index1);
    Put(Index1, Get(Index2));
    PutObject(Index1, GetObject(Index2));
    Put(Index2, TempString);
    PutObject(Index2, TempObject);
  });
}

void TStrings::Move(int CurIndex, int NewIndex) {
  if (CurIndex == NewIndex) return;
  std::string TempString = Get(CurIndex);
  TObject* TempObject = GetObject(CurIndex);
  // Checked before anything is removed, so a bad target loses nothing.
  if (NewIndex < 0 || NewIndex >= GetCount()) Error(SListIndexError, NewIndex);
  WithUpdate(this, [&] {
    Delete(CurIndex);
    InsertObject(NewIndex, TempString, TempObject);
  });
}

int TStrings::IndexOf(const std::string& S) const {
  const int N = GetCount();
  for (int I = 0; I < N; ++I)
    if (CompareStrings(Get(I), S) == 0) return I;
  return -1;
}

int TStrings::IndexOfName(const std::string& Name) const {
  const int N = GetCount();
  for (int I = 0; I < N; ++I) {
    std::string S = Get(I);
    size_t P = S.find(FNameValueSeparator);
    if (P != std::string::npos) {
      S.resize(P);
      if (CompareStrings(S, Name) == 0) return I;
    }
  }
  return -1;
}

int TStrings::IndexOfObject(TObject* AObject) const {
  const int N = GetCount();
  for (int I = 0; I < N; ++I)
    if (GetObject(I) == AObject) return I;
  return -1;
}

bool TStrings::Equals(const TStrings* Strings) const {
  if (!Strings) return false;
  const int N = GetCount();
  if (N != Strings->GetCount()) return false;
  for (int I = 0; I < N; ++I)
    if (Get(I) != Strings->Get(I)) return false;
  return true;
}

std::string TStrings::Names(int Index) const {
  std::string S = Get(Index);
  size_t P = S.find(FNameValueSeparator);
  if (P == std::string::npos) return std::string();
  S.resize(P);
  return S;
}

std::string TStrings::Values(const std::string& Name) const {
  int I = IndexOfName(Name);
  if (I < 0) return std::string();
  std::string S = Get(I);
  return S.substr(S.find(FNameValueSeparator) + 1);
}

void TStrings::SetValues(const std::string& Name, const std::string& Value) {
  int I = IndexOfName(Name);
  if (!Value.empty()) {
    std::string Line = Name;
    Line += FNameValueSeparator;
    Line += Value;
    // A new pair is added whole (a sorted list places it), an existing one
    // is replaced in place.
    if (I < 0)
      Add(Line);
    else
      Put(I, Line);
  } else if (I >= 0) {
    Delete(I);
  }
}

std::string TStrings::ValueFromIndex(int Index) const {
  if (Index < 0) return std::string();
  std::string S = Get(Index);
  size_t P = S.find(FNameValueSeparator);
  if (P == std::string::npos) return std::string();
  return S.substr(P + 1);
}

void TStrings::SetValueFromIndex(int Index, const std::string& Value) {
  if (!Value.empty()) {
    if (Index < 0) {
      Add(std::string(1, FNameValueSeparator) + Value);
      return;
    }
    Put(Index, Names(Index) + FNameValueSeparator + Value);
  } else if (Index >= 0) {
    Delete(Index);
  }
}

std::string TStrings::GetTextStr() const {
  const int N = GetCount();
  std::string Result;
  for (int I = 0; I < N; ++I) {
    Result += Get(I);
    Result += FLineBreak;
  }
  return Result;
}

void TStrings::SetTextStr(const std::string& Value) {
  WithUpdate(this, [&] {
    Clear();
    std::vector<TStringItem> Lines;
    const size_t N = Value.size();
    size_t P = 0;
    while (P < N) {
      size_t Start = P;
      while (P < N && Value[P] != '\r' && Value[P] != '\n') ++P;
      Lines.push_back({Value.substr(Start, P - Start), nullptr});
      if (P < N && Value[P] == '\r') ++P;
      if (P < N && Value[P] == '\n') ++P;
    }
    AddLines(Lines, false);
  });
}

std::string TStrings::GetDelimited(char Delim, char Quote) const {
  const int N = GetCount();
  if (N == 1 && Get(0).empty()) return std::string(2, Quote);
  std::string Result;
  for (int I = 0; I < N; ++I) {
    if (I > 0) Result += Delim;
    std::string S = Get(I);
    bool NeedsQuotes = false;
    for (char C : S)
      if (IsBlank(C) || C == Quote || C == Delim) {
        NeedsQuotes = true;
        break;
      }
    if (!NeedsQuotes) {
      Result += S;
      continue;
    }
    Result += Quote;
    for (char C : S) {
      if (C == Quote) Result += Quote;
      Result += C;
    }
    Result += Quote;
  }
  return Result;
}

void TStrings::SetDelimited(const std::string& Value, char Delim, char Quote) {
  WithUpdate(this, [&] {
    Clear();
    std::vector<TStringItem> Lines;
    auto AddLine = [&Lines](std::string S) { Lines.push_back({std::move(S), nullptr}); };
    const size_t N = Value.size();
    size_t P = 0;
    while (P < N && IsBlank(Value[P])) ++P;
    while (P < N) {
      std::string S;
      if (Value[P] == Quote) {
        // Quoted item: doubled quotes stand for one; it ends at the closing
        // quote, or at the end of the text when that is missing.
        ++P;
        for (;;) {
          size_t E = Value.find(Quote, P);
          if (E == std::string::npos) {
            S.append(Value, P, std::string::npos);
            P = N;
            break;
          }
          S.append(Value, P, E - P);
          if (E + 1 < N && Value[E + 1] == Quote) {
            S += Quote;
            P = E + 2;
          } else {
            P = E + 1;
            break;
          }
        }
      } else {
        size_t Start = P;
        while (P < N && !IsBlank(Value[P]) && Value[P] != Delim) ++P;
        S.assign(Value, Start, P - Start);
      }
      AddLine(std::move(S));
      while (P < N && IsBlank(Value[P])) ++P;
      if (P < N && Value[P] == Delim) {
        // A delimiter that ends the text stands before an empty item.
        if (P + 1 == N) AddLine(std::string());
        do ++P;
        while (P < N && IsBlank(Value[P]));
      }
    }
    AddLines(Lines, false);
  });
}

std::string TStrings::CommaText() const { return GetDelimited(',', '"'); }
void TStrings::SetCommaText(const std::string& Value) { SetDelimited(Value, ',', '"'); }
std::string TStrings::DelimitedText() const { return GetDelimited(FDelimiter, FQuoteChar); }
void TStrings::SetDelimitedText(const std::string& Value) {
  SetDelimited(Value, FDelimiter, FQuoteChar);
}

void TStrings::SaveToStream(TStream* Stream) const {
  std::string S = GetTextStr();
  Stream->WriteBuffer(S.data(), static_cast<int64_t>(S.size()));
}

void TStrings::LoadFromStream(TStream* Stream) {
  // Read everything from the position on before touching the list, so a
  // failing stream leaves the lines as they were. The size is a hint: a
  // stream that cannot tell it (or delivers less) is read to its end.
  std::string S;
  int64_t Size = Stream->GetSize();
  int64_t Pos = Stream->GetPosition();
  int64_t Expected = (Size > 0 && Pos >= 0 && Size > Pos) ? Size - Pos : 0;
  size_t Got = 0;
  if (Expected > 0) {
    S.resize(static_cast<size_t>(Expected));
    while (Got < S.size()) {
      int64_t N = Stream->Read(&S[Got], static_cast<int64_t>(S.size() - Got));
      if (N <= 0) break;
      Got += static_cast<size_t>(N);
    }
    S.resize(Got);
  }
  if (Got == static_cast<size_t>(Expected)) {
    constexpr size_t Chunk = 64 * 1024;
    for (;;) {
      S.resize(Got + Chunk);
      int64_t N = Stream->Read(&S[Got], static_cast<int64_t>(Chunk));
      if (N <= 0) break;
      Got += static_cast<size_t>(N);
    }
    S.resize(Got);
  }
  WithUpdate(this, [&] { SetTextStr(S); });
}

void TStrings::SaveToFile(const std::string& FileName) const {
  TFileStream Stream(FileName, fmCreate);
  SaveToStream(&Stream);
}

void TStrings::LoadFromFile(const std::string& FileName) {
  TFileStream Stream(FileName, fmOpenRead | fmShareDenyWrite);
  LoadFromStream(&Stream);
}

void TStrings::BeginUpdate() {
  if (FUpdateCount == 0) SetUpdateState(true);
  ++FUpdateCount;
}

void TStrings::EndUpdate() {
  if (FUpdateCount == 0) return;
  --FUpdateCount;
  if (FUpdateCount == 0) SetUpdateState(false);
}

int TStrings::GetCapacity() const { return GetCount(); }
void TStrings::SetCapacity(int) {}

int TStrings::CompareStrings(const std::string& S1, const std::string& S2) const {
  int R = AnsiCompareText(S1, S2);
  return R < 0 ? -1 : R > 0 ? 1 : 0;
}

TObject* TStrings::GetObject(int) const { return nullptr; }

void TStrings::Put(int Index, const std::string& S) {
  TObject* TempObject = GetObject(Index);
  Delete(Index);
  InsertObject(Index, S, TempObject);
}

void TStrings::PutObject(int, TObject*) {}

void TStrings::SetUpdateState(bool) {}

void TStrings::AddLines(std::vector<TStringItem>& Lines, bool WithObjects) {
  for (TStringItem& Item : Lines) {
    if (WithObjects)
      AddObject(Item.FString, Item.FObject);
    else
      Add(Item.FString);
  }
}

// ---------------------------------------------------------------------------
// TStringList

TStringList::~TStringList() {
  // No events while the list goes away.
  OnChange = nullptr;
  OnChanging = nullptr;
}

void TStringList::CheckIndex(int Index) const {
  if (Index < 0 || Index >= GetCount()) Error(SListIndexError, Index);
}

int TStringList::Add(const std::string& S) { return AddObject(S, nullptr); }

int TStringList::AddObject(const std::string& S, TObject* AObject) {
  int Result;
  if (!FSorted) {
    Result = GetCount();
  } else if (Find(S, Result)) {
    if (FDuplicates == dupIgnore) return Result;
    if (FDuplicates == dupError) Error(SDuplicateString, 0);
  }
  InsertItem(Result, S, AObject);
  return Result;
}

void TStringList::Changed() {
  if (UpdateCount() == 0 && OnChange) OnChange(this);
}

void TStringList::Changing() {
  if (UpdateCount() == 0 && OnChanging) OnChanging(this);
}

void TStringList::Clear() {
  if (FList.empty()) return;
  Changing();
  std::vector<TStringItem>().swap(FList);
  FCapacity = 0;
  Changed();
}

void TStringList::Delete(int Index) {
  CheckIndex(Index);
  Changing();
  FList.erase(FList.begin() + Index);
  Changed();
}

void TStringList::Exchange(int Index1, int Index2) {
  if (FSorted) Error(SSortedListError, 0);
  CheckIndex(Index1);
  CheckIndex(Index2);
  Changing();
  std::swap(FList[Index1], FList[Index2]);
  Changed();
}

void TStringList::Move(int CurIndex, int NewIndex) {
  if (CurIndex == NewIndex) return;
  if (FSorted) Error(SSortedListError, 0);
  CheckIndex(CurIndex);
  CheckIndex(NewIndex);
  // The same notifications as the delete-and-insert of TStrings::Move
  // (one OnChanging and one OnChange), without reallocating the line.
  WithUpdate(this, [&] {
    auto Base = FList.begin();
    if (CurIndex < NewIndex)
      std::rotate(Base + CurIndex, Base + CurIndex + 1, Base + NewIndex + 1);
    else
      std::rotate(Base + NewIndex, Base + CurIndex, Base + CurIndex + 1);
  });
}

bool TStringList::Find(const std::string& S, int& Index) const {
  bool Result = false;
  int L = 0;
  int H = GetCount() - 1;
  while (L <= H) {
    int I = L + (H - L) / 2;
    int C = CompareStrings(FList[I].FString, S);
    if (C < 0) {
      L = I + 1;
    } else {
      H = I - 1;
      if (C == 0) {
        Result = true;
        if (FDuplicates != dupAccept) L = I;
      }
    }
  }
  Index = L;
  return Result;
}

std::string TStringList::Get(int Index) const {
  CheckIndex(Index);
  return FList[Index].FString;
}

TObject* TStringList::GetObject(int Index) const {
  CheckIndex(Index);
  return FList[Index].FObject;
}

void TStringList::Grow() {
  int Delta;
  if (FCapacity > 64)
    Delta = FCapacity / 4;
  else if (FCapacity > 8)
    Delta = 16;
  else
    Delta = 4;
  int NewCapacity = FCapacity + Delta;
  if (NewCapacity > MaxListSize) {
    if (FCapacity >= MaxListSize) Error(SListCapacityError, NewCapacity);
    NewCapacity = MaxListSize;
  }
  SetCapacity(NewCapacity);
}

int TStringList::IndexOf(const std::string& S) const {
  if (!FSorted) return TStrings::IndexOf(S);
  int Result;
  if (!Find(S, Result)) Result = -1;
  return Result;
}

void TStringList::Insert(int Index, const std::string& S) { InsertObject(Index, S, nullptr); }

void TStringList::InsertObject(int Index, const std::string& S, TObject* AObject) {
  if (FSorted) Error(SSortedListError, 0);
  if (Index < 0 || Index > GetCount()) Error(SListIndexError, Index);
  InsertItem(Index, S, AObject);
}

void TStringList::InsertItem(int Index, const std::string& S, TObject* AObject) {
  Changing();
  if (GetCount() == FCapacity) Grow();
  FList.insert(FList.begin() + Index, TStringItem{S, AObject});
  Changed();
}

void TStringList::Put(int Index, const std::string& S) {
  if (FSorted) Error(SSortedListError, 0);
  CheckIndex(Index);
  Changing();
  FList[Index].FString = S;
  Changed();
}

void TStringList::PutObject(int Index, TObject* AObject) {
  CheckIndex(Index);
  Changing();
  FList[Index].FObject = AObject;
  Changed();
}

void TStringList::SetCapacity(int NewCapacity) {
  if (NewCapacity < GetCount() || NewCapacity > MaxListSize)
    Error(SListCapacityError, NewCapacity);
  if (static_cast<size_t>(NewCapacity) > FList.capacity()) {
    FList.reserve(static_cast<size_t>(NewCapacity));
  } else if (static_cast<size_t>(NewCapacity) < FList.capacity()) {
    // Give the memory back: move the lines into an array of the new size.
    std::vector<TStringItem> Smaller;
    Smaller.reserve(static_cast<size_t>(NewCapacity));
    std::move(FList.begin(), FList.end(), std::back_inserter(Smaller));
    FList.swap(Smaller);
  }
  FCapacity = NewCapacity;
}

void TStringList::SetSorted(bool Value) {
  if (FSorted == Value) return;
  if (Value) Sort();
  FSorted = Value;
}

void TStringList::SetCaseSensitive(bool Value) {
  if (Value == FCaseSensitive) return;
  FCaseSensitive = Value;
  // A sorted list is re-sorted in the new order, so that Find stays right.
  if (FSorted && GetCount() > 1) {
    Changing();
    SortItems(&TStringList::DefaultCompare);
    Changed();
  }
}

void TStringList::AddLines(std::vector<TStringItem>& Lines, bool WithObjects) {
  if (typeid(*this) != typeid(TStringList)) {
    TStrings::AddLines(Lines, WithObjects);
    return;
  }
  if (!FSorted) {
    // What InsertItem does at the end of the list, moving the text in.
    for (TStringItem& Item : Lines) {
      Changing();
      if (GetCount() == FCapacity) Grow();
      FList.push_back(std::move(Item));
      Changed();
    }
    return;
  }
  if (Lines.size() < 16) {
    for (TStringItem& Item : Lines) AddObject(Item.FString, Item.FObject);
    return;
  }
  MergeSorted(Lines);
}

void TStringList::MergeSorted(std::vector<TStringItem>& Lines) {
  // Adding the lines one by one would give: under dupAccept, each line
  // lands before every line equal to it already there (Find gives the
  // first equal), so a run of equal new lines ends up in reverse order
  // ahead of the equal old ones; under dupIgnore, a line equal to an old
  // one or to an earlier new one is dropped; under dupError, the lines
  // before the first such duplicate are added and then the error is
  // raised. The new lines are sorted stably (ties in input order) to find
  // these runs, then merged with the old ones in one pass.
  const size_t M = Lines.size();
  std::vector<size_t> Order(M);
  for (size_t I = 0; I < M; ++I) Order[I] = I;
  std::stable_sort(Order.begin(), Order.end(), [&](size_t A, size_t B) {
    return CompareStrings(Lines[A].FString, Lines[B].FString) < 0;
  });

  std::vector<size_t> Selected;  // indices into Lines, in final order
  Selected.reserve(M);
  size_t Limit = M;  // dupError: input index of the first duplicate
  for (size_t G = 0; G < M;) {
    size_t E = G + 1;
    while (E < M && CompareStrings(Lines[Order[G]].FString, Lines[Order[E]].FString) == 0) ++E;
    if (FDuplicates == dupAccept) {
      for (size_t K = E; K > G; --K) Selected.push_back(Order[K - 1]);
    } else {
      int Index;
      bool Existing = Find(Lines[Order[G]].FString, Index);
      if (FDuplicates == dupError) {
        if (Existing)
          Limit = std::min(Limit, Order[G]);
        else if (E - G > 1)
          Limit = std::min(Limit, Order[G + 1]);
      }
      if (!Existing) Selected.push_back(Order[G]);
    }
    G = E;
  }
  if (Limit < M) {
    // Only the first line of each run can lie before the first duplicate.
    Selected.erase(std::remove_if(Selected.begin(), Selected.end(),
                                  [Limit](size_t I) { return I >= Limit; }),
                   Selected.end());
  }

  if (!Selected.empty()) {
    // The capacity the one-by-one additions would have grown to.
    const int NewCount = GetCount() + static_cast<int>(Selected.size());
    int NewCapacity = FCapacity;
    while (NewCapacity < NewCount) {
      int Delta = NewCapacity > 64 ? NewCapacity / 4 : NewCapacity > 8 ? 16 : 4;
      NewCapacity = std::min(NewCapacity + Delta, MaxListSize);
      if (NewCapacity == MaxListSize && NewCapacity < NewCount)
        Error(SListCapacityError, NewCount);
    }
    std::vector<TStringItem> Merged;
    Merged.reserve(static_cast<size_t>(NewCapacity));
    Changing();
    size_t I = 0, J = 0;
    const size_t N = FList.size();
    while (I < N && J < Selected.size()) {
      // A new line goes before the old lines equal to it.
      if (CompareStrings(FList[I].FString, Lines[Selected[J]].FString) < 0)
        Merged.push_back(std::move(FList[I++]));
      else
        Merged.push_back(std::move(Lines[Selected[J++]]));
    }
    for (; I < N; ++I) Merged.push_back(std::move(FList[I]));
    for (; J < Selected.size(); ++J) Merged.push_back(std::move(Lines[Selected[J]]));
    FList.swap(Merged);
    FCapacity = NewCapacity;
    Changed();
  }
  if (Limit < M) Error(SDuplicateString, 0);
}

void TStringList::SetUpdateState(bool Updating) {
  if (Updating)
    Changing();
  else
    Changed();
}

int TStringList::CompareStrings(const std::string& S1, const std::string& S2) const {
  if (FCaseSensitive) return AnsiCompareStrOrdered(S1, S2);
  return TStrings::CompareStrings(S1, S2);
}

int TStringList::DefaultCompare(TStringList* List, int Index1, int Index2) {
  return List->CompareStrings(List->FList[Index1].FString, List->FList[Index2].FString);
}

void TStringList::Sort() { CustomSort(&TStringList::DefaultCompare); }

void TStringList::CustomSort(TStringListSortCompare Compare) {
  if (FSorted || GetCount() < 2 || !Compare) return;
  Changing();
  SortItems(Compare);
  Changed();
}

void TStringList::SortItems(TStringListSortCompare Compare) {
  const int N = GetCount();
  detail::RuntimeQuickSort(
      N,
      [this, Compare, N](int I, int J) {
        int R = Compare(this, I, J);
        // A comparison function that changed the list leaves indices that
        // no longer fit; stop rather than touch lines that are gone.
        if (GetCount() != N) Error(SListIndexError, std::max(I, J));
        return R;
      },
      [this](int I, int J) { std::swap(FList[I], FList[J]); });
}

}  // namespace vel
