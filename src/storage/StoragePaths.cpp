// The path operations of OleStorage: storages and streams addressed by a
// path such as Clients\1234\Notes, components and string lists in streams,
// and the structure display.
#include <memory>

#include "vel/OleStorage.h"
#include "vel/rtl/Filer.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_PUBLISHED(TStringsDummy, prop("Strings", &TStringsDummy::Strings, &TStringsDummy::SetStrings))

TStringsDummy::TStringsDummy(TComponent* AOwner) : TComponent(AOwner), FStrings(new TStringList) {}

TStringsDummy::~TStringsDummy() {
  delete FStrings;
}

void TStringsDummy::SetStrings(TStrings* Value) {
  FStrings->Assign(Value);
}

void TokenParseToStrings(const std::string& Text, char Separator, TStrings* Strings) {
  if (!Strings) return;
  size_t Start = 0;
  for (size_t P = Text.find(Separator); P != std::string::npos; P = Text.find(Separator, Start)) {
    Strings->Add(Text.substr(Start, P - Start));
    Start = P + 1;
  }
  if (Start < Text.size()) Strings->Add(Text.substr(Start));
}

namespace {

// The storages opened by the last StorageByPath or StreamByPath call; they
// stay open until the next call or the end of the process.
TInterfaceList* PathStorages() {
  static IPtr<IInterfaceList> List(new TInterfaceList);
  return static_cast<TInterfaceList*>(List.get());
}

// The comma-text split: every "\\" becomes "," and the comma-text rules
// apply (blanks separate too, double quotes group).
std::unique_ptr<TStringList> SplitCommaText(const std::string& Path) {
  auto Names = std::make_unique<TStringList>();
  Names->SetCommaText(StringReplace(Path, "\\", ",", TReplaceFlags{rfReplaceAll, rfIgnoreCase}));
  return Names;
}

std::unique_ptr<TStringList> SplitTokens(const std::string& Path) {
  auto Names = std::make_unique<TStringList>();
  TokenParseToStrings(Path, '\\', Names.get());
  return Names;
}

// Walks the storage part of a path from a root wrapper, keeping one wrapper
// per level; the root is the first level and is not freed, the others are
// freed from the last to the second when the walk ends.
class TPathWalk {
 public:
  explicit TPathWalk(TOleStorage* Root) { FLevels.push_back(Root); }
  ~TPathWalk() {
    while (FLevels.size() > 1) {
      delete FLevels.back();
      FLevels.pop_back();
    }
  }
  TPathWalk(const TPathWalk&) = delete;
  TPathWalk& operator=(const TPathWalk&) = delete;

  // Opens Names[0 .. Count-1] one inside the other.
  void Open(const TStrings& Names, int Count, uint32_t Mode, bool Create) {
    for (int I = 0; I < Count; ++I) {
      TOleStorage* Next = Last()->OpenOleStorage(Names[I], Mode, Create);
      FLevels.push_back(Next);
    }
  }
  TOleStorage* Last() const { return FLevels.back(); }

 private:
  std::vector<TOleStorage*> FLevels;
};

constexpr uint32_t WalkMode = stgReadWrite | stgShareExclusive;  // 0x12
constexpr uint32_t ReadMode = stgRead | stgShareExclusive;       // 0x10

// The last item of a split path; an empty path raises the string list's
// index error, as indexing item -1 does.
std::string LastName(const TStrings& Names) {
  return Names[Names.Count() - 1];
}

// Opens the stream at Path (storages with Mode and Create, the stream too).
std::unique_ptr<TStream> OpenPathStream(TPathWalk& Walk, const TStrings& Names, uint32_t Mode,
                                        bool Create) {
  const std::string Name = LastName(Names);
  Walk.Open(Names, Names.Count() - 1, Mode, Create);
  return std::unique_ptr<TStream>(Walk.Last()->OpenOleStream(Name, Mode, Create));
}

}  // namespace

void StorageByName(IStorage* Storage, const std::string& Name, uint32_t Mode,
                   IPtr<IStorage>& Result, bool CreateIfMissing) {
  TOleStorage Wrapper(Storage);
  Wrapper.OpenStorage(Name, Mode, Result, CreateIfMissing);
}

void StreamByName(IStorage* Storage, const std::string& Name, uint32_t Mode,
                  IPtr<IStream>& Result, bool CreateIfMissing) {
  TOleStorage Wrapper(Storage);
  Wrapper.OpenStream(Name, Mode, Result, CreateIfMissing);
}

namespace {

// Opens Names[0 .. Count-1] from Root into the unit's interface list.
void OpenIntoList(IStorage* Root, const TStrings& Names, int Count, uint32_t Mode, bool Create) {
  TInterfaceList* List = PathStorages();
  List->Clear();
  IPtr<IStorage> Current(Root);
  for (int I = 0; I < Count; ++I) {
    IPtr<IStorage> Next;
    StorageByName(Current, Names[I], Mode, Next, Create);
    List->Add(static_cast<IInterface*>(Next.get()));
    Current = Next;
  }
}

IPtr<IStorage> LastListed() {
  IPtr<IInterface> Last = PathStorages()->Last();
  return IPtr<IStorage>(static_cast<IStorage*>(Last.get()));
}

}  // namespace

void StorageByPath(IStorage* Root, const std::string& Path, uint32_t Mode, IPtr<IStorage>& Result,
                   bool CreateIfMissing) {
  const auto Names = SplitCommaText(Path);
  OpenIntoList(Root, *Names, Names->Count(), Mode, CreateIfMissing);
  Result = LastListed();
}

