// vel stg: looks into and edits compound files.
//
//   vel stg ls FILE              one line per element, depth first (below)
//   vel stg cat FILE PATH        a stream's bytes to stdout
//   vel stg put FILE PATH SRC    a stream made from file SRC ("-": stdin),
//                                replacing a stream (not a storage) of that
//                                name; missing storages on the way, and the
//                                file, are made
//   vel stg mkdir FILE PATH      every missing storage on PATH
//   vel stg rm FILE PATH         a stream, or a storage with all it holds
//   vel stg mv FILE PATH NEWPATH moves or renames an element
//   vel stg compact FILE         rewrites the file without its free space
//
// PATH: element names separated by "/" (or "\"). A name written "#" + a
// decimal code below 32 + the rest stands for the name starting with that
// control character, as ls writes it ("#5SummaryInformation").
//
// ls writes per element the TAB-separated fields
//   depth type name size clsid statebits sha256 ctime mtime
// depth 0 for the root (named <root>), type 1 storage / 2 stream, the name in
// UTF-8, size in bytes, the class as {XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX},
// state bits as 0x + 8 hex digits, the SHA-256 of a stream's bytes in
// lower-case hex ("-" for a storage), the times as 16 hex digits of their
// FILETIME; then "elements STORAGES STREAMS" (the root not counted).
#include <cryptopp/sha.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "vel/OleStorage.h"
#include "vel/rtl/Com.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/StructuredStorage.h"
#include "vel/rtl/SysUtils.h"

