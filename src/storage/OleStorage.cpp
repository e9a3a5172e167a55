// The compound-file wrappers: TCustomOleStorage, TOleStorage,
// TOleRootStorage, CompressFile and the element helpers.
#include "vel/OleStorage.h"

#include <time.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <random>

#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TCustomOleStorage)
VEL_IMPLEMENT(TOleStorage)
VEL_IMPLEMENT(TOleRootStorage)

namespace {

// The characters element names lose before they reach the file.
constexpr std::string_view InvalidNameChars = " !$%&*,-./:;=?@[\\]^{}~";

// Names of 31 characters or more are shortened.
constexpr size_t MaxValidNameLength = 31;

// The unit's search name for Contains (unguarded, like the walk itself).
std::string GContainsName;

std::u16string Wide(const std::string& Name) {
  return Cp1252ToWide(Name);
}

[[noreturn]] void RaiseStorageError(const char* Msg, const std::string& Name) {
  throw EOleStorageError(Format(Msg, {Name}));
}

// Seconds between 1601-01-01 and 1970-01-01.
constexpr int64_t UnixEpochAsSeconds = 11644473600LL;
constexpr double SecondsPerDay = 86400.0;
// Days between 1899-12-30 and 1970-01-01.
constexpr double UnixEpochAsDateTime = 25569.0;
// 1601-01-02 and 10000-01-01 as date-times (a day of margin for the
// local offset at the low end).
constexpr double MinFileTimeDate = -109204.0;
constexpr double MaxFileTimeDate = 2958466.0;

}  // namespace

bool IsFlagSet(uint32_t Value, uint32_t Flag) {
  const uint16_t F = static_cast<uint16_t>(Flag);
  return (static_cast<uint16_t>(Value) & F) == F;
}

std::string CleanElementName(std::string_view Name) {
  std::string R;
  R.reserve(Name.size());
  for (char C : Name)
    if (InvalidNameChars.find(C) == std::string_view::npos) R += C;
  return R;
}

TDateTime FileTimeToLocalDateTime(const FILETIME& Time) {
  const uint64_t Ticks = (static_cast<uint64_t>(Time.dwHighDateTime) << 32) | Time.dwLowDateTime;
  if (Ticks == 0) return TDateTime(0);
  // Whole seconds since 1970 for the local offset, the fraction kept apart
  // (unsigned division: any 64-bit value from a file is safe).
  const int64_t Secs = static_cast<int64_t>(Ticks / 10000000) - UnixEpochAsSeconds;
  const int64_t Frac = static_cast<int64_t>(Ticks % 10000000);
  const time_t T = static_cast<time_t>(Secs);
  struct tm Local {};
  long Offset = 0;
  if (localtime_r(&T, &Local)) Offset = Local.tm_gmtoff;
  const double LocalSecs = static_cast<double>(Secs + Offset) + static_cast<double>(Frac) / 1e7;
  return TDateTime(UnixEpochAsDateTime + LocalSecs / SecondsPerDay);
}

FILETIME LocalDateTimeToFileTime(TDateTime Time) {
  FILETIME R;
  const double D = static_cast<double>(Time);
  // 0 is unset; outside 1601..9999 there is no file time to give.
  if (D == 0 || !(D >= MinFileTimeDate && D < MaxFileTimeDate)) return R;
  // Local seconds since 1970, then the offset that applied at that local
  // time (mktime resolves it, daylight saving included).
  const double LocalSecs = std::round((D - UnixEpochAsDateTime) * SecondsPerDay * 1000.0) / 1000.0;
  const double WholeLocal = std::floor(LocalSecs);
  const int64_t Whole = static_cast<int64_t>(WholeLocal);
  time_t T = static_cast<time_t>(Whole);
  struct tm Tm {};
  gmtime_r(&T, &Tm);
  Tm.tm_isdst = -1;
  const time_t Utc = mktime(&Tm);
  const int64_t UtcSecs = Utc == static_cast<time_t>(-1) ? Whole : static_cast<int64_t>(Utc);
  const int64_t Ticks = (UtcSecs + UnixEpochAsSeconds) * 10000000 +
                        static_cast<int64_t>(std::llround((LocalSecs - WholeLocal) * 1e7));
  const uint64_t U = Ticks < 0 ? 0 : static_cast<uint64_t>(Ticks);
  R.dwLowDateTime = static_cast<uint32_t>(U);
  R.dwHighDateTime = static_cast<uint32_t>(U >> 32);
  return R;
}

