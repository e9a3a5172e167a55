#include "vel/ExtendedInterfaces.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "vel/VelUtils.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TNoRefInterfacedObject)
VEL_IMPLEMENT(TNoRefAutoIntfObject)
VEL_IMPLEMENT(TIEventLog)
VEL_IMPLEMENT(TISystemLog)
VEL_IMPLEMENT(TILogOptions)
VEL_IMPLEMENT(TILogNotifier)
VEL_IMPLEMENT(TLogCategoryOptions)
VEL_IMPLEMENT(TFileSystemLog)
VEL_IMPLEMENT(TSysLogSystemLog)

// ---------------------------------------------------------------------------
// No-reference objects

TNoRefInterfacedObject::~TNoRefInterfacedObject() = default;
TNoRefAutoIntfObject::~TNoRefAutoIntfObject() = default;

HRESULT TNoRefAutoIntfObject::GetTypeInfoCount(int32_t* Count) {
  if (Count) *Count = 0;
  return E_NOTIMPL;
}
HRESULT TNoRefAutoIntfObject::GetTypeInfo(int32_t, int32_t, void** TypeInfo) {
  if (TypeInfo) *TypeInfo = nullptr;
  return E_NOTIMPL;
}
HRESULT TNoRefAutoIntfObject::GetIDsOfNames(const TGUID&, void*, int32_t, int32_t, void*) {
  return E_NOTIMPL;
}
HRESULT TNoRefAutoIntfObject::Invoke(int32_t, const TGUID&, int32_t, uint16_t, void*, void*, void*,
                                     void*) {
  return E_NOTIMPL;
}

// ---------------------------------------------------------------------------
// TIEventLog

TIEventLog::TIEventLog() {
  InitLog();
}

TIEventLog::~TIEventLog() {
  DoneLog();
}

void TIEventLog::InitLog() {
  CreateObjects();
  Initialize();
}

void TIEventLog::DoneLog() {
  if (FDone) return;
  FDone = true;
  DestroyObjects();
}

void TIEventLog::FormatText(std::string&, const std::string&) {}
void TIEventLog::WriteText(const std::string&, int32_t, bool) {}
void TIEventLog::CreateObjects() {}
void TIEventLog::DestroyObjects() {}
void TIEventLog::WriteIdentBegin(int32_t) {}
void TIEventLog::WriteIdentEnd(int32_t) {}
void TIEventLog::WriteNameValue(const std::string&, const std::string&, int32_t) {}

bool TIEventLog::CanWriteLog(int32_t LogCat) {
  return LogCat == 0;
}

void TIEventLog::Initialize() {
  LogID = 0;
}

void TIEventLog::WriteLog(const std::u16string& Text) {
  WriteLog(Text, 0);
}

void TIEventLog::WriteLog(const std::u16string& Text, int32_t LogCat) {
  if (CanWriteLog(LogCat)) WriteText(WideToCp1252(Text), LogCat, true);
}

void TIEventLog::WriteLogFmt(const std::u16string& Fmt, std::span<const TVarRec> Args,
                             int32_t LogCat) {
  std::string Text = Format(WideToCp1252(Fmt), Args.data(), Args.size());
  WriteLog(Cp1252ToWide(Text), LogCat);
}

void TIEventLog::WriteComponentToLog(TComponent* Component, int32_t LogCat) {
  WriteLog(Cp1252ToWide(ComponentToString(Component)), LogCat);
}

void TIEventLog::WriteLogStream(IStream* Stream, int32_t LogCat) {
  // TOleStream holds its own reference to the stream; both intermediate
  // streams go when this scope ends, also on an error.
  TOleStream Source(Stream);
  Source.SetPosition(0);
  TStringStream Content;
  Content.CopyFrom(&Source, 0);
  WriteLog(Cp1252ToWide(Content.DataString()), LogCat);
}

