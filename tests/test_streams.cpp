// Tests of the runtime's streams: vel/rtl/Streams.h.
#include "vel/rtl/Streams.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

using namespace vel;

namespace {

using Bytes = std::vector<uint8_t>;

std::string Text(TCustomMemoryStream& S) {
  return std::string(static_cast<const char*>(S.Memory()), static_cast<size_t>(S.GetSize()));
}

// Expects Fn to raise exception class E with exactly Msg.
template <class E, class F>
void ExpectRaise(F&& Fn, const std::string& Msg, const char* ClassName) {
  try {
    Fn();
    ADD_FAILURE() << "expected " << ClassName << " \"" << Msg << "\"";
  } catch (const E& Ex) {
    EXPECT_EQ(Ex.Message(), Msg);
    EXPECT_STREQ(Ex.ClassName(), ClassName);
  }
}

// Moves at most Step bytes per call, within Room bytes of output, as a
// socket or a decoder might: ReadBuffer/WriteBuffer must keep going.
class TTrickleStream : public TStream {
 public:
  TTrickleStream(std::string In, int64_t Step, int64_t Room)
      : FIn(std::move(In)), FStep(Step), FRoom(Room) {}
  int64_t Read(void* Buffer, int64_t Count) override {
    int64_t N = std::min({Count, FStep, static_cast<int64_t>(FIn.size()) - FPos});
    if (N <= 0) return 0;
    std::memcpy(Buffer, FIn.data() + FPos, static_cast<size_t>(N));
    FPos += N;
    return N;
  }
  int64_t Write(const void* Buffer, int64_t Count) override {
    int64_t N = std::min({Count, FStep, FRoom - static_cast<int64_t>(Out.size())});
    if (N > 0) Out.append(static_cast<const char*>(Buffer), static_cast<size_t>(N));
    return std::max<int64_t>(N, 0);
  }
  int64_t Seek(int64_t, TSeekOrigin) override { return -1; }
  std::string Out;

 private:
  std::string FIn;
  int64_t FStep, FRoom, FPos = 0;
};

// A scratch directory under $VEL_TEST_TMPDIR (or /tmp), removed afterwards.
class StreamFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* Base = std::getenv("VEL_TEST_TMPDIR");
    std::string Tmpl = std::string(Base && *Base ? Base : "/tmp") + "/vel_streams_XXXXXX";
    std::filesystem::create_directories(std::filesystem::path(Tmpl).parent_path());
    ASSERT_NE(::mkdtemp(Tmpl.data()), nullptr);
    Dir = Tmpl;
  }
  void TearDown() override {
    std::error_code Ec;
    std::filesystem::remove_all(Dir, Ec);
  }
  std::string Path(const std::string& Name) const { return Dir + "/" + Name; }
  void Put(const std::string& Name, const std::string& Data) {
    TFileStream F(Path(Name), fmCreate);
    F.WriteBuffer(Data.data(), static_cast<int64_t>(Data.size()));
  }
  std::string Get(const std::string& Name) {
    TMemoryStream M;
    M.LoadFromFile(Path(Name));
    return Text(M);
  }
  std::string Dir;
};

}  // namespace

// ---------------------------------------------------------------------------
// TStream

TEST(Streams, BufferErrorsAndShortTransfers) {
  TMemoryStream M;
  M.WriteU8(1);
  M.SetPosition(0);
  char Buf[10];
  ExpectRaise<EReadError>([&] { M.ReadBuffer(Buf, 2); }, "Stream read error", "EReadError");
  const uint8_t Mem[2] = {1, 2};
  TReadOnlyMemoryStream R(Mem, 2);
  ExpectRaise<EWriteError>([&] { R.WriteBuffer(Buf, 1); }, "Stream write error", "EWriteError");
  EXPECT_THROW(R.WriteU32LE(5), EFilerError);
  EXPECT_THROW(R.SetSize(0), EWriteError);
  EXPECT_NO_THROW(R.WriteBuffer(Buf, 0));
  // The read-only view reads the foreign memory in place.
  EXPECT_EQ(R.Memory(), Mem);
  EXPECT_EQ(R.ReadU16LE(), 0x0201);
  EXPECT_EQ(R.Seek(-1, soEnd), 1);
  EXPECT_EQ(R.ReadU8(), 2);
  TReadOnlyMemoryStream Empty(nullptr, 10);  // no memory: no bytes
  EXPECT_EQ(Empty.GetSize(), 0);

  // Partial transfers are continued until done or until nothing moves.
  TTrickleStream T("0123456789", 3, 7);
  T.ReadBuffer(Buf, 10);
  EXPECT_EQ(std::string(Buf, 10), "0123456789");
  EXPECT_THROW(T.ReadBuffer(Buf, 1), EReadError);
  T.WriteBuffer(Buf, 7);
  EXPECT_EQ(T.Out, "0123456");
  EXPECT_THROW(T.WriteBuffer(Buf, 1), EWriteError);
}

