// File encryption: the cipher's block function against RFC 2612, its
// chaining against Crypto++'s own CBC and CFB modes (the mode of the
// Windows build: IV = E(0), CBC for whole blocks, a final partial block
// XORed with E(CV), which is CFB with full-block feedback), the exact bytes
// of encrypted files, names, dialogs and failures.
#include <gtest/gtest.h>

#include <cryptopp/cast.h>
#include <cryptopp/modes.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <vector>

#include "vel/Cryption.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;
namespace fs = std::filesystem;

namespace {

using Bytes = std::string;

Bytes FromHex(const std::string& H) {
  Bytes B;
  for (size_t I = 0; I + 1 < H.size(); I += 2) B += static_cast<char>(std::stoi(H.substr(I, 2), nullptr, 16));
  return B;
}

const uint8_t* U(const Bytes& B) { return reinterpret_cast<const uint8_t*>(B.data()); }
uint8_t* U(Bytes& B) { return reinterpret_cast<uint8_t*>(B.data()); }

Bytes RandomBytes(size_t N, uint32_t Seed) {
  std::mt19937 G(Seed);
  Bytes B(N, '\0');
  for (auto& C : B) C = static_cast<char>(G() & 0xFF);
  return B;
}

// The chaining written with Crypto++'s modes: CBC over the whole blocks from
// IV = E(0), then CFB (full-block feedback) from the last cipher block for
// the tail.
Bytes RefCrypt(const Bytes& Key, const Bytes& In, bool Enc) {
  CryptoPP::CAST256::Encryption E(U(Key), Key.size());
  uint8_t IV[16] = {};
  E.ProcessBlock(IV);
  Bytes Out(In.size(), '\0');
  const size_t Whole = In.size() / 16 * 16;
  uint8_t CV[16];
  std::memcpy(CV, IV, 16);
  if (Whole > 0) {
    if (Enc) {
      CryptoPP::CBC_Mode<CryptoPP::CAST256>::Encryption C(U(Key), Key.size(), IV);
      C.ProcessData(U(Out), U(In), Whole);
      std::memcpy(CV, U(Out) + Whole - 16, 16);
    } else {
      CryptoPP::CBC_Mode<CryptoPP::CAST256>::Decryption C(U(Key), Key.size(), IV);
      C.ProcessData(U(Out), U(In), Whole);
      std::memcpy(CV, U(In) + Whole - 16, 16);
    }
  }
  if (In.size() > Whole) {
    if (Enc) {
      CryptoPP::CFB_Mode<CryptoPP::CAST256>::Encryption C(U(Key), Key.size(), CV);
      C.ProcessData(U(Out) + Whole, U(In) + Whole, In.size() - Whole);
    } else {
      CryptoPP::CFB_Mode<CryptoPP::CAST256>::Decryption C(U(Key), Key.size(), CV);
      C.ProcessData(U(Out) + Whole, U(In) + Whole, In.size() - Whole);
    }
  }
  return Out;
}

Bytes KeyBlock(const Bytes& PassPhrase) {
  Bytes K(32, '\xFF');
  K.replace(0, std::min<size_t>(32, PassPhrase.size()), PassPhrase.substr(0, 32));
  return K;
}

// The whole file EncryptFile must write, from the reference.
Bytes RefEncryptedFile(const Bytes& PassPhrase, const Bytes& Data, bool Znd) {
  const Bytes Key = KeyBlock(PassPhrase);
  Bytes Out = RefCrypt(Key, Key, true);
  if (Znd && !Data.empty()) {
    Out += RefCrypt(Key, Data.substr(0, Data.size() - 1), true);
    Out += Data.back();
  } else {
    Out += RefCrypt(Key, Data, true);
  }
  return Out;
}

class CryptFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* Base = std::getenv("VEL_TEST_TMPDIR");
    std::string Tmpl = std::string(Base && *Base ? Base : "/tmp") + "/vel_cryption_XXXXXX";
    fs::create_directories(fs::path(Tmpl).parent_path());
    ASSERT_NE(::mkdtemp(Tmpl.data()), nullptr);
    Dir = Tmpl;
    Saved = SetDialogSink([this](const std::string& Text, const std::string&, UINT) {
      Dialogs.push_back(Text);
      return IDOK;
    });
  }
  void TearDown() override {
    SetDialogSink(Saved);
    std::error_code Ec;
    fs::remove_all(Dir, Ec);
  }
  std::string Path(const std::string& Name) const { return Dir + "/" + Name; }
  void Put(const std::string& Name, const Bytes& Data) {
    std::ofstream(Path(Name), std::ios::binary).write(Data.data(), static_cast<std::streamsize>(Data.size()));
  }
  static Bytes Get(const std::string& Full) {
    std::ifstream F(Full, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(F), {});
  }
  std::string Dir;
  TDialogSink Saved;
  std::vector<std::string> Dialogs;
};

}  // namespace