TElementInfo TranslateStatStg(const STATSTG& Stat) {
  TElementInfo Info;
  const std::u16string& N = Stat.pwcsName;
  if (!N.empty() && N[0] < 32)
    Info.Name = "#" + std::to_string(static_cast<int>(N[0])) +
                WideToCp1252(std::u16string_view(N).substr(1));
  else
    Info.Name = WideToCp1252(N);
  Info.ElementType = Stat.type;
  Info.Size = Stat.cbSize;
  Info.Modified = FileTimeToLocalDateTime(Stat.mtime);
  Info.Created = FileTimeToLocalDateTime(Stat.ctime);
  Info.Accessed = FileTimeToLocalDateTime(Stat.atime);
  Info.Mode = Stat.grfMode;
  Info.LocksSupported = Stat.grfLocksSupported;
  Info.ClassID = Stat.clsid;
  Info.StateBits = Stat.grfStateBits;
  return Info;
}

// ---------------------------------------------------------------------------
// TCustomOleStorage

TCustomOleStorage::TCustomOleStorage(IStorage* Storage) : FStorage(Storage) {}

TCustomOleStorage::~TCustomOleStorage() {
  FreeList();
  FStorage = nullptr;
}

void TCustomOleStorage::CreateList() {
  FLongNames = new TStringList;
}

void TCustomOleStorage::FreeList() {
  delete FLongNames;
  FLongNames = nullptr;
}

void TCustomOleStorage::ListNeeded() {
  if (!ListAllocated()) CreateList();
}

TStringList* TCustomOleStorage::GetLongNames() {
  ListNeeded();
  return FLongNames;
}

std::string TCustomOleStorage::GetValidName(const std::string& Name) {
  std::string Clean = CleanElementName(Name);
  if (Clean.size() < MaxValidNameLength) return Clean;
  TStringList* List = GetLongNames();
  const int Index = List->IndexOfName(Clean);
  if (Index >= 0) return List->ValueFromIndex(Index);
  const std::string Number = std::to_string(List->Count());
  std::string Short = Clean.substr(0, 30 - Number.size()) + Number;
  List->Add(Clean + "=" + Short);
  return Short;
}

void TCustomOleStorage::OpenStorage(const std::string& Name, uint32_t Mode,
                                    IPtr<IStorage>& Storage, bool CreateIfMissing) {
  const std::u16string W = Wide(GetValidName(Name));
  Storage = nullptr;
  IStorage* P = nullptr;
  if (FStorage && Succeeded(FStorage->OpenStorage(W.c_str(), nullptr, Mode, nullptr, 0, &P)) && P) {
    Storage = IPtr<IStorage>::Attach(P);
    return;
  }
  if (!CreateIfMissing) RaiseStorageError(SOpenStorageFailed, Name);
  CreateStorage(Name, Mode | stgCreate, Storage);
}

void TCustomOleStorage::OpenStream(const std::string& Name, uint32_t Mode, IPtr<IStream>& Stream,
                                   bool CreateIfMissing) {
  const std::u16string W = Wide(GetValidName(Name));
  Stream = nullptr;
  IStream* P = nullptr;
  if (FStorage && Succeeded(FStorage->OpenStream(W.c_str(), nullptr, Mode, 0, &P)) && P) {
    Stream = IPtr<IStream>::Attach(P);
    return;
  }
  if (!CreateIfMissing) RaiseStorageError(SOpenStreamFailed, Name);
  CreateStream(Name, Mode | stgCreate, Stream);
}