TEST(Streams, LittleEndianHelpersAreByteExact) {
  TMemoryStream M;
  M.WriteU8(0xAB);
  M.WriteU16LE(0x1234);
  M.WriteI32LE(-2);
  M.WriteI64LE(0x0102030405060708LL);
  M.WriteF32(1.5f);
  M.WriteF64(-2.25);
  M.WriteI16LE(-300);
  const Bytes Expected = {0xAB, 0x34, 0x12, 0xFE, 0xFF, 0xFF, 0xFF, 0x08, 0x07, 0x06,
                          0x05, 0x04, 0x03, 0x02, 0x01, 0x00, 0x00, 0xC0, 0x3F, 0x00,
                          0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0xC0, 0xD4, 0xFE};
  auto* P = static_cast<const uint8_t*>(M.Memory());
  EXPECT_EQ(Bytes(P, P + M.GetSize()), Expected);

  M.SetPosition(0);
  EXPECT_EQ(M.ReadU8(), 0xAB);
  EXPECT_EQ(M.ReadU16LE(), 0x1234);
  EXPECT_EQ(M.ReadU32LE(), 0xFFFFFFFEu);
  EXPECT_EQ(M.ReadI64LE(), 0x0102030405060708LL);
  EXPECT_EQ(M.ReadF32(), 1.5f);
  EXPECT_EQ(M.ReadF64(), -2.25);
  EXPECT_EQ(M.ReadI16LE(), -300);
  M.Seek(-1, soEnd);
  EXPECT_THROW(M.ReadU16LE(), EReadError);  // cut short by the end
}

TEST(Streams, CopyFrom) {
  // Count 0: the whole source from position 0, whatever its position.
  TStringStream Src("0123456789");
  Src.SetPosition(7);
  TMemoryStream Dst;
  Dst.WriteU8('>');
  EXPECT_EQ(Dst.CopyFrom(&Src, 0), 10);
  EXPECT_EQ(Text(Dst), ">0123456789");

  // A count starts at the source's position, for a memory source (copied
  // from its buffer) as for any other.
  TMemoryStream MemSrc;
  MemSrc.WriteBuffer("abcdefgh", 8);
  TStringStream StrSrc("abcdefgh");
  for (TStream* S : {static_cast<TStream*>(&MemSrc), static_cast<TStream*>(&StrSrc)}) {
    S->SetPosition(2);
    TStringStream Out;
    EXPECT_EQ(Out.CopyFrom(S, 3), 3);
    EXPECT_EQ(Out.DataString(), "cde");
    EXPECT_EQ(S->GetPosition(), 5);
    EXPECT_THROW(Out.CopyFrom(S, 4), EReadError);
    EXPECT_THROW(Out.CopyFrom(S, -1), EReadError);
  }

  // More than one chunk.
  std::string Big(200000, '\0');
  for (size_t I = 0; I < Big.size(); ++I) Big[I] = static_cast<char>(I * 7 + I / 251);
  TStringStream BigSrc(Big);
  TMemoryStream BigDst;
  EXPECT_EQ(BigDst.CopyFrom(&BigSrc, 0), 200000);
  EXPECT_EQ(Text(BigDst), Big);

  // From itself: the buffer grows while it is the source.
  TMemoryStream Self;
  Self.WriteBuffer("xyz", 3);
  EXPECT_EQ(Self.CopyFrom(&Self, 0), 3);
  EXPECT_EQ(Text(Self), "xyzxyz");
}

// ---------------------------------------------------------------------------
// Memory streams

TEST(MemoryStream, PositionsOutsideTheContent) {
  TMemoryStream M;
  M.WriteBuffer("hello", 5);
  EXPECT_EQ(M.Seek(-1, soFromEnd), 4);
  char Buf[8];
  EXPECT_EQ(M.Seek(-10, soBeginning), -10);  // kept as set
  EXPECT_EQ(M.Read(Buf, 3), 0);
  EXPECT_EQ(M.Write("x", 1), 0);
  M.SetPosition(3);
  EXPECT_EQ(M.Seek(INT64_MAX, soCurrent), 3);  // overflow: unchanged
  M.SetPosition(INT64_MAX);
  EXPECT_EQ(M.Write("x", 1), 0);
  EXPECT_EQ(M.Read(Buf, 1), 0);
  EXPECT_EQ(Text(M), "hello");
}

