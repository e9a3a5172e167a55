// The library as a package: its unit table and the three entry points a
// package exports (Initialize, Finalize, GetPackageInfoTable), and the same
// machinery for plug-in packages (VEL_PACKAGE_ENTRY).
//
// A unit table lists a package's units in initialisation order. Initialize
// runs every unit's initialisation in table order, Finalize every
// finalisation in reverse order; the calls nest (only the first Initialize
// and the matching last Finalize run the units), so a host that loads the
// library and a package loader that calls Initialize again share one
// initialisation. libvelclasses initialises itself when it is loaded and
// finalises itself when it is unloaded; finalisation frees the singletons
// (ThreadManager, PackageManager) so that the next initialisation starts
// afresh.
//
// Thread safety: Initialize and Finalize of one table are serialised by the
// table's lock; a unit's procedures run under it.
#pragma once

#include <cstdint>
#include <mutex>

#include "vel/Export.h"

namespace vel {

using TUnitProc = void (*)();

struct TPackageUnitEntry {
  const char* Name;
  TUnitProc Init;   // may be null
  TUnitProc FInit;  // may be null
};

// The runtime's package information table: the unit count and the units.
struct TPackageInfoTable {
  int32_t UnitCount;
  const TPackageUnitEntry* UnitInfo;
};

// Called before each unit's initialisation (Initializing true) and
// finalisation (false), for diagnostics; null switches it off. Process-wide.
using TUnitObserver = void (*)(const TPackageInfoTable* Table, const char* Unit, bool Initializing);
VEL_API void SetUnitObserver(TUnitObserver Observer);

class VEL_API TUnitTable {
 public:
  TUnitTable(const TPackageUnitEntry* Units, int32_t Count) : FTable{Count, Units} {}
  TUnitTable(const TUnitTable&) = delete;
  TUnitTable& operator=(const TUnitTable&) = delete;

  // The first call runs the initialisations in order. When one raises, the
  // units already initialised are finalised in reverse order and the
  // exception passes on.
  void Initialize();
  // The call matching the first Initialize runs the finalisations of the
  // initialised units in reverse order. A finalisation that raises does not
  // stop the others; the first exception passes on afterwards. Unmatched
  // calls do nothing.
  void Finalize();
  const TPackageInfoTable* Table() const { return &FTable; }
  int32_t InitCount() const;

 private:
  TPackageInfoTable FTable;
  mutable std::recursive_mutex FLock;
  int32_t FCount = 0;
  int32_t FInitialised = 0;  // units whose initialisation ran
};

// The library's own unit table.
VEL_API TUnitTable& LibraryUnits();

}  // namespace vel

extern "C" {
VEL_API void Initialize();
VEL_API void Finalize();
VEL_API const vel::TPackageInfoTable* GetPackageInfoTable();
}

// Declares a plug-in package's unit table and its three exported entry
// points. Use once per package, at namespace scope, with one
// VEL_PACKAGE_UNIT per unit in initialisation order:
//
//   VEL_PACKAGE_ENTRY(VEL_PACKAGE_UNIT("ProdTree", &InitTree, &DoneTree),
//                     VEL_PACKAGE_UNIT("ProdTreeReg", nullptr, nullptr))
//
// Build the package with vel_add_package (cmake/VelPackage.cmake), which
// also gives it its version resource, description and package information.
#define VEL_PACKAGE_UNIT(Name, Init, FInit) ::vel::TPackageUnitEntry{Name, Init, FInit}
#define VEL_PACKAGE_ENTRY(...)                                                        \
  namespace {                                                                         \
  const ::vel::TPackageUnitEntry VelPackageUnits_[] = {__VA_ARGS__};                  \
  ::vel::TUnitTable& VelPackageTable_() {                                             \
    static ::vel::TUnitTable T(VelPackageUnits_, static_cast<int32_t>(                \
                                                     sizeof VelPackageUnits_ /        \
                                                     sizeof VelPackageUnits_[0]));    \
    return T;                                                                         \
  }                                                                                   \
  }                                                                                   \
  extern "C" __attribute__((visibility("default"))) void Initialize() {               \
    VelPackageTable_().Initialize();                                                  \
  }                                                                                   \
  extern "C" __attribute__((visibility("default"))) void Finalize() {                 \
    VelPackageTable_().Finalize();                                                    \
  }                                                                                   \
  extern "C" __attribute__((visibility("default"))) const ::vel::TPackageInfoTable*   \
  GetPackageInfoTable() {                                                             \
    return VelPackageTable_().Table();                                                \
  }