void TCustomOleStorage::CreateStorage(const std::string& Name, uint32_t Mode,
                                      IPtr<IStorage>& Storage) {
  const std::u16string W = Wide(GetValidName(Name));
  Storage = nullptr;
  if (!FStorage) OleCheck(E_POINTER);
  IStorage* P = nullptr;
  OleCheck(FStorage->CreateStorage(W.c_str(), Mode, 0, 0, &P));
  Storage = IPtr<IStorage>::Attach(P);
}

void TCustomOleStorage::CreateStream(const std::string& Name, uint32_t Mode,
                                     IPtr<IStream>& Stream) {
  const std::u16string W = Wide(GetValidName(Name));
  Stream = nullptr;
  if (!FStorage) OleCheck(E_POINTER);
  IStream* P = nullptr;
  OleCheck(FStorage->CreateStream(W.c_str(), Mode, 0, 0, &P));
  Stream = IPtr<IStream>::Attach(P);
}

bool TCustomOleStorage::DestroyElement(const std::string& Name) {
  const std::u16string W = Wide(GetValidName(Name));
  return FStorage && Succeeded(FStorage->DestroyElement(W.c_str()));
}

bool TCustomOleStorage::RenameElement(const std::string& OldName, const std::string& NewName) {
  const std::u16string O = Wide(GetValidName(OldName));
  const std::u16string N = Wide(GetValidName(NewName));
  return FStorage && Succeeded(FStorage->RenameElement(O.c_str(), N.c_str()));
}

bool TCustomOleStorage::MoveElementTo(const std::string& Name, IStorage* Dest,
                                      const std::string& NewName, uint32_t Flags) {
  const std::u16string O = Wide(GetValidName(Name));
  const std::u16string N = Wide(GetValidName(NewName));
  return FStorage && Succeeded(FStorage->MoveElementTo(O.c_str(), Dest, N.c_str(), Flags));
}

bool TCustomOleStorage::CopyTo(IStorage* Dest) {
  return FStorage && Succeeded(FStorage->CopyTo(0, nullptr, nullptr, Dest));
}

bool TCustomOleStorage::Commit(uint32_t Flags) {
  return FStorage && Succeeded(FStorage->Commit(Flags));
}

bool TCustomOleStorage::Revert() {
  return FStorage && Succeeded(FStorage->Revert());
}

bool TCustomOleStorage::EnumElements(IPtr<IEnumSTATSTG>& Enum) {
  Enum = nullptr;
  IEnumSTATSTG* P = nullptr;
  if (!FStorage || Failed(FStorage->EnumElements(0, nullptr, 0, &P)) || !P) return false;
  Enum = IPtr<IEnumSTATSTG>::Attach(P);
  return true;
}

bool TCustomOleStorage::SetClass(const TCLSID& ClassID) {
  return FStorage && Succeeded(FStorage->SetClass(ClassID));
}

bool TCustomOleStorage::SetStateBits(uint32_t Bits, uint32_t Mask) {
  return FStorage && Succeeded(FStorage->SetStateBits(Bits, Mask));
}

bool TCustomOleStorage::SetElementTimes(const std::string& Name, TDateTime Created,
                                        TDateTime Accessed, TDateTime Modified) {
  const std::u16string W = Wide(GetValidName(Name));
  const FILETIME C = LocalDateTimeToFileTime(Created);
  const FILETIME A = LocalDateTimeToFileTime(Accessed);
  const FILETIME M = LocalDateTimeToFileTime(Modified);
  return FStorage && Succeeded(FStorage->SetElementTimes(W.c_str(), &C, &A, &M));
}

void TCustomOleStorage::Stat(STATSTG& S, uint32_t Flag) {
  if (!FStorage) OleCheck(E_POINTER);
  OleCheck(FStorage->Stat(&S, Flag));
}

std::string TCustomOleStorage::GetName() {
  STATSTG S;
  Stat(S, STATFLAG_DEFAULT);
  return WideToCp1252(S.pwcsName);
}

TElementInfo TCustomOleStorage::TranslateStatStg(const STATSTG& S) {
  return vel::TranslateStatStg(S);
}

