// The package manager over real plug-in packages built by the test suite
// (tests/plugins): key indexes, case-insensitive names, failed loads, the
// settings registry's plug-in list, owners, notifications and callbacks
// into the manager, the singleton, and concurrent loads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "vel/CorRegistry.h"
#include "vel/ExtendedClasses.h"
#include "vel/PackMan.h"
#include "vel/VelClassesLib.h"

using namespace vel;
using vel_test::Raised;

namespace {

std::vector<std::string> gUnits;
void RecordUnit(const TPackageInfoTable*, const char* Unit, bool Init) {
  gUnits.push_back(std::string(Init ? "+" : "-") + Unit);
}

// Records every notification and, on request, calls back into the manager
// from inside it.
class TRecorder : public TObject {
 public:
  std::vector<std::string> Seen;
  bool CallBack = false;
  void Loaded(TObject*, const std::string& Name, int32_t Index) {
    std::string Line = Name + "#" + std::to_string(Index);
    if (CallBack) {
      auto* M = dynamic_cast<TCustomPackageManager*>(
          static_cast<IPackageManager*>(PackageManager().get()));
      int32_t Key = -1;
      Line += " count=" + std::to_string(M->GetPackageCount()) +
              " listed=" + std::to_string(M->Contains(Name, Key));
    }
    Seen.push_back(Line);
  }
};

class PackMan : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("VEL_PACKAGE_PATH", VEL_TEST_PLUGIN_DIR, 1);
    Intf = PackageManager();
    M = dynamic_cast<TCustomPackageManager*>(static_cast<IPackageManager*>(Intf.get()));
    ASSERT_NE(M, nullptr);
    SetUnitObserver(&RecordUnit);
  }
  void TearDown() override { SetUnitObserver(nullptr); }
  // A subscriber recording into R.
  std::unique_ptr<TPackageNotifier> Subscribe(TRecorder& R) {
    auto N = std::make_unique<TPackageNotifier>(M->GetSubscribe());
    N->OnPackageLoad = decltype(N->OnPackageLoad)::Bind<&TRecorder::Loaded>(&R);
    return N;
  }

  IPtr<IPackageManager> Intf;
  TCustomPackageManager* M = nullptr;
};

TEST_F(PackMan, NamesCompareCaseInsensitivelyAndLoadOnce) {
  TRecorder R;
  auto N = Subscribe(R);
  EXPECT_EQ(M->LoadPackageLib("PlugA.bpl"), 1);
  EXPECT_EQ(M->LoadPackageLib("pluga.BPL"), 1);
  EXPECT_EQ(M->GetPackageCount(), 1);
  EXPECT_EQ(M->GetPackage(0), "PlugA.bpl");
  EXPECT_EQ(R.Seen, std::vector<std::string>{"PlugA.bpl#1"});
  // The package's own units ran, in its table's order.
  EXPECT_EQ(gUnits, (std::vector<std::string>{"+PlugA", "+PlugAView"}));
  // Unloading changes nothing.
  M->UnLoadPackageLib("PLUGA.bpl");
  M->RegistryUnLoad();
  M->Terminate();
  EXPECT_EQ(M->GetPackageCount(), 1);
  EXPECT_EQ(M->LoadPackageLib("PlugA.bpl"), 1);
  EXPECT_NE(M->Package(0)->Handle, nullptr);
}

TEST_F(PackMan, FailedLoadsAreNotifiedButKeepTheirKeyIndex) {
  TRecorder R;
  auto N = Subscribe(R);
  EXPECT_EQ(Raised<EPackageError>([&] { M->LoadPackageLib("Missing.bpl"); }),
            "Cannot load package Missing.bpl: not found in the package path");
  EXPECT_EQ(Raised([&] { M->LoadPackageLib("PlugBad.bpl"); }), "PlugBad refuses to start");
  // The failing package's first unit was finalised again.
  EXPECT_EQ(gUnits, (std::vector<std::string>{"+PlugBad", "+PlugBadView", "-PlugBad"}));
  EXPECT_EQ(M->LoadPackageLib("PlugB.bpl"), 1);
  EXPECT_EQ(R.Seen, (std::vector<std::string>{"Missing.bpl#1", "PlugBad.bpl#1", "PlugB.bpl#1"}));
  EXPECT_EQ(M->GetPackageCount(), 1);
  // The lock was left each time: another thread can use the manager.
  std::thread([&] { EXPECT_EQ(M->GetPackageCount(), 1); }).join();
}