TEST(MemoryStream, GapsAreZeroFilledEvenOverOldData) {
  TMemoryStream M;
  M.WriteBuffer("ABCDEFGH", 8);
  M.SetSize(2);  // the old bytes stay in the buffer
  EXPECT_EQ(M.GetPosition(), 2);
  M.Seek(6, soBeginning);
  M.WriteBuffer("Z", 1);
  EXPECT_EQ(Text(M), std::string("AB\0\0\0\0Z", 7));
  M.SetSize(4);
  M.SetSize(6);  // extending by SetSize gives zeros too
  EXPECT_EQ(Text(M), std::string("AB\0\0\0\0", 6));
  EXPECT_EQ(M.GetPosition(), 4);
  M.Seek(20000, soBeginning);  // a gap that needs a larger buffer
  M.WriteU8(7);
  std::string C = Text(M);
  EXPECT_EQ(std::count(C.begin() + 2, C.end(), '\0'), 19998);
}

TEST(MemoryStream, CapacityGrowthAndOutOfMemory) {
  TMemoryStream M;
  M.WriteU8(1);
  EXPECT_EQ(M.Capacity(), 8192);
  M.SetPosition(8192);
  M.WriteU8(2);
  EXPECT_EQ(M.Capacity(), 16384);
  // Once large, small writes double the buffer instead of creeping up.
  M.SetSize(65536);
  M.Seek(0, soEnd);
  M.WriteU8(3);
  EXPECT_EQ(M.Capacity(), 131072);
  // Shrinking gives memory back and keeps the content.
  M.SetSize(10);
  EXPECT_EQ(M.Capacity(), 8192);
  EXPECT_EQ(static_cast<uint8_t*>(M.Memory())[0], 1);
  M.SetCapacity(1);
  EXPECT_EQ(M.Capacity(), 10);  // never below the size
  M.Clear();
  EXPECT_EQ(M.Memory(), nullptr);
  EXPECT_EQ(M.GetSize() + M.GetPosition() + M.Capacity(), 0);

  ExpectRaise<EStreamError>([&] { M.SetSize(INT64_MAX / 2); },
                            "Out of memory while expanding memory stream", "EStreamError");
  M.SetPosition(INT64_MAX / 2);
  EXPECT_THROW(M.Write("x", 1), EStreamError);
  EXPECT_EQ(M.GetSize(), 0);
}

TEST(MemoryStream, WritingItsOwnContentWhileGrowing) {
  TMemoryStream M;
  std::string Pattern(8192, '\0');
  for (size_t I = 0; I < Pattern.size(); ++I) Pattern[I] = static_cast<char>(I % 253);
  M.WriteBuffer(Pattern.data(), 8192);
  M.WriteBuffer(M.Memory(), 8192);  // the source buffer moves as it grows
  EXPECT_EQ(Text(M), Pattern + Pattern);
  M.SetPosition(1);
  M.WriteBuffer(M.Memory(), 4);  // overlapping
  EXPECT_EQ(Text(M).substr(0, 5), std::string("\0\0\1\2\3", 5));
}

TEST(MemoryStream, LoadAndSave) {
  TStringStream Src(std::string("a\0b\xff", 4));
  Src.SetPosition(3);
  TMemoryStream M;
  M.WriteBuffer("old content that is longer", 26);
  M.SetPosition(2);
  M.LoadFromStream(&Src);
  EXPECT_EQ(Text(M), std::string("a\0b\xff", 4));
  EXPECT_EQ(M.GetPosition(), 2);

  TStringStream Dst("XYZ");
  Dst.Seek(0, soEnd);
  M.SaveToStream(&Dst);  // everything, whatever M's position
  EXPECT_EQ(Dst.DataString(), std::string("XYZa\0b\xff", 7));

  // A source that ends before its stated size leaves the content alone.
  struct TShortStream : TStringStream {
    using TStringStream::TStringStream;
    int64_t GetSize() override { return 100; }
  } Short("abc");
  EXPECT_THROW(M.LoadFromStream(&Short), EReadError);
  EXPECT_EQ(Text(M), std::string("a\0b\xff", 4));
}

// ---------------------------------------------------------------------------
// String streams