// ---------------------------------------------------------------------------
// TOleStorage

TOleStorage* TOleStorage::CreateOleStorage(const std::string& Name, uint32_t Mode) {
  IPtr<IStorage> S;
  CreateStorage(Name, Mode, S);
  return new TOleStorage(S);
}

TOleStorage* TOleStorage::OpenOleStorage(const std::string& Name, uint32_t Mode,
                                         bool CreateIfMissing) {
  IPtr<IStorage> S;
  OpenStorage(Name, Mode, S, CreateIfMissing);
  return new TOleStorage(S);
}

TStream* TOleStorage::CreateOleStream(const std::string& Name, uint32_t Mode) {
  IPtr<IStream> S;
  CreateStream(Name, Mode, S);
  return new TOleStream(S);
}

TStream* TOleStorage::OpenOleStream(const std::string& Name, uint32_t Mode,
                                    bool CreateIfMissing) {
  IPtr<IStream> S;
  OpenStream(Name, Mode, S, CreateIfMissing);
  return new TOleStream(S);
}

void TOleStorage::ForEach(const TElementCallback& Callback, bool Recurse) {
  bool Continue = true;
  RecurseStorage(FStorage, Callback, Continue, Recurse, 1);
}

void TOleStorage::RecurseStorage(IStorage* Storage, const TElementCallback& Callback,
                                 bool& Continue, bool Recurse, int Depth) {
  if (!Storage) return;
  IEnumSTATSTG* P = nullptr;
  if (Failed(Storage->EnumElements(0, nullptr, 0, &P)) || !P) return;
  IPtr<IEnumSTATSTG> Enum = IPtr<IEnumSTATSTG>::Attach(P);
  STATSTG S;
  uint32_t Fetched = 0;
  while (Continue && Enum->Next(1, &S, &Fetched) == S_OK && Fetched == 1) {
    TElementInfo Info = TranslateStatStg(S);
    Info.Storage = Storage;
    Info.Depth = Depth;
    if (Callback) Callback(this, Info, Continue);
    if (Continue && Recurse && S.type == STGTY_STORAGE && Depth < MaxStorageDepth) {
      IStorage* Sub = nullptr;
      if (Succeeded(Storage->OpenStorage(S.pwcsName.c_str(), nullptr,
                                         stgReadWrite | stgShareExclusive, nullptr, 0, &Sub)) &&
          Sub) {
        IPtr<IStorage> Child = IPtr<IStorage>::Attach(Sub);
        RecurseStorage(Child, Callback, Continue, Recurse, Depth + 1);
      }
    }
    S = STATSTG();
  }
}

void TOleStorage::ContainsElement(TObject*, const TElementInfo& Info, bool& Continue) {
  if (UpperCase(GContainsName) == UpperCase(Info.Name)) Continue = false;
}

bool TOleStorage::Contains(const std::string& Name, bool Recurse) {
  GContainsName = Name;
  bool Continue = true;
  RecurseStorage(
      FStorage,
      [this](TObject* Sender, const TElementInfo& Info, bool& C) {
        ContainsElement(Sender, Info, C);
      },
      Continue, Recurse, 1);
  return !Continue;
}

// ---------------------------------------------------------------------------
// TOleRootStorage

TOleRootStorage::TOleRootStorage(const std::string& FileName, uint16_t Mode)
    : TOleStorage(nullptr), FFileName(FileName), FMode(Mode) {
  if (IsFlagSet(FMode, stgCreate)) CreateFileStorage();
  else OpenFileStorage();
}

TOleRootStorage::~TOleRootStorage() {
  InternalCloseFile();
}

void TOleRootStorage::CreateFileStorage() {
  const std::u16string W = Utf8ToWide(FFileName);
  IStorage* P = nullptr;
  OleCheck(StgCreateDocfile(W.c_str(), FMode, 0, &P));
  FStorage = IPtr<IStorage>::Attach(P);
}

void TOleRootStorage::OpenFileStorage() {
  const std::u16string W = Utf8ToWide(FFileName);
  IStorage* P = nullptr;
  OleCheck(StgOpenStorage(W.c_str(), nullptr, FMode, nullptr, 0, &P));
  FStorage = IPtr<IStorage>::Attach(P);
}