namespace {

using vel::HRESULT;
using vel::IPtr;
using vel::IStorage;
using vel::IStream;
using vel::STATSTG;

constexpr uint32_t ReadOnly = vel::STGM_READ | vel::STGM_SHARE_DENY_WRITE;
constexpr uint32_t ReadChild = vel::STGM_READ | vel::STGM_SHARE_EXCLUSIVE;
constexpr uint32_t ReadWrite = vel::STGM_READWRITE | vel::STGM_SHARE_EXCLUSIVE;
constexpr uint32_t ChunkSize = 1 << 16;

[[noreturn]] void Fail(const std::string& Msg) {
  throw vel::Exception(Msg);
}

// Raises the engine's message with what was being done.
void Check(HRESULT Res, const std::string& What) {
  if (vel::Failed(Res)) {
    std::string Text = vel::HResultMessage(Res);
    if (Text.empty()) Text = vel::Format("error %.8X", {static_cast<uint32_t>(Res)});
    Fail(What + ": " + Text);
  }
}

std::u16string FileName16(const std::string& File) {
  return vel::Utf8ToWide(File);
}

IPtr<IStorage> OpenFile(const std::string& File, uint32_t Mode) {
  IStorage* P = nullptr;
  Check(vel::StgOpenStorage(FileName16(File).c_str(), nullptr, Mode, nullptr, 0, &P), File);
  return IPtr<IStorage>::Attach(P);
}

// Splits PATH into element names (see the top of the file).
std::vector<std::u16string> SplitPath(const std::string& Path) {
  std::vector<std::u16string> R;
  std::string Part;
  auto Flush = [&] {
    if (Part.empty()) return;
    size_t Digits = 0;
    while (Part.size() > 1 + Digits && Digits < 2 && Part[1 + Digits] >= '0' &&
           Part[1 + Digits] <= '9')
      ++Digits;
    std::u16string Name;
    if (Part[0] == '#' && Digits > 0 && std::stoi(Part.substr(1, Digits)) < 32) {
      Name = static_cast<char16_t>(std::stoi(Part.substr(1, Digits)));
      Name += vel::Utf8ToWide(Part.substr(1 + Digits));
    } else {
      Name = vel::Utf8ToWide(Part);
    }
    R.push_back(std::move(Name));
    Part.clear();
  };
  for (char C : Path) {
    if (C == '/' || C == '\\') Flush();
    else Part += C;
  }
  Flush();
  if (R.empty()) Fail("empty element path");
  return R;
}

// The storage holding the last element of Names; with Create, missing
// storages on the way are made.
IPtr<IStorage> OpenParent(IStorage* Root, const std::vector<std::u16string>& Names,
                          uint32_t Mode, bool Create, const std::string& Path) {
  IPtr<IStorage> Cur(Root);
  for (size_t I = 0; I + 1 < Names.size(); ++I) {
    IStorage* P = nullptr;
    HRESULT Res = Cur->OpenStorage(Names[I].c_str(), nullptr, Mode, nullptr, 0, &P);
    if (vel::Failed(Res) && Create) Res = Cur->CreateStorage(Names[I].c_str(), Mode, 0, 0, &P);
    Check(Res, Path + ": " + vel::WideToUtf8(Names[I]));
    Cur = IPtr<IStorage>::Attach(P);
  }
  return Cur;
}

std::string DisplayName(const std::u16string& N) {
  if (!N.empty() && N[0] < 32)
    return "#" + std::to_string(static_cast<int>(N[0])) + vel::WideToUtf8(N.substr(1));
  return vel::WideToUtf8(N);
}

std::string Hex16(const vel::FILETIME& T) {
  char Buf[24];
  std::snprintf(Buf, sizeof Buf, "%08" PRIx32 "%08" PRIx32, T.dwHighDateTime, T.dwLowDateTime);
  return Buf;
}

std::string StreamHash(IStream* S) {
  CryptoPP::SHA256 H;
  std::vector<uint8_t> Buf(ChunkSize);
  for (;;) {
    uint32_t Got = 0;
    Check(S->Read(Buf.data(), ChunkSize, &Got), "read");
    if (Got == 0) break;
    H.Update(Buf.data(), Got);
  }
  uint8_t Digest[CryptoPP::SHA256::DIGESTSIZE];
  H.Final(Digest);
  std::string R;
  char Two[3];
  for (uint8_t B : Digest) {
    std::snprintf(Two, sizeof Two, "%02x", B);
    R += Two;
  }
  return R;
}

void PrintLine(int Depth, const STATSTG& S, const std::string& Name, const std::string& Hash) {
  std::printf("%d\t%u\t%s\t%" PRIu64 "\t%s\t0x%08" PRIx32 "\t%s\t%s\t%s\n", Depth, S.type,
              Name.c_str(), S.cbSize, vel::GUIDToString(S.clsid).c_str(), S.grfStateBits,
              Hash.c_str(), Hex16(S.ctime).c_str(), Hex16(S.mtime).c_str());
}

// Nesting the commands follow, against stack exhaustion on hostile files.
void CheckDepth(int Depth) {
  if (Depth > vel::MaxStorageDepth)
    Fail(vel::Format("storages nested deeper than %d levels", {vel::MaxStorageDepth}));
}

void ListStorage(IStorage* Stg, int Depth, uint64_t& Storages, uint64_t& Streams) {
  CheckDepth(Depth);
  vel::IEnumSTATSTG* E = nullptr;
  Check(Stg->EnumElements(0, nullptr, 0, &E), "enumerate");
  IPtr<vel::IEnumSTATSTG> Enum = IPtr<vel::IEnumSTATSTG>::Attach(E);
  STATSTG S;
  uint32_t Fetched = 0;
  while (Enum->Next(1, &S, &Fetched) == vel::S_OK && Fetched == 1) {
    const std::string Name = DisplayName(S.pwcsName);
    if (S.type == vel::STGTY_STORAGE) {
      ++Storages;
      PrintLine(Depth, S, Name, "-");
      IStorage* P = nullptr;
      Check(Stg->OpenStorage(S.pwcsName.c_str(), nullptr, ReadChild, nullptr, 0, &P), Name);
      ListStorage(IPtr<IStorage>::Attach(P), Depth + 1, Storages, Streams);
    } else {
      ++Streams;
      IStream* P = nullptr;
      Check(Stg->OpenStream(S.pwcsName.c_str(), nullptr, ReadChild, 0, &P), Name);
      PrintLine(Depth, S, Name, StreamHash(IPtr<IStream>::Attach(P)));
    }
    S = STATSTG();
  }
}

int List(const std::string& File) {
  IPtr<IStorage> Root = OpenFile(File, ReadOnly);
  STATSTG S;
  Check(Root->Stat(&S, vel::STATFLAG_NONAME), File);
  PrintLine(0, S, "<root>", "-");
  uint64_t Storages = 0, Streams = 0;
  ListStorage(Root, 1, Storages, Streams);
  std::printf("elements %" PRIu64 " %" PRIu64 "\n", Storages, Streams);
  return std::fflush(stdout) == 0 ? 0 : 1;
}

int Cat(const std::string& File, const std::string& Path) {
  IPtr<IStorage> Root = OpenFile(File, ReadOnly);
  const auto Names = SplitPath(Path);
  IPtr<IStorage> Parent = OpenParent(Root, Names, ReadChild, false, Path);
  IStream* P = nullptr;
  Check(Parent->OpenStream(Names.back().c_str(), nullptr, ReadChild, 0, &P), Path);
  IPtr<IStream> S = IPtr<IStream>::Attach(P);
  std::vector<char> Buf(ChunkSize);
  for (;;) {
    uint32_t Got = 0;
    Check(S->Read(Buf.data(), ChunkSize, &Got), Path);
    if (Got == 0) break;
    if (!vel::tool::WriteStdout(Buf.data(), Got)) Fail("cannot write the output");
  }
  return 0;
}

IPtr<IStorage> OpenOrCreateFile(const std::string& File) {
  IStorage* P = nullptr;
  const std::u16string W = FileName16(File);
  HRESULT Res = vel::StgOpenStorage(W.c_str(), nullptr, ReadWrite, nullptr, 0, &P);
  if (Res == vel::STG_E_FILENOTFOUND)
    Res = vel::StgCreateDocfile(W.c_str(), ReadWrite | vel::STGM_CREATE, 0, &P);
  Check(Res, File);
  return IPtr<IStorage>::Attach(P);
}

int Put(const std::string& File, const std::string& Path, const std::string& Source) {
  std::unique_ptr<vel::TStream> In;
  std::string Stdin;
  if (Source == "-") {
    std::vector<char> Buf(ChunkSize);
    size_t N;
    while ((N = std::fread(Buf.data(), 1, Buf.size(), stdin)) > 0) Stdin.append(Buf.data(), N);
  } else {
    In = std::make_unique<vel::TFileStream>(Source, vel::fmOpenRead | vel::fmShareDenyWrite);
  }
  IPtr<IStorage> Root = OpenOrCreateFile(File);
  const auto Names = SplitPath(Path);
  IPtr<IStorage> Parent = OpenParent(Root, Names, ReadWrite, true, Path);
  // STGM_CREATE would replace a storage of that name with the stream.
  IStorage* Existing = nullptr;
  if (vel::Succeeded(
          Parent->OpenStorage(Names.back().c_str(), nullptr, ReadWrite, nullptr, 0, &Existing))) {
    Existing->_Release();
    Fail(Path + ": is a storage");
  }
  IStream* P = nullptr;
  Check(Parent->CreateStream(Names.back().c_str(), ReadWrite | vel::STGM_CREATE, 0, 0, &P), Path);
  IPtr<IStream> S = IPtr<IStream>::Attach(P);
  auto WriteAll = [&](const char* Data, size_t N) {
    while (N > 0) {
      const uint32_t Part = static_cast<uint32_t>(std::min<size_t>(N, ChunkSize));
      uint32_t Done = 0;
      Check(S->Write(Data, Part, &Done), Path);
      if (Done != Part) Fail(Path + ": short write");
      Data += Part;
      N -= Part;
    }
  };
  if (In) {
    std::vector<char> Buf(ChunkSize);
    for (int64_t Got; (Got = In->Read(Buf.data(), ChunkSize)) > 0;)
      WriteAll(Buf.data(), static_cast<size_t>(Got));
  } else {
    WriteAll(Stdin.data(), Stdin.size());
  }
  S = nullptr;
  Parent = nullptr;
  Check(Root->Commit(vel::STGC_DEFAULT), File);
  return 0;
}

int MakeDir(const std::string& File, const std::string& Path) {
  IPtr<IStorage> Root = OpenOrCreateFile(File);
  auto Names = SplitPath(Path);
  Names.push_back(u"");  // every name of PATH is a storage to open or make
  OpenParent(Root, Names, ReadWrite, true, Path);
  Check(Root->Commit(vel::STGC_DEFAULT), File);
  return 0;
}

int Remove(const std::string& File, const std::string& Path) {
  IPtr<IStorage> Root = OpenFile(File, ReadWrite);
  const auto Names = SplitPath(Path);
  {
    IPtr<IStorage> Parent = OpenParent(Root, Names, ReadWrite, false, Path);
    Check(Parent->DestroyElement(Names.back().c_str()), Path);
  }
  Check(Root->Commit(vel::STGC_DEFAULT), File);
  return 0;
}

int Move(const std::string& File, const std::string& From, const std::string& To) {
  IPtr<IStorage> Root = OpenFile(File, ReadWrite);
  const auto Src = SplitPath(From);
  const auto Dst = SplitPath(To);
  {
    IPtr<IStorage> SrcParent = OpenParent(Root, Src, ReadWrite, false, From);
    if (std::vector<std::u16string>(Src.begin(), Src.end() - 1) ==
        std::vector<std::u16string>(Dst.begin(), Dst.end() - 1)) {
      Check(SrcParent->RenameElement(Src.back().c_str(), Dst.back().c_str()), From);
    } else {
      IPtr<IStorage> DstParent = OpenParent(Root, Dst, ReadWrite, true, To);
      Check(SrcParent->MoveElementTo(Src.back().c_str(), DstParent, Dst.back().c_str(),
                                     vel::STGMOVE_MOVE),
            From);
    }
  }
  Check(Root->Commit(vel::STGC_DEFAULT), File);
  return 0;
}

// ---------------------------------------------------------------------------
// compact: copies the tree element by element into FILE.~bak (so the bar
// can follow the bytes), then puts the copy in the file's place.

class TProgress {
 public:
  explicit TProgress(uint64_t Total) : FTotal(Total), FShow(::isatty(2) == 1) {}
  ~TProgress() {
    if (FShow && FDrawn >= 0) std::fputs("\n", stderr);
  }
  void Add(uint64_t N) {
    FDone += N;
    if (!FShow) return;
    const int Pct = FTotal ? static_cast<int>(FDone * 100 / FTotal) : 100;
    if (Pct == FDrawn) return;
    FDrawn = Pct;
    std::string Bar(static_cast<size_t>(Pct * 40 / 100), '#');
    Bar.resize(40, ' ');
    std::fprintf(stderr, "\rcompact [%s] %3d%%", Bar.c_str(), Pct);
    std::fflush(stderr);
  }