// Without subscribers nothing is sent, but the last load is still recorded.
// A listed name in another letter case finds the file (PlugB.bpl) all the same.
TEST_F(PackMan, RegistryLoadRecordsEveryListedName) {
  CorvaneRegistry()->Plugins = "PlugA.bpl, \"plugb.BPL\" PlugA.bpl";
  TComponent Owner;
  EXPECT_EQ(M->LoadPackageLib("PlugA.bpl"), 1);
  EXPECT_EQ(M->NotifyName() + "#" + std::to_string(M->NotifyIndex()), "PlugA.bpl#1");
  M->RegistryLoad(&Owner);
  ASSERT_EQ(M->GetPackageCount(), 4);
  std::string Got;
  for (int I = 0; I < 4; ++I)
    Got += M->Package(I)->Name + "#" + std::to_string(M->Package(I)->KeyIndex) + " ";
  EXPECT_EQ(Got, "PlugA.bpl#1 PlugA.bpl#2 plugb.BPL#3 PlugA.bpl#4 ");
  EXPECT_EQ(M->IndexOfName("pluga.bpl"), 3);
  EXPECT_EQ(M->IndexOfOwner(&Owner), 3);
  EXPECT_EQ(M->IndexOfKeyIndex(3), 2);
  bool Loaded = false;
  EXPECT_EQ(M->PackageLoaded("PLUGA.BPL", Loaded)->KeyIndex, 1);
  EXPECT_TRUE(Loaded);
  TLoadedPackage* Last = M->PackageLoaded("None.bpl", Loaded);
  EXPECT_FALSE(Loaded);
  EXPECT_EQ(Last->KeyIndex, 4);  // the last record examined
  int32_t Key = 77;
  EXPECT_FALSE(M->Contains("None.bpl", Key));
  EXPECT_EQ(Key, 77);
  EXPECT_EQ(M->Package(0)->Owner, nullptr);
  EXPECT_EQ(M->Package(1)->Owner, &Owner);
  EXPECT_FALSE(M->SubscribeAllocated());
}

TEST_F(PackMan, OwnerDestructionKeepsThePackageListed) {
  auto* Owner = new TComponent;
  EXPECT_EQ(M->RegisterLoad("PlugB.bpl", Owner), 1);
  EXPECT_EQ(M->RegisterLoad("plugb.bpl", Owner), 1);  // already listed: old owner kept
  EXPECT_EQ(M->IndexOfOwner(Owner), 0);
  delete Owner;  // the free notifier hears it and unloads nothing
  EXPECT_EQ(M->GetPackageCount(), 1);
  EXPECT_EQ(M->LoadPackageLib("PlugB.bpl"), 1);
}

TEST_F(PackMan, SubscribersMayCallBackIntoTheManager) {
  TRecorder R;
  R.CallBack = true;
  auto N = Subscribe(R);
  // ISubscribe is answered by the notify source.
  IPtr<ISubscribe> S;
  ASSERT_TRUE(Supports(static_cast<IInterface*>(static_cast<IPackageManager*>(M)),
                       IIDOf<ISubscribe>, S.Out()));
  EXPECT_EQ(S.get(), M->GetSubscribe().get());
  EXPECT_EQ(M->LoadPackageLib("PlugA.bpl"), 1);
  EXPECT_EQ(M->LoadPackageLib("PlugB.bpl"), 2);
  EXPECT_EQ(R.Seen, (std::vector<std::string>{"PlugA.bpl#1 count=0 listed=0",
                                              "PlugB.bpl#2 count=1 listed=0"}));
}

TEST_F(PackMan, OneSingletonAndConcurrentLoadsGiveOneKey) {
  EXPECT_EQ(Raised<EPackageManager>([] { TPackageManager Direct; }),
            "<Singleton/> already Instanciated");
  EXPECT_EQ(TPackageManager::PackageManager().get(), Intf.get());
  std::vector<int32_t> Keys(8);
  std::vector<std::thread> Threads;
  for (int I = 0; I < 8; ++I)
    Threads.emplace_back(
        [&, I] { Keys[I] = PackageManager()->LoadPackageLib(I % 2 ? "PlugA.bpl" : "PLUGA.BPL"); });
  for (auto& T : Threads) T.join();
  for (int32_t K : Keys) EXPECT_EQ(K, 1);
  EXPECT_EQ(M->GetPackageCount(), 1);

  Intf = nullptr;
  M = nullptr;
  ReleasePackageManager();
  EXPECT_FALSE(CurrentPackageManager());
  EXPECT_EQ(Raised<EPackageManager>([] { TPackageManager Direct; }),
            "Call Singleton() function to Reference this class");
  // A new manager starts its key indexes afresh; the package stays loaded
  // in the process and its units do not run again.
  gUnits.clear();
  EXPECT_EQ(PackageManager()->LoadPackageLib("PlugA.bpl"), 1);
  EXPECT_TRUE(gUnits.empty());
}

// The version and package information of a built plug-in, read from its
// resource section without loading it.
TEST(PluginResources, VersionAndPackageInformation) {
  const std::string File = std::string(VEL_TEST_PLUGIN_DIR) + "/PlugB.bpl";
  TPackageInfo Info;
  const std::string L = vel_test::Joined(Info.LookupPackageInfo(File, true));
  EXPECT_EQ(std::count(L.begin(), L.end(), '|'), 13) << L;
  EXPECT_NE(L.find("|FileVersion=2.0.0.0|"), std::string::npos) << L;
  EXPECT_EQ(L.substr(L.find("|PackageDescription")),
            "|PackageDescription=Test plug-in B|PackageUsage=Design Time|Contains=(PlugB)|"
            "Requires=(VelClassesLib,PlugA)");
  uint32_t Fixed[4];
  std::memcpy(Fixed, Info.FixedFileInfo(), sizeof Fixed);
  EXPECT_EQ(Fixed[2], 0x00020000u);
  TVersionInfo A;
  A.SetFileName(std::string(VEL_TEST_PLUGIN_DIR) + "/PlugA.bpl");
  EXPECT_EQ(A.CompanyName() + "|" + A.FileDescription(), "Velmont Tests|Plug-in A");
}

}  // namespace
