// The compound-file engine: files it writes read back the same in
// python3-olefile and libgsf, files they write read in the engine, damaged
// files give clear errors, and a killed writer leaves a file in its previous
// or new state. Sharing across processes is checked with the wrappers
// (test_olestorage.cpp).
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "storage_test_util.h"

using namespace vel;
namespace fs = std::filesystem;

namespace stgtest {

template <class I>
I** Out(IPtr<I>& P) {
  return reinterpret_cast<I**>(P.Out());
}

constexpr uint32_t RW = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
constexpr uint32_t RO = STGM_READ | STGM_SHARE_EXCLUSIVE;       // elements, read only
constexpr uint32_t Shared = STGM_READ | STGM_SHARE_DENY_WRITE;  // a file, read only

class StructuredStorage : public storage_test::ScratchDir {};

std::u16string W(const std::string& S) {
  return StgUtf8ToName(S);
}

// Byte j of a stream of seed s, as the libgsf helper makes it too.
std::vector<uint8_t> Content(size_t Size, unsigned Seed) {
  std::vector<uint8_t> B(Size);
  for (size_t J = 0; J < Size; ++J)
    B[J] = static_cast<uint8_t>((J * 131 + Seed * 7 + (J >> 8)) & 0xFF);
  return B;
}

// Adler-32, as Python's zlib.adler32 and the libgsf helper compute it.
uint32_t Adler32(const std::vector<uint8_t>& B) {
  uint32_t A = 1, S = 0;
  for (uint8_t X : B) {
    A = (A + X) % 65521;
    S = (S + A) % 65521;
  }
  return S << 16 | A;
}

std::string Shell(const std::string& Cmd, int* Status = nullptr) {
  std::string Out;
  FILE* P = popen(Cmd.c_str(), "r");
  if (!P) return Out;
  char Buf[4096];
  size_t N;
  while ((N = fread(Buf, 1, sizeof Buf, P)) > 0) Out.append(Buf, N);
  int St = pclose(P);
  if (Status) *Status = St;
  return Out;
}

// The lines of a listing ("path TAB type TAB size TAB adler32", "-" for a
// storage's sum) in path order, component by component.
std::string Sorted(const std::string& Listing) {
  std::map<std::string, std::string> Lines;
  std::istringstream In(Listing);
  for (std::string L; std::getline(In, L);) {
    std::string Key = L.substr(0, L.find('\t'));
    std::replace(Key.begin(), Key.end(), '/', '\x01');
    Lines[Key] = L + "\n";
  }
  std::string R;
  for (auto& [K, L] : Lines) R += L;
  return R;
}

// What a file should hold: storages and streams by "/"-joined path.
struct TModel {
  std::set<std::string> Storages;
  std::map<std::string, std::vector<uint8_t>> Streams;