 private:
  uint64_t FTotal;
  uint64_t FDone = 0;
  bool FShow;
  int FDrawn = -1;
};

uint64_t TotalBytes(IStorage* Stg, int Depth = 1) {
  CheckDepth(Depth);
  vel::IEnumSTATSTG* E = nullptr;
  Check(Stg->EnumElements(0, nullptr, 0, &E), "enumerate");
  IPtr<vel::IEnumSTATSTG> Enum = IPtr<vel::IEnumSTATSTG>::Attach(E);
  uint64_t Sum = 0;
  STATSTG S;
  uint32_t Fetched = 0;
  while (Enum->Next(1, &S, &Fetched) == vel::S_OK && Fetched == 1) {
    if (S.type == vel::STGTY_STREAM) {
      Sum += S.cbSize;
    } else if (S.type == vel::STGTY_STORAGE) {
      IStorage* P = nullptr;
      Check(Stg->OpenStorage(S.pwcsName.c_str(), nullptr, ReadChild, nullptr, 0, &P),
            DisplayName(S.pwcsName));
      Sum += TotalBytes(IPtr<IStorage>::Attach(P), Depth + 1);
    }
    S = STATSTG();
  }
  return Sum;
}

void CopyTree(IStorage* From, IStorage* To, TProgress& Progress) {
  vel::IEnumSTATSTG* E = nullptr;
  Check(From->EnumElements(0, nullptr, 0, &E), "enumerate");
  IPtr<vel::IEnumSTATSTG> Enum = IPtr<vel::IEnumSTATSTG>::Attach(E);
  STATSTG S;
  uint32_t Fetched = 0;
  std::vector<char> Buf(ChunkSize);
  while (Enum->Next(1, &S, &Fetched) == vel::S_OK && Fetched == 1) {
    const std::string Name = DisplayName(S.pwcsName);
    const char16_t* N = S.pwcsName.c_str();
    if (S.type == vel::STGTY_STORAGE) {
      IStorage* P = nullptr;
      Check(From->OpenStorage(N, nullptr, ReadChild, nullptr, 0, &P), Name);
      IPtr<IStorage> Src = IPtr<IStorage>::Attach(P);
      Check(To->CreateStorage(N, ReadWrite | vel::STGM_CREATE, 0, 0, &P), Name);
      IPtr<IStorage> Dst = IPtr<IStorage>::Attach(P);
      Check(Dst->SetClass(S.clsid), Name);
      Check(Dst->SetStateBits(S.grfStateBits, 0xFFFFFFFFu), Name);
      CopyTree(Src, Dst, Progress);
    } else if (S.type == vel::STGTY_STREAM) {
      IStream* P = nullptr;
      Check(From->OpenStream(N, nullptr, ReadChild, 0, &P), Name);
      IPtr<IStream> Src = IPtr<IStream>::Attach(P);
      Check(To->CreateStream(N, ReadWrite | vel::STGM_CREATE, 0, 0, &P), Name);
      IPtr<IStream> Dst = IPtr<IStream>::Attach(P);
      Check(Dst->SetSize(S.cbSize), Name);
      for (;;) {
        uint32_t Got = 0, Put = 0;
        Check(Src->Read(Buf.data(), ChunkSize, &Got), Name);
        if (Got == 0) break;
        Check(Dst->Write(Buf.data(), Got, &Put), Name);
        Progress.Add(Got);
      }
    }
    // Times last: writing into an element changes its modification time.
    Check(To->SetElementTimes(N, &S.ctime, &S.atime, &S.mtime), Name);
    S = STATSTG();
  }
}

int Compact(const std::string& File) {
  const std::string Temp = vel::ChangeFileExt(File, ".~bak");
  {
    IPtr<IStorage> Src = OpenFile(File, vel::STGM_READ | vel::STGM_SHARE_EXCLUSIVE);
    STATSTG Root;
    Check(Src->Stat(&Root, vel::STATFLAG_NONAME), File);
    IStorage* P = nullptr;
    Check(vel::StgCreateDocfile(FileName16(Temp).c_str(), ReadWrite, 0, &P), Temp);
    IPtr<IStorage> Dst = IPtr<IStorage>::Attach(P);
    TProgress Progress(TotalBytes(Src));
    try {
      CopyTree(Src, Dst, Progress);
      Check(Dst->SetClass(Root.clsid), Temp);
      Check(Dst->SetStateBits(Root.grfStateBits, 0xFFFFFFFFu), Temp);
      Check(Dst->SetElementTimes(nullptr, &Root.ctime, &Root.atime, &Root.mtime), Temp);
      Check(Dst->Commit(vel::STGC_DEFAULT), Temp);
    } catch (...) {
      Dst = nullptr;
      vel::DeleteFile(Temp);
      throw;
    }
  }
  if (!vel::RenameFile(Temp, File)) Fail(File + ": cannot replace the file with its copy");
  return 0;
}

vel::tool::Registration Reg("stg", "list and edit compound files", [](CLI::App& Sub) {
  Sub.require_subcommand(1);
  struct TArgs {
    std::string File, Path, Other;
  };
  auto Add = [&Sub](const char* Name, const char* Help, int Paths,
                    std::function<int(const TArgs&)> Run) {
    auto* Cmd = Sub.add_subcommand(Name, Help);
    auto A = std::make_shared<TArgs>();
    Cmd->add_option("FILE", A->File, "compound file")->required();
    if (Paths >= 1) Cmd->add_option("PATH", A->Path, "element path, names separated by /")->required();
    if (Paths >= 2)
      Cmd->add_option(std::string(Name) == "mv" ? "NEWPATH" : "SRC", A->Other,
                      std::string(Name) == "mv" ? "new element path" : "source file, - for stdin")
          ->required();
    Cmd->callback([A, Run] { vel::tool::Status = Run(*A); });
  };
  Add("ls", "list every element, depth first", 0, [](const TArgs& A) { return List(A.File); });
  Add("cat", "a stream's bytes to stdout", 1, [](const TArgs& A) { return Cat(A.File, A.Path); });
  Add("put", "write a stream from a file", 2,
      [](const TArgs& A) { return Put(A.File, A.Path, A.Other); });
  Add("mkdir", "make the storages on a path", 1,
      [](const TArgs& A) { return MakeDir(A.File, A.Path); });
  Add("rm", "remove a stream or a storage with its contents", 1,
      [](const TArgs& A) { return Remove(A.File, A.Path); });
  Add("mv", "move or rename an element", 2,
      [](const TArgs& A) { return Move(A.File, A.Path, A.Other); });
  Add("compact", "rewrite the file without its free space", 0,
      [](const TArgs& A) { return Compact(A.File); });
});

}  // namespace
