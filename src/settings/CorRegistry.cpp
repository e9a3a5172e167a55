#include "vel/CorRegistry.h"

#include <unistd.h>

#include <climits>

#include "vel/RttiStrm.h"
#include "vel/rtl/Filer.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/VeluSystem.h"

namespace vel {

VEL_IMPLEMENT(TStorage)
VEL_IMPLEMENT(TFileStorage)
VEL_IMPLEMENT(TRegStorage)
VEL_IMPLEMENT(TConfigStorage)
VEL_PUBLISHED(TCorvaneRegistry, prop("Version", &TCorvaneRegistry::Version),
              prop("VelmontURL", &TCorvaneRegistry::VelmontURL),
              prop("UpdateStart", &TCorvaneRegistry::UpdateStart),
              prop("ProviderDB", &TCorvaneRegistry::ProviderDB, &TCorvaneRegistry::SetProviderDB),
              prop("ApplicationDB", &TCorvaneRegistry::ApplicationDB),
              prop("LookupDB", &TCorvaneRegistry::LookupDB),
              prop("ListsDB", &TCorvaneRegistry::ListsDB, &TCorvaneRegistry::SetListsDB),
              prop("Plugins", &TCorvaneRegistry::Plugins),
              prop("VelBankLookupDB", &TCorvaneRegistry::VelBankLookupDB,
                   &TCorvaneRegistry::SetVelBankLookupDB),
              prop("Shell", &TCorvaneRegistry::Shell), prop("Options", &TCorvaneRegistry::Options),
              prop("CurrencyStr", &TCorvaneRegistry::GetCurrencyStr, &TCorvaneRegistry::SetCurrencyStr),
              prop("RestrictMaxCorVersion", &TCorvaneRegistry::RestrictMaxCorVersion),
              prop("OverMaxCorVersion", &TCorvaneRegistry::OverMaxCorVersion),
              prop("MinVeluQuoteVersion", &TCorvaneRegistry::MinVeluQuoteVersion),
              prop("Dialogs", &TCorvaneRegistry::Dialogs),
              prop("HouseKeeping", &TCorvaneRegistry::HouseKeeping),
              prop("DocumentPath", &TCorvaneRegistry::DocumentPath))

namespace {

TCorvaneRegistry* Singleton = nullptr;

struct TFinalization {
  ~TFinalization() { ReleaseCorvaneRegistry(); }
} Finalization;

std::string ExecutablePath() {
  char Buf[PATH_MAX];
  ssize_t N = ::readlink("/proc/self/exe", Buf, sizeof Buf - 1);
  return N > 0 ? std::string(Buf, static_cast<size_t>(N)) : std::string();
}

// The first "[DataPath]" becomes the data folder.
std::string SubstituteDataPath(const std::string& Value) {
  size_t P = Value.find(SDataPathMacro);
  if (P == std::string::npos) return Value;
  std::string R = Value;
  R.replace(P, std::char_traits<char>::length(SDataPathMacro), GetDataFolder());
  return R;
}

}  // namespace

// ---------------------------------------------------------------------------
// Storages

TStorage::~TStorage() = default;

TFileStorage::TFileStorage() : TStorage(ChangeFileExt(ExecutablePath(), ".dat")) {}
TFileStorage::~TFileStorage() = default;

bool TFileStorage::SaveRegistryData(TCorvaneRegistry* Registry) {
  TFileStream F(FLocation, fmCreate);
  WriteComponent(&F, Registry);
  return true;
}

bool TFileStorage::ReadRegistryData(TCorvaneRegistry* Registry) {
  if (!FileExists(FLocation)) return false;
  TFileStream F(FLocation, fmOpenRead | fmShareDenyWrite);
  ReadComponent(&F, Registry);
  return true;
}

TRegStorage::~TRegStorage() = default;

bool TRegStorage::SaveRegistryData(TCorvaneRegistry* Registry) {
  if (FLocation.empty()) return false;
  RTTIStream()->StreamPropsToReg(Registry, FLocation + "\\", true);
  return true;
}

bool TRegStorage::ReadRegistryData(TCorvaneRegistry* Registry) {
  if (FLocation.empty()) return false;
  RTTIStream()->StreamRegToProps(FLocation + "\\", Registry, true);
  return true;
}

TConfigStorage::~TConfigStorage() = default;

bool TConfigStorage::SaveRegistryData(TCorvaneRegistry* Registry) {
  if (FLocation.empty()) return false;
  RTTIStream()->StreamPropsToConfig(Registry, FLocation, true);
  return true;
}

bool TConfigStorage::ReadRegistryData(TCorvaneRegistry* Registry) {
  if (FLocation.empty()) return false;
  RTTIStream()->StreamConfigToProps(FLocation, Registry, true);
  return true;
}

// ---------------------------------------------------------------------------
// TCorvaneRegistry

TCorvaneRegistry::TCorvaneRegistry(TComponent* AOwner, TStorageType AStorageType)
    : TComponent(AOwner), FStorageType(AStorageType), FShell(new TRegShell),
      FOptions(new TRegOptions), FDialogs(new TCommonDlgReg) {
  try {
    CreateOwnStorage();
    ReadRegistryData();
  } catch (...) {
    FStorage.reset();
    delete FShell;
    delete FOptions;
    delete FDialogs;
    if (Singleton == this) Singleton = nullptr;
    throw;
  }
}

TCorvaneRegistry::~TCorvaneRegistry() {
  SaveRegistryData();
  FStorage.reset();
  delete FShell;
  delete FOptions;
  delete FDialogs;
  FShell = nullptr;
  FOptions = nullptr;
  FDialogs = nullptr;
  if (Singleton == this) Singleton = nullptr;
}

TCorvaneRegistry* TCorvaneRegistry::CorvaneRegistry() { return ::vel::CorvaneRegistry(); }

TCorvaneRegistry* CorvaneRegistry() {
  if (!Singleton) Singleton = new TCorvaneRegistry(nullptr, stConfigFile);
  return Singleton;
}

void ReleaseCorvaneRegistry() { delete Singleton; }

void TCorvaneRegistry::CreateOwnStorage() {
  FStorage.reset();
  switch (FStorageType) {
    case stDataFile: FStorage = std::make_unique<TFileStorage>(FFileName); break;
    case stRegistry: FStorage = std::make_unique<TRegStorage>(FRegKey); break;
    case stConfigFile: FStorage = std::make_unique<TConfigStorage>(FConfigKey); break;
  }
}

void TCorvaneRegistry::CreateStorage() { CreateOwnStorage(); }

void TCorvaneRegistry::ReadRegistryData() {
  if (FStorage) FStorage->ReadRegistryData(this);
}

void TCorvaneRegistry::SetStorageType(TStorageType Value) {
  FStorageType = Value;
  CreateStorage();
  ReadRegistryData();
}

void TCorvaneRegistry::SetFileName(const std::string& Value) {
  if (Value == FFileName) return;
  FFileName = Value;
  SetStorageType(stDataFile);
  FRegKey.clear();
}

void TCorvaneRegistry::SetRegKey(const std::string& Value) {
  if (Value == FRegKey) return;
  FRegKey = Value;
  SetStorageType(stRegistry);
  FFileName.clear();
}

void TCorvaneRegistry::SetConfigKey(const std::string& Value) {
  if (Value == FConfigKey) return;
  FConfigKey = Value;
  SetStorageType(stConfigFile);
  FFileName = SCorvaneConfigFileName;
}

void TCorvaneRegistry::SetProviderDB(const std::string& Value) { FProviderDB = SubstituteDataPath(Value); }
void TCorvaneRegistry::SetListsDB(const std::string& Value) { FListsDB = SubstituteDataPath(Value); }
void TCorvaneRegistry::SetVelBankLookupDB(const std::string& Value) {
  FVelBankLookupDB = SubstituteDataPath(Value);
}

std::string TCorvaneRegistry::GetCurrencyStr() const { return Trim(FormatSettings.CurrencyString); }

void TCorvaneRegistry::SaveAsRegFile(const std::string& AFileName, bool Overwrite) {
  if (FileExists(FFileName) && !Overwrite) return;
  if (FRegKey.empty()) return;
  RTTIStream()->StreamPropsToRegEdit(FRegKey + "\\", AFileName, this, true);
}

std::string TCorvaneRegistry::GetModuleInfo(const TRegPackage* Package, bool WithVersion) {
  return WithVersion ? Package->Module + "=" + Package->Version : Package->Module;
}

void TCorvaneRegistry::AllModulesInfo(TStrings* Strings, bool WithVersions) {
  Strings->Clear();
  const TRegPackage* Modules[] = {
      FShell->ProductTree(), FShell->MessageView(), FShell->Marketing(),
      FShell->Advisor(),     FShell->ImportApp(),   FShell->ExportApp(),
      FShell->OpenNew(),     FShell->DeleteApps(),  FShell->DBUtilities(),
      FDialogs->FatalDialog(), FDialogs->CompleteDialog(), FDialogs->SignOffDialog(),
      FDialogs->InCompleteDialog()};
  for (const TRegPackage* M : Modules) Strings->Add(GetModuleInfo(M, WithVersions));
}

}  // namespace vel