TEST(StringStream, WritesReplaceTheTailSeeksClamp) {
  TStringStream S("Hello, world");
  S.SetPosition(7);
  S.WriteString("there");
  EXPECT_EQ(S.DataString(), "Hello, there");
  S.SetPosition(5);
  S.WriteString("!");  // writing in the middle drops what followed
  EXPECT_EQ(S.DataString(), "Hello!");
  S.SetPosition(2);
  S.WriteString("");  // nothing written, nothing dropped
  EXPECT_EQ(S.DataString(), "Hello!");
  const std::string Long = "a string longer than the inline buffer";
  TStringStream L(Long);
  L.Seek(0, soEnd);
  L.WriteBuffer(L.DataString().data(), L.GetSize());  // itself, while it moves
  EXPECT_EQ(L.DataString(), Long + Long);
  TStringStream B;
  B.WriteU32LE(0x00FF0041);
  EXPECT_EQ(B.DataString(), std::string("A\0\xff\0", 4));

  // Seeks are clamped to the content; SetSize pads with zeros.
  TStringStream C("abcdef");
  EXPECT_EQ(C.Seek(-2, soEnd), 4);
  EXPECT_EQ(C.ReadString(10), "ef");
  EXPECT_EQ(C.Seek(-100, soCurrent), 0);
  EXPECT_EQ(C.Seek(INT64_MIN, soEnd), 0);
  EXPECT_EQ(C.Seek(INT64_MAX, soEnd), 6);
  C.SetSize(8);
  EXPECT_EQ(C.DataString(), std::string("abcdef\0\0", 8));
  C.SetPosition(8);
  C.SetSize(2);
  EXPECT_EQ(C.GetPosition(), 2);
}

// ---------------------------------------------------------------------------
// Handle and file streams

