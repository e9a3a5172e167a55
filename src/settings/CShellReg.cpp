#include "vel/CShellReg.h"

#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_PUBLISHED(TRegShell, prop("ProductTree", &TRegShell::ProductTree),
              prop("MessageView", &TRegShell::MessageView),
              prop("Marketing", &TRegShell::Marketing), prop("Advisor", &TRegShell::Advisor),
              prop("ImportApp", &TRegShell::ImportApp), prop("ExportApp", &TRegShell::ExportApp),
              prop("OpenNew", &TRegShell::OpenNew), prop("DeleteApps", &TRegShell::DeleteApps),
              prop("DBUtilities", &TRegShell::DBUtilities))

TRegShell::TRegShell()
    : FProductTree(new TRegPackage), FMessageView(new TRegPackage), FMarketing(new TRegPackage),
      FAdvisor(new TRegPackage), FImportApp(new TRegPackage), FExportApp(new TRegPackage),
      FOpenNew(new TRegPackage), FDeleteApps(new TRegPackage), FDBUtilities(new TRegPackage) {}

TRegShell::~TRegShell() {
  delete FProductTree;
  delete FMessageView;
  delete FMarketing;
  delete FAdvisor;
  delete FImportApp;
  delete FExportApp;
  delete FOpenNew;
  delete FDeleteApps;
  delete FDBUtilities;
}

}  // namespace vel