TEST(Cast256, BlockFunctionMatchesRfc2612) {
  struct {
    const char* Key;
    const char* Cipher;
  } const Cases[] = {
      {"2342bb9efa38542c0af75647f29f615d", "c842a08972b43d20836c91d1b7530f6b"},
      {"2342bb9efa38542cbed0ac83940ac298bac77a7717942863", "1b386c0210dcadcbdd0e41aa08a7a7e8"},
      {"2342bb9efa38542cbed0ac83940ac2988d7c47ce264908461cc1b5137ae6b604",
       "4f6a2038286897b9c9870136553317fa"},
  };
  for (const auto& C : Cases) {
    const Bytes Key = FromHex(C.Key);
    TCast256Cipher Cipher;
    Cipher.Init(Key.data(), static_cast<int>(Key.size() * 8));
    Bytes Block(16, '\0'), Back(16, '\0');
    Cipher.EncryptECB(Block.data(), Block.data());
    EXPECT_EQ(Block, FromHex(C.Cipher)) << C.Key;
    Cipher.DecryptECB(Block.data(), Back.data());
    EXPECT_EQ(Back, Bytes(16, '\0'));
  }
  TCast256Cipher Cipher;
  EXPECT_THROW(Cipher.Init("0123456789abcdef0123", 168), EInvalidOperation);
}

// One call and 8192-byte pieces give the reference's bytes, both ways, also
// in place; sizes cover empty, partial, whole and the parallel decryption.
TEST(Cast256, ChainingMatchesReferenceModes) {
  const Bytes Key = RandomBytes(32, 7);
  std::vector<size_t> Sizes;
  for (size_t N = 0; N <= 40; ++N) Sizes.push_back(N);
  for (size_t N : {8191, 8192, 8193, 16383, 16384, 16385, 65535, 65536, 65552, 200001}) Sizes.push_back(N);
  for (const size_t N : Sizes) {
    SCOPED_TRACE(N);
    const Bytes Plain = RandomBytes(N, static_cast<uint32_t>(N));
    const Bytes Expected = RefCrypt(Key, Plain, true);

    TCast256Cipher C;
    C.Init(Key.data(), 256);
    Bytes Once(N, '\0');
    C.Encrypt(Plain.data(), Once.data(), N);
    ASSERT_EQ(Once, Expected);

    C.Reset();
    Bytes Pieces = Plain;
    for (size_t At = 0; At < N; At += 8192) C.Encrypt(&Pieces[At], &Pieces[At], std::min<size_t>(8192, N - At));
    ASSERT_EQ(Pieces, Expected);

    C.Reset();
    Bytes Back(N, '\0');
    C.Decrypt(Expected.data(), Back.data(), N);
    ASSERT_EQ(Back, Plain);
    ASSERT_EQ(RefCrypt(Key, Expected, false), Plain);

    C.Reset();
    Bytes InPlace = Expected;
    for (size_t At = 0; At < N; At += 8192) C.Decrypt(&InPlace[At], &InPlace[At], std::min<size_t>(8192, N - At));
    ASSERT_EQ(InPlace, Plain);
  }
}

// After a partial block the chaining value is E(CV); the next call goes on
// from there in both directions.
TEST(Cast256, PartialBlockAdvancesChaining) {
  const Bytes Key = RandomBytes(32, 9);
  const Bytes Plain = RandomBytes(37, 10);
  TCast256Cipher E, D;
  E.Init(Key.data(), 256);
  D.Init(Key.data(), 256);
  Bytes Enc = Plain;
  E.Encrypt(&Enc[0], &Enc[0], 5);
  E.Encrypt(&Enc[5], &Enc[5], 32);
  Bytes Dec = Enc;
  D.Decrypt(&Dec[0], &Dec[0], 5);
  D.Decrypt(&Dec[5], &Dec[5], 32);
  EXPECT_EQ(Dec, Plain);
  // Not the same as one call: the partial block moved the chaining value.
  EXPECT_NE(Enc, RefCrypt(Key, Plain, true));
}