void TIEventLog::WriteLogValues(const std::u16string& Msg, std::span<const std::string> Idents,
                                std::span<const TVarRec> Values, int32_t LogCat) {
  if (Idents.size() != Values.size()) {
    WriteLog(Cp1252ToWide(SInvalidLogValues), LogCat);
    return;
  }
  WriteIdentBegin(LogCat);
  WriteNameValue(SLogMsgTextName, WideToCp1252(Msg), LogCat);
  for (size_t I = 0; I < Idents.size(); ++I)
    WriteNameValue(Idents[I], VarRecToStr(Values[I]), LogCat);
  WriteIdentEnd(LogCat);
}

// ---------------------------------------------------------------------------
// TISystemLog

TISystemLog::TISystemLog() : TIEventLog(DeferInit) {
  InitLog();
}

TISystemLog::~TISystemLog() {
  DoneLog();
}

void TISystemLog::CreateObjects() {}

void TISystemLog::DestroyObjects() {
  Options = nullptr;
  if (TInterfaceList* List = FNotifiers.exchange(nullptr)) {
    List->Clear();
    List->_Release();
  }
}

void TISystemLog::Initialize() {
  TIEventLog::Initialize();
  if (TInterfaceList* List = FNotifiers.load()) List->Clear();
  Options = LoadOptions();
  if (Options) Options->InitializeOptions();
}

bool TISystemLog::GetRunning() {
  return false;
}

IPtr<ILogOptions> TISystemLog::GetOptions() {
  return Options;
}

void TISystemLog::Start() {}
void TISystemLog::Stop() {}

TInterfaceList* TISystemLog::NotifiersNeeded() {
  if (TInterfaceList* List = FNotifiers.load()) return List;
  std::lock_guard<std::mutex> Guard(FNotifiersLock);
  if (TInterfaceList* List = FNotifiers.load()) return List;
  auto* List = new TInterfaceList;
  List->_AddRef();
  FNotifiers.store(List);
  return List;
}

void TISystemLog::AddNotifier(ILogNotifier* Notifier) {
  TInterfaceList* List = NotifiersNeeded();
  List->Lock();
  try {
    if (List->IndexOf(Notifier) < 0) List->Add(Notifier);
  } catch (...) {
    List->Unlock();
    throw;
  }
  List->Unlock();
}

void TISystemLog::RemoveNotifier(ILogNotifier* Notifier) {
  TInterfaceList* List = FNotifiers.load();
  if (!List) return;
  List->Lock();
  if (List->IndexOf(Notifier) >= 0) List->Remove(Notifier);
  List->Unlock();
}

int32_t TISystemLog::NotifierCount() {
  TInterfaceList* List = FNotifiers.load();
  return List ? List->Count() : 0;
}

void TISystemLog::WriteText(const std::string& Text, int32_t LogCat, bool NewLine) {
  TIEventLog::WriteText(Text, LogCat, NewLine);
  Notify(Text, LogCat);
}

void TISystemLog::Notify(const std::string&, int32_t) {
  // This class does not broadcast; a writer that does overrides Notify.
}

void TISystemLog::NotifyAll(const std::string& Text, int32_t LogCat) {
  TInterfaceList* List = FNotifiers.load();
  if (!List) return;
  std::u16string Msg = Cp1252ToWide(Text);
  List->Lock();
  try {
    for (int32_t I = 0; I < List->Count(); ++I) {
      IPtr<ILogNotifier> N;
      if (IPtr<IInterface> Item = List->Get(I))
        if (Succeeded(Item->QueryInterface(IIDOf<ILogNotifier>, N.Out())) && N)
          N->NotifyMsg(Msg, LogCat);
    }
  } catch (...) {
    List->Unlock();
    throw;
  }
  List->Unlock();
}

IPtr<ILogOptions> TISystemLog::LoadOptions() {
  return nullptr;
}

// ---------------------------------------------------------------------------
// TILogOptions

TILogOptions::~TILogOptions() = default;

std::string TILogOptions::GetRegKey() {
  std::lock_guard<std::mutex> Guard(FLock);
  return RegKey;
}

void TILogOptions::SetRegKey(const std::string& Value) {
  std::lock_guard<std::mutex> Guard(FLock);
  RegKey = Value;
}

TGUID TILogOptions::GetOptionsIntf() {
  std::lock_guard<std::mutex> Guard(FLock);
  return OptionsIntf;
}

