// The package manager and the version classes on a real plug-in package:
// subscribes to the package manager, loads ProdTree.bpl by name (found
// next to this program, or on $VEL_PACKAGE_PATH), prints the notification,
// then the package's version and package information, read from its
// resources.
//
//   vel_packages_demo [PACKAGE]     default: ProdTree.bpl
#include <cstdio>
#include <string>

#include "vel/ExtendedClasses.h"
#include "vel/PackMan.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;

namespace {

class TListener : public TObject {
 public:
  void Loaded(TObject*, const std::string& Name, int32_t KeyIndex) {
    std::printf("notification: loading %s as package %d\n", Name.c_str(), KeyIndex);
  }
};

}  // namespace

int main(int argc, char** argv) {
  const std::string Name = argc > 1 ? argv[1] : "ProdTree.bpl";
  try {
    IPtr<IPackageManager> Manager = PackageManager();
    auto* M = dynamic_cast<TCustomPackageManager*>(static_cast<IPackageManager*>(Manager.get()));
    TListener Listener;
    TPackageNotifier Notifier(M->GetSubscribe());
    Notifier.OnPackageLoad = TNotifyPackageEvent::Bind<&TListener::Loaded>(&Listener);

    const int32_t Key = Manager->LoadPackageLib(Name);
    std::printf("loaded %s: key index %d, %d package(s) listed\n", Name.c_str(), Key,
                Manager->GetPackageCount());
    // Loading it again gives the same key and loads nothing.
    std::printf("loaded again: key index %d\n", Manager->LoadPackageLib(Name));

    const std::string File = FindModuleFile(Name);
    TPackageInfo Info;
    TStrings* Lines = Info.LookupPackageInfo(File, true);
    std::printf("\n%s:\n", File.c_str());
    for (int I = 0; I < Lines->Count(); ++I)
      std::printf("  %s\n", Cp1252ToUtf8(Lines->Get(I)).c_str());
    M->GetSubscribe()->RemoveNotifier(Notifier.AsCustomNotifier());
  } catch (const Exception& E) {
    std::fprintf(stderr, "vel_packages_demo: %s\n", E.what());
    return 1;
  }
  return 0;
}
