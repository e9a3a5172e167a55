// File encryption: the cipher's block function against RFC 2612, its
// chaining against Crypto++'s own CBC and CFB modes (the mode of the
// Windows build: IV = E(0), CBC for whole blocks, a final partial block
// XORed with E(CV), which is CFB with full-block feedback), the exact bytes
// of encrypted files, names, dialogs and failures.
#include <gtest/gtest.h>

#include <cryptopp/cast.h>
#include <cryptopp/modes.h>

#include <filesystem>
#include <numeric>
#include <random>
#include <vector>

#include "TestSupport.h"
#include "storage_test_util.h"
#include "vel/Cryption.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/SysUtils.h"

using namespace vel;
using storage_test::ErrorOf;
namespace fs = std::filesystem;

namespace {

using Bytes = std::string;

Bytes FromHex(const std::string& H) {
  Bytes B;
  for (size_t I = 0; I + 1 < H.size(); I += 2)
    B += static_cast<char>(std::stoi(H.substr(I, 2), nullptr, 16));
  return B;
}

const uint8_t* U(const Bytes& B) {
  return reinterpret_cast<const uint8_t*>(B.data());
}
uint8_t* U(Bytes& B) {
  return reinterpret_cast<uint8_t*>(B.data());
}

Bytes RandomBytes(size_t N, uint32_t Seed) {
  std::mt19937 G(Seed);
  Bytes B(N, '\0');
  for (auto& C : B) C = static_cast<char>(G() & 0xFF);
  return B;
}

// The chaining written with Crypto++'s modes: CBC over the whole blocks from
// IV = E(0), then CFB (full-block feedback) for the tail from the last
// cipher block, or from IV when there is none.
Bytes RefCrypt(const Bytes& Key, const Bytes& In, bool Enc) {
  using namespace CryptoPP;
  uint8_t IV[16] = {};
  CAST256::Encryption(U(Key), Key.size()).ProcessBlock(IV);
  Bytes Out(In.size(), '\0');
  const size_t Whole = In.size() / 16 * 16, Tail = In.size() - Whole;
  if (Enc) {
    CBC_Mode<CAST256>::Encryption(U(Key), Key.size(), IV).ProcessData(U(Out), U(In), Whole);
  } else {
    CBC_Mode<CAST256>::Decryption(U(Key), Key.size(), IV).ProcessData(U(Out), U(In), Whole);
  }
  const uint8_t* CV = Whole ? U(Enc ? Out : In) + Whole - 16 : IV;
  if (Enc) {
    CFB_Mode<CAST256>::Encryption(U(Key), Key.size(), CV)
        .ProcessData(U(Out) + Whole, U(In) + Whole, Tail);
  } else {
    CFB_Mode<CAST256>::Decryption(U(Key), Key.size(), CV)
        .ProcessData(U(Out) + Whole, U(In) + Whole, Tail);
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

class CryptFiles : public storage_test::ScratchDir {
 protected:
  void SetUp() override {
    ScratchDir::SetUp();
    Saved = SetDialogSink([this](const std::string& Text, const std::string&, UINT) {
      Dialogs.push_back(Text);
      return IDOK;
    });
  }
  void TearDown() override {
    SetDialogSink(Saved);
    ScratchDir::TearDown();
  }
  void Put(const std::string& Name, const Bytes& Data) { vel_test::WriteFile(Path(Name), Data); }
  static Bytes Get(const std::string& Full) { return vel_test::ReadFile(Full); }
  // Encrypts Data from data.doc (data.znd), checks the file against the
  // reference and decrypts it back.
  void RoundTrip(const Bytes& Phrase, const Bytes& Data, bool Znd) {
    const size_t N = Data.size();
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
      return;
    }
    // The plain last byte comes back run through the decryption; when it
    // completes a whole block, that block's 15 bytes before it too.
    const size_t Kept = N % 16 == 0 ? N - 16 : N - 1;
    ASSERT_EQ(Back.substr(0, Kept), Data.substr(0, Kept));
    ASSERT_NE(Back.substr(Kept), Data.substr(Kept));
    ASSERT_EQ(Back, RefCrypt(KeyBlock(Phrase), File.substr(32), false));
  }
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
  // A cipher never given a key refuses every block call.
  uint8_t Block[16] = {};
  for (auto Call : {&TCast256Cipher::EncryptECB, &TCast256Cipher::DecryptECB}) {
    try {
      (Cipher.*Call)(Block, Block);
      ADD_FAILURE() << "no exception";
    } catch (const EInvalidOperation& E) {
      EXPECT_EQ(E.Message(), "CAST-256 cipher used before Init");
    }
  }
  EXPECT_THROW(Cipher.Encrypt(Block, Block, 16), EInvalidOperation);
  EXPECT_THROW(Cipher.Decrypt(Block, Block, 16), EInvalidOperation);
}

// One call and 8192-byte pieces in place give the reference's bytes, both
// ways; sizes cover empty, partial, whole and the parallel decryption.
TEST(Cast256, ChainingMatchesReferenceModes) {
  const Bytes Key = RandomBytes(32, 7);
  std::vector<size_t> Sizes(41);
  std::iota(Sizes.begin(), Sizes.end(), 0);
  Sizes.insert(Sizes.end(), {8191, 8192, 8193, 16383, 16384, 16385, 65535, 65536, 65552, 200001});
  TCast256Cipher C;
  C.Init(Key.data(), 256);
  // From a reset chaining value: one call into a second buffer, or pieces
  // in place.
  const auto Run = [&](bool Enc, const Bytes& In, bool InPlace) {
    C.Reset();
    Bytes Out = InPlace ? In : Bytes(In.size(), '\0');
    const Bytes& Src = InPlace ? Out : In;
    const size_t Piece = InPlace ? 8192 : In.size() + 1;
    size_t At = 0;
    do {
      const size_t N = std::min(Piece, In.size() - At);
      Enc ? C.Encrypt(&Src[At], &Out[At], N) : C.Decrypt(&Src[At], &Out[At], N);
    } while ((At += Piece) < In.size());
    return Out;
  };
  for (const size_t N : Sizes) {
    SCOPED_TRACE(N);
    const Bytes Plain = RandomBytes(N, static_cast<uint32_t>(N));
    const Bytes Expected = RefCrypt(Key, Plain, true);
    ASSERT_EQ(RefCrypt(Key, Expected, false), Plain);
    for (const bool InPlace : {false, true}) {
      ASSERT_EQ(Run(true, Plain, InPlace), Expected);
      ASSERT_EQ(Run(false, Expected, InPlace), Plain);
    }
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
  const Bytes Phrases[] = {Bytes(), Bytes("\x9C"), Bytes("\xE9t\xE9 \x80 twenty bytes!"),
                           RandomBytes(32, 1), RandomBytes(40, 2)};
  std::vector<size_t> Sizes(41);
  std::iota(Sizes.begin(), Sizes.end(), 0);
  Sizes.insert(Sizes.end(), {8191, 8192, 8193, 16383, 16384, 16385, 3 * 131072 + 5});
  for (const Bytes& Phrase : Phrases) {
    for (const size_t N : Sizes) {
      for (const bool Znd : {false, true}) {
        SCOPED_TRACE(testing::Message() << "phrase " << Phrase.size() << " size " << N);
        RoundTrip(Phrase, RandomBytes(N, static_cast<uint32_t>(N * 3 + Phrase.size())), Znd);
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
      SCOPED_TRACE(N);
      RoundTrip("large", RandomBytes(N, static_cast<uint32_t>(N)), Znd);
    }
  }
}

// The names of outputs; ".znd" as output extension selects the mode as well
// (a 10-byte source keeps its last byte); encrypting again replaces an
// earlier output.
TEST_F(CryptFiles, OutputNames) {
  Put("big.doc", RandomBytes(5000, 3));
  EXPECT_EQ(EncryptFile(Path("big.doc"), "k", "", false), Path("EncryptedFile.~doc"));
  Put("report.doc", "x");
  struct {
    const char* Ext;
    bool Keep;
    const char* Out;
  } const Cases[] = {
      {"", false, "EncryptedFile.~doc"},
      {"  ", false, "EncryptedFile.~doc"},
      {"", true, "report.~doc"},
      {"enc", true, "report.enc"},
      {" enc", false, "EncryptedFile. enc"},
  };
  for (const auto& C : Cases) {
    EXPECT_EQ(EncryptFile(Path("report.doc"), "k", C.Ext, C.Keep), Path(C.Out));
  }
  EXPECT_EQ(Get(Path("EncryptedFile.~doc")), RefEncryptedFile("k", "x", false));
  Put("noext", "y");
  EXPECT_EQ(EncryptFile(Path("noext"), "k", "", true), Path("noext.~"));
  Put("short.txt", "0123456789");
  EXPECT_EQ(EncryptFile(Path("short.txt"), "pw", "ZND", false), Path("EncryptedFile.ZND"));
  EXPECT_EQ(Get(Path("EncryptedFile.ZND")), RefEncryptedFile("pw", "0123456789", true));

  EXPECT_EQ(DecryptFile(Path("report.~doc"), "k", ""), Path("report.~~doc"));
  EXPECT_EQ(Get(Path("report.~~doc")), "x");
  EXPECT_EQ(DecryptFile(Path("report.~doc"), "k", "doc"), Path("report.doc"));
  EXPECT_EQ(Get(Path("report.doc")), "x");
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
  EXPECT_EQ(ErrorOf([&] { DecryptFile(Path("gone.enc"), "k", "x"); }),
            "EInOutError: File not found");
  Put("short.enc", Bytes(31, 'z'));
  EXPECT_EQ(ErrorOf([&] { DecryptFile(Path("short.enc"), "k", "x"); }),
            "EInOutError: Read beyond end of file");
  EXPECT_TRUE(fs::exists(Path("short.x")));
  EXPECT_TRUE(Dialogs.empty());

  // Encryption: the output cannot be created (a folder has its name).
  Put("src.doc", "abc");
  fs::create_directory(Path("EncryptedFile.~doc"));
  EXPECT_THROW(EncryptFile(Path("src.doc"), "k", "", false), EInOutError);
  // Writing over the source is refused in both directions; the source stays.
  EXPECT_THROW(EncryptFile(Path("src.doc"), "k", "doc", true), EInOutError);
  EXPECT_EQ(Dialogs,
            (std::vector<std::string>{"Encryption was unsuccessful...Reason: File access denied",
                                      "Encryption was unsuccessful...Reason: Cannot write " +
                                          Path("src.doc") + " over itself"}));
  EXPECT_THROW(DecryptFile(Path("src.doc"), "k", "doc"), EInOutError);
  EXPECT_EQ(Get(Path("src.doc")), "abc");
}