void StreamByPath(IStorage* Root, const std::string& Path, uint32_t Mode, IPtr<IStream>& Result,
                  bool CreateIfMissing) {
  const auto Names = SplitCommaText(Path);
  OpenIntoList(Root, *Names, Names->Count() - 1, Mode, CreateIfMissing);
  IPtr<IStorage> Last = LastListed();
  StreamByName(Last, LastName(*Names), Mode, Result, CreateIfMissing);
}

void AddPath(TOleStorage* Root, const std::string& Path) {
  const auto Names = SplitCommaText(Path);
  TPathWalk Walk(Root);
  Walk.Open(*Names, Names->Count(), WalkMode, true);
}

bool DeletePath(TOleStorage* Root, const std::string& Path) {
  const auto Names = SplitCommaText(Path);
  const std::string Name = LastName(*Names);
  TPathWalk Walk(Root);
  Walk.Open(*Names, Names->Count() - 1, WalkMode, false);
  return Walk.Last()->DestroyElement(Name);
}

void ContentsByPath(TOleStorage* Root, const std::string& Path, TStrings* Strings) {
  Strings->Clear();
  if (Path.empty()) return;
  const auto Names = SplitTokens(Path);
  TPathWalk Walk(Root);
  Walk.Open(*Names, Names->Count(), WalkMode, true);
  TOleStorage* Storage = Walk.Last();
  Storage->ForEach(
      [Strings](TObject*, const TElementInfo& Info, bool&) {
        if (Info.ElementType == STGTY_STREAM) Strings->Add(Info.Name);
      },
      false);
}

void WriteStreamByPath(TOleStorage* Root, const std::string& Path, TStream* Source) {
  TPathWalk Walk(Root);
  std::unique_ptr<TStream> Stream = OpenPathStream(Walk, *SplitTokens(Path), WalkMode, true);
  const int64_t Size = Source->GetSize();
  if (Size > 0) Stream->CopyFrom(Source, Size);
}

void LoadStreamByPath(TOleStorage* Root, const std::string& Path, TStream* Target) {
  TPathWalk Walk(Root);
  std::unique_ptr<TStream> Stream = OpenPathStream(Walk, *SplitTokens(Path), WalkMode, false);
  if (Stream->GetSize() > 0) Target->CopyFrom(Stream.get(), 0);
}

TStream* ReadStreamByPath(TOleStorage* Root, const std::string& Path, bool CreateIfMissing) {
  TPathWalk Walk(Root);
  return OpenPathStream(Walk, *SplitTokens(Path), ReadMode, CreateIfMissing).release();
}

void WriteComponentToStream(TOleStorage* Root, const std::string& Path, TComponent* Component) {
  TPathWalk Walk(Root);
  std::unique_ptr<TStream> Stream = OpenPathStream(Walk, *SplitCommaText(Path), WalkMode, true);
  WriteComponent(Stream.get(), Component);
}

void WriteComponentToStream(IStorage* Storage, const std::string& StreamName,
                            TComponent* Component) {
  IPtr<IStream> S;
  StreamByName(Storage, StreamName, WalkMode, S, true);
  TOleStream Stream(S);
  WriteComponent(&Stream, Component);
}

void ReadComponentFromStream(TOleStorage* Root, const std::string& Path, TComponent* Component,
                             bool CreateIfMissing) {
  TPathWalk Walk(Root);
  std::unique_ptr<TStream> Stream =
      OpenPathStream(Walk, *SplitCommaText(Path), WalkMode, CreateIfMissing);
  if (Stream->GetSize() > 0) ReadComponent(Stream.get(), Component);
}

void ReadComponentFromStream(IStorage* Storage, const std::string& StreamName,
                             TComponent* Component, bool CreateIfMissing) {
  IPtr<IStream> S;
  StreamByName(Storage, StreamName, WalkMode, S, CreateIfMissing);
  TOleStream Stream(S);
  if (Stream.GetSize() > 0) ReadComponent(&Stream, Component);
}

void WriteStringsToStream(TOleStorage* Root, const std::string& Path, TStrings* Strings) {
  TStringsDummy Dummy;
  Dummy.SetStrings(Strings);
  WriteComponentToStream(Root, Path, &Dummy);
}

void ReadStringsFromStream(TOleStorage* Root, const std::string& Path, TStrings* Strings,
                           bool CreateIfMissing) {
  // The dummy starts with the caller's lines, so that an empty stream
  // leaves them as they were.
  TStringsDummy Dummy;
  Dummy.SetStrings(Strings);
  ReadComponentFromStream(Root, Path, &Dummy, CreateIfMissing);
  Strings->Assign(Dummy.Strings());
}

void DisplayFileStructure(TOleStorage* Root, IDisplayStorageTree* Display) {
  if (!Root || !Display) return;
  Display->BeginDisplay(Root->GetName());
  Root->ForEach([Display](TObject*, const TElementInfo& Info,
                          bool&) { Display->DisplayElement(Info); },
                true);
  Display->EndDisplay();
}

void DisplayFileStructure(const std::string& FileName, IDisplayStorageTree* Display) {
  const std::u16string W = Utf8ToWide(FileName);
  if (StgIsStorageFile(W.c_str()) != S_OK)
    throw EOleStorageError(Format(SNotStorageFile, {FileName}));
  TOleRootStorage Root(FileName, stgReadWrite | stgShareExclusive);
  DisplayFileStructure(&Root, Display);
}

}  // namespace vel