TEST_F(CryptFiles, EncryptedFilesHaveExactBytesAndRoundTrip) {
  const Bytes Phrases[] = {
      Bytes(),
      Bytes("\x9C"),
      Bytes("\xE9t\xE9 \x80 twenty bytes!"),
      RandomBytes(32, 1),
      RandomBytes(40, 2),
  };
  std::vector<size_t> Sizes;
  for (size_t N = 0; N <= 40; ++N) Sizes.push_back(N);
  for (size_t N : {8191, 8192, 8193, 16383, 16384, 16385, 3 * 131072 + 5}) Sizes.push_back(N);
  for (const Bytes& Phrase : Phrases) {
    for (const size_t N : Sizes) {
      for (const bool Znd : {false, true}) {
        SCOPED_TRACE(testing::Message() << "phrase " << Phrase.size() << " size " << N << " znd " << Znd);
        const Bytes Data = RandomBytes(N, static_cast<uint32_t>(N * 3 + Phrase.size()));
        const std::string Src = Znd ? "data.znd" : "data.doc";
        Put(Src, Data);
        const std::string Enc = EncryptFile(Path(Src), Phrase, "", true);
        ASSERT_EQ(Enc, Path(Znd ? "data.~znd" : "data.~doc"));
        const Bytes File = Get(Enc);
        ASSERT_EQ(File.size(), N + 32);
        ASSERT_EQ(File, RefEncryptedFile(Phrase, Data, Znd));
        ASSERT_EQ(Get(Path(Src)), Data);

        const std::string Dec = DecryptFile(Enc, Phrase, "plain");
        ASSERT_EQ(Dec, Path("data.plain"));
        const Bytes Back = Get(Dec);
        if (!Znd || N == 0) {
          ASSERT_EQ(Back, Data);
        } else {
          // The plain last byte comes back run through the decryption; when
          // it completes a whole block, that block's 15 bytes before it too.
          const size_t Kept = N % 16 == 0 ? N - 16 : N - 1;
          ASSERT_EQ(Back.substr(0, Kept), Data.substr(0, Kept));
          ASSERT_NE(Back.substr(Kept), Data.substr(Kept));
          ASSERT_EQ(Back, RefCrypt(KeyBlock(Phrase), File.substr(32), false));
        }
      }
    }
  }
  EXPECT_TRUE(Dialogs.empty());
}

// Files of several 1 MiB runs go through the pipelined loop; sizes on and
// beside a run boundary, both modes.
TEST_F(CryptFiles, LargeFilesHaveExactBytes) {
  constexpr size_t MiB = 1u << 20;
  for (const size_t N : {2 * MiB, 2 * MiB + 17, 3 * MiB - 1}) {
    for (const bool Znd : {false, true}) {
      SCOPED_TRACE(testing::Message() << "size " << N << " znd " << Znd);
      const Bytes Data = RandomBytes(N, static_cast<uint32_t>(N));
      const std::string Src = Znd ? "big.znd" : "big.bin";
      Put(Src, Data);
      const std::string Enc = EncryptFile(Path(Src), "large", "enc", true);
      const Bytes File = Get(Enc);
      ASSERT_EQ(File, RefEncryptedFile("large", Data, Znd));
      ASSERT_EQ(Get(DecryptFile(Enc, "large", "dec")), RefCrypt(KeyBlock("large"), File.substr(32), false));
    }
  }
}

// ".znd" as output extension selects the mode as well; a 10-byte source
// keeps its last byte.
TEST_F(CryptFiles, ZndOutputExtensionKeepsLastByte) {
  const Bytes Data = "0123456789";
  Put("short.txt", Data);
  const std::string Enc = EncryptFile(Path("short.txt"), "pw", "ZND", false);
  EXPECT_EQ(Enc, Path("EncryptedFile.ZND"));
  const Bytes File = Get(Enc);
  ASSERT_EQ(File.size(), 42u);
  EXPECT_EQ(File.back(), '9');
  EXPECT_EQ(File, RefEncryptedFile("pw", Data, true));
}

TEST_F(CryptFiles, OutputNames) {
  Put("report.doc", "x");
  struct {
    const char* Ext;
    bool Keep;
    const char* Out;
  } const Cases[] = {
      {"", false, "EncryptedFile.~doc"}, {"  ", false, "EncryptedFile.~doc"},
      {"", true, "report.~doc"},         {"enc", true, "report.enc"},
      {" enc", false, "EncryptedFile. enc"},
  };
  for (const auto& C : Cases) EXPECT_EQ(EncryptFile(Path("report.doc"), "k", C.Ext, C.Keep), Path(C.Out));
  Put("noext", "y");
  EXPECT_EQ(EncryptFile(Path("noext"), "k", "", true), Path("noext.~"));

  EXPECT_EQ(DecryptFile(Path("report.~doc"), "k", ""), Path("report.~~doc"));
  EXPECT_EQ(Get(Path("report.~~doc")), "x");
  EXPECT_EQ(DecryptFile(Path("report.~doc"), "k", "doc"), Path("report.doc"));
  EXPECT_EQ(Get(Path("report.doc")), "x");
}

