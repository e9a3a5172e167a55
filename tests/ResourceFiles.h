// Test helpers: PE32/PE32+ images and ELF objects assembled in memory around
// a set of resources, scratch folders, and files written to them.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vel/rtl/Resources.h"

namespace restest {

using Bytes = std::vector<uint8_t>;

inline void Put16(Bytes& B, size_t Off, uint16_t V) {
  if (B.size() < Off + 2) B.resize(Off + 2);
  B[Off] = uint8_t(V);
  B[Off + 1] = uint8_t(V >> 8);
}
inline void Put32(Bytes& B, size_t Off, uint32_t V) {
  Put16(B, Off, uint16_t(V));
  Put16(B, Off + 2, uint16_t(V >> 16));
}

// The .rsrc section of the entries, laid out for section address Va:
// directories (names before ids, as Windows sorts them), data entries,
// name strings, then the data.
inline Bytes BuildRsrc(const std::vector<vel::TResSpecEntry>& Entries, uint32_t Va) {
  auto Key = [](const vel::TResId& Id) {
    return Id.IsName ? std::make_pair(0, std::u16string(Id.Name))
                     : std::make_pair(1, std::u16string(1, char16_t(Id.Id)));
  };
  using LangMap = std::map<uint16_t, const vel::TResSpecEntry*>;
  using NameMap = std::map<std::pair<int, std::u16string>, std::pair<vel::TResId, LangMap>>;
  std::map<std::pair<int, std::u16string>, std::pair<vel::TResId, NameMap>> Tree;
  for (const auto& E : Entries) {
    auto& T = Tree[Key(E.Type)];
    T.first = E.Type;
    auto& N = T.second[Key(E.Name)];
    N.first = E.Name;
    N.second[E.Language] = &E;
  }
  // Sizes: every directory is 16 bytes plus 8 per entry.
  size_t DirBytes = 16 + 8 * Tree.size();
  size_t Leaves = 0;
  for (auto& [K, T] : Tree) {
    DirBytes += 16 + 8 * T.second.size();
    for (auto& [K2, N] : T.second) {
      DirBytes += 16 + 8 * N.second.size();
      Leaves += N.second.size();
    }
  }
  Bytes B(DirBytes + 16 * Leaves, 0);
  std::vector<std::pair<size_t, const vel::TResId*>> Names;  // entry offset, name
  size_t NextDir = 0, NextLeaf = DirBytes;
  std::vector<std::pair<size_t, const vel::TResSpecEntry*>> Datas;
  auto Dir = [&](size_t Count) {
    const size_t At = NextDir;
    NextDir += 16 + 8 * Count;
    return At;
  };
  auto SetEntry = [&](size_t DirAt, size_t I, const vel::TResId& Id, uint32_t Target) {
    const size_t E = DirAt + 16 + 8 * I;
    if (Id.IsName) Names.push_back({E, &Id});
    else Put32(B, E, Id.Id);
    Put32(B, E + 4, Target);
  };
  auto Counts = [&](size_t DirAt, size_t NamedCount, size_t Total) {
    Put16(B, DirAt + 12, uint16_t(NamedCount));
    Put16(B, DirAt + 14, uint16_t(Total - NamedCount));
  };
  const size_t Root = Dir(Tree.size());
  size_t I = 0, RootNamed = 0;
  for (auto& [K, T] : Tree) {
    RootNamed += T.first.IsName;
    const size_t TD = Dir(T.second.size());
    SetEntry(Root, I++, T.first, 0x80000000u | uint32_t(TD));
    size_t J = 0, Named = 0;
    for (auto& [K2, N] : T.second) {
      Named += N.first.IsName;
      const size_t ND = Dir(N.second.size());
      SetEntry(TD, J++, N.first, 0x80000000u | uint32_t(ND));
      size_t L = 0;
      for (auto& [Lang, E] : N.second) {
        SetEntry(ND, L++, vel::TResId::FromId(Lang), uint32_t(NextLeaf));
        Datas.push_back({NextLeaf, E});
        NextLeaf += 16;
      }
      Counts(ND, 0, N.second.size());
    }
    Counts(TD, Named, T.second.size());
  }
  Counts(Root, RootNamed, Tree.size());
  for (auto& [E, Id] : Names) {
    Put32(B, E, 0x80000000u | uint32_t(B.size()));
    Put16(B, B.size(), uint16_t(Id->Name.size()));
    for (char16_t C : Id->Name) Put16(B, B.size(), C);
  }
  for (auto& [Leaf, E] : Datas) {
    while (B.size() % 4) B.push_back(0);
    Put32(B, Leaf, Va + uint32_t(B.size()));
    Put32(B, Leaf + 4, uint32_t(E->Data.size()));
    B.insert(B.end(), E->Data.begin(), E->Data.end());
  }
  return B;
}

// A PE32 (Plus false) or PE32+ DLL holding one section, .rsrc.
inline Bytes BuildPE(bool Plus, const std::vector<vel::TResSpecEntry>& Entries) {
  const uint32_t Va = 0x1000;
  const Bytes Rsrc = BuildRsrc(Entries, Va);
  const uint16_t OptSize = Plus ? 240 : 224;
  Bytes B(0x200, 0);
  B[0] = 'M';
  B[1] = 'Z';
  Put32(B, 0x3C, 0x40);
  Put32(B, 0x40, 0x00004550);
  const size_t Coff = 0x44, Opt = Coff + 20;
  Put16(B, Coff, Plus ? 0x8664 : 0x014C);
  Put16(B, Coff + 2, 1);
  Put16(B, Coff + 16, OptSize);
  Put16(B, Coff + 18, 0x2102);
  Put16(B, Opt, Plus ? 0x20B : 0x10B);
  const size_t Dirs = Opt + (Plus ? 112 : 96);
  Put32(B, Opt + (Plus ? 108 : 92), 16);
  Put32(B, Dirs + 16, Va);
  Put32(B, Dirs + 20, uint32_t(Rsrc.size()));
  const size_t Sec = Opt + OptSize;
  std::memcpy(B.data() + Sec, ".rsrc", 5);
  const uint32_t Raw = uint32_t((Rsrc.size() + 0x1FF) & ~size_t{0x1FF});
  Put32(B, Sec + 8, uint32_t(Rsrc.size()));
  Put32(B, Sec + 12, Va);
  Put32(B, Sec + 16, Raw);
  Put32(B, Sec + 20, 0x200);
  B.insert(B.end(), Rsrc.begin(), Rsrc.end());
  B.resize(0x200 + Raw, 0);
  return B;
}

// An ELF relocatable object (64-bit little-endian, or 32-bit big-endian)
// whose only contents are the .shstrtab and .velrsrc sections.
inline Bytes BuildElf(bool Is64, const Bytes& Res) {
  const bool Big = !Is64;
  const std::string Strtab = std::string("\0.shstrtab\0", 11) + vel::ElfResourceSection + '\0';
  const size_t EhSize = Is64 ? 64 : 52, ShSize = Is64 ? 64 : 40;
  Bytes B(EhSize, 0);
  auto W = [&](size_t Off, uint64_t V, size_t N) {
    if (B.size() < Off + N) B.resize(Off + N);
    for (size_t I = 0; I < N; ++I) B[Off + (Big ? N - 1 - I : I)] = uint8_t(V >> (8 * I));
  };
  B[0] = 0x7F;
  B[1] = 'E';
  B[2] = 'L';
  B[3] = 'F';
  B[4] = Is64 ? 2 : 1;
  B[5] = Big ? 2 : 1;
  B[6] = 1;
  const size_t StrOff = B.size();
  B.insert(B.end(), Strtab.begin(), Strtab.end());
  while (B.size() % 8) B.push_back(0);
  const size_t ResOff = B.size();
  B.insert(B.end(), Res.begin(), Res.end());
  while (B.size() % 8) B.push_back(0);
  const size_t ShOff = B.size();
  B.resize(ShOff + 3 * ShSize, 0);
  W(16, 1, 2);  // ET_REL
  W(18, Is64 ? 62 : 20, 2);
  W(20, 1, 4);
  if (Is64) {
    W(0x28, ShOff, 8);
    W(0x34, EhSize, 2);
    W(0x3A, ShSize, 2);
    W(0x3C, 3, 2);
    W(0x3E, 1, 2);
  } else {
    W(0x20, ShOff, 4);
    W(0x28, EhSize, 2);
    W(0x2E, ShSize, 2);
    W(0x30, 3, 2);
    W(0x32, 1, 2);
  }
  auto Section = [&](size_t I, uint32_t Name, uint32_t Type, size_t Off, size_t Size) {
    const size_t S = ShOff + I * ShSize;
    W(S, Name, 4);
    W(S + 4, Type, 4);
    if (Is64) {
      W(S + 24, Off, 8);
      W(S + 32, Size, 8);
      W(S + 48, 1, 8);
    } else {
      W(S + 16, Off, 4);
      W(S + 20, Size, 4);
      W(S + 32, 1, 4);
    }
  };
  Section(1, 1, 3, StrOff, Strtab.size());
  Section(2, 11, 1, ResOff, Res.size());
  return B;
}

// A scratch folder unique to the running test case, removed afterwards.
class TScratch {
 public:
  TScratch() {
    const char* Base = std::getenv("VEL_TEST_TMPDIR");
    const auto* Info = ::testing::UnitTest::GetInstance()->current_test_info();
    FDir = std::filesystem::path(Base && *Base ? Base : "/tmp") /
           ("res-" + std::string(Info->test_suite_name()) + "-" + Info->name() + "-" +
            std::to_string(::getpid()));
    std::filesystem::remove_all(FDir);
    std::filesystem::create_directories(FDir);
  }
  ~TScratch() {
    std::error_code Ec;
    std::filesystem::remove_all(FDir, Ec);
  }
  std::string Path(const std::string& Name) const { return (FDir / Name).string(); }
  std::string Write(const std::string& Name, const Bytes& Data) const {
    const std::string P = Path(Name);
    std::ofstream(P, std::ios::binary)
        .write(reinterpret_cast<const char*>(Data.data()), std::streamsize(Data.size()));
    return P;
  }