void TOleRootStorage::InternalCloseFile() {
  FStorage = nullptr;
}

TOleRootStorage* TOleRootStorage::Open(const std::string& FileName, uint16_t Mode,
                                       bool CreateIfMissing) {
  if (!FileExists(FileName)) {
    if (!CreateIfMissing) RaiseStorageError(SStorageFileNotFound, FileName);
    Mode = static_cast<uint16_t>(Mode | stgCreate);
  }
  return new TOleRootStorage(FileName, Mode);
}

namespace {

std::string TempPath() {
  const char* Dir = std::getenv("TMPDIR");
  std::string D = Dir && *Dir ? Dir : "/tmp";
  return IncludeTrailingPathDelimiter(D);
}

std::string TempFileName() {
  static std::mt19937_64 Rng{std::random_device{}()};
  const std::string Dir = TempPath();
  // A random value mixed with the current date and time; another number is
  // drawn while a file of that name exists.
  for (;;) {
    const uint64_t Stamp =
        static_cast<uint64_t>(static_cast<double>(Now()) * SecondsPerDay * 1000.0);
    const uint64_t N = (Rng() ^ (Stamp * 0x9E3779B97F4A7C15ULL)) % 1000000000000ULL;
    std::string Name = Dir + "~tmp" + std::to_string(N) + ".";
    if (!FileExists(Name)) return Name;
  }
}

// Whether two names reach the same file. Windows compares the names ignoring
// case because its file names are; here names are case-sensitive, so the
// test is the same text or the same existing file.
bool SameFile(const std::string& A, const std::string& B) {
  if (A == B) return true;
  std::error_code Ec;
  return std::filesystem::equivalent(A, B, Ec) && !Ec;
}

}  // namespace

TOleRootStorage* TOleRootStorage::New(uint16_t Mode) {
  return new TOleRootStorage(TempFileName(), static_cast<uint16_t>(Mode | stgCreate));
}

void TOleRootStorage::Save(const std::string& FileName, bool TakeName) {
  if (SameFile(FileName, FFileName)) {
    InternalCloseFile();
  } else {
    auto* Target = new TOleRootStorage(FileName, stgCreate | stgShareExclusive | stgReadWrite);
    try {
      CopyTo(Target->Storage());
    } catch (...) {
      delete Target;
      throw;
    }
    FStorage = nullptr;
    delete Target;
    if (TakeName) FFileName = FileName;
  }
  if (IsFlagSet(FMode, stgCreate)) FMode = static_cast<uint16_t>(FMode & ~stgCreate);
  try {
    CompressFile(FileName);
  } catch (...) {
    // The file is as it was: reopen it so that the object stays usable,
    // and report the failure.
    try {
      OpenFileStorage();
    } catch (...) {
    }
    throw;
  }
  OpenFileStorage();
}

void CompressFile(const std::string& FileName) {
  const std::u16string W = Utf8ToWide(FileName);
  IStorage* P = nullptr;
  OleCheck(StgOpenStorage(W.c_str(), nullptr, stgRead | stgShareExclusive, nullptr, 0, &P));
  IPtr<IStorage> Source = IPtr<IStorage>::Attach(P);
  const std::string TempName = ChangeFileExt(FileName, ".~bak");
  const std::u16string TW = Utf8ToWide(TempName);
  IStorage* T = nullptr;
  OleCheck(StgCreateDocfile(TW.c_str(), stgWrite | stgShareExclusive, 0, &T));
  IPtr<IStorage> Temp = IPtr<IStorage>::Attach(T);
  Source->CopyTo(0, nullptr, nullptr, Temp);
  Temp = nullptr;
  Source = nullptr;
  // rename replaces the file in one step: a crash leaves the old file or
  // the compacted one, never neither.
  if (!RenameFile(TempName, FileName)) throw EOleSysError("", STG_E_WRITEFAULT);
}

}  // namespace vel
