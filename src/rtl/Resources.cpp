#include "vel/rtl/Resources.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

#include "vel/rtl/SysUtils.h"

namespace vel {

namespace {

constexpr const char* SCannotOpenModule = "Cannot open %s: %s";
constexpr const char* SNotResourceModule = "%s is not a valid resource module";
constexpr const char* SNoPackageInfo = "%s does not contain package information";
constexpr const char* SDamagedPackageInfo = "Package information of %s is damaged";

// A resource directory that points back into itself could otherwise list
// the same entries without end.
constexpr size_t MaxResourceEntries = 1u << 16;

struct TDamaged {};

// Bounds-checked little- or big-endian reads over a byte range.
class TReader {
 public:
  TReader(std::span<const uint8_t> B, bool BigEndian = false) : FB(B), FBig(BigEndian) {}
  size_t Size() const { return FB.size(); }
  bool Has(size_t Off, size_t N) const { return Off <= FB.size() && N <= FB.size() - Off; }
  uint64_t U(size_t Off, size_t N) const {
    if (!Has(Off, N)) throw TDamaged{};
    uint64_t V = 0;
    for (size_t I = 0; I < N; ++I) {
      const uint64_t Byte = FB[Off + I];
      V |= FBig ? Byte << (8 * (N - 1 - I)) : Byte << (8 * I);
    }
    return V;
  }
  uint16_t U16(size_t Off) const { return static_cast<uint16_t>(U(Off, 2)); }
  uint32_t U32(size_t Off) const { return static_cast<uint32_t>(U(Off, 4)); }
  uint64_t U64(size_t Off) const { return U(Off, 8); }

