// The compound-file engine: files it writes read back the same in
// python3-olefile and libgsf, files they write read in the engine, damaged
// files give clear errors, a killed writer leaves a file in its previous or
// new state, and share-exclusive opens exclude other processes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "vel/rtl/StructuredStorage.h"

using namespace vel;
namespace fs = std::filesystem;

namespace stgtest {

template <class I>
I** Out(IPtr<I>& P) {
  return reinterpret_cast<I**>(P.Out());
}

constexpr uint32_t RW = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

std::string Scratch() {
  const char* Base = std::getenv("VEL_TEST_TMPDIR");
  auto* Info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string Name = std::string(Info->test_suite_name()) + "-" + Info->name();
  std::replace(Name.begin(), Name.end(), '/', '_');
  fs::path P = fs::path(Base && *Base ? Base : "/tmp") / ("stg-" + Name + "-" + std::to_string(getpid()));
  fs::remove_all(P);
  fs::create_directories(P);
  return P.string();
}

std::u16string W(const std::string& S) {
  return StgUtf8ToName(S);
}

std::vector<uint8_t> Content(size_t Size, unsigned Seed) {
  std::vector<uint8_t> B(Size);
  for (size_t J = 0; J < Size; ++J) B[J] = static_cast<uint8_t>((J * 131 + Seed * 7 + (J >> 8)) & 0xFF);
  return B;
}

uint32_t Crc32(const std::vector<uint8_t>& B) {
  static uint32_t Table[256];
  if (!Table[1])
    for (uint32_t I = 0; I < 256; ++I) {
      uint32_t C = I;
      for (int K = 0; K < 8; ++K) C = C & 1 ? 0xEDB88320u ^ (C >> 1) : C >> 1;
      Table[I] = C;
    }
  uint32_t C = 0xFFFFFFFFu;
  for (uint8_t X : B) C = Table[(C ^ X) & 0xFF] ^ (C >> 8);
  return C ^ 0xFFFFFFFFu;
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

// What a file should hold: storages and streams by "/"-joined path.
struct TModel {
  std::set<std::string> Storages;
  std::map<std::string, std::vector<uint8_t>> Streams;

  // "path TAB type TAB size TAB crc32" lines in path order.
  std::string Listing() const {
    std::map<std::vector<std::string>, std::string> Lines;
    auto Split = [](const std::string& P) {
      std::vector<std::string> R;
      size_t A = 0, B;
      while ((B = P.find('/', A)) != std::string::npos) R.push_back(P.substr(A, B - A)), A = B + 1;
      R.push_back(P.substr(A));
      return R;
    };
    for (auto& S : Storages) Lines[Split(S)] = S + "\t1\t0\t-\n";
    char Buf[64];
    for (auto& [P, B] : Streams) {
      std::snprintf(Buf, sizeof Buf, "\t2\t%zu\t%08x\n", B.size(), Crc32(B));
      Lines[Split(P)] = P + Buf;
    }
    std::string R;
    for (auto& [K, L] : Lines) R += L;
    return R;
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
      ASSERT_EQ(Stg->OpenStorage(St.pwcsName.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, Out(Sub)), S_OK);
      Walk(Sub, Path + "/", M);
    } else {
      IPtr<IStream> S;
      ASSERT_EQ(Stg->OpenStream(St.pwcsName.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, Out(S)), S_OK);
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
  HRESULT Hr = StgOpenStorage(W(File).c_str(), nullptr, STGM_READ | STGM_SHARE_DENY_WRITE, nullptr, 0, Out(R));
  if (Hr != S_OK) return "open failed";
  TModel M;
  Walk(R, "", M);
  return M.Listing();
}

std::string OlefileListing(const std::string& File) {
  static const char* Script =
      "import sys, olefile, zlib\n"
      "o = olefile.OleFileIO(sys.argv[1])\n"
      "for e in sorted(o.listdir(streams=True, storages=True)):\n"
      "    p = '/'.join(e)\n"
      "    if o.get_type(e) == olefile.STGTY_STREAM:\n"
      "        d = o.openstream(e).read()\n"
      "        print('%s\\t2\\t%d\\t%08x' % (p, len(d), zlib.crc32(d)))\n"
      "    else:\n"
      "        print('%s\\t1\\t0\\t-' % p)\n";
  std::string Py = fs::path(File).parent_path() / "list.py";
  std::ofstream(Py) << Script;
  return Shell("/usr/bin/python3 " + Py + " '" + File + "' 2>&1");
}

// The lines of a listing sorted as TModel::Listing sorts them.
std::string InPathOrder(const std::string& Listing) {
  TModel M;
  std::map<std::vector<std::string>, std::string> Lines;
  for (size_t A = 0; A < Listing.size();) {
    size_t B = Listing.find('\n', A);
    if (B == std::string::npos) B = Listing.size();
    std::string L = Listing.substr(A, B - A), P = L.substr(0, L.find('\t'));
    std::vector<std::string> K;
    size_t X = 0, Y;
    while ((Y = P.find('/', X)) != std::string::npos) K.push_back(P.substr(X, Y - X)), X = Y + 1;
    K.push_back(P.substr(X));
    Lines[K] = L + "\n";
    A = B + 1;
  }
  std::string R;
  for (auto& [K, L] : Lines) R += L;
  return R;
}

#ifdef VEL_CFB_GSF_HELPER
// libgsf's listing in the same form.
std::string GsfListing(const std::string& File) {
  return Shell(std::string(VEL_CFB_GSF_HELPER) + " list '" + File + "' 2>&1");
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
  IPtr<IStorage> D = Slash == std::string::npos ? IPtr<IStorage>(Root) : Dir(Root, Path.substr(0, Slash));
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
  for (size_t P = Path.find('/'); P != std::string::npos; P = Path.find('/', P + 1)) M.Storages.insert(Path.substr(0, P));
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
         Put(R, M, "S" + std::to_string(I % 3) + "/m" + std::to_string(I), Content((I * 389) % 4096, I));
     }},
    {"large",
     [](IStorage* R, TModel& M) {
       Put(R, M, "at4096", Content(4096, 1));
       Put(R, M, "at4095", Content(4095, 2));
       Put(R, M, "Big", Content(3 * 1048576 + 17, 3));
       Put(R, M, "Data/Mid", Content(70000, 4));
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
       for (int I = 0; I < 300; ++I) Put(R, M, "W/n" + std::to_string(I * 7919 % 1000), Content(I % 50, I));
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

class EngineWrites : public ::testing::TestWithParam<std::tuple<int, uint32_t>> {};

TEST_P(EngineWrites, OlefileAndLibgsfReadTheSameTree) {
  const TShape& Shape = Shapes[std::get<0>(GetParam())];
  std::string File = Scratch() + "/f.cfb";
  TModel M;
  {
    IPtr<IStorage> R = CreateFile(File, std::get<1>(GetParam()));
    Shape.Build(R, M);
  }
  std::string Want = M.Listing();
  EXPECT_EQ(EngineListing(File), Want);
  EXPECT_EQ(OlefileListing(File), Want);
#ifdef VEL_CFB_GSF_HELPER
  EXPECT_EQ(InPathOrder(GsfListing(File)), Want);
#endif
}

INSTANTIATE_TEST_SUITE_P(Shapes, EngineWrites,
                         ::testing::Combine(::testing::Range(0, 5), ::testing::Values(512u, 4096u)),
                         [](const auto& I) {
                           return std::string(Shapes[std::get<0>(I.param)].Name) + "_v" +
                                  (std::get<1>(I.param) == 512 ? "3" : "4");
                         });

TEST(StructuredStorage, FileLargeEnoughForDifatSectors) {
  std::string File = Scratch() + "/difat.cfb";
  TModel M;
  {
    IPtr<IStorage> R = CreateFile(File, 512);
    Put(R, M, "Huge", Content(8 * 1048576 + 3, 9));
    Put(R, M, "after", Content(5000, 10));
  }
  std::ifstream F(File, std::ios::binary);
  uint8_t H[76];
  F.read(reinterpret_cast<char*>(H), 76);
  EXPECT_GT(H[72] | H[73] << 8, 0) << "no DIFAT sector";
  EXPECT_EQ(EngineListing(File), M.Listing());
  EXPECT_EQ(OlefileListing(File), M.Listing());
}

// The directory is written as red-black trees in the format's name order:
// in-order traversal sorted, root black, no red node with a red child, the
// same number of black nodes on every path.
TEST(StructuredStorage, DirectoryTreesAreOrderedRedBlackTrees) {
  std::string File = Scratch() + "/tree.cfb";
  std::vector<std::u16string> Names = {u"b", u"A", u"aa", u"Zz", u"\u00e0x", u"\u00d6y", u"z", u"\u0430"};
  for (int I = 0; I < 40; ++I) Names.push_back(W("n" + std::to_string(I * 37 % 101)));
  {
    IPtr<IStorage> R = CreateFile(File, 512);
    for (auto& N : Names) {
      IPtr<IStream> S;
      ASSERT_EQ(R->CreateStream(N.c_str(), RW, 0, 0, Out(S)), S_OK);
    }
  }
  std::ifstream F(File, std::ios::binary);
  std::vector<uint8_t> B((std::istreambuf_iterator<char>(F)), std::istreambuf_iterator<char>());
  auto G32 = [&](size_t O) { return uint32_t(B[O]) | B[O + 1] << 8 | B[O + 2] << 16 | uint32_t(B[O + 3]) << 24; };
  uint32_t Fat0 = G32(76), Dir = G32(48);
  std::vector<uint8_t> Ents;
  for (uint32_t S = Dir; S != 0xFFFFFFFE; S = G32((Fat0 + 1) * 512 + 4 * S))
    Ents.insert(Ents.end(), B.begin() + (S + 1) * 512, B.begin() + (S + 2) * 512);
  auto Entry = [&](uint32_t I) { return Ents.data() + I * 128; };
  auto E32 = [&](uint32_t I, int O) { const uint8_t* P = Entry(I) + O; return uint32_t(P[0]) | P[1] << 8 | P[2] << 16 | uint32_t(P[3]) << 24; };
  auto Name = [&](uint32_t I) {
    std::u16string N;
    for (int K = 0; K < 32 && (Entry(I)[2 * K] | Entry(I)[2 * K + 1]); ++K)
      N.push_back(char16_t(Entry(I)[2 * K] | Entry(I)[2 * K + 1] << 8));
    return N;
  };
  std::vector<std::u16string> InOrder;
  std::function<int(uint32_t, bool)> Check = [&](uint32_t I, bool ParentRed) -> int {
    if (I == 0xFFFFFFFF) return 1;
    bool Red = Entry(I)[67] == 0;
    EXPECT_FALSE(Red && ParentRed) << "red node under a red node";
    int L = Check(E32(I, 68), Red);
    InOrder.push_back(Name(I));
    int R = Check(E32(I, 72), Red);
    EXPECT_EQ(L, R) << "black height differs";
    return L + (Red ? 0 : 1);
  };
  uint32_t Top = E32(0, 76);
  EXPECT_EQ(Entry(Top)[67], 1) << "tree root is red";
  Check(Top, false);
  std::vector<std::u16string> Want = Names;
  std::sort(Want.begin(), Want.end(), [](auto& X, auto& Y) { return StgCompareNames(X, Y) < 0; });
  EXPECT_EQ(InOrder, Want);
  // Shorter names first, then the upper-cased codes.
  EXPECT_LT(StgCompareNames(u"z", u"aa"), 0);
  EXPECT_LT(StgCompareNames(u"A", u"z"), 0);
  EXPECT_EQ(StgCompareNames(u"\u00e0x", u"\u00c0X"), 0);
  EXPECT_LT(StgCompareNames(u"\u00e0", u"\u00d6"), 0);  // folded: 0xC0 < 0xD6
}

// ---------------------------------------------------------------------------
// Files written by others, read by the engine

#ifdef VEL_CFB_GSF_HELPER
TEST(StructuredStorage, ReadsAndEditsFilesWrittenByLibgsf) {
  for (unsigned Sector : {512u, 4096u}) {
    std::string Dir = Scratch(), File = Dir + "/gsf.cfb";
    TModel M;
    std::string Spec;
    auto D = [&](const std::string& P) { Spec += "D " + P + "\n"; M.Storages.insert(P); };
    auto S = [&](const std::string& P, size_t Size, unsigned Seed) {
      Spec += "F " + P + " " + std::to_string(Size) + " " + std::to_string(Seed) + "\n";
      M.Streams[P] = Content(Size, Seed);
    };
    D("Clients");
    D("Clients/\u00c4rger");
    S("Clients/\u00c4rger/\u00e0x", 100, 1);
    S("Clients/\u00c4rger/\u00d6y", 5000, 2);
    S("Clients/Notes", 4095, 3);
    S("Clients/Big", 200000, 4);
    for (int I = 0; I < 60; ++I) S("n" + std::to_string(I), I * 90, I);
    std::ofstream(Dir + "/spec") << Spec;
    int St = 0;
    Shell(std::string(VEL_CFB_GSF_HELPER) + " write " + File + " " + std::to_string(Sector) + " < " + Dir + "/spec", &St);
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
    EXPECT_EQ(InPathOrder(GsfListing(File)), M.Listing()) << Sector;
  }
}
#endif

// olefile writes only over existing streams of the same size.
TEST(StructuredStorage, ReadsStreamsRewrittenByOlefile) {
  std::string Dir = Scratch(), File = Dir + "/ole.cfb";
  TModel M;
  {
    IPtr<IStorage> R = CreateFile(File, 512);
    Put(R, M, "A/B", Content(5000, 1));
    Put(R, M, "m", Content(100, 2));
  }
  std::ofstream(Dir + "/w.py") << "import sys, olefile\n"
                                  "o = olefile.OleFileIO(sys.argv[1], write_mode=True)\n"
                                  "o.write_stream('A/B', bytes((i * 13 + 5) & 255 for i in range(5000)))\n"
                                  "o.write_stream('m', bytes((i * 3 + 1) & 255 for i in range(100)))\n"
                                  "o.close()\n";
  int St = 0;
  std::string Msg = Shell("/usr/bin/python3 " + Dir + "/w.py " + File + " 2>&1", &St);
  ASSERT_EQ(St, 0) << Msg;
  for (size_t I = 0; I < 5000; ++I) M.Streams["A/B"][I] = static_cast<uint8_t>(I * 13 + 5);
  for (size_t I = 0; I < 100; ++I) M.Streams["m"][I] = static_cast<uint8_t>(I * 3 + 1);
  EXPECT_EQ(EngineListing(File), M.Listing());
}

}  // namespace stgtest
