// CorRegistry: TCorvaneRegistry, the application-wide settings object, and
// the storages it reads its values from.
//
// The settings registry is a component whose published properties hold the
// suite's database locations, version limits, document path and three owned
// trees of settings objects (Shell, Options, Dialogs). A storage object,
// chosen by the storage type, decides where the values come from:
//
//   stDataFile    TFileStorage    a component stream ("TPF0") of the whole
//                                 component in a file (default: the
//                                 executable's path with ".dat")
//   stRegistry    TRegStorage     a registry key under HKEY_LOCAL_MACHINE
//                                 (default "Software\Velmont\Corvane")
//   stConfigFile  TConfigStorage  an element of the XML configuration file,
//                                 selected by XPath below the document
//                                 element (default "Corvane")
//
// The registry and configuration layouts are those of RttiStrm: one value or
// element per simple property, one subkey or child element per settings
// object, recursively. Reads only overwrite what they find.
//
// Effects of the setters, in this order:
//   SetStorageType(v)  store v (also when unchanged), re-create the storage,
//                      read.
//   SetFileName(v)     when v differs: store, SetStorageType(stDataFile),
//                      then clear RegKey.
//   SetRegKey(v)       when v differs: store, SetStorageType(stRegistry),
//                      then clear FileName.
//   SetConfigKey(v)    when v differs: store, SetStorageType(stConfigFile),
//                      then set FileName to "Corvane.config".
//   SetProviderDB, SetListsDB, SetVelBankLookupDB: the first "[DataPath]"
//                      (case-sensitive) becomes GetDataFolder().
//
// The settings registry never writes its values back (SaveRegistryData is
// empty, also at destruction); callers store them with RttiStrm or export
// them with SaveAsRegFile. CurrencyStr shows the runtime's currency symbol
// (FormatSettings.CurrencyString, trimmed) and ignores what is assigned.
//
// The constructor is not guarded: besides the singleton of
// CorvaneRegistry(), an application may make its own settings registries.
// The constructor reads through TCorvaneRegistry's own CreateStorage (C++
// calls no override from a constructor); later changes use the override.
//
// Errors of the registry and configuration storages are collected and
// dropped; a damaged data file raises the component reader's error out of
// the constructor or the setter that read it.
//
// Thread safety: none; create and use it on one thread (the main thread).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "vel/ComDlgReg.h"
#include "vel/CShellReg.h"
#include "vel/OptionsReg.h"
#include "vel/rtl/Components.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

enum TStorageType : uint8_t { stDataFile, stRegistry, stConfigFile };
VEL_ENUM(TStorageType, "stDataFile", "stRegistry", "stConfigFile")

inline constexpr const char* SCorvaneRegKey = "Software\\Velmont\\Corvane";
inline constexpr const char* SCorvaneConfigKey = "Corvane";
inline constexpr const char* SCorvaneConfigFileName = "Corvane.config";
inline constexpr const char* SDataPathMacro = "[DataPath]";

class TCorvaneRegistry;

// Where the settings registry's values live.
class VEL_API TStorage : public TObject {
  VEL_CLASS(TStorage, TObject)
 public:
  explicit TStorage(std::string ALocation) : FLocation(std::move(ALocation)) {}
  ~TStorage() override;

  const std::string& Location() const { return FLocation; }
  virtual bool SaveRegistryData(TCorvaneRegistry* Registry) = 0;
  // True when a read was attempted.
  virtual bool ReadRegistryData(TCorvaneRegistry* Registry) = 0;

 protected:
  std::string FLocation;
};

class VEL_API TFileStorage : public TStorage {
  VEL_CLASS(TFileStorage, TStorage)
 public:
  // The executable's path with its extension changed to ".dat".
  TFileStorage();
  explicit TFileStorage(std::string AFileName) : TStorage(std::move(AFileName)) {}
  ~TFileStorage() override;
  // Creates or truncates the file and writes the component to it.
  bool SaveRegistryData(TCorvaneRegistry* Registry) override;
  // Reads the component from the file when it exists.
  bool ReadRegistryData(TCorvaneRegistry* Registry) override;
};

class VEL_API TRegStorage : public TStorage {
  VEL_CLASS(TRegStorage, TStorage)
 public:
  TRegStorage() : TStorage(SCorvaneRegKey) {}
  explicit TRegStorage(std::string AKey) : TStorage(std::move(AKey)) {}
  ~TRegStorage() override;
  // Only probes the values (RttiStrm's StreamPropsToReg writes nothing).
  bool SaveRegistryData(TCorvaneRegistry* Registry) override;
  bool ReadRegistryData(TCorvaneRegistry* Registry) override;
};

