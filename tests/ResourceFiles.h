// Test helpers: PE32/PE32+ images and ELF objects assembled in memory around
// a set of resources, and the usual resources of a package.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "vel/rtl/Resources.h"

namespace restest {

using vel_test::Bytes;

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
// directories depth first (names before ids, as Windows sorts them), data
// entries, name strings, then the data.
inline Bytes BuildRsrc(const std::vector<vel::TResSpecEntry>& Entries, uint32_t Va) {
  struct TNode {
    vel::TResId Id;
    std::map<std::pair<int, std::u16string>, TNode> Kids;
    const vel::TResSpecEntry* Leaf = nullptr;
  };
  auto Child = [](TNode& Parent, const vel::TResId& Id) -> TNode& {
    TNode& N = Parent.Kids[Id.IsName ? std::make_pair(0, std::u16string(Id.Name))
                                     : std::make_pair(1, std::u16string(1, char16_t(Id.Id)))];
    N.Id = Id;
    return N;
  };
  TNode Root;
  for (const auto& E : Entries)
    Child(Child(Child(Root, E.Type), E.Name), vel::TResId::FromId(E.Language)).Leaf = &E;
  Bytes B;
  std::vector<std::pair<size_t, const TNode*>> Names, Leaves;  // where to patch, for what
  std::function<size_t(const TNode&)> Dir = [&](const TNode& D) {
    const size_t At = B.size();
    size_t I = 0, Named = 0;
    B.resize(At + 16 + 8 * D.Kids.size());
    for (const auto& [K, C] : D.Kids) {
      const size_t E = At + 16 + 8 * I++;
      if (C.Id.IsName) {
        Names.push_back({E, &C});
        ++Named;
      } else {
        Put32(B, E, C.Id.Id);
      }
      if (C.Leaf)
        Leaves.push_back({E + 4, &C});
      else
        Put32(B, E + 4, 0x80000000u | uint32_t(Dir(C)));
    }
    Put16(B, At + 12, uint16_t(Named));
    Put16(B, At + 14, uint16_t(D.Kids.size() - Named));
    return At;
  };
  Dir(Root);
  std::vector<std::pair<size_t, const vel::TResSpecEntry*>> Datas;
  for (const auto& [At, L] : Leaves) {
    Put32(B, At, uint32_t(B.size()));
    Datas.push_back({B.size(), L->Leaf});
    B.resize(B.size() + 16);
  }
  for (const auto& [E, N] : Names) {
    Put32(B, E, 0x80000000u | uint32_t(B.size()));
    Put16(B, B.size(), uint16_t(N->Id.Name.size()));
    for (char16_t C : N->Id.Name) Put16(B, B.size(), C);
  }
  for (const auto& [Leaf, E] : Datas) {
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
  const size_t EhSize = Is64 ? 64 : 52, ShSize = Is64 ? 64 : 40, Word = Is64 ? 8 : 4;
  Bytes B = {0x7F, 'E', 'L', 'F', uint8_t(Is64 ? 2 : 1), uint8_t(Big ? 2 : 1), 1};
  auto W = [&](size_t Off, uint64_t V, size_t N) {
    if (B.size() < Off + N) B.resize(Off + N);
    for (size_t I = 0; I < N; ++I) B[Off + (Big ? N - 1 - I : I)] = uint8_t(V >> (8 * I));
  };
  auto Append = [&](const auto& Data) {
    const size_t At = B.size();
    B.insert(B.end(), Data.begin(), Data.end());
    while (B.size() % 8) B.push_back(0);
    return At;
  };
  B.resize(EhSize);
  const size_t StrOff = Append(Strtab), ResOff = Append(Res), ShOff = B.size();
  B.resize(ShOff + 3 * ShSize, 0);
  W(16, 1, 2);  // ET_REL
  W(18, Is64 ? 62 : 20, 2);
  W(20, 1, 4);
  // e_shoff follows the address-sized e_entry and e_phoff; e_ehsize follows
  // e_shoff and e_flags, then the program and section header fields.
  const size_t Eh = 24 + 3 * Word + 4;
  W(24 + 2 * Word, ShOff, Word);
  W(Eh, EhSize, 2);
  W(Eh + 6, ShSize, 2);
  W(Eh + 8, 3, 2);
  W(Eh + 10, 1, 2);
  // Section headers 1 and 2: name, type, offset, size, alignment.
  const size_t Sections[2][4] = {{1, 3, StrOff, Strtab.size()}, {11, 1, ResOff, Res.size()}};
  for (size_t I = 0; I < 2; ++I) {
    const size_t S = ShOff + (I + 1) * ShSize;
    W(S, Sections[I][0], 4);
    W(S + 4, Sections[I][1], 4);
    W(S + 8 + 2 * Word, Sections[I][2], Word);
    W(S + 8 + 3 * Word, Sections[I][3], Word);
    W(S + 16 + 4 * Word, 1, Word);
  }
  return B;
}

using vel_test::TScratch;

// The usual resources of a package: version (one 0409/04E4 table),
// description and package information.
inline std::vector<vel::TResSpecEntry> PackageResources(const vel::TVersionResourceDesc& Version,
                                                        const std::string& Description,
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
  V.Tables.push_back({0x0409,
                      0x04E4,
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

// A PE32 (Plus false) or PE32+ DLL holding one version resource.
inline Bytes VersionPE(bool Plus, const vel::TVersionResourceDesc& V, uint16_t Language = 0x0409) {
  return BuildPE(Plus, {{vel::TResId::FromId(vel::RT_VERSION), vel::TResId::FromId(1), Language,
                         vel::BuildVersionResource(V)}});
}

inline bool HaveTool(const std::string& Name) {
  return std::system(("command -v " + Name + " >/dev/null 2>&1").c_str()) == 0;
}

}  // namespace restest
