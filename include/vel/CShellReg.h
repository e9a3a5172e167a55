// CShellReg: TRegShell, the settings of the suite's shell: one package
// settings object per application the shell starts. It owns them.
//
// Thread safety: none; one thread at a time per object.
#pragma once

#include "vel/OpenNewReg.h"

namespace vel {

class VEL_API TRegShell : public TCustomRegKey {
  VEL_CLASS(TRegShell, TCustomRegKey)
 public:
  TRegShell();
  ~TRegShell() override;
  TRegShell(const TRegShell&) = delete;
  TRegShell& operator=(const TRegShell&) = delete;

  TRegPackage* ProductTree() const { return FProductTree; }
  TRegPackage* MessageView() const { return FMessageView; }
  TRegPackage* Marketing() const { return FMarketing; }
  TRegPackage* Advisor() const { return FAdvisor; }
  TRegPackage* ImportApp() const { return FImportApp; }
  TRegPackage* ExportApp() const { return FExportApp; }
  TRegPackage* OpenNew() const { return FOpenNew; }
  TRegPackage* DeleteApps() const { return FDeleteApps; }
  TRegPackage* DBUtilities() const { return FDBUtilities; }

 private:
  TRegPackage* FProductTree;
  TRegPackage* FMessageView;
  TRegPackage* FMarketing;
  TRegPackage* FAdvisor;
  TRegPackage* FImportApp;
  TRegPackage* FExportApp;
  TRegPackage* FOpenNew;
  TRegPackage* FDeleteApps;
  TRegPackage* FDBUtilities;
};

}  // namespace vel
