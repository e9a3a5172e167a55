// The library as a package: its unit table, the order of initialisations
// and finalisations, the singletons freed at finalisation, and the unit
// table machinery plug-ins use.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"
#include "vel/PackMan.h"
#include "vel/VelClassesLib.h"
#include "vel/rtl/System.h"
#include "vel/velThreads.h"

using namespace vel;

namespace {

std::vector<std::string> gTrace;

void Record(const TPackageInfoTable*, const char* Unit, bool Init) {
  gTrace.push_back(std::string(Init ? "+" : "-") + Unit);
}

const std::vector<std::string> LibraryOrder = {
    "ExtendedClasses", "ExtendedInterfaces", "StreamClasses", "velInterfaces",    "IntfClasses",
    "velIntfClasses",  "ThrdObjLst",         "ExStreams",     "velThreads",       "ThreadClasses",
    "RegistryClasses", "ComDlgReg",          "OpenNewReg",    "CShellReg",        "OptionsReg",
    "RttiStrm",        "CorRegistry",        "PackMan",       "velStreamRecover", "velVersionInfo"};

TEST(PackageEntry, UnitTableListsTheUnitsInOrder) {
  const TPackageInfoTable* T = GetPackageInfoTable();
  ASSERT_NE(T, nullptr);
  std::vector<std::string> Names;
  for (int32_t I = 0; I < T->UnitCount; ++I) Names.push_back(T->UnitInfo[I].Name);
  EXPECT_EQ(Names, LibraryOrder);
  // Loading the library initialised it once.
  EXPECT_EQ(LibraryUnits().InitCount(), 1);
}

TEST(PackageEntry, FinalizeFreesSingletonsAndInitializeStartsAfresh) {
  IPtr<IThreadManager> First = ThreadManager();
  ASSERT_TRUE(First);
  First = nullptr;
  ASSERT_TRUE(CurrentThreadManager());
  ASSERT_TRUE(PackageManager());

  SetUnitObserver(&Record);
  Initialize();  // nested: runs nothing
  Finalize();
  EXPECT_TRUE(gTrace.empty());
  Finalize();  // the load's own initialisation ends here
  std::vector<std::string> Want, WantInit;
  for (const auto& U : LibraryOrder) {
    Want.insert(Want.begin(), "-" + U);
    WantInit.push_back("+" + U);
  }
  EXPECT_EQ(gTrace, Want);
  EXPECT_FALSE(CurrentThreadManager());
  EXPECT_FALSE(CurrentPackageManager());
  Finalize();  // unmatched: nothing
  EXPECT_EQ(gTrace.size(), Want.size());

  gTrace.clear();
  Initialize();
  EXPECT_EQ(gTrace, WantInit);
  EXPECT_TRUE(ThreadManager());  // re-created on demand
  EXPECT_TRUE(PackageManager());
  SetUnitObserver(nullptr);
}

std::vector<std::string> gCalls;

TEST(PackageEntry, FailuresUnwindWhatWasInitialised) {
  // An initialisation that raises: the units before it are finalised in
  // reverse (B's failure does not stop A's), the first error passes on.
  const TPackageUnitEntry A{"A", [] { gCalls.push_back("+A"); }, [] { gCalls.push_back("-A"); }};
  const TPackageUnitEntry B{"B", [] { gCalls.push_back("+B"); },
                            [] {
                              gCalls.push_back("-B");
                              throw Exception("B failed");
                            }};
  const TPackageUnitEntry C{"C",
                            [] {
                              gCalls.push_back("+C");
                              throw Exception("C failed");
                            },
                            [] { gCalls.push_back("-C"); }};
  const TPackageUnitEntry D{"D", nullptr, [] { gCalls.push_back("-D"); }};
  const TPackageUnitEntry Units[] = {A, B, C, D}, Ok[] = {A, B, D};
  TUnitTable T(Units, 4), U(Ok, 3);
  EXPECT_EQ(vel_test::Raised([&] { T.Initialize(); }), "C failed");
  EXPECT_EQ(gCalls, (std::vector<std::string>{"+A", "+B", "+C", "-B", "-A"}));
  EXPECT_EQ(T.InitCount(), 0);
  // A finalisation that raises does not stop the others.
  gCalls.clear();
  U.Initialize();
  EXPECT_EQ(vel_test::Raised([&] { U.Finalize(); }), "B failed");
  EXPECT_EQ(gCalls, (std::vector<std::string>{"+A", "+B", "-D", "-B", "-A"}));
}

}  // namespace