void TILogOptions::SetOptionsIntf(const TGUID& Value) {
  std::lock_guard<std::mutex> Guard(FLock);
  OptionsIntf = Value;
}

void TILogOptions::InitializeOptions() {
  LoadFromRegistry(nullptr);
}

void TILogOptions::LoadFromRegistry(TRegistry*) {}

// ---------------------------------------------------------------------------
// TILogNotifier

TILogNotifier::~TILogNotifier() = default;

void TILogNotifier::NotifyMsg(const std::u16string& Msg, int32_t LogCat) {
  if (OnLogMsg) OnLogMsg(this, WideToCp1252(Msg), LogCat);
}

// ---------------------------------------------------------------------------
// gSystemLog

IPtr<ISystemLog> gSystemLog;

namespace {
// Unit finalisation: the application's system log is let go when the
// library unloads (for no-reference logs this only clears the variable).
struct TFinalization {
  ~TFinalization() { gSystemLog = nullptr; }
} Finalization;
}  // namespace

// ---------------------------------------------------------------------------
// TLogCategoryOptions

TLogCategoryOptions::~TLogCategoryOptions() = default;

bool TLogCategoryOptions::Enabled(int32_t LogCat) {
  if (LogCat == 0) return true;
  std::lock_guard<std::mutex> Guard(FLock);
  return FAll || std::find(FCategories.begin(), FCategories.end(), LogCat) != FCategories.end();
}

void TLogCategoryOptions::Enable(int32_t LogCat) {
  std::lock_guard<std::mutex> Guard(FLock);
  if (std::find(FCategories.begin(), FCategories.end(), LogCat) == FCategories.end())
    FCategories.push_back(LogCat);
}

void TLogCategoryOptions::Disable(int32_t LogCat) {
  std::lock_guard<std::mutex> Guard(FLock);
  FCategories.erase(std::remove(FCategories.begin(), FCategories.end(), LogCat), FCategories.end());
}

void TLogCategoryOptions::EnableAll(bool Value) {
  std::lock_guard<std::mutex> Guard(FLock);
  FAll = Value;
}

TLogCategoryOptions::TLogCategoryOptions(const std::string& ARegKey, HKEY ARootKey)
    : FRootKey(ARootKey) {
  RegKey = ARegKey;
}

namespace {

// The entries of a "Categories" list; entries that are not numbers are
// skipped.
std::vector<int32_t> ParseCategories(const std::string& Text) {
  std::vector<int32_t> Result;
  size_t Pos = 0;
  while (Pos < Text.size()) {
    size_t End = Text.find_first_of(",; \t", Pos);
    if (End == std::string::npos) End = Text.size();
    int32_t Value = 0;
    if (End > Pos && TryStrToInt(std::string_view(Text).substr(Pos, End - Pos), Value) &&
        std::find(Result.begin(), Result.end(), Value) == Result.end())
      Result.push_back(Value);
    Pos = End + 1;
  }
  return Result;
}

}  // namespace

void TLogCategoryOptions::LoadFromRegistry(TRegistry* Registry) {
  std::string Key = GetRegKey();
  if (Key.empty()) return;
  if (Key.front() != '\\') Key.insert(Key.begin(), '\\');

  std::unique_ptr<TRegistry> Own;
  REGSAM Access = 0;
  if (Registry) {
    Access = Registry->Access();
  } else {
    Own = std::make_unique<TRegistry>(KEY_READ);
    Own->SetRootKey(FRootKey);
    Registry = Own.get();
  }
  std::vector<int32_t> Categories;
  bool All = false;
  if (Registry->OpenKeyReadOnly(Key)) {
    if (const TRegDataType T = Registry->GetDataType("Categories");
        T == rdString || T == rdExpandString)
      Categories = ParseCategories(Registry->ReadString("Categories"));
    if (Registry->GetDataType("AllCategories") == rdInteger)
      All = Registry->ReadInteger("AllCategories") != 0;
    Registry->CloseKey();
  }
  if (!Own) Registry->SetAccess(Access);

  std::lock_guard<std::mutex> Guard(FLock);
  FCategories = std::move(Categories);
  FAll = All;
}