TEST_F(CryptFiles, EncryptTwiceReplacesEarlierOutput) {
  Put("a.bin", RandomBytes(5000, 3));
  Put("b.bin", "bb");
  EXPECT_EQ(EncryptFile(Path("a.bin"), "k", "", false), Path("EncryptedFile.~bin"));
  EXPECT_EQ(EncryptFile(Path("b.bin"), "k", "", false), Path("EncryptedFile.~bin"));
  EXPECT_EQ(Get(Path("EncryptedFile.~bin")), RefEncryptedFile("k", "bb", false));
}

// Only the first 32 key bytes count, padded with 0xFF.
TEST_F(CryptFiles, PassPhrasesWithTheSameKeyBlockAreInterchangeable) {
  const Bytes Data = RandomBytes(1000, 4);
  Put("s.dat", Data);
  const Bytes P20 = "twenty bytes of key!";
  ASSERT_EQ(P20.size(), 20u);
  const Bytes F1 = Get(EncryptFile(Path("s.dat"), P20, "a", true));
  const Bytes F2 = Get(EncryptFile(Path("s.dat"), P20 + Bytes(12, '\xFF'), "b", true));
  EXPECT_EQ(F1, F2);

  const Bytes Long1 = RandomBytes(32, 5) + "tail one";
  const Bytes Long2 = RandomBytes(32, 5) + "another, longer tail";
  EncryptFile(Path("s.dat"), Long1, "c", true);
  EXPECT_EQ(DecryptFile(Path("s.c"), Long2, "d"), Path("s.d"));
  EXPECT_EQ(Get(Path("s.d")), Data);
}

TEST_F(CryptFiles, WrongPassPhraseLeavesEmptyOutput) {
  Put("s.dat", RandomBytes(100, 6));
  EncryptFile(Path("s.dat"), "right", "enc", true);
  Put("s.out", "old content");
  EXPECT_EQ(DecryptFile(Path("s.enc"), "wrong", "out"), "");
  ASSERT_TRUE(FileExists(Path("s.out")));
  EXPECT_EQ(Get(Path("s.out")), "");
  EXPECT_TRUE(Dialogs.empty());
}

TEST_F(CryptFiles, MissingSourceShowsDialogAndCreatesNothing) {
  Put("EncryptedFile.~doc", "stale");
  EXPECT_EQ(EncryptFile(Path("gone.doc"), "k", "", false), "");
  ASSERT_EQ(Dialogs.size(), 1u);
  EXPECT_EQ(Dialogs[0], "The file that needs to be encrypted does not exists.");
  // The stale output of that name was deleted before the check.
  EXPECT_FALSE(fs::exists(Path("EncryptedFile.~doc")));
}

TEST_F(CryptFiles, FailuresRaiseWithRuntimeTexts) {
  // Decryption: file errors without a dialog.
  try {
    DecryptFile(Path("gone.enc"), "k", "x");
    FAIL() << "no exception";
  } catch (const EInOutError& E) {
    EXPECT_STREQ(E.what(), "File not found");
  }
  Put("short.enc", Bytes(31, 'z'));
  try {
    DecryptFile(Path("short.enc"), "k", "x");
    FAIL() << "no exception";
  } catch (const EInOutError& E) {
    EXPECT_STREQ(E.what(), "Read beyond end of file");
  }
  EXPECT_TRUE(fs::exists(Path("short.x")));
  EXPECT_TRUE(Dialogs.empty());

  // Encryption: the output cannot be created (a folder has its name).
  Put("src.doc", "abc");
  fs::create_directory(Path("EncryptedFile.~doc"));
  EXPECT_THROW(EncryptFile(Path("src.doc"), "k", "", false), EInOutError);
  ASSERT_EQ(Dialogs.size(), 1u);
  EXPECT_EQ(Dialogs[0], "Encryption was unsuccessful...Reason: File access denied");

  // Writing over the source is refused in both directions; the source stays.
  Dialogs.clear();
  EXPECT_THROW(EncryptFile(Path("src.doc"), "k", "doc", true), EInOutError);
  ASSERT_EQ(Dialogs.size(), 1u);
  EXPECT_EQ(Dialogs[0], "Encryption was unsuccessful...Reason: Cannot write " + Path("src.doc") + " over itself");
  EXPECT_THROW(DecryptFile(Path("src.doc"), "k", "doc"), EInOutError);
  EXPECT_EQ(Get(Path("src.doc")), "abc");
}