  std::string Listing() const {
    std::string R;
    for (auto& S : Storages) R += S + "\t1\t0\t-\n";
    char Buf[64];
    for (auto& [P, B] : Streams) {
      std::snprintf(Buf, sizeof Buf, "\t2\t%zu\t%08x\n", B.size(), Adler32(B));
      R += P + Buf;
    }
    return Sorted(R);
  }
};

// The same listing made by walking the file with the engine.
void Walk(IStorage* Stg, const std::string& Prefix, TModel& M) {
  IPtr<IEnumSTATSTG> E;
  ASSERT_EQ(Stg->EnumElements(0, nullptr, 0, Out(E)), S_OK);
  STATSTG St;
  uint32_t N = 0;
  while (E->Next(1, &St, &N) == S_OK) {
    std::string Path = Prefix + StgNameToUtf8(St.pwcsName);
    if (St.type == STGTY_STORAGE) {
      M.Storages.insert(Path);
      IPtr<IStorage> Sub;
      ASSERT_EQ(Stg->OpenStorage(St.pwcsName.c_str(), nullptr, RO, nullptr, 0, Out(Sub)), S_OK);
      Walk(Sub, Path + "/", M);
    } else {
      IPtr<IStream> S;
      ASSERT_EQ(Stg->OpenStream(St.pwcsName.c_str(), nullptr, RO, 0, Out(S)), S_OK);
      std::vector<uint8_t> B(St.cbSize + 10);
      uint32_t Got = 0;
      ASSERT_EQ(S->Read(B.data(), static_cast<uint32_t>(B.size()), &Got), S_OK);
      ASSERT_EQ(Got, St.cbSize) << Path;
      B.resize(Got);
      M.Streams[Path] = B;
    }
  }
}

std::string EngineListing(const std::string& File) {
  IPtr<IStorage> R;
  if (StgOpenStorage(W(File).c_str(), nullptr, Shared, nullptr, 0, Out(R)) != S_OK)
    return "open failed";
  TModel M;
  Walk(R, "", M);
  return M.Listing();
}

std::string OlefileListing(const std::string& File) {
  static const char* Script =
      "import sys, olefile, zlib\n"
      "o = olefile.OleFileIO(sys.argv[1])\n"
      "for e in o.listdir(streams=True, storages=True):\n"
      "    p = '/'.join(e)\n"
      "    if o.get_type(e) == olefile.STGTY_STREAM:\n"
      "        d = o.openstream(e).read()\n"
      "        print('%s\\t2\\t%d\\t%08x' % (p, len(d), zlib.adler32(d)))\n"
      "    else:\n"
      "        print('%s\\t1\\t0\\t-' % p)\n";
  std::string Py = fs::path(File).parent_path() / "list.py";
  std::ofstream(Py) << Script;
  return Sorted(Shell("/usr/bin/python3 " + Py + " '" + File + "' 2>&1"));
}

#ifdef VEL_CFB_GSF_HELPER
std::string GsfListing(const std::string& File) {
  return Sorted(Shell(std::string(VEL_CFB_GSF_HELPER) + " list '" + File + "' 2>&1"));
}
#endif

IPtr<IStorage> CreateFile(const std::string& Path, uint32_t Sector) {
  STGOPTIONS O;
  O.ulSectorSize = Sector;
  IPtr<IStorage> R;
  EXPECT_EQ(StgCreateStorageEx(W(Path).c_str(), RW | STGM_CREATE, STGFMT_DOCFILE, 0, &O, nullptr,
                               IIDOf<IStorage>, R.Out()),
            S_OK);
  return R;
}

// Opens (creating) the storage at a "/"-joined path below Root.
IPtr<IStorage> Dir(IStorage* Root, const std::string& Path) {
  IPtr<IStorage> Cur(Root);
  size_t A = 0;
  while (A < Path.size()) {
    size_t B = Path.find('/', A);
    if (B == std::string::npos) B = Path.size();
    std::u16string N = W(Path.substr(A, B - A));
    IPtr<IStorage> Next;
    if (Cur->OpenStorage(N.c_str(), nullptr, RW, nullptr, 0, Out(Next)) != S_OK) {
      EXPECT_EQ(Cur->CreateStorage(N.c_str(), RW, 0, 0, Out(Next)), S_OK) << Path;
    }
    Cur = Next;
    A = B + 1;
  }
  return Cur;
}

void Put(IStorage* Root, TModel& M, const std::string& Path, const std::vector<uint8_t>& B) {
  size_t Slash = Path.rfind('/');
  IPtr<IStorage> D =
      Slash == std::string::npos ? IPtr<IStorage>(Root) : Dir(Root, Path.substr(0, Slash));
  std::string Leaf = Slash == std::string::npos ? Path : Path.substr(Slash + 1);
  IPtr<IStream> S;
  ASSERT_EQ(D->CreateStream(W(Leaf).c_str(), RW | STGM_CREATE, 0, 0, Out(S)), S_OK) << Path;
  // Written in uneven pieces so that writes straddle sector boundaries.
  size_t Pos = 0, Piece = 1000;
  while (Pos < B.size()) {
    uint32_t N = static_cast<uint32_t>(std::min(Piece, B.size() - Pos)), Done = 0;
    ASSERT_EQ(S->Write(B.data() + Pos, N, &Done), S_OK);
    Pos += N;
    Piece = Piece * 3 + 7;
  }
  M.Streams[Path] = B;
  for (size_t P = Path.find('/'); P != std::string::npos; P = Path.find('/', P + 1))
    M.Storages.insert(Path.substr(0, P));
}

// ---------------------------------------------------------------------------
// Files written by the engine, read by olefile and libgsf

struct TShape {
  const char* Name;
  std::function<void(IStorage*, TModel&)> Build;
};

const TShape Shapes[] = {
    {"mini",
     [](IStorage* R, TModel& M) {
       for (int I = 0; I < 40; ++I)
         Put(R, M, "S" + std::to_string(I % 3) + "/m" + std::to_string(I),
             Content((I * 389) % 4096, I));
     }},
    {"large",
     [](IStorage* R, TModel& M) {
       Put(R, M, "at4096", Content(4096, 1));
       Put(R, M, "at4095", Content(4095, 2));
       Put(R, M, "Big", Content(3 * 1048576 + 17, 3));
       Put(R, M, "Data/Mid", Content(70000, 4));
     }},
    // Large enough for DIFAT sectors with 512-byte sectors.
    {"difat",
     [](IStorage* R, TModel& M) {
       Put(R, M, "Huge", Content(8 * 1048576 + 3, 9));
       Put(R, M, "after", Content(5000, 10));
     }},
    {"deep",
     [](IStorage* R, TModel& M) {
       std::string P;
       for (int I = 0; I < 40; ++I) {
         P += (I ? "/" : "") + std::string("L") + std::to_string(I);
         Put(R, M, P + "/s", Content(100 + I * 150, I));
       }
     }},
    {"wide",
     [](IStorage* R, TModel& M) {
       for (int I = 0; I < 300; ++I)
         Put(R, M, "W/n" + std::to_string(I * 7919 % 1000), Content(I % 50, I));
     }},
    {"edits",
     [](IStorage* R, TModel& M) {
       for (int I = 0; I < 30; ++I) Put(R, M, "e" + std::to_string(I), Content(I * 800, I));
       ASSERT_EQ(R->Commit(STGC_DEFAULT), S_OK);
       for (int I = 0; I < 30; I += 2) {
         ASSERT_EQ(R->DestroyElement(W("e" + std::to_string(I)).c_str()), S_OK);
         M.Streams.erase("e" + std::to_string(I));
       }
       // Across the cut-off both ways, and a rename.
       Put(R, M, "e1", Content(9000, 50));
       Put(R, M, "e9", Content(10, 51));
       IPtr<IStream> S;
       ASSERT_EQ(R->OpenStream(u"e11", nullptr, RW, 0, Out(S)), S_OK);
       ASSERT_EQ(S->SetSize(3000), S_OK);
       S = nullptr;
       M.Streams["e11"].resize(3000);
       ASSERT_EQ(R->RenameElement(u"e13", u"renamed"), S_OK);
       M.Streams["renamed"] = M.Streams["e13"];
       M.Streams.erase("e13");
     }},
};

class EngineWrites : public storage_test::ScratchDir,
                     public ::testing::WithParamInterface<std::tuple<int, uint32_t>> {};

TEST_P(EngineWrites, OlefileAndLibgsfReadTheSameTree) {
  const TShape& Shape = Shapes[std::get<0>(GetParam())];
  const uint32_t Sector = std::get<1>(GetParam());
  std::string File = Path("f.cfb");
  TModel M;
  Shape.Build(CreateFile(File, Sector), M);
  std::string Want = M.Listing();
  EXPECT_EQ(EngineListing(File), Want);
  EXPECT_EQ(OlefileListing(File), Want);
#ifdef VEL_CFB_GSF_HELPER
  EXPECT_EQ(GsfListing(File), Want);
#endif
  if (std::string(Shape.Name) == "difat" && Sector == 512) {
    std::ifstream F(File, std::ios::binary);
    uint8_t H[76];
    F.read(reinterpret_cast<char*>(H), 76);
    EXPECT_GT(H[72] | H[73] << 8, 0) << "no DIFAT sector";
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, EngineWrites,
                         ::testing::Combine(::testing::Range(0, 6), ::testing::Values(512u, 4096u)),
                         [](const auto& I) {
                           return std::string(Shapes[std::get<0>(I.param)].Name) + "_v" +
                                  (std::get<1>(I.param) == 512 ? "3" : "4");
                         });

// A version-3 file's bytes, with the positions of its structures.
struct TRaw {
  std::vector<uint8_t> B;
  uint32_t Fat0, Dir0, MiniFat0;
  std::vector<uint32_t> DirChain;

  explicit TRaw(const std::string& File) {
    std::ifstream F(File, std::ios::binary);
    B.assign(std::istreambuf_iterator<char>(F), std::istreambuf_iterator<char>());
    Fat0 = G32(76);
    Dir0 = G32(48);
    MiniFat0 = G32(60);
    for (uint32_t S = Dir0; S != 0xFFFFFFFE && DirChain.size() < 64; S = G32(Fat(S)))
      DirChain.push_back(S);
  }
  uint32_t G32(size_t O) const {
    return uint32_t(B[O]) | B[O + 1] << 8 | B[O + 2] << 16 | uint32_t(B[O + 3]) << 24;
  }
  void P32(size_t O, uint32_t V) {
    for (int I = 0; I < 4; ++I) B[O + I] = uint8_t(V >> (8 * I));
  }
  size_t Sec(uint32_t S) const { return (size_t(S) + 1) * 512; }
  size_t Fat(uint32_t S) const { return Sec(Fat0) + 4 * S; }  // the first FAT sector's entries
  size_t Ent(uint32_t I) const { return Sec(DirChain[I / 4]) + 128 * (I % 4); }
  std::u16string Name(uint32_t I) const {
    std::u16string N;
    for (size_t K = 0, P = Ent(I); K < 32 && (B[P + 2 * K] | B[P + 2 * K + 1]); ++K)
      N.push_back(char16_t(B[P + 2 * K] | B[P + 2 * K + 1] << 8));
    return N;
  }
  uint32_t Find(const std::u16string& N) const {
    for (uint32_t I = 0; I < 4 * DirChain.size(); ++I)
      if (Name(I) == N) return I;
    return 0xFFFFFFFF;
  }
  void Save(const std::string& File) const {
    std::ofstream(File, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(B.data()), static_cast<std::streamsize>(B.size()));
  }
};

// The directory is written as red-black trees in the format's name order:
// in-order traversal sorted, root black, no red node with a red child, the
// same number of black nodes on every path.
TEST_F(StructuredStorage, DirectoryTreesAreOrderedRedBlackTrees) {
  std::vector<std::u16string> Names = {u"b",       u"A",       u"aa", u"Zz",
                                       u"\u00e0x", u"\u00d6y", u"z",  u"\u0430"};
  for (int I = 0; I < 40; ++I) Names.push_back(W("n" + std::to_string(I * 37 % 101)));
  {
    IPtr<IStorage> R = CreateFile(Path("tree.cfb"), 512);
    IPtr<IStream> S;
    for (auto& N : Names) ASSERT_EQ(R->CreateStream(N.c_str(), RW, 0, 0, Out(S)), S_OK);
  }
  const TRaw F(Path("tree.cfb"));
  std::vector<std::u16string> InOrder;
  std::function<int(uint32_t, bool)> Check = [&](uint32_t I, bool ParentRed) -> int {
    if (I == 0xFFFFFFFF) return 1;
    bool Red = F.B[F.Ent(I) + 67] == 0;
    EXPECT_FALSE(Red && ParentRed) << "red node under a red node";
    int L = Check(F.G32(F.Ent(I) + 68), Red);
    InOrder.push_back(F.Name(I));
    EXPECT_EQ(L, Check(F.G32(F.Ent(I) + 72), Red)) << "black height differs";
    return L + (Red ? 0 : 1);
  };
  uint32_t Top = F.G32(F.Ent(0) + 76);
  EXPECT_EQ(F.B[F.Ent(Top) + 67], 1) << "tree root is red";
  Check(Top, false);
  std::sort(Names.begin(), Names.end(), [](auto& X, auto& Y) { return StgCompareNames(X, Y) < 0; });
  EXPECT_EQ(InOrder, Names);
  // Shorter names first, then the upper-cased codes.
  EXPECT_LT(StgCompareNames(u"z", u"aa"), 0);
  EXPECT_LT(StgCompareNames(u"A", u"z"), 0);
  EXPECT_EQ(StgCompareNames(u"\u00e0x", u"\u00c0X"), 0);
  EXPECT_LT(StgCompareNames(u"\u00e0", u"\u00d6"), 0);  // folded: 0xC0 < 0xD6
}

// ---------------------------------------------------------------------------
// Files written by others, read by the engine

#ifdef VEL_CFB_GSF_HELPER
TEST_F(StructuredStorage, ReadsAndEditsFilesWrittenByLibgsf) {
  for (unsigned Sector : {512u, 4096u}) {
    std::string File = Path("gsf" + std::to_string(Sector) + ".cfb");
    TModel M;
    std::string Layout;
    auto D = [&](const std::string& P) {
      Layout += "D " + P + "\n";
      M.Storages.insert(P);
    };
    auto S = [&](const std::string& P, size_t Size, unsigned Seed) {
      Layout += "F " + P + " " + std::to_string(Size) + " " + std::to_string(Seed) + "\n";
      M.Streams[P] = Content(Size, Seed);
    };
    D("Clients");
    D("Clients/\u00c4rger");
    S("Clients/\u00c4rger/\u00e0x", 100, 1);
    S("Clients/\u00c4rger/\u00d6y", 5000, 2);
    S("Clients/Notes", 4095, 3);
    S("Clients/Big", 200000, 4);
    for (int I = 0; I < 60; ++I) S("n" + std::to_string(I), I * 90, I);
    std::ofstream(Path("layout")) << Layout;
    int St = 0;
    Shell(std::string(VEL_CFB_GSF_HELPER) + " write " + File + " " + std::to_string(Sector) +
              " < " + Path("layout"),
          &St);
    ASSERT_EQ(St, 0);
    EXPECT_EQ(EngineListing(File), M.Listing()) << Sector;
    {
      // Names are found whatever the case and whichever folding ordered the tree.
      IPtr<IStorage> R, C, A;
      ASSERT_EQ(StgOpenStorage(W(File).c_str(), nullptr, RW, nullptr, 0, Out(R)), S_OK);
      ASSERT_EQ(R->OpenStorage(u"CLIENTS", nullptr, RW, nullptr, 0, Out(C)), S_OK);
      ASSERT_EQ(C->OpenStorage(u"\u00e4RGER", nullptr, RW, nullptr, 0, Out(A)), S_OK);
      IPtr<IStream> X;
      EXPECT_EQ(A->OpenStream(u"\u00c0X", nullptr, RW, 0, Out(X)), S_OK);
      X = nullptr;
      // Edits on a foreign file.
      ASSERT_EQ(C->DestroyElement(u"Big"), S_OK);
      M.Streams.erase("Clients/Big");
      A = nullptr;
      C = nullptr;
      Put(R, M, "Clients/New", Content(7000, 77));
      Put(R, M, "n5", Content(30, 78));
    }
    EXPECT_EQ(EngineListing(File), M.Listing()) << Sector;
    EXPECT_EQ(OlefileListing(File), M.Listing()) << Sector;
    EXPECT_EQ(GsfListing(File), M.Listing()) << Sector;
  }
}
#endif

// olefile writes only over existing streams of the same size.
TEST_F(StructuredStorage, ReadsStreamsRewrittenByOlefile) {
  std::string File = Path("ole.cfb");
  TModel M;
  {
    IPtr<IStorage> R = CreateFile(File, 512);
    Put(R, M, "A/B", Content(5000, 1));
    Put(R, M, "m", Content(100, 2));
  }
  std::ofstream(Path("w.py"))
      << "import sys, olefile\n"
         "o = olefile.OleFileIO(sys.argv[1], write_mode=True)\n"
         "o.write_stream('A/B', bytes((i * 13 + 5) & 255 for i in range(5000)))\n"
         "o.write_stream('m', bytes((i * 3 + 1) & 255 for i in range(100)))\n"
         "o.close()\n";
  int St = 0;
  std::string Msg = Shell("/usr/bin/python3 " + Path("w.py") + " " + File + " 2>&1", &St);
  ASSERT_EQ(St, 0) << Msg;
  for (size_t I = 0; I < 5000; ++I) M.Streams["A/B"][I] = static_cast<uint8_t>(I * 13 + 5);
  for (size_t I = 0; I < 100; ++I) M.Streams["m"][I] = static_cast<uint8_t>(I * 3 + 1);
  EXPECT_EQ(EngineListing(File), M.Listing());
}

// ---------------------------------------------------------------------------
// The COM surface: results as Windows gives them

TEST_F(StructuredStorage, CallsGiveWindowsResults) {
  std::string File = Path("r.cfb"), Text = Path("text.txt"), Missing = Path("missing");
  std::ofstream(Text) << "not a compound file, just text that is long enough";
  IPtr<IStorage> R = CreateFile(File, 512);
  IPtr<IStream> S, S2;
  IPtr<IStorage> G, G2;
  ASSERT_EQ(R->CreateStream(u"s", RW, 0, 0, Out(S)), S_OK);
  ASSERT_EQ(R->CreateStorage(u"g", RW, 0, 0, Out(G)), S_OK);
  const std::u16string Long(32, u'x');
  auto OpenS = [&](const char16_t* N) { return R->OpenStream(N, nullptr, RW, 0, Out(S2)); };
  auto OpenG = [&](const char16_t* N) {
    return R->OpenStorage(N, nullptr, RW, nullptr, 0, Out(G2));
  };
  auto NewS = [&](const char16_t* N, uint32_t M) { return R->CreateStream(N, M, 0, 0, Out(S2)); };
  auto OpenFile = [&](const std::string& F) {
    return StgOpenStorage(W(F).c_str(), nullptr, Shared, nullptr, 0, Out(G2));
  };
  struct TCase {
    const char* What;
    std::function<HRESULT()> Call;
    HRESULT Want;
  } Cases[] = {
      {"open a missing stream", [&] { return OpenS(u"nope"); }, STG_E_FILENOTFOUND},
      {"open a storage as a stream", [&] { return OpenS(u"g"); }, STG_E_FILENOTFOUND},
      {"open an open stream again", [&] { return OpenS(u"S"); }, STG_E_ACCESSDENIED},
      {"open an open storage again", [&] { return OpenG(u"G"); }, STG_E_ACCESSDENIED},
      {"create over an existing name", [&] { return NewS(u"s", RW); }, STG_E_FILEALREADYEXISTS},
      {"replace an open stream", [&] { return NewS(u"s", RW | STGM_CREATE); }, STG_E_ACCESSDENIED},
      {"a name of 32 characters", [&] { return NewS(Long.c_str(), RW); }, STG_E_INVALIDNAME},
      {"a name with a backslash", [&] { return R->CreateStorage(u"a\\b", RW, 0, 0, Out(G2)); },
       STG_E_INVALIDNAME},
      {"an empty name", [&] { return NewS(u"", RW); }, STG_E_INVALIDNAME},
      {"no share-exclusive", [&] { return NewS(u"t", STGM_READWRITE); }, STG_E_INVALIDFLAG},
      {"rename onto an existing name", [&] { return R->RenameElement(u"g", u"s"); },
       STG_E_ACCESSDENIED},
      {"destroy a missing element", [&] { return R->DestroyElement(u"nope"); }, STG_E_FILENOTFOUND},
      {"copy a storage into itself", [&] { return R->CopyTo(0, nullptr, nullptr, G); },
       STG_E_ACCESSDENIED},
      {"move into its own subtree",
       [&] {
         G = nullptr;
         OpenG(u"g");
         return R->MoveElementTo(u"g", G2, u"h", STGMOVE_MOVE);
       },
       STG_E_ACCESSDENIED},
      {"seek before the start", [&] { return S->Seek(-1, STREAM_SEEK_SET, nullptr); },
       STG_E_INVALIDFUNCTION},
      {"seek from a bad origin", [&] { return S->Seek(0, 7, nullptr); }, STG_E_INVALIDFUNCTION},
      {"open a missing file", [&] { return OpenFile(Missing); }, STG_E_FILENOTFOUND},
      {"open a file that is not compound", [&] { return OpenFile(Text); }, STG_E_FILEALREADYEXISTS},
      {"create over an existing file",
       [&] { return StgCreateDocfile(W(Text).c_str(), RW, 0, Out(G2)); }, STG_E_FILEALREADYEXISTS},
      {"is a text file a storage file", [&] { return StgIsStorageFile(W(Text).c_str()); }, S_FALSE},
      {"is the compound file one", [&] { return StgIsStorageFile(W(File).c_str()); }, S_OK},
      {"is a missing file one", [&] { return StgIsStorageFile(W(Missing).c_str()); },
       STG_E_FILENOTFOUND},
  };
  for (auto& C : Cases) EXPECT_EQ(C.Call(), C.Want) << C.What;
  EXPECT_EQ(StgResultMessage(STG_E_FILENOTFOUND), "%1 could not be found");
  // Destroying an element reverts the objects open on it.
  ASSERT_EQ(R->DestroyElement(u"s"), S_OK);
  EXPECT_EQ(S->Write("x", 1, nullptr), STG_E_REVERTED);
  // A read-only open refuses writes at every level.
  S = nullptr;
  R = nullptr;
  ASSERT_EQ(StgOpenStorage(W(File).c_str(), nullptr, Shared, nullptr, 0, Out(R)), S_OK);
  EXPECT_EQ(R->CreateStream(u"new", RW, 0, 0, Out(S)), STG_E_ACCESSDENIED);
  EXPECT_EQ(R->OpenStorage(u"g", nullptr, RW, nullptr, 0, Out(G)), STG_E_ACCESSDENIED);
  EXPECT_EQ(R->SetClass(GUID_NULL), STG_E_ACCESSDENIED);
}

TEST_F(StructuredStorage, ElementsKeepClassStateBitsTimesAndCopies) {
  std::string File = Path("m.cfb");
  const TCLSID Cls = TGUID::Parse("{00020906-0000-0000-C000-000000000046}");
  const FILETIME T1{0x12345678, 0x01D00000}, T2{0x9ABCDEF0, 0x01D10000};
  {
    IPtr<IStorage> R = CreateFile(File, 4096), A, B;
    ASSERT_EQ(R->CreateStorage(u"A", RW, 0, 0, Out(A)), S_OK);
    ASSERT_EQ(A->SetClass(Cls), S_OK);
    ASSERT_EQ(A->SetStateBits(0xF0F0, 0x00FF), S_OK);
    ASSERT_EQ(A->SetStateBits(0xAB00, 0xFF00), S_OK);
    IPtr<IStream> S;
    ASSERT_EQ(A->CreateStream(u"x", RW, 0, 0, Out(S)), S_OK);
    ASSERT_EQ(S->Write("hello", 5, nullptr), S_OK);
    S = nullptr;
    A = nullptr;
    ASSERT_EQ(R->SetElementTimes(u"A", &T1, nullptr, &T2), S_OK);
    // Copy and move within the file, then a copy to another file.
    ASSERT_EQ(R->CreateStorage(u"B", RW, 0, 0, Out(B)), S_OK);
    ASSERT_EQ(R->MoveElementTo(u"A", B, u"A2", STGMOVE_COPY), S_OK);
    ASSERT_EQ(R->MoveElementTo(u"A", B, u"A3", STGMOVE_MOVE), S_OK);
    IPtr<IStorage> Other = CreateFile(File + ".2", 512);
    ASSERT_EQ(B->CopyTo(0, nullptr, nullptr, Other), S_OK);
  }
  for (std::string F : {File, File + ".2"}) {
    IPtr<IStorage> R, B, A;
    ASSERT_EQ(StgOpenStorage(W(F).c_str(), nullptr, Shared, nullptr, 0, Out(R)), S_OK);
    if (F == File) {
      EXPECT_EQ(R->OpenStorage(u"A", nullptr, RO, nullptr, 0, Out(A)), STG_E_FILENOTFOUND);
      ASSERT_EQ(R->OpenStorage(u"B", nullptr, RO, nullptr, 0, Out(B)), S_OK);
    } else {
      B = R;
    }
    for (const char16_t* N : {u"A2", u"A3"}) {
      ASSERT_EQ(B->OpenStorage(N, nullptr, RO, nullptr, 0, Out(A)), S_OK);
      STATSTG St;
      ASSERT_EQ(A->Stat(&St, STATFLAG_DEFAULT), S_OK);
      EXPECT_EQ(St.pwcsName, N);
      EXPECT_TRUE(St.clsid == Cls);
      EXPECT_EQ(St.grfStateBits, 0xABF0u);
      EXPECT_EQ(St.ctime.dwLowDateTime, T1.dwLowDateTime);
      EXPECT_EQ(St.mtime.dwHighDateTime, T2.dwHighDateTime);
      IPtr<IStream> S;
      ASSERT_EQ(A->OpenStream(u"x", nullptr, RO, 0, Out(S)), S_OK);
      char Buf[8] = {};
      uint32_t Got = 0;
      ASSERT_EQ(S->Read(Buf, 8, &Got), S_OK);
      EXPECT_EQ(std::string(Buf, Got), "hello");
    }
  }
}

// Streams move between the mini stream and regular sectors as they cross
// 4096 bytes, keep their bytes, and freed sectors are used again.
TEST_F(StructuredStorage, StreamsCrossTheCutOffAndFreedSectorsAreReused) {
  std::string File = Path("c.cfb");
  IPtr<IStorage> R = CreateFile(File, 512);
  IPtr<IStream> S;
  ASSERT_EQ(R->CreateStream(u"s", RW, 0, 0, Out(S)), S_OK);
  std::vector<uint8_t> Want;
  // 8000 after 10000 cuts a saved chain and rewrites saved sectors in place.
  for (uint64_t Size : {100u, 4095u, 4096u, 10000u, 8000u, 50u, 0u, 4097u, 3000u}) {
    std::vector<uint8_t> B = Content(Size, static_cast<unsigned>(Size));
    ASSERT_EQ(S->SetSize(Size), S_OK);
    Want.resize(Size, 0);
    // Rewrite the second half only; the first half must survive the move.
    ASSERT_EQ(S->Seek(static_cast<int64_t>(Size / 2), STREAM_SEEK_SET, nullptr), S_OK);
    ASSERT_EQ(S->Write(B.data() + Size / 2, static_cast<uint32_t>(Size - Size / 2), nullptr), S_OK);
    std::copy(B.begin() + Size / 2, B.end(), Want.begin() + Size / 2);
    ASSERT_EQ(R->Commit(STGC_DEFAULT), S_OK);
    std::vector<uint8_t> Got(Size + 1);
    uint32_t N = 0;
    ASSERT_EQ(S->Seek(0, STREAM_SEEK_SET, nullptr), S_OK);
    ASSERT_EQ(S->Read(Got.data(), static_cast<uint32_t>(Got.size()), &N), S_OK);
    Got.resize(N);
    EXPECT_EQ(Got, Want) << Size;
  }
  S = nullptr;
  TModel M;
  Put(R, M, "big", Content(1 << 20, 1));
  ASSERT_EQ(R->Commit(STGC_DEFAULT), S_OK);
  auto Size1 = fs::file_size(File);
  for (int Round = 0; Round < 5; ++Round) {
    ASSERT_EQ(R->DestroyElement(u"big"), S_OK);
    ASSERT_EQ(R->Commit(STGC_DEFAULT), S_OK);
    Put(R, M, "big", Content(1 << 20, Round + 2));
    ASSERT_EQ(R->Commit(STGC_DEFAULT), S_OK);
  }
  // One extra copy of the stream may be needed while the old one is still
  // the saved state; never one per round.
  EXPECT_LT(fs::file_size(File), Size1 * 2 + 65536);
  R = nullptr;
  EXPECT_EQ(OlefileListing(File).find("big\t2\t1048576\t"), 0u) << OlefileListing(File);
}

TEST_F(StructuredStorage, TransactedRevertReturnsToTheLastCommit) {
  std::string File = Path("t.cfb");
  CreateFile(File, 512);
  IPtr<IStorage> R;
  ASSERT_EQ(StgOpenStorage(W(File).c_str(), nullptr, RW | STGM_TRANSACTED, nullptr, 0, Out(R)),
            S_OK);
  TModel M;
  Put(R, M, "kept", Content(5000, 1));
  ASSERT_EQ(R->Commit(STGC_DEFAULT), S_OK);
  Put(R, M, "dropped", Content(100, 2));
  IPtr<IStream> S;
  ASSERT_EQ(R->OpenStream(u"kept", nullptr, RW, 0, Out(S)), S_OK);
  ASSERT_EQ(S->SetSize(10), S_OK);
  ASSERT_EQ(R->Revert(), S_OK);
  EXPECT_EQ(S->Read(nullptr, 0, nullptr), STG_E_REVERTED);
  S = nullptr;
  ASSERT_EQ(R->OpenStream(u"dropped", nullptr, RW, 0, Out(S)), STG_E_FILENOTFOUND);
  Put(R, M, "also dropped", Content(100, 3));
  R = nullptr;  // a transacted root saves nothing on release
  M.Streams.erase("dropped");
  M.Streams.erase("also dropped");
  EXPECT_EQ(EngineListing(File), M.Listing());
}

// ---------------------------------------------------------------------------
// A writer killed at any moment

// State k: stream "K" holds k, "S" holds Content(size(k), k) with sizes on
// both sides of the cut-off, "L" holds Content(30000, k), and streams
// "T0".."T<k%7>" exist.
size_t StateSize(uint32_t K) {
  return (K * 977u) % 12000u;
}

void WriteState(IStorage* R, uint32_t K) {
  IPtr<IStream> S;
  auto Set = [&](const char16_t* N, const std::vector<uint8_t>& B) {
    if (R->OpenStream(N, nullptr, RW, 0, Out(S)) != S_OK) R->CreateStream(N, RW, 0, 0, Out(S));
    S->SetSize(B.size());
    S->Write(B.data(), static_cast<uint32_t>(B.size()), nullptr);
    S = nullptr;
  };
  Set(u"S", Content(StateSize(K), K));
  Set(u"L", Content(30000, K));
  for (uint32_t T = 0; T < 7; ++T) {
    std::u16string N = W("T" + std::to_string(T));
    if (T <= K % 7)
      Set(N.c_str(), Content(T * 50, T));
    else
      R->DestroyElement(N.c_str());
  }
  Set(u"K", std::vector<uint8_t>{uint8_t(K), uint8_t(K >> 8), uint8_t(K >> 16), 0});
}

TEST_F(StructuredStorage, KilledWriterLeavesThePreviousOrTheNewState) {
  std::string File = Path("k.cfb");
  {
    IPtr<IStorage> R = CreateFile(File, 512);
    WriteState(R, 0);
  }
  std::mt19937 Rng(7);
  std::set<uint32_t> Seen;
  for (int Round = 0; Round < 40; ++Round) {
    pid_t Child = fork();
    if (Child == 0) {
      IPtr<IStorage> R;
      if (StgOpenStorage(W(File).c_str(), nullptr, RW, nullptr, 0, Out(R)) != S_OK) _exit(1);
      IPtr<IStream> S;
      uint8_t B[4] = {};
      R->OpenStream(u"K", nullptr, RW, 0, Out(S));
      S->Read(B, 4, nullptr);
      S = nullptr;
      for (uint32_t K = B[0] | B[1] << 8 | B[2] << 16;;) {
        WriteState(R, ++K);
        R->Commit(STGC_DEFAULT);
      }
    }
    usleep(2000 + Rng() % 60000);
    kill(Child, SIGKILL);
    int St = 0;
    waitpid(Child, &St, 0);
    IPtr<IStorage> R;
    ASSERT_EQ(StgOpenStorage(W(File).c_str(), nullptr, Shared, nullptr, 0, Out(R)), S_OK) << Round;
    TModel Got;
    Walk(R, "", Got);
    ASSERT_TRUE(Got.Streams.count("K")) << Round;
    const auto& KB = Got.Streams["K"];
    ASSERT_EQ(KB.size(), 4u);
    uint32_t K = KB[0] | KB[1] << 8 | KB[2] << 16;
    Seen.insert(K);
    TModel Want;
    Want.Streams["K"] = KB;
    Want.Streams["S"] = Content(StateSize(K), K);
    Want.Streams["L"] = Content(30000, K);
    for (uint32_t T = 0; T <= K % 7; ++T)
      Want.Streams["T" + std::to_string(T)] = Content(T * 50, T);
    ASSERT_EQ(Got.Listing(), Want.Listing()) << "round " << Round << " state " << K;
  }
  EXPECT_GT(Seen.size(), 10u) << "the writer was killed before it committed anything";
  EXPECT_EQ(OlefileListing(File).find("K\t2\t4\t"), 0u);
}

// ---------------------------------------------------------------------------
// Damaged files

// A small file with a regular stream "Big", a mini stream "S/Small" and a
// regular stream "Other".
TRaw MakeDamageBase(const std::string& File, TModel& M) {
  {
    IPtr<IStorage> R = CreateFile(File, 512);
    Put(R, M, "Big", Content(20000, 1));
    Put(R, M, "S/Small", Content(100, 2));
    Put(R, M, "Other", Content(130000, 3));
  }
  return TRaw(File);
}

// After damage: either a clear error on open, or every stream that opens
// reads its sound bytes and every other gives STG_E_DOCFILECORRUPT.
TEST_F(StructuredStorage, DamagedFilesGiveClearErrorsOrTheSoundData) {
  TModel M;
  const TRaw Base = MakeDamageBase(Path("base.cfb"), M);
  const uint32_t BigEntry = Base.Find(u"Big"), Top = Base.G32(Base.Ent(0) + 76);
  const uint32_t Big = Base.G32(Base.Ent(BigEntry) + 116);
  const uint32_t Other = Base.G32(Base.Ent(Base.Find(u"Other")) + 116);
  ASSERT_NE(Big, Other);
  ASSERT_GT(Base.B.size(), 250u * 512);
  struct TCase {
    const char* What;
    std::function<void(TRaw&)> Damage;
    HRESULT OpenResult;
    std::set<std::string> Corrupt;  // streams that must give STG_E_DOCFILECORRUPT
    bool Shared = false;
  } Cases[] = {
      {"FAT cycle", [&](TRaw& D) { D.P32(D.Fat(Big + 3), Big + 1); }, S_OK, {"Big"}},
      {"chain leaves the file", [&](TRaw& D) { D.P32(D.Fat(Big + 5), 0x00FFFFF0); }, S_OK, {"Big"}},
      {"chain ends early", [&](TRaw& D) { D.P32(D.Fat(Big + 2), 0xFFFFFFFE); }, S_OK, {"Big"}},
      {"chain through a free sector",
       [&](TRaw& D) { D.P32(D.Fat(Big + 2), 0xFFFFFFFF); },
       S_OK,
       {"Big"}},
      {"start beyond the end",
       [&](TRaw& D) { D.P32(D.Ent(BigEntry) + 116, 0x00100000); },
       S_OK,
       {"Big"}},
      {"size far beyond the chain",
       [&](TRaw& D) { D.P32(D.Ent(BigEntry) + 120, 0xFFFFFFF0); },
       S_OK,
       {"Big"}},
      {"mini chain cycle",
       [&](TRaw& D) {
         for (uint32_t I = 0; I < 4; ++I) D.P32(D.Sec(D.MiniFat0) + 4 * I, I);
       },
       S_OK,
       {"S/Small"}},
      // Which of the two is sound cannot be known: one is refused, the
      // other reads what its chain holds.
      {"two streams share sectors",
       [&](TRaw& D) { D.P32(D.Ent(BigEntry) + 116, Other); },
       S_OK,
       {},
       true},
      {"directory loop", [&](TRaw& D) { D.P32(D.Ent(Top) + 68, Top); }, STG_E_DOCFILECORRUPT, {}},
      {"directory link out of range",
       [&](TRaw& D) { D.P32(D.Ent(Top) + 72, 5000); },
       STG_E_DOCFILECORRUPT,
       {}},
      {"directory start beyond the end",
       [&](TRaw& D) { D.P32(48, 0x0FFFFFFF); },
       STG_E_DOCFILECORRUPT,
       {}},
      {"FAT sector count huge", [&](TRaw& D) { D.P32(44, 0x7FFFFFFF); }, STG_E_DOCFILECORRUPT, {}},
      {"DIFAT chain loops",
       [&](TRaw& D) {
         D.P32(44, 241);
         D.P32(72, 2);
         D.P32(68, Big);
         D.P32(D.Sec(Big) + 508, Big);
       },
       STG_E_DOCFILECORRUPT,
       {}},
      {"root mini stream size huge",
       [&](TRaw& D) { D.P32(D.Ent(0) + 120, 0x7FFFFFFF); },
       STG_E_DOCFILECORRUPT,
       {}},
      {"bad sector shift", [&](TRaw& D) { D.B[30] = 20; }, STG_E_INVALIDHEADER, {}},
      {"bad byte order mark", [&](TRaw& D) { D.B[28] = 0; }, STG_E_INVALIDHEADER, {}},
      {"no signature", [&](TRaw& D) { D.B[0] = 'P'; }, STG_E_FILEALREADYEXISTS, {}},
      {"cut inside the header", [&](TRaw& D) { D.B.resize(300); }, STG_E_INVALIDHEADER, {}},
      {"cut to its first sectors", [&](TRaw& D) { D.B.resize(2048); }, STG_E_DOCFILECORRUPT, {}},
  };
  int N = 0;
  for (auto& C : Cases) {
    SCOPED_TRACE(C.What);
    TRaw D = Base;
    C.Damage(D);
    std::string F = Path("d" + std::to_string(N++) + ".cfb");
    D.Save(F);
    IPtr<IStorage> R;
    HRESULT Hr = StgOpenStorage(W(F).c_str(), nullptr, Shared, nullptr, 0, Out(R));
    ASSERT_EQ(Hr, C.OpenResult);
    if (Hr != S_OK) continue;
    int Corrupt = 0;
    for (auto& [Path, Bytes] : M.Streams) {
      IPtr<IStorage> Parent = R;
      std::string Leaf = Path;
      if (Path.find('/') != std::string::npos) {
        ASSERT_EQ(R->OpenStorage(u"S", nullptr, RO, nullptr, 0, Out(Parent)), S_OK);
        Leaf = Path.substr(2);
      }
      IPtr<IStream> S;
      Hr = Parent->OpenStream(W(Leaf).c_str(), nullptr, RO, 0, Out(S));
      EXPECT_TRUE(!C.Corrupt.count(Path) || Hr == STG_E_DOCFILECORRUPT) << Path;
      if (Hr == STG_E_DOCFILECORRUPT) {
        ++Corrupt;
        continue;
      }
      ASSERT_EQ(Hr, S_OK) << Path;
      std::vector<uint8_t> Got(Bytes.size());
      uint32_t Read = 0;
      ASSERT_EQ(S->Read(Got.data(), static_cast<uint32_t>(Got.size()), &Read), S_OK);
      EXPECT_TRUE(C.Shared || Got == Bytes) << Path;
    }
    EXPECT_GE(Corrupt, 1);
    // A damaged file is still saved as a sound one.
    R = nullptr;
    ASSERT_EQ(StgOpenStorage(W(F).c_str(), nullptr, RW, nullptr, 0, Out(R)), S_OK);
    TModel Extra;
    Put(R, Extra, "added", Content(5000, 9));
    R = nullptr;
    EXPECT_NE(OlefileListing(F).find("added\t2\t5000\t"), std::string::npos);
  }
}

// Random byte changes anywhere: the engine answers with results, never
// crashes or loops (the fuzz target does the same at length).
TEST_F(StructuredStorage, RandomlyDamagedFilesNeverCrash) {
  TModel M;
  const TRaw Base = MakeDamageBase(Path("base.cfb"), M);
  std::mt19937 Rng(11);
  std::string F = Path("r.cfb");
  int Opened = 0;
  std::vector<uint8_t> Buf(4096);
  std::function<void(IStorage*)> Read = [&](IStorage* S) {
    IPtr<IEnumSTATSTG> E;
    ASSERT_EQ(S->EnumElements(0, nullptr, 0, Out(E)), S_OK);
    STATSTG St;
    uint32_t N;
    while (E->Next(1, &St, &N) == S_OK) {
      IPtr<IStorage> Sub;
      IPtr<IStream> Str;
      if (S->OpenStorage(St.pwcsName.c_str(), nullptr, RO, nullptr, 0, Out(Sub)) == S_OK) Read(Sub);
      bool More = S->OpenStream(St.pwcsName.c_str(), nullptr, RO, 0, Out(Str)) == S_OK;
      while (More) More = Str->Read(Buf.data(), 4096, &N) == S_OK && N;
    }
  };
  for (int Round = 0; Round < 300; ++Round) {
    TRaw D = Base;
    for (int K = 0; K < 1 + Round % 8; ++K) D.B[Rng() % D.B.size()] = static_cast<uint8_t>(Rng());
    D.Save(F);
    IPtr<IStorage> R;
    HRESULT Hr = StgOpenStorage(W(F).c_str(), nullptr, Shared, nullptr, 0, Out(R));
    if (Hr != S_OK) {
      EXPECT_EQ(static_cast<uint32_t>(Hr) & 0xFFFF0000u, 0x80030000u);
      continue;
    }
    ++Opened;
    Read(R);
  }
  EXPECT_GT(Opened, 50);
}

// Objects of one file used from several threads: each call is atomic.
TEST_F(StructuredStorage, ThreadsShareOneFile) {
  std::string File = Path("th.cfb");
  IPtr<IStorage> R = CreateFile(File, 512);
  std::vector<std::thread> Threads;
  std::atomic<int> Errors{0};
  for (int T = 0; T < 4; ++T)
    Threads.emplace_back([&, T] {
      IPtr<IStream> S;
      std::u16string N = W("t" + std::to_string(T));
      if (R->CreateStream(N.c_str(), RW, 0, 0, Out(S)) != S_OK) ++Errors;
      std::vector<uint8_t> B = Content(9000, T);
      for (size_t Pos = 0; Pos < B.size(); Pos += 300) {
        if (S->Write(B.data() + Pos, 300, nullptr) != S_OK) ++Errors;
        IPtr<IEnumSTATSTG> E;
        if (R->EnumElements(0, nullptr, 0, Out(E)) != S_OK) ++Errors;
      }
    });
  for (auto& T : Threads) T.join();
  EXPECT_EQ(Errors.load(), 0);
  R = nullptr;
  TModel M;
  for (int T = 0; T < 4; ++T) M.Streams["t" + std::to_string(T)] = Content(9000, T);
  EXPECT_EQ(EngineListing(File), M.Listing());
}

}  // namespace stgtest