 private:
  std::span<const uint8_t> FB;
  bool FBig;
};

char16_t FoldWide(char16_t C) {
  if (C >= u'a' && C <= u'z') return static_cast<char16_t>(C - 32);
  // Latin-1 lower-case letters (except the division sign and y-diaeresis).
  if (C >= 0xE0 && C <= 0xFE && C != 0xF7) return static_cast<char16_t>(C - 32);
  return C;
}

bool SameWideText(std::u16string_view A, std::u16string_view B) {
  if (A.size() != B.size()) return false;
  for (size_t I = 0; I < A.size(); ++I)
    if (FoldWide(A[I]) != FoldWide(B[I])) return false;
  return true;
}

size_t Align4(size_t V) { return (V + 3) & ~size_t{3}; }

void PutU16(std::vector<uint8_t>& B, uint16_t V) {
  B.push_back(static_cast<uint8_t>(V));
  B.push_back(static_cast<uint8_t>(V >> 8));
}
void PutU32(std::vector<uint8_t>& B, uint32_t V) {
  PutU16(B, static_cast<uint16_t>(V));
  PutU16(B, static_cast<uint16_t>(V >> 16));
}
void SetU16(std::vector<uint8_t>& B, size_t Off, uint16_t V) {
  B[Off] = static_cast<uint8_t>(V);
  B[Off + 1] = static_cast<uint8_t>(V >> 8);
}
void PutWide(std::vector<uint8_t>& B, std::u16string_view S) {
  for (char16_t C : S) PutU16(B, C);
  PutU16(B, 0);
}
void PadTo4(std::vector<uint8_t>& B) {
  while (B.size() % 4) B.push_back(0);
}

}  // namespace

// ---------------------------------------------------------------------------
// TResId

TResId TResId::FromName(std::string_view AName) {
  TResId R;
  R.IsName = true;
  R.Name = Cp1252ToWide(AName);
  return R;
}

bool TResId::Matches(const TResId& Other) const {
  if (IsName != Other.IsName) return false;
  return IsName ? SameWideText(Name, Other.Name) : Id == Other.Id;
}

std::string TResId::ToString() const {
  return IsName ? WideToCp1252(Name) : "#" + std::to_string(Id);
}

// ---------------------------------------------------------------------------
// TResourceModule

std::shared_ptr<const TResourceModule> TResourceModule::LoadFromFile(const std::string& FileName) {
  const int Fd = ::open(FileName.c_str(), O_RDONLY | O_CLOEXEC);
  if (Fd < 0) throw EResourceError(vel::Format(SCannotOpenModule, {FileName, std::strerror(errno)}));
  std::vector<uint8_t> Bytes;
  struct stat St {};
  int Err = 0;
  if (::fstat(Fd, &St) != 0) {
    Err = errno;
  } else if (!S_ISREG(St.st_mode)) {
    Err = EISDIR;
  } else {
    Bytes.resize(static_cast<size_t>(St.st_size));
    size_t Done = 0;
    while (Done < Bytes.size()) {
      const ssize_t N = ::pread(Fd, Bytes.data() + Done, Bytes.size() - Done, static_cast<off_t>(Done));
      if (N < 0 && errno == EINTR) continue;
      if (N < 0) {
        Err = errno;
        break;
      }
      if (N == 0) {  // shrank while being read
        Bytes.resize(Done);
        break;
      }
      Done += static_cast<size_t>(N);
    }
  }
  ::close(Fd);
  if (Err) throw EResourceError(vel::Format(SCannotOpenModule, {FileName, std::strerror(Err)}));
  return LoadFromBytes(std::move(Bytes), FileName);
}

std::shared_ptr<const TResourceModule> TResourceModule::LoadFromBytes(std::vector<uint8_t> Bytes,
                                                                      const std::string& Name) {
  std::shared_ptr<TResourceModule> M(new TResourceModule);
  M->FFileName = Name;
  M->FBytes = std::move(Bytes);
  try {
    M->Parse();
  } catch (const TDamaged&) {
    throw EResourceError(vel::Format(SNotResourceModule, {Name}));
  }
  return M;
}

void TResourceModule::Parse() {
  const auto& B = FBytes;
  if (B.size() >= 2 && B[0] == 'M' && B[1] == 'Z') return ParsePE();
  if (B.size() >= 4 && B[0] == 0x7F && B[1] == 'E' && B[2] == 'L' && B[3] == 'F') return ParseElf();
  // A .res file starts with an empty entry: sizes 0 and 32, type and name 0.
  static const uint8_t ResHead[] = {0, 0, 0, 0, 0x20, 0, 0, 0, 0xFF, 0xFF, 0, 0, 0xFF, 0xFF, 0, 0};
  if (B.size() >= 32 && std::memcmp(B.data(), ResHead, sizeof ResHead) == 0) {
    FFormat = TResourceFormat::rfRes;
    return ParseRes(0, B.size());
  }
  throw TDamaged{};
}

void TResourceModule::ParsePE() {
  TReader R(FBytes);
  const uint32_t PeOff = R.U32(0x3C);
  if (R.U32(PeOff) != 0x00004550) throw TDamaged{};  // "PE\0\0"
  const size_t Coff = size_t{PeOff} + 4;
  const uint16_t NumSections = R.U16(Coff + 2);
  const uint16_t OptSize = R.U16(Coff + 16);
  const size_t Opt = Coff + 20;
  const uint16_t Magic = R.U16(Opt);
  size_t CountOff, DirOff;
  if (Magic == 0x10B) {
    FFormat = TResourceFormat::rfPE32;
    CountOff = 92;
    DirOff = 96;
  } else if (Magic == 0x20B) {
    FFormat = TResourceFormat::rfPE32Plus;
    CountOff = 108;
    DirOff = 112;
  } else {
    throw TDamaged{};
  }
  if (OptSize < CountOff + 4) throw TDamaged{};
  const uint32_t NumDirs = R.U32(Opt + CountOff);
  // Data directory 2 is the resource table; a file without one has no
  // resources, which is not damage.
  if (NumDirs < 3 || OptSize < DirOff + 3 * 8) return;
  const uint32_t RsrcRva = R.U32(Opt + DirOff + 16);
  const uint32_t RsrcSize = R.U32(Opt + DirOff + 20);
  if (RsrcRva == 0 || RsrcSize == 0) return;

  struct TSection {
    uint32_t Va, VSize, RawSize, RawPtr;
  };
  std::vector<TSection> Sections;
  const size_t SecTable = Opt + OptSize;
  for (size_t I = 0; I < NumSections; ++I) {
    const size_t S = SecTable + I * 40;
    Sections.push_back({R.U32(S + 12), R.U32(S + 8), R.U32(S + 16), R.U32(S + 20)});
  }
  // The file offset and the bytes available there for an RVA.
  auto Map = [&](uint32_t Rva, size_t& Avail) -> size_t {
    for (const TSection& S : Sections) {
      const uint64_t Extent = std::max(S.VSize, S.RawSize);
      if (Rva >= S.Va && uint64_t{Rva} < uint64_t{S.Va} + Extent) {
        const uint64_t Delta = Rva - S.Va;
        if (Delta >= S.RawSize) throw TDamaged{};  // in the zero-filled tail
        const uint64_t Off = uint64_t{S.RawPtr} + Delta;
        if (Off >= FBytes.size()) throw TDamaged{};
        Avail = static_cast<size_t>(
            std::min<uint64_t>(S.RawSize - Delta, FBytes.size() - Off));
        return static_cast<size_t>(Off);
      }
    }
    throw TDamaged{};
  };
  size_t DirAvail = 0;
  const size_t Root = Map(RsrcRva, DirAvail);
  DirAvail = std::min<size_t>(DirAvail, RsrcSize);
  TReader D(std::span<const uint8_t>(FBytes.data() + Root, DirAvail));

  auto ReadId = [&](uint32_t NameField) {
    if (!(NameField & 0x80000000u)) return TResId::FromId(static_cast<uint16_t>(NameField));
    const size_t Off = NameField & 0x7FFFFFFFu;
    const uint16_t Len = D.U16(Off);
    if (!D.Has(Off + 2, size_t{Len} * 2)) throw TDamaged{};
    TResId Id;
    Id.IsName = true;
    Id.Name.resize(Len);
    for (size_t I = 0; I < Len; ++I) Id.Name[I] = static_cast<char16_t>(D.U16(Off + 2 + 2 * I));
    return Id;
  };
  // Calls Visit(id, isDirectory, offset) for each entry of the directory at
  // Off.
  auto Walk = [&](size_t Off, auto&& Visit) {
    const size_t N = size_t{D.U16(Off + 12)} + D.U16(Off + 14);
    if (!D.Has(Off + 16, N * 8)) throw TDamaged{};
    for (size_t I = 0; I < N; ++I) {
      const size_t E = Off + 16 + I * 8;
      const uint32_t Target = D.U32(E + 4);
      Visit(ReadId(D.U32(E)), (Target & 0x80000000u) != 0, size_t{Target & 0x7FFFFFFFu});
    }
  };
  Walk(0, [&](const TResId& Type, bool TypeDir, size_t TypeOff) {
    if (!TypeDir) throw TDamaged{};
    Walk(TypeOff, [&](const TResId& Name, bool NameDir, size_t NameOff) {
      if (!NameDir) throw TDamaged{};
      Walk(NameOff, [&](const TResId& Lang, bool LangDir, size_t DataOff) {
        if (LangDir || Lang.IsName) throw TDamaged{};
        if (FEntries.size() >= MaxResourceEntries) throw TDamaged{};
        const uint32_t DataRva = D.U32(DataOff);
        const uint32_t Size = D.U32(DataOff + 4);
        size_t Avail = 0;
        const size_t At = Size ? Map(DataRva, Avail) : 0;
        if (Size > Avail) throw TDamaged{};
        FEntries.push_back({Type, Name, Lang.Id, At, Size});
      });
    });
  });
}

void TResourceModule::ParseElf() {
  FFormat = TResourceFormat::rfElf;
  const auto& B = FBytes;
  if (B.size() < 16) throw TDamaged{};
  const bool Is64 = B[4] == 2;
  if (B[4] != 1 && B[4] != 2) throw TDamaged{};
  if (B[5] != 1 && B[5] != 2) throw TDamaged{};
  TReader R(B, B[5] == 2);
  uint64_t ShOff;
  uint16_t ShEntSize, ShNum, ShStrNdx;
  if (Is64) {
    ShOff = R.U64(0x28);
    ShEntSize = R.U16(0x3A);
    ShNum = R.U16(0x3C);
    ShStrNdx = R.U16(0x3E);
  } else {
    ShOff = R.U32(0x20);
    ShEntSize = R.U16(0x2E);
    ShNum = R.U16(0x30);
    ShStrNdx = R.U16(0x32);
  }
  // An object without section headers (or with extended numbering, which
  // only files of more than 65279 sections use) carries no resources.
  if (ShOff == 0 || ShNum == 0 || ShStrNdx == 0 || ShStrNdx >= ShNum) return;
  if (ShEntSize < (Is64 ? 64u : 40u)) throw TDamaged{};
  if (ShOff > B.size() || uint64_t{ShNum} * ShEntSize > B.size() - ShOff) throw TDamaged{};
  auto Section = [&](size_t I, uint64_t& Off, uint64_t& Size) {
    const size_t S = static_cast<size_t>(ShOff) + I * ShEntSize;
    Off = Is64 ? R.U64(S + 24) : R.U32(S + 16);
    Size = Is64 ? R.U64(S + 32) : R.U32(S + 20);
    const uint32_t Type = R.U32(S + 4);
    if (Type == 8) Size = 0;  // SHT_NOBITS occupies no file bytes
    if (Off > B.size() || Size > B.size() - Off) throw TDamaged{};
  };
  uint64_t StrOff, StrSize;
  Section(ShStrNdx, StrOff, StrSize);
  const std::string_view Want = ElfResourceSection;
  for (size_t I = 1; I < ShNum; ++I) {
    const size_t S = static_cast<size_t>(ShOff) + I * ShEntSize;
    const uint32_t NameOff = R.U32(S);
    if (NameOff >= StrSize || StrSize - NameOff < Want.size() + 1) continue;
    const char* Name = reinterpret_cast<const char*>(B.data() + StrOff + NameOff);
    if (std::memcmp(Name, Want.data(), Want.size()) != 0 || Name[Want.size()] != 0) continue;
    uint64_t Off, Size;
    Section(I, Off, Size);
    return ParseRes(static_cast<size_t>(Off), static_cast<size_t>(Size));
  }
}

void TResourceModule::ParseRes(size_t Start, size_t Size) {
  TReader R(std::span<const uint8_t>(FBytes.data() + Start, Size));
  // Reads an id or a NUL-terminated UTF-16 name at Off, bounded by End.
  auto ReadId = [&](size_t& Off, size_t End) {
    TResId Id;
    if (R.U16(Off) == 0xFFFF) {
      Id.Id = R.U16(Off + 2);
      Off += 4;
    } else {
      Id.IsName = true;
      for (;;) {
        if (Off + 2 > End) throw TDamaged{};
        const char16_t C = static_cast<char16_t>(R.U16(Off));
        Off += 2;
        if (!C) break;
        Id.Name += C;
      }
    }
    if (Off > End) throw TDamaged{};
    return Id;
  };
  size_t Pos = 0;
  while (Pos < Size) {
    if (Size - Pos < 32) {
      // Trailing padding is tolerated; anything else is damage.
      for (size_t I = Pos; I < Size; ++I)
        if (FBytes[Start + I]) throw TDamaged{};
      break;
    }
    const uint32_t DataSize = R.U32(Pos);
    const uint32_t HeaderSize = R.U32(Pos + 4);
    if (HeaderSize < 32 || !R.Has(Pos, HeaderSize)) throw TDamaged{};
    const size_t HeaderEnd = Pos + HeaderSize;
    size_t Off = Pos + 8;
    TResId Type = ReadId(Off, HeaderEnd);
    TResId Name = ReadId(Off, HeaderEnd);
    Off = Align4(Off);
    if (Off + 16 > HeaderEnd) throw TDamaged{};
    const uint16_t Lang = R.U16(Off + 6);
    if (!R.Has(HeaderEnd, DataSize)) throw TDamaged{};
    // The leading empty entry (type 0) only marks the file as 32-bit.
    if (Type.IsName || Type.Id != 0) {
      if (FEntries.size() >= MaxResourceEntries) throw TDamaged{};
      FEntries.push_back({std::move(Type), std::move(Name), Lang, Start + HeaderEnd, DataSize});
    }
    Pos = Align4(HeaderEnd + DataSize);
  }
}

const TResourceEntry* TResourceModule::Find(const TResId& Type, const TResId& Name,
                                            uint16_t Language) const {
  const TResourceEntry* First = nullptr;
  const TResourceEntry* English = nullptr;
  for (const TResourceEntry& E : FEntries) {
    if (!E.Type.Matches(Type) || !E.Name.Matches(Name)) continue;
    if (Language != ResLangAny) {
      if (E.Language == Language) return &E;
      continue;
    }
    if (E.Language == 0) return &E;
    if (E.Language == 0x0409 && !English) English = &E;
    if (!First) First = &E;
  }
  return English ? English : First;
}

const TResourceEntry* TResourceModule::FindFirst(const TResId& Type) const {
  for (const TResourceEntry& E : FEntries)
    if (E.Type.Matches(Type)) return &E;
  return nullptr;
}

std::span<const uint8_t> TResourceModule::Data(const TResourceEntry& Entry) const {
  return std::span<const uint8_t>(FBytes.data() + Entry.Offset, Entry.Size);
}

// ---------------------------------------------------------------------------
// Version information
//
// The block GetFileVersionInfoA fills: the 32-bit (UTF-16) version resource
// as the file holds it, then the signature "FE2X", then an area as long as
// the resource where VerQueryValueA puts the Windows-1252 copy of a string
// at the same offset as the string has in the resource.

namespace {

constexpr uint8_t AnsiSignature[4] = {'F', 'E', '2', 'X'};

std::shared_ptr<const TResourceModule> TryLoad(const char* FileName) {
  if (!FileName) return nullptr;
  try {
    return TResourceModule::LoadFromFile(FileName);
  } catch (const EResourceError&) {
    return nullptr;
  }
}

const TResourceEntry* FindVersion(const TResourceModule& M) {
  const TResId Type = TResId::FromId(RT_VERSION);
  if (const TResourceEntry* E = M.Find(Type, TResId::FromId(1))) return E;
  return M.FindFirst(Type);
}

// One node of the version tree: its extent, its key and its value.
struct TVersionNode {
  size_t Start = 0, End = 0;  // End excludes the padding after the node
  uint16_t ValueLength = 0;
  uint16_t Type = 0;  // 1: text
  std::u16string_view Key;
  size_t Value = 0;     // offset of the value
  size_t Children = 0;  // offset of the first child
};

// Reads the node at Start within [0, Limit); false when it does not fit.
bool ReadNode(const uint8_t* B, size_t Start, size_t Limit, TVersionNode& N) {
  auto U16 = [&](size_t Off) { return static_cast<uint16_t>(B[Off] | (B[Off + 1] << 8)); };
  if (Start + 6 > Limit) return false;
  const uint16_t Length = U16(Start);
  if (Length < 6 || Length > Limit - Start) return false;
  N.Start = Start;
  N.End = Start + Length;
  N.ValueLength = U16(Start + 2);
  N.Type = U16(Start + 4);
  size_t K = Start + 6;
  while (K + 2 <= N.End && U16(K) != 0) K += 2;
  if (K + 2 > N.End) return false;
  N.Key = std::u16string_view(reinterpret_cast<const char16_t*>(B + Start + 6), (K - Start - 6) / 2);
  N.Value = Align4(K + 2);
  const size_t ValueBytes = N.Type == 1 ? size_t{N.ValueLength} * 2 : N.ValueLength;
  if (N.Value > N.End || ValueBytes > N.End - N.Value) {
    // A text value's length counted beyond the node (some writers count
    // bytes instead of characters) is clipped to the node.
    if (N.Type != 1 || N.Value > N.End) return false;
    N.ValueLength = static_cast<uint16_t>((N.End - N.Value) / 2);
  }
  N.Children = Align4(N.Value + (N.Type == 1 ? size_t{N.ValueLength} * 2 : N.ValueLength));
  return true;
}

}  // namespace

uint32_t GetFileVersionInfoSizeA(const char* FileName, uint32_t* Handle) {
  if (Handle) *Handle = 0;
  auto M = TryLoad(FileName);
  if (!M) return 0;
  const TResourceEntry* E = FindVersion(*M);
  if (!E || E->Size < 6 || E->Size > 0xFFFF) return 0;
  return E->Size * 2 + 4;
}

bool GetFileVersionInfoA(const char* FileName, uint32_t /*Handle*/, uint32_t Len, void* Data) {
  if (!Data || Len < 4) return false;
  auto M = TryLoad(FileName);
  if (!M) return false;
  const TResourceEntry* E = FindVersion(*M);
  if (!E || E->Size < 6 || E->Size > 0xFFFF) return false;
  return VersionBlockFromResource(M->Data(*E), Len, Data);
}

bool VersionBlockFromResource(std::span<const uint8_t> Bytes, uint32_t Len, void* Data) {
  if (!Data || Len < 4 || Bytes.size() < 6) return false;
  auto* Out = static_cast<uint8_t*>(Data);
  // The block's own length is authoritative for the reader; a resource that
  // claims more than it holds, or a caller's buffer that is shorter, is cut
  // to what was copied.
  const size_t Copied = std::min<size_t>(Bytes.size(), Len);
  std::memcpy(Out, Bytes.data(), Copied);
  size_t Length = static_cast<size_t>(Out[0] | (Out[1] << 8));
  if (Length > Copied || Length < 6) Length = Copied & ~size_t{1};
  // VerQueryValueA looks for the signature behind the block: keep it inside
  // the caller's buffer.
  if (Length + 4 > Len) Length = (Len - 4) & ~size_t{1};
  // Too short to hold a node: an empty block (and no signature, which would
  // land on the length field itself).
  if (Length < 6) Length = 0;
  Out[0] = static_cast<uint8_t>(Length);
  Out[1] = static_cast<uint8_t>(Length >> 8);
  if (Length == 0) return true;
  if (size_t{Len} >= Length * 2 + 4) {
    std::memcpy(Out + Length, AnsiSignature, 4);
    std::memset(Out + Length + 4, 0, Length);
  } else {
    // No room for the string copies: make sure no signature copied from the
    // file's bytes claims there is.
    std::memset(Out + Length, 0, 4);
  }
  return true;
}

bool VerQueryValueA(const void* Block, const char* SubBlock, void** Buffer, uint32_t* Len) {
  if (Buffer) *Buffer = nullptr;
  if (Len) *Len = 0;
  if (!Block || !SubBlock) return false;
  const auto* B = static_cast<const uint8_t*>(Block);
  const size_t Limit = static_cast<size_t>(B[0] | (B[1] << 8));
  TVersionNode Node;
  if (!ReadNode(B, 0, Limit, Node)) return false;
  std::string_view Path(SubBlock);
  size_t P = 0;
  while (P < Path.size()) {
    while (P < Path.size() && Path[P] == '\\') ++P;
    if (P == Path.size()) break;
    size_t Q = Path.find('\\', P);
    if (Q == std::string_view::npos) Q = Path.size();
    const std::u16string Want = Cp1252ToWide(Path.substr(P, Q - P));
    P = Q;
    bool Found = false;
    for (size_t C = Node.Children; C < Node.End;) {
      TVersionNode Child;
      if (!ReadNode(B, C, Node.End, Child)) break;
      if (SameWideText(Child.Key, Want)) {
        Node = Child;
        Found = true;
        break;
      }
      C = Align4(Child.End);
    }
    if (!Found) return false;
  }
  void* Result = const_cast<uint8_t*>(B + Node.Value);
  if (Node.Type == 1) {
    // Text: the Windows-1252 copy in the area behind the signature.
    if (std::memcmp(B + Limit, AnsiSignature, 4) != 0) return false;
    auto* Ansi = const_cast<uint8_t*>(B + Limit + 4 + Node.Value);
    std::u16string Text;
    for (size_t I = 0; I < Node.ValueLength; ++I) {
      const auto C = static_cast<char16_t>(B[Node.Value + 2 * I] | (B[Node.Value + 2 * I + 1] << 8));
      if (!C) break;
      Text += C;
    }
    const std::string S = WideToCp1252(Text);
    static char Empty[1] = {0};
    if (S.empty()) {
      Result = Empty;
    } else {
      // One byte per UTF-16 unit at most, so the copy and its NUL fit in
      // the value's own extent.
      std::memcpy(Ansi, S.data(), S.size());
      Ansi[S.size()] = 0;
      Result = Ansi;
    }
  }
  if (Buffer) *Buffer = Result;
  if (Len) *Len = Node.ValueLength;
  return true;
}

// ---------------------------------------------------------------------------
// Package resources

std::string GetPackageDescription(const char* ModuleName) {
  auto M = TResourceModule::LoadFromFile(ModuleName ? ModuleName : "");
  const TResourceEntry* E =
      M->Find(TResId::FromId(RT_RCDATA), TResId::FromName("DESCRIPTION"));
  if (!E) return {};
  auto Bytes = M->Data(*E);
  std::u16string Text;
  for (size_t I = 0; I + 1 < Bytes.size(); I += 2) {
    const auto C = static_cast<char16_t>(Bytes[I] | (Bytes[I + 1] << 8));
    if (!C) break;
    Text += C;
  }
  return WideToCp1252(Text);
}

void GetPackageInfo(const TResourceModule& Module, void* Param, uint32_t& Flags,
                    const TPackageInfoProc& InfoProc) {
  const TResourceEntry* E =
      Module.Find(TResId::FromId(RT_RCDATA), TResId::FromName("PACKAGEINFO"));
  if (!E) throw EPackageError(vel::Format(SNoPackageInfo, {Module.FileName()}));
  auto Bytes = Module.Data(*E);
  TReader R(Bytes);
  size_t Pos = 0;
  auto Text = [&]() {
    const uint8_t* Start = Bytes.data() + Pos;
    const void* Nul = std::memchr(Start, 0, Bytes.size() - Pos);
    if (!Nul) throw TDamaged{};
    std::string S(reinterpret_cast<const char*>(Start),
                  static_cast<const uint8_t*>(Nul) - Start);
    Pos += S.size() + 1;
    return S;
  };
  // Everything is parsed before the first call, so that a damaged resource
  // reports nothing rather than half of its names.
  struct TName {
    std::string Name;
    TNameType Type;
    uint8_t Flags;
  };
  std::vector<TName> Names;
  try {
    Flags = R.U32(0);
    const uint32_t Requires = R.U32(4);
    Pos = 8;
    // Each name takes at least two bytes, which bounds a count before it is
    // trusted.
    if (Requires > Bytes.size() / 2) throw TDamaged{};
    for (uint32_t I = 0; I < Requires; ++I) {
      R.U(Pos, 1);  // hash code
      ++Pos;
      Names.push_back({Text(), ntRequiresPackage, 0});
    }
    const uint32_t Contains = R.U32(Pos);
    Pos += 4;
    if (Contains > Bytes.size() / 3) throw TDamaged{};
    for (uint32_t I = 0; I < Contains; ++I) {
      const auto UnitFlags = static_cast<uint8_t>(R.U(Pos, 1));
      R.U(Pos + 1, 1);  // hash code
      Pos += 2;
      Names.push_back({Text(), ntContainsUnit, UnitFlags});
    }
    // Newer packages end with their own name.
    if (Pos < Bytes.size() && Bytes[Pos] != 0) Names.push_back({Text(), ntDcpBpiName, 0});
  } catch (const TDamaged&) {
    throw EPackageError(vel::Format(SDamagedPackageInfo, {Module.FileName()}));
  }
  if (InfoProc)
    for (const TName& N : Names) InfoProc(N.Name, N.Type, N.Flags, Param);
}

// ---------------------------------------------------------------------------
// Builders

namespace {

// Appends a version node; Body writes the value and children. The node's
// length is patched afterwards.
template <class F>
void Node(std::vector<uint8_t>& B, std::u16string_view Key, uint16_t ValueLength, uint16_t Type,
          F&& Body) {
  PadTo4(B);
  const size_t Start = B.size();
  PutU16(B, 0);
  PutU16(B, ValueLength);
  PutU16(B, Type);
  PutWide(B, Key);
  PadTo4(B);
  Body();
  SetU16(B, Start, static_cast<uint16_t>(B.size() - Start));
}

std::u16string Hex8(uint16_t Lang, uint16_t CodePage) {
  char Buf[9];
  std::snprintf(Buf, sizeof Buf, "%04x%04x", Lang, CodePage);
  return Cp1252ToWide(Buf);
}

}  // namespace

std::vector<uint8_t> BuildVersionResource(const TVersionResourceDesc& Desc) {
  std::vector<uint8_t> B;
  Node(B, u"VS_VERSION_INFO", 52, 0, [&] {
    PutU32(B, 0xFEEF04BD);
    PutU32(B, 0x00010000);
    PutU32(B, Desc.FileVersionMS);
    PutU32(B, Desc.FileVersionLS);
    PutU32(B, Desc.ProductVersionMS);
    PutU32(B, Desc.ProductVersionLS);
    PutU32(B, 0x3F);
    PutU32(B, Desc.FileFlags);
    PutU32(B, Desc.FileOS);
    PutU32(B, Desc.FileType);
    PutU32(B, 0);
    PutU32(B, 0);
    PutU32(B, 0);
    if (!Desc.Tables.empty())
      Node(B, u"StringFileInfo", 0, 1, [&] {
        for (const auto& T : Desc.Tables)
          Node(B, Hex8(T.Language, T.CodePage), 0, 1, [&] {
            for (const auto& [Key, Value] : T.Strings) {
              const std::u16string W = Utf8ToWide(Value);
              Node(B, Utf8ToWide(Key), static_cast<uint16_t>(W.size() + 1), 1,
                   [&] { PutWide(B, W); });
            }
          });
      });
    if (!Desc.Translations.empty())
      Node(B, u"VarFileInfo", 0, 1, [&] {
        Node(B, u"Translation", static_cast<uint16_t>(Desc.Translations.size() * 4), 0, [&] {
          for (const auto& [Lang, CodePage] : Desc.Translations) {
            PutU16(B, Lang);
            PutU16(B, CodePage);
          }
        });
      });
  });
  if (B.size() > 0xFFFF) throw EResourceError("Version resource too large");
  return B;
}

std::vector<uint8_t> BuildPackageInfoResource(const TPackageInfoDesc& Desc) {
  std::vector<uint8_t> B;
  auto Str = [&](const std::string& S) {
    B.insert(B.end(), S.begin(), S.end());
    B.push_back(0);
  };
  PutU32(B, Desc.Flags);
  PutU32(B, static_cast<uint32_t>(Desc.Requires.size()));
  for (const auto& R : Desc.Requires) {
    B.push_back(0);
    Str(R);
  }
  PutU32(B, static_cast<uint32_t>(Desc.Contains.size()));
  for (const auto& [Name, Flags] : Desc.Contains) {
    B.push_back(Flags);
    B.push_back(0);
    Str(Name);
  }
  if (!Desc.PackageName.empty()) Str(Desc.PackageName);
  B.push_back(0);
  B.push_back(0);
  return B;
}

std::vector<uint8_t> BuildDescriptionResource(std::string_view Utf8Text) {
  std::vector<uint8_t> B;
  PutWide(B, Utf8ToWide(Utf8Text));
  return B;
}

std::vector<uint8_t> BuildResFile(const std::vector<TResSpecEntry>& Entries) {
  std::vector<uint8_t> B;
  auto Id = [&](const TResId& R) {
    if (R.IsName) {
      PutWide(B, R.Name);
    } else {
      PutU16(B, 0xFFFF);
      PutU16(B, R.Id);
    }
  };
  auto Entry = [&](const TResId& Type, const TResId& Name, uint16_t Lang,
                   std::span<const uint8_t> Data, uint16_t MemFlags) {
    const size_t Start = B.size();
    PutU32(B, static_cast<uint32_t>(Data.size()));
    PutU32(B, 0);
    Id(Type);
    Id(Name);
    PadTo4(B);
    PutU32(B, 0);
    PutU16(B, MemFlags);
    PutU16(B, Lang);
    PutU32(B, 0);
    PutU32(B, 0);
    const auto HeaderSize = static_cast<uint32_t>(B.size() - Start);
    for (int I = 0; I < 4; ++I) B[Start + 4 + I] = static_cast<uint8_t>(HeaderSize >> (8 * I));
    B.insert(B.end(), Data.begin(), Data.end());
    PadTo4(B);
  };
  Entry(TResId::FromId(0), TResId::FromId(0), 0, {}, 0);
  for (const auto& E : Entries) Entry(E.Type, E.Name, E.Language, E.Data, 0x30);
  return B;
}

}  // namespace vel
