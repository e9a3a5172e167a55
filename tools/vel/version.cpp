// vel version, vel package, vel res: version and package information.
//
//   vel version                 the tool's and the library's versions
//   vel version FILE            the ten version strings of FILE, Key=Value, UTF-8
//   vel version --raw FILE      the same lines as Windows-1252 bytes
//   vel version --fixed FILE    the fixed file information, Key=Value
//   vel package FILE            the version lines, then the description, usage,
//                               contained units and required packages
//   vel res OUT.res [options]   writes the resources of a plug-in package
//                               (version, description, package information)
//                               as a .res file, for the package's resource
//                               section (see cmake/VelPackage.cmake)
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "vel/ExtendedClasses.h"
#include "vel/Version.h"
#include "vel/rtl/Resources.h"
#include "vel/rtl/SysUtils.h"

namespace {

using vel::tool::WriteStdout;

int PrintLines(vel::TStrings* Lines, bool Raw) {
  std::string Out;
  for (int I = 0; I < Lines->Count(); ++I) {
    Out += Raw ? Lines->Get(I) : vel::Cp1252ToUtf8(Lines->Get(I));
    Out += '\n';
  }
  if (!WriteStdout(Out.data(), Out.size())) {
    std::fprintf(stderr, "vel: cannot write the output\n");
    return 1;
  }
  return 0;
}

std::string Hex8(uint32_t V) {
  char B[9];
  std::snprintf(B, sizeof B, "%08X", V);
  return B;
}

std::string Dotted(uint32_t MS, uint32_t LS) {
  return std::to_string(MS >> 16) + "." + std::to_string(MS & 0xFFFF) + "." +
         std::to_string(LS >> 16) + "." + std::to_string(LS & 0xFFFF);
}

int PrintFixed(const vel::TVersionInfo& Info) {
  uint32_t F[13];
  std::memcpy(F, Info.FixedFileInfo(), sizeof F);
  const std::string Out = "Signature=" + Hex8(F[0]) + "\nStrucVersion=" + Hex8(F[1]) +
                          "\nFileVersion=" + Dotted(F[2], F[3]) +
                          "\nProductVersion=" + Dotted(F[4], F[5]) +
                          "\nFileFlagsMask=" + Hex8(F[6]) + "\nFileFlags=" + Hex8(F[7]) +
                          "\nFileOS=" + Hex8(F[8]) + "\nFileType=" + Hex8(F[9]) +
                          "\nFileSubtype=" + Hex8(F[10]) + "\nFileDate=" + Hex8(F[11]) +
                          Hex8(F[12]) + "\n";
  return WriteStdout(Out.data(), Out.size()) ? 0 : 1;
}

struct TVersionArgs {
  std::string File;
  bool Raw = false;
  bool Fixed = false;
};

vel::tool::Registration VersionReg(
    "version", "print the library version, or a file's version resource", [](CLI::App& Sub) {
      auto A = std::make_shared<TVersionArgs>();
      Sub.add_option("FILE", A->File, "an executable, library or package");
      auto* Raw = Sub.add_flag("--raw", A->Raw, "the strings as Windows-1252 bytes");
      Sub.add_flag("--fixed", A->Fixed, "the fixed file information")->excludes(Raw);
      Sub.callback([A] {
        if (A->File.empty()) {
          if (A->Raw || A->Fixed) throw CLI::ValidationError("FILE", "--raw and --fixed need FILE");
          std::printf("vel %s (libvelclasses %s)\n", VEL_VERSION_STRING, vel::LibraryVersion());
          return;
        }
        vel::TVersionInfo Info;
        vel::TStrings* Lines = Info.GetVersionInfo(A->File);
        vel::tool::Status = A->Fixed ? PrintFixed(Info) : PrintLines(Lines, A->Raw);
      });
    });

vel::tool::Registration PackageReg(
    "package", "print a package's version, description, usage, units and requirements",
    [](CLI::App& Sub) {
      auto A = std::make_shared<TVersionArgs>();
      Sub.add_option("FILE", A->File, "a package (.bpl or .dpl)")->required();
      Sub.add_flag("--raw", A->Raw, "the strings as Windows-1252 bytes");
      Sub.callback([A] {
        vel::TPackageInfo Info;
        vel::tool::Status = PrintLines(Info.LookupPackageInfo(A->File, true), A->Raw);
      });
    });

// ---------------------------------------------------------------------------
// vel res

struct TResArgs {
  std::string Out;
  std::string FileVersion = "1.0.0.0";
  std::string ProductVersion;
  std::vector<std::string> Strings;
  std::string Language = "0409";
  std::string CodePage = "04E4";
  std::string Description;
  std::string Usage = "run";
  std::vector<std::string> Requires;
  std::vector<std::string> Contains;
  std::string PackageName;
};

void ParseVersion(const std::string& S, uint32_t& MS, uint32_t& LS) {
  unsigned P[4] = {0, 0, 0, 0};
  int N = 0;
  size_t I = 0;
  while (N < 4 && I <= S.size()) {
    size_t J = S.find('.', I);
    if (J == std::string::npos) J = S.size();
    P[N++] = static_cast<unsigned>(std::stoul(S.substr(I, J - I))) & 0xFFFF;
    I = J + 1;
  }
  MS = (P[0] << 16) | P[1];
  LS = (P[2] << 16) | P[3];
}

uint16_t Hex16(const std::string& S) {
  return static_cast<uint16_t>(std::stoul(S, nullptr, 16));
}

int WriteRes(const TResArgs& A) {
  using vel::TResId;
  vel::TVersionResourceDesc V;
  ParseVersion(A.FileVersion, V.FileVersionMS, V.FileVersionLS);
  ParseVersion(A.ProductVersion.empty() ? A.FileVersion : A.ProductVersion, V.ProductVersionMS,
               V.ProductVersionLS);
  vel::TVersionResourceDesc::TTable T;
  T.Language = Hex16(A.Language);
  T.CodePage = Hex16(A.CodePage);
  for (const std::string& KV : A.Strings) {
    const size_t Eq = KV.find('=');
    if (Eq == std::string::npos) throw CLI::ValidationError("--string", KV + " is not KEY=VALUE");
    T.Strings.emplace_back(KV.substr(0, Eq), KV.substr(Eq + 1));
  }
  // The FileVersion string follows the file version unless given.
  bool HasFileVersion = false;
  for (const auto& KV : T.Strings) HasFileVersion |= KV.first == "FileVersion";
  if (!HasFileVersion) T.Strings.emplace_back("FileVersion", A.FileVersion);
  V.Tables.push_back(T);
  V.Translations.push_back({T.Language, T.CodePage});

  vel::TPackageInfoDesc P;
  P.Flags = vel::pfPackageModule;
  if (A.Usage == "design") P.Flags |= vel::pfDesignOnly;
  else if (A.Usage == "run") P.Flags |= vel::pfRunOnly;
  else if (A.Usage == "both") P.Flags |= vel::pfDesignOnly | vel::pfRunOnly;
  else if (A.Usage != "none") throw CLI::ValidationError("--usage", "one of none, design, run, both");
  P.Requires = A.Requires;
  for (const std::string& U : A.Contains) {
    const size_t Colon = U.find(':');
    const uint8_t Flags =
        Colon == std::string::npos ? 0 : static_cast<uint8_t>(std::stoul(U.substr(Colon + 1), nullptr, 0));
    P.Contains.emplace_back(U.substr(0, Colon), Flags);
  }
  P.PackageName = A.PackageName;

  const std::vector<uint8_t> Res = vel::BuildResFile(
      {{TResId::FromId(vel::RT_VERSION), TResId::FromId(1), T.Language, vel::BuildVersionResource(V)},
       {TResId::FromId(vel::RT_RCDATA), TResId::FromName("DESCRIPTION"), 0,
        vel::BuildDescriptionResource(A.Description)},
       {TResId::FromId(vel::RT_RCDATA), TResId::FromName("PACKAGEINFO"), 0,
        vel::BuildPackageInfoResource(P)}});
  std::ofstream F(A.Out, std::ios::binary | std::ios::trunc);
  F.write(reinterpret_cast<const char*>(Res.data()), static_cast<std::streamsize>(Res.size()));
  F.close();
  if (!F) {
    std::fprintf(stderr, "vel: cannot write %s\n", A.Out.c_str());
    return 1;
  }
  return 0;
}

vel::tool::Registration ResReg(
    "res", "write a plug-in package's resources (version, description, package information) as a .res file",
    [](CLI::App& Sub) {
      auto A = std::make_shared<TResArgs>();
      Sub.add_option("OUT", A->Out, "the .res file to write")->required();
      Sub.add_option("--file-version", A->FileVersion, "file version, a.b.c.d");
      Sub.add_option("--product-version", A->ProductVersion, "product version (default: file version)");
      Sub.add_option("--string", A->Strings, "a version string KEY=VALUE (UTF-8); repeatable");
      Sub.add_option("--language", A->Language, "language id of the string table, hexadecimal");
      Sub.add_option("--codepage", A->CodePage, "code page of the string table, hexadecimal");
      Sub.add_option("--description", A->Description, "the package description");
      Sub.add_option("--usage", A->Usage, "none, design, run (default) or both");
      Sub.add_option("--requires", A->Requires, "a required package; repeatable");
      Sub.add_option("--contains", A->Contains, "a contained unit, UNIT or UNIT:FLAGS; repeatable");
      Sub.add_option("--package-name", A->PackageName, "the package's own name");
      Sub.callback([A] { vel::tool::Status = WriteRes(*A); });
    });

}  // namespace
