#include "vel/VelClassesLib.h"

#include <atomic>
#include <exception>

#include "vel/CorRegistry.h"
#include "vel/PackMan.h"
#include "vel/RttiStrm.h"
#include "vel/velThreads.h"

namespace vel {

namespace {

std::atomic<TUnitObserver> gObserver{nullptr};

void Observe(const TPackageInfoTable* Table, const char* Unit, bool Initializing) {
  if (TUnitObserver O = gObserver.load(std::memory_order_acquire)) O(Table, Unit, Initializing);
}

// velThreads: the thread manager is freed, with the threads still
// registered with it.
void FinalizeVelThreads() {
  ReleaseThreadManager();
}
void FinalizeRttiStrm() {
  ReleaseRTTIStream();
}
void FinalizeCorRegistry() {
  ReleaseCorvaneRegistry();
}
void FinalizePackMan() {
  ReleasePackageManager();
}

// The units in the order the package initialises them. Units of the suite
// that this library does not (yet) contain are left out; their place in
// the order is kept in the comments: VelUtils, LogonDlg, TextUtils,
// FileUtils, TreeUtils, CDateUtils, Constants, VelSnoopUtils, OleUtils,
// IntfDisp, SimpleXmlParse, velHash, Cryption, OleStorage.
const TPackageUnitEntry Units[] = {
    // VelUtils
    {"ExtendedClasses", nullptr, nullptr},
    {"ExtendedInterfaces", nullptr, nullptr},
    // LogonDlg
    {"StreamClasses", nullptr, nullptr},
    {"velInterfaces", nullptr, nullptr},
    {"IntfClasses", nullptr, nullptr},
    {"velIntfClasses", nullptr, nullptr},
    {"ThrdObjLst", nullptr, nullptr},
    {"ExStreams", nullptr, nullptr},
    {"velThreads", nullptr, &FinalizeVelThreads},
    {"ThreadClasses", nullptr, nullptr},
    // TextUtils, FileUtils, TreeUtils, CDateUtils
    {"RegistryClasses", nullptr, nullptr},
    {"ComDlgReg", nullptr, nullptr},
    {"OpenNewReg", nullptr, nullptr},
    {"CShellReg", nullptr, nullptr},
    {"OptionsReg", nullptr, nullptr},
    // Constants
    {"RttiStrm", nullptr, &FinalizeRttiStrm},
    {"CorRegistry", nullptr, &FinalizeCorRegistry},
    {"PackMan", nullptr, &FinalizePackMan},
    // VelSnoopUtils, OleUtils, IntfDisp, SimpleXmlParse, velHash, Cryption
    {"velStreamRecover", nullptr, nullptr},
    // OleStorage
    {"velVersionInfo", nullptr, nullptr},
};

// The library initialises itself when it is loaded and finalises itself
// when it is unloaded (or the process exits).
struct TLibraryLifetime {
  TLibraryLifetime() { LibraryUnits().Initialize(); }
  ~TLibraryLifetime() {
    try {
      LibraryUnits().Finalize();
    } catch (...) {
      // Nothing can report it any more.
    }
  }
};

}  // namespace

void SetUnitObserver(TUnitObserver Observer) {
  gObserver.store(Observer, std::memory_order_release);
}

void TUnitTable::Initialize() {
  std::lock_guard<std::recursive_mutex> L(FLock);
  if (FCount++ > 0) return;
  try {
    for (FInitialised = 0; FInitialised < FTable.UnitCount; ++FInitialised) {
      const TPackageUnitEntry& U = FTable.UnitInfo[FInitialised];
      Observe(&FTable, U.Name, true);
      if (U.Init) U.Init();
    }
  } catch (...) {
    FCount = 1;
    try {
      Finalize();
    } catch (...) {
    }
    throw;
  }
}

void TUnitTable::Finalize() {
  std::lock_guard<std::recursive_mutex> L(FLock);
  if (FCount == 0 || --FCount > 0) return;
  std::exception_ptr First;
  while (FInitialised > 0) {
    const TPackageUnitEntry& U = FTable.UnitInfo[--FInitialised];
    try {
      Observe(&FTable, U.Name, false);
      if (U.FInit) U.FInit();
    } catch (...) {
      if (!First) First = std::current_exception();
    }
  }
  if (First) std::rethrow_exception(First);
}

int32_t TUnitTable::InitCount() const {
  std::lock_guard<std::recursive_mutex> L(FLock);
  return FCount;
}

TUnitTable& LibraryUnits() {
  // Never destroyed: finalisation runs from TLibraryLifetime, and late
  // callers still find the table.
  static TUnitTable* T = new TUnitTable(Units, static_cast<int32_t>(sizeof Units / sizeof Units[0]));
  return *T;
}

namespace {
TLibraryLifetime Lifetime;
}

}  // namespace vel

extern "C" {

void Initialize() {
  vel::LibraryUnits().Initialize();
}

void Finalize() {
  vel::LibraryUnits().Finalize();
}

const vel::TPackageInfoTable* GetPackageInfoTable() {
  return vel::LibraryUnits().Table();
}

}