 private:
  std::filesystem::path FDir;
};

// The usual resources of a package: version (one 0409/04E4 table),
// description and package information.
inline std::vector<vel::TResSpecEntry> PackageResources(
    const vel::TVersionResourceDesc& Version, const std::string& Description,
    const vel::TPackageInfoDesc& Info) {
  using vel::TResId;
  return {{TResId::FromId(vel::RT_VERSION), TResId::FromId(1), 0x0409,
           vel::BuildVersionResource(Version)},
          {TResId::FromId(vel::RT_RCDATA), TResId::FromName("DESCRIPTION"), 0,
           vel::BuildDescriptionResource(Description)},
          {TResId::FromId(vel::RT_RCDATA), TResId::FromName("PACKAGEINFO"), 0,
           vel::BuildPackageInfoResource(Info)}};
}

inline vel::TVersionResourceDesc SampleVersion() {
  vel::TVersionResourceDesc V;
  V.FileVersionMS = 0x00020001;
  V.FileVersionLS = 0x00030004;
  V.ProductVersionMS = 0x00020000;
  V.Tables.push_back({0x0409, 0x04E4,
                      {{"CompanyName", "Velmont Ltd"},
                       {"FileDescription", "Product tree"},
                       {"FileVersion", "2.1.3.4"},
                       {"InternalName", "ProdTree"},
                       {"LegalCopyright", "(c) Velmont"},
                       {"LegalTrademarks", ""},
                       {"OriginalFilename", "ProdTree.bpl"},
                       {"ProductName", "Corvane"},
                       {"ProductVersion", "2.0"}}});
  V.Translations.push_back({0x0409, 0x04E4});
  return V;
}

inline bool HaveTool(const std::string& Name) {
  return std::system(("command -v " + Name + " >/dev/null 2>&1").c_str()) == 0;
}

}  // namespace restest