TEST(HandleStream, PipeReadsGatherPartialWritesAndCannotSeek) {
  int P[2];
  ASSERT_EQ(::pipe(P), 0);
  std::thread Writer([&] {
    for (char C : std::string("abcdef")) {
      EXPECT_EQ(::write(P[1], &C, 1), 1);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ::close(P[1]);
  });
  {
    THandleStream R(P[0]);
    char Buf[10];
    EXPECT_EQ(R.Read(Buf, 4), 4);  // collected over several arrivals
    EXPECT_EQ(std::string(Buf, 4), "abcd");
    EXPECT_EQ(R.Seek(0, soBeginning), -1);
    TMemoryStream Rest;  // a stream without a size is loaded to its end
    Rest.LoadFromStream(&R);
    EXPECT_EQ(Text(Rest), "ef");
    Writer.join();
  }
  EXPECT_NE(::fcntl(P[0], F_GETFD), -1);  // not closed by the stream
  ::close(P[0]);
  THandleStream Bad(-1);
  char B;
  EXPECT_EQ(Bad.Read(&B, 1), 0);
  EXPECT_THROW(Bad.SetSize(0), EOSError);
}

TEST_F(StreamFiles, RoundTripSizesAndRights) {
  {
    TFileStream F(Path("a.bin"), fmCreate, 0600);
    EXPECT_EQ(F.FileName(), Path("a.bin"));
    F.WriteBuffer("\x01\x02\x03\x04tail", 8);
    EXPECT_EQ(F.GetSize(), 8);
    F.SetSize(2);  // truncates and moves the position there
    EXPECT_EQ(F.GetPosition(), 2);
    F.WriteU8('!');
    F.SetSize(5);  // extension reads as zeros
  }
  EXPECT_EQ(Get("a.bin"), std::string("\x01\x02!\0\0", 5));
  struct stat St;
  ASSERT_EQ(::stat(Path("a.bin").c_str(), &St), 0);
  EXPECT_EQ(St.st_mode & 0777, 0600u);

  {
    TFileStream R(Path("a.bin"), fmOpenRead);
    EXPECT_THROW(R.WriteBuffer("x", 1), EWriteError);
    TFileStream Big(Path("big.bin"), fmCreate);  // 64-bit sizes (sparse)
    Big.SetSize(5LL << 30);
    EXPECT_EQ(Big.Seek(-1, soEnd), (5LL << 30) - 1);
    Big.SetSize(0);
  }
  {
    TFileStream W(Path("a.bin"), fmOpenWrite);
    W.WriteBuffer("AB", 2);
  }
  EXPECT_EQ(Get("a.bin"), std::string("AB!\0\0", 5));  // overwritten in place
  { TFileStream C(Path("a.bin"), fmCreate); }
  EXPECT_EQ(Get("a.bin"), "");  // fmCreate truncates

  TMemoryStream M;
  for (int I = 0; I < 100000; ++I) M.WriteU8(static_cast<uint8_t>(I * 31));
  M.SaveToFile(Path("m.bin"));
  EXPECT_EQ(Get("m.bin"), Text(M));
}

TEST_F(StreamFiles, OpenAndCreateFailuresNameTheFile) {
  const std::string Missing = Path("missing.dat"), NoDir = Path("no/dir.dat");
  ExpectRaise<EFOpenError>([&] { TFileStream F(Missing, fmOpenRead); },
                           "Cannot open file " + Missing, "EFOpenError");
  ExpectRaise<EFCreateError>([&] { TFileStream F(NoDir, fmCreate); }, "Cannot create file " + NoDir,
                             "EFCreateError");
  ExpectRaise<EFOpenError>([&] { TFileStream F(Dir, fmOpenRead | fmShareDenyNone); },
                           "Cannot open file " + Dir, "EFOpenError");
  EXPECT_THROW((TFileStream{Dir, fmCreate}), EFCreateError);
  Put("m.txt", "x");
  EXPECT_THROW((TFileStream{Path("m.txt"), 3}), EFOpenError);
  EXPECT_THROW((TFileStream{Path("m.txt"), fmOpenRead | 0x50}), EFOpenError);
  EXPECT_THROW((TFileStream{Path("m.txt") + std::string("\0x", 2), fmOpenRead}), EFOpenError);
}

TEST_F(StreamFiles, ShareModesRefuseEachOtherAsOnWindows) {
  Put("s.dat", "shared");
  const std::string F = Path("s.dat");
  const uint16_t R = fmOpenRead, W = fmOpenWrite, RW = fmOpenReadWrite;
  struct Case {
    uint16_t First, Second;
    bool Admitted;
  } const Cases[] = {
      {RW | fmShareExclusive, R | fmShareDenyNone, false},
      {R | fmShareCompat, R | fmShareDenyNone, false},
      {R | fmShareDenyRead, R | fmShareDenyNone, false},
      {fmCreate, R | fmShareDenyNone, false},
      {RW | fmShareDenyNone, RW | fmShareDenyNone, true},
      {R | fmShareDenyNone, W | fmShareDenyNone, true},
      {R | fmShareDenyNone, R | fmShareDenyWrite, true},
      {R | fmShareDenyWrite, R | fmShareDenyWrite, true},
      {R | fmShareDenyWrite, R | fmShareDenyNone, true},
      {R | fmShareDenyWrite, W | fmShareDenyNone, false},
      {R | fmShareDenyWrite, RW | fmShareDenyWrite, false},
      {RW | fmShareDenyWrite, R | fmShareDenyWrite, false},
  };
  for (const Case& C : Cases) {
    SCOPED_TRACE(::testing::Message() << std::hex << "0x" << C.First << " then 0x" << C.Second);
    TFileStream First(F, C.First);
    if (C.Admitted)
      EXPECT_NO_THROW((TFileStream{F, C.Second}));
    else
      ExpectRaise<EFOpenError>([&] { TFileStream S(F, C.Second); }, "Cannot open file " + F,
                               "EFOpenError");
  }
  // The lock goes with the stream.
  auto* Held = new TFileStream(F, RW | fmShareExclusive);
  EXPECT_THROW((TFileStream{F, R | fmShareDenyNone}), EFOpenError);
  delete Held;
  EXPECT_NO_THROW((TFileStream{F, RW | fmShareExclusive}));
}

TEST_F(StreamFiles, RefusedCreateOrLoadLeavesEverythingIntact) {
  Put("keep.dat", "precious");
  TMemoryStream M;
  M.WriteBuffer("mine", 4);
  {
    TFileStream Holder(Path("keep.dat"), fmOpenRead | fmShareDenyWrite);
    ExpectRaise<EFCreateError>([&] { TFileStream C(Path("keep.dat"), fmCreate); },
                               "Cannot create file " + Path("keep.dat"), "EFCreateError");
    EXPECT_THROW(M.SaveToFile(Path("keep.dat")), EFCreateError);
    TFileStream Excl(Path("other.dat"), fmCreate);
    EXPECT_THROW(M.LoadFromFile(Path("other.dat")), EFOpenError);
  }
  EXPECT_EQ(Get("keep.dat"), "precious");
  EXPECT_EQ(Text(M), "mine");
}