namespace {

bool CategoryEnabled(ILogOptions* Options, int32_t LogCat) {
  if (LogCat == 0) return true;
  if (!Options) return false;
  // Options given by the caller are usually TLogCategoryOptions; any other
  // options class enables category 0 only.
  auto* Obj = dynamic_cast<TLogCategoryOptions*>(Options);
  return Obj && Obj->Enabled(LogCat);
}

// "yyyy-mm-dd hh:nn:ss.zzz" in local time.
std::string TimeStamp() {
  timespec Now{};
  clock_gettime(CLOCK_REALTIME, &Now);
  tm Local{};
  localtime_r(&Now.tv_sec, &Local);
  char Buf[40];
  snprintf(Buf, sizeof Buf, "%04d-%02d-%02d %02d:%02d:%02d.%03d", Local.tm_year + 1900,
           Local.tm_mon + 1, Local.tm_mday, Local.tm_hour, Local.tm_min, Local.tm_sec,
           static_cast<int>(Now.tv_nsec / 1000000));
  return Buf;
}

bool WriteAll(int Fd, const std::string& Data) {
  const char* P = Data.data();
  size_t Left = Data.size();
  while (Left > 0) {
    ssize_t N = ::write(Fd, P, Left);
    if (N < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    P += N;
    Left -= static_cast<size_t>(N);
  }
  return true;
}

void CreateParentFolder(const std::string& FileName) {
  size_t Slash = FileName.rfind('/');
  if (Slash != std::string::npos && Slash > 0) ForceDirectories(FileName.substr(0, Slash));
}

}  // namespace

// ---------------------------------------------------------------------------
// TFileSystemLog

TFileSystemLog::TFileSystemLog(const std::string& FileName, IPtr<ILogOptions> LogOptions,
                               bool AutoStart)
    : TISystemLog(DeferInit), FFileName(FileName), FGivenOptions(std::move(LogOptions)) {
  InitLog();
  if (AutoStart) Start();
}

TFileSystemLog::~TFileSystemLog() {
  Stop();
  DoneLog();
}

bool TFileSystemLog::GetRunning() {
  std::lock_guard<std::mutex> Guard(FLock);
  return FHandle >= 0;
}

void TFileSystemLog::Start() {
  std::lock_guard<std::mutex> Guard(FLock);
  if (FHandle >= 0) return;
  CreateParentFolder(FFileName);
  int Fd = ::open(FFileName.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (Fd < 0) throw EFCreateError(Format(SFCreateError, {FFileName}));
  FHandle = Fd;
}

void TFileSystemLog::Stop() {
  std::lock_guard<std::mutex> Guard(FLock);
  if (FHandle >= 0) ::close(FHandle);
  FHandle = -1;
}

IPtr<ILogOptions> TFileSystemLog::LoadOptions() {
  return FGivenOptions;
}

bool TFileSystemLog::CanWriteLog(int32_t LogCat) {
  return CategoryEnabled(Options, LogCat);
}

void TFileSystemLog::FormatText(std::string& S1, const std::string& S2) {
  S1 = TimeStamp() + " [" + S2 + "] " + S1;
}

void TFileSystemLog::WriteLine(const std::string& Line) {
  // One write call per line on a descriptor opened for appending: the line
  // lands whole at the end, whichever thread or process writes next.
  std::string Utf8 = Cp1252ToUtf8(Line);
  std::lock_guard<std::mutex> Guard(FLock);
  if (FHandle < 0) return;
  WriteAll(FHandle, Utf8);
}

void TFileSystemLog::WriteText(const std::string& Text, int32_t LogCat, bool NewLine) {
  std::string Line = Text;
  FormatText(Line, std::to_string(LogCat));
  if (NewLine) Line += '\n';
  WriteLine(Line);
  TISystemLog::WriteText(Text, LogCat, NewLine);
}

void TFileSystemLog::WriteIdentBegin(int32_t LogCat) {
  if (CanWriteLog(LogCat)) WriteText("begin", LogCat, true);
}

void TFileSystemLog::WriteIdentEnd(int32_t LogCat) {
  if (CanWriteLog(LogCat)) WriteText("end", LogCat, true);
}

void TFileSystemLog::WriteNameValue(const std::string& Name, const std::string& Value,
                                    int32_t LogCat) {
  if (CanWriteLog(LogCat)) WriteText("  " + Name + " = " + Value, LogCat, true);
}

void TFileSystemLog::Notify(const std::string& Text, int32_t LogCat) {
  NotifyAll(Text, LogCat);
}

// ---------------------------------------------------------------------------
// TSysLogSystemLog

TSysLogSystemLog::TSysLogSystemLog(const std::string& Ident, IPtr<ILogOptions> LogOptions,
                                   bool AutoStart, const std::string& SocketPath)
    : TISystemLog(DeferInit),
      FIdent(Ident),
      FSocketPath(SocketPath),
      FGivenOptions(std::move(LogOptions)) {
  InitLog();
  if (AutoStart) Start();
}

TSysLogSystemLog::~TSysLogSystemLog() {
  Stop();
  DoneLog();
}

bool TSysLogSystemLog::GetRunning() {
  std::lock_guard<std::mutex> Guard(FLock);
  return FSocket >= 0;
}

void TSysLogSystemLog::Start() {
  std::lock_guard<std::mutex> Guard(FLock);
  if (FSocket >= 0) return;
  FSocket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

void TSysLogSystemLog::Stop() {
  std::lock_guard<std::mutex> Guard(FLock);
  if (FSocket >= 0) ::close(FSocket);
  FSocket = -1;
}

IPtr<ILogOptions> TSysLogSystemLog::LoadOptions() {
  return FGivenOptions;
}

bool TSysLogSystemLog::CanWriteLog(int32_t LogCat) {
  return CategoryEnabled(Options, LogCat);
}

void TSysLogSystemLog::Send(const std::string& Text, int32_t LogCat) {
  // Facility user (1); severity info (6) for category 0, debug (7) else.
  int Pri = 1 * 8 + (LogCat == 0 ? 6 : 7);
  time_t Now = time(nullptr);
  tm Local{};
  localtime_r(&Now, &Local);
  static const char* const Months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char Head[64];
  snprintf(Head, sizeof Head, "<%d>%s %2d %02d:%02d:%02d ", Pri, Months[Local.tm_mon],
           Local.tm_mday, Local.tm_hour, Local.tm_min, Local.tm_sec);
  std::string Msg = Head + FIdent + "[" + std::to_string(getpid()) + "]: " + Cp1252ToUtf8(Text);

  sockaddr_un Addr{};
  Addr.sun_family = AF_UNIX;
  if (FSocketPath.size() >= sizeof Addr.sun_path) return;
  memcpy(Addr.sun_path, FSocketPath.data(), FSocketPath.size());
  std::lock_guard<std::mutex> Guard(FLock);
  if (FSocket < 0) return;
  ::sendto(FSocket, Msg.data(), Msg.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
           reinterpret_cast<sockaddr*>(&Addr), sizeof Addr);
}

void TSysLogSystemLog::WriteText(const std::string& Text, int32_t LogCat, bool NewLine) {
  Send(Text, LogCat);
  TISystemLog::WriteText(Text, LogCat, NewLine);
}

void TSysLogSystemLog::WriteIdentBegin(int32_t LogCat) {
  if (CanWriteLog(LogCat)) WriteText("begin", LogCat, true);
}

void TSysLogSystemLog::WriteIdentEnd(int32_t LogCat) {
  if (CanWriteLog(LogCat)) WriteText("end", LogCat, true);
}

void TSysLogSystemLog::WriteNameValue(const std::string& Name, const std::string& Value,
                                      int32_t LogCat) {
  if (CanWriteLog(LogCat)) WriteText("  " + Name + " = " + Value, LogCat, true);
}

void TSysLogSystemLog::Notify(const std::string& Text, int32_t LogCat) {
  NotifyAll(Text, LogCat);
}

}  // namespace vel
