// ExtendedClasses: the version and package information components.
#include <memory>

#include "packages/VersionCore.h"
#include "vel/ExtendedClasses.h"
#include "vel/rtl/Resources.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

const char* const VERSION_LABELS[VersionLabelCount] = {
    "CompanyName",     "FileDescription",  "FileVersion", "InternalName",   "LegalCopyright",
    "LegalTrademarks", "OriginalFilename", "ProductName", "ProductVersion", "Comments"};

const char* const PackageUsageText[4] = {"", "Design Time", "Run Time", "Design And Run Time"};

namespace {

constexpr detail::TVersionMessages Messages = {SNoVersionInfo, SCannotObtainVersionInfo,
                                               SNoTranslationInfo, SNoFixedFileInfo};

[[noreturn]] void RaiseVersion(const std::string& Message) {
  throw EVersionInfoError(Message);
}

}  // namespace

VEL_PUBLISHED(TVersionInfo, prop("FileName", &TVersionInfo::FileName, &TVersionInfo::SetFileName),
              prop("CompanyName", &TVersionInfo::CompanyName),
              prop("FileDescription", &TVersionInfo::FileDescription),
              prop("FileVersion", &TVersionInfo::FileVersion),
              prop("InternalName", &TVersionInfo::InternalName),
              prop("LegalCopyright", &TVersionInfo::LegalCopyright),
              prop("LegalTrademarks", &TVersionInfo::LegalTrademarks),
              prop("OriginalFilename", &TVersionInfo::OriginalFilename),
              prop("ProductName", &TVersionInfo::ProductName),
              prop("ProductVersion", &TVersionInfo::ProductVersion),
              prop("Comments", &TVersionInfo::Comments))

VEL_PUBLISHED(TPackageInfo, prop("PackageDescription", &TPackageInfo::PackageDescription),
              prop("ContainsUnits", &TPackageInfo::ContainsUnits, &TPackageInfo::SetContains),
              prop("RequiresPackages", &TPackageInfo::RequiresPackages,
                   &TPackageInfo::SetRequires),
              prop("PackageUsage", &TPackageInfo::PackageUsage))

// ---------------------------------------------------------------------------
// TVersionInfo

TVersionInfo::TVersionInfo(TComponent* AOwner) : TComponent(AOwner), FItems(new TStringList) {}

TVersionInfo::~TVersionInfo() {
  delete FItems;
}

void TVersionInfo::SetFileName(const std::string& Value) {
  if (Value == FFileName) return;
  FFileName = Value;
  GetVersionInfo(FFileName);
}

void TVersionInfo::ReadFileVersionInfo() {
  detail::TVersionFields F;
  detail::ReadFileVersionInfo(F, FFileName, Messages, RaiseVersion);
  FHandle = F.Handle;
  FSize = F.Size;
  // Buffer is long enough that moving it keeps its bytes where Translation
  // points.
  FBuffer = std::move(F.Buffer);
  FTranslation = F.Translation;
  FFixedFileInfo = nullptr;
}

void TVersionInfo::ReadFixedFileInfo() {
  detail::TVersionFields F;
  F.Buffer.swap(FBuffer);
  struct TSwapBack {
    std::string& A;
    std::string& B;
    ~TSwapBack() { A.swap(B); }
  } Back{F.Buffer, FBuffer};
  detail::ReadFixedFileInfo(F, FFileName, Messages, RaiseVersion);
  FFixedFileInfo = F.FixedFileInfo;
}

TStrings* TVersionInfo::GetVersionInfo(const std::string& FileName) {
  FFileName = FileName;
  ReadFileVersionInfo();
  ReadFixedFileInfo();
  FItems->Clear();
  detail::TVersionFields F;
  F.Buffer = FBuffer;  // strings are converted in a scratch copy
  F.Translation = FTranslation;
  FValues = detail::ReadVersionStrings(F, VERSION_LABELS);
  for (int I = 0; I < VersionLabelCount; ++I)
    FItems->Add(std::string(VERSION_LABELS[I]) + "=" + FValues[static_cast<size_t>(I)]);
  return FItems;
}

// ---------------------------------------------------------------------------
// TPackageInfo

TPackageInfo::TPackageInfo(TComponent* AOwner)
    : TVersionInfo(AOwner), FContainsUnits(new TStringList), FRequiresPackages(new TStringList) {}

TPackageInfo::~TPackageInfo() {
  delete FRequiresPackages;
  delete FContainsUnits;
}

TStrings* TPackageInfo::GetVersionInfo(const std::string& FileName) {
  // From the last dot, dot included; exact letter case on purpose.
  const size_t Dot = FileName.rfind('.');
  const std::string Ext = Dot == std::string::npos ? std::string() : FileName.substr(Dot);
  if (Ext != ".dpl" && Ext != ".bpl") throw EPackageInfoError(Format(SNotDelphiPackage, {FileName}));
  return TVersionInfo::GetVersionInfo(FileName);
}

TStrings* TPackageInfo::LookupPackageInfo(const std::string& FileName, bool LoadDetails) {
  TStrings* Result = GetVersionInfo(FileName);
  PackageDetails(FileName, Result, LoadDetails);
  return Result;
}

void TPackageInfo::PackageDetails(const std::string& FileName, TStrings*& Info, bool LoadDetails) {
  FContainsUnits->Clear();
  FRequiresPackages->Clear();
  FPackageDescription = GetPackageDescription(FileName.c_str());
  Info->Add(std::string(SPackageDescription) + "=" + FPackageDescription);
  if (!LoadDetails) return;
  // The module is read as data: nothing of it runs, and the handle is
  // released on every path by the shared pointer.
  std::shared_ptr<const TResourceModule> Module = TResourceModule::LoadFromFile(FileName);
  uint32_t Flags = 0;
  GetPackageInfo(*Module, this, Flags,
                 [](const std::string& Name, TNameType NameType, uint8_t, void* Param) {
                   auto* Self = static_cast<TPackageInfo*>(Param);
                   if (NameType == ntContainsUnit) Self->FContainsUnits->Add(Name);
                   else if (NameType == ntRequiresPackage) Self->FRequiresPackages->Add(Name);
                 });
  switch (Flags & (pfDesignOnly | pfRunOnly)) {
    case pfDesignOnly: FPackageUsage = puDesignTime; break;
    case pfRunOnly: FPackageUsage = puRunTime; break;
    case pfDesignOnly | pfRunOnly: FPackageUsage = puDesignAndRunTime; break;
    default: FPackageUsage = puNone; break;
  }
  Info->Add(std::string(SPackageUsage) + "=" + PackageUsageText[FPackageUsage]);
  Info->Add(std::string(SContains) + "=(" + FContainsUnits->CommaText() + ")");
  Info->Add(std::string(SRequires) + "=(" + FRequiresPackages->CommaText() + ")");
}

}  // namespace vel