class VEL_API TConfigStorage : public TStorage {
  VEL_CLASS(TConfigStorage, TStorage)
 public:
  TConfigStorage() : TStorage(SCorvaneConfigKey) {}
  // An empty key means "Corvane".
  explicit TConfigStorage(std::string AKey)
      : TStorage(AKey.empty() ? std::string(SCorvaneConfigKey) : std::move(AKey)) {}
  ~TConfigStorage() override;
  bool SaveRegistryData(TCorvaneRegistry* Registry) override;
  bool ReadRegistryData(TCorvaneRegistry* Registry) override;
};

class VEL_API TCorvaneRegistry : public TComponent {
  VEL_CLASS(TCorvaneRegistry, TComponent)
 public:
  explicit TCorvaneRegistry(TComponent* AOwner = nullptr, TStorageType AStorageType = stConfigFile);
  ~TCorvaneRegistry() override;
  TCorvaneRegistry(const TCorvaneRegistry&) = delete;
  TCorvaneRegistry& operator=(const TCorvaneRegistry&) = delete;

  // The singleton (no owner, stConfigFile), made on the first call.
  static TCorvaneRegistry* CorvaneRegistry();
  static void Initialize() {}
  static void Terminate() {}

  void ReadRegistryData();
  // Does nothing: the settings registry never writes its values back.
  void SaveRegistryData() {}
  // Exports the values as a registry export file through RttiStrm, unless
  // the data file (FileName) exists and Overwrite is false, or RegKey is
  // empty.
  void SaveAsRegFile(const std::string& AFileName, bool Overwrite);
  // Clears Strings, then one line per module (Module, or Module=Version):
  // the shell's nine packages, then four dialogs.
  void AllModulesInfo(TStrings* Strings, bool WithVersions);
  static std::string GetModuleInfo(const TRegPackage* Package, bool WithVersion);

  // Published values.
  std::string Version;
  std::string VelmontURL;
  bool UpdateStart = false;
  std::string ApplicationDB;
  std::string LookupDB;
  std::string Plugins;
  int32_t RestrictMaxCorVersion = 0;
  std::string OverMaxCorVersion;
  std::string MinVeluQuoteVersion;
  std::string HouseKeeping;
  std::string DocumentPath;

  const std::string& ProviderDB() const { return FProviderDB; }
  void SetProviderDB(const std::string& Value);
  const std::string& ListsDB() const { return FListsDB; }
  void SetListsDB(const std::string& Value);
  const std::string& VelBankLookupDB() const { return FVelBankLookupDB; }
  void SetVelBankLookupDB(const std::string& Value);
  std::string GetCurrencyStr() const;
  void SetCurrencyStr(const std::string&) {}
  TRegShell* Shell() const { return FShell; }
  TRegOptions* Options() const { return FOptions; }
  TCommonDlgReg* Dialogs() const { return FDialogs; }

  // Public, not published.
  const std::string& FileName() const { return FFileName; }
  void SetFileName(const std::string& Value);
  const std::string& RegKey() const { return FRegKey; }
  void SetRegKey(const std::string& Value);
  const std::string& ConfigKey() const { return FConfigKey; }
  void SetConfigKey(const std::string& Value);
  TStorageType StorageType() const { return FStorageType; }
  void SetStorageType(TStorageType Value);
  TStorage* Storage() const { return FStorage.get(); }

 protected:
  virtual void CreateStorage();

 private:
  void CreateOwnStorage();

  std::string FRegKey;
  std::string FConfigKey = SCorvaneConfigKey;
  std::string FFileName;
  TStorageType FStorageType;
  std::unique_ptr<TStorage> FStorage;
  std::string FProviderDB;
  std::string FListsDB;
  std::string FVelBankLookupDB;
  TRegShell* FShell;
  TRegOptions* FOptions;
  TCommonDlgReg* FDialogs;
};

// The singleton (TCorvaneRegistry::CorvaneRegistry).
VEL_API TCorvaneRegistry* CorvaneRegistry();
// Frees the singleton if it exists (run when the library is unloaded).
VEL_API void ReleaseCorvaneRegistry();

}  // namespace vel
