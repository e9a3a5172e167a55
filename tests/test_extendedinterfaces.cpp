// ExtendedInterfaces: the interfaced collection, the bitmap loader over
// resource libraries (and the runtime bitmap it fills), and the interface
// streams' copy from an IStream.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "ResourceFiles.h"
#include "vel/ExtendedInterfaces.h"
#include "vel/rtl/Lists.h"

using namespace vel;
using namespace restest;

namespace {

class TCounted : public TInterfacedObject {
 public:
  explicit TCounted(int* Alive) : FAlive(Alive) { ++*FAlive; }
  ~TCounted() override { --*FAlive; }

 private:
  int* FAlive;
};

TEST(ICollection, OperationsCountsAndOwnership) {
  int Alive = 0;
  {
    IPtr<ICollection> A(new TICollection), B(new TICollection);
    IPtr<IInterface> X(static_cast<IInterface*>(new TCounted(&Alive)));
    IPtr<IInterface> Y(static_cast<IInterface*>(new TCounted(&Alive)));
    EXPECT_TRUE(A->IsEmpty());
    A->Add(X);
    A->Add(X);
    B->Add(Y);
    B->Insert(0, Y);
    // Equal counts make equal collections whatever they hold.
    EXPECT_TRUE(A->IsEqual(B));
    EXPECT_TRUE(A->Contains(X));
    EXPECT_FALSE(A->Contains(Y));
    EXPECT_EQ(A->Remove(X), 0);
    EXPECT_TRUE(A->Contains(X));
    EXPECT_EQ(A->GetCount(), 1);
    EXPECT_FALSE(A->IsEqual(B));
    EXPECT_EQ(B->GetItems(1).get(), Y.get());
    EXPECT_THROW(B->GetItems(2), EListError);
    try {
      A->Add();
      FAIL();
    } catch (const EICollection& E) {
      EXPECT_STREQ(E.what(), "Not Implemented, override in descendant and implement");
    }
    B->Delete(0);
    EXPECT_EQ(B->GetCount(), 1);
    X = nullptr;
    Y = nullptr;
    EXPECT_EQ(Alive, 2);  // the collections hold them
    A->Clear();
    EXPECT_EQ(Alive, 1);
  }
  EXPECT_EQ(Alive, 0);  // freeing B released its item
}

// The copy is one byte longer than the source and ends in its last byte
// again; content beyond it stays. The source is read from where it stands:
// from position 2 of ABC, only C is there, and the buffer repeats it.
template <class S>
void CheckSetIStream(S& Target) {
  struct TCase {
    std::string Before, Source;
    int64_t SourcePos;
    std::string After;
  } Cases[] = {{"", "ABC", 0, "ABCC"},
               {"XYZWVU", "ABC", 0, "ABCCVU"},
               {"", "Q", 0, "QQ"},
               {"", "ABC", 2, "CCCC"}};
  for (const TCase& C : Cases) {
    Target.SetSize(0);
    Target.Write(C.Before.data(), int64_t(C.Before.size()));
    TMemoryStream Src;
    Src.Write(C.Source.data(), int64_t(C.Source.size()));
    Src.SetPosition(C.SourcePos);
    IPtr<IStream> I(new TStreamAdapter(&Src));
    Target.SetIStream(I);
    EXPECT_EQ(Target.GetPosition(), 0);
    std::string Got(size_t(Target.GetSize()), '\0');
    Target.Read(Got.data(), int64_t(Got.size()));
    EXPECT_EQ(Got, C.After);
  }
  TMemoryStream Empty;
  Target.SetSize(0);
  Target.SetIStream(IPtr<IStream>(new TStreamAdapter(&Empty)));
  EXPECT_EQ(Target.GetSize(), 1);

  // GetIStream reads this stream from its start and does not own it.
  Target.SetSize(0);
  Target.Write("hello", 5);
  {
    IPtr<IStream> I = Target.GetIStream();
    char Buf[8] = {};
    uint32_t N = 0;
    ASSERT_EQ(I->Read(Buf, sizeof Buf, &N), S_OK);
    EXPECT_EQ(std::string(Buf, N), "hello");
  }
  EXPECT_EQ(Target.GetSize(), 5);
}

TEST(InterfaceStreams, SetIStreamCopiesOneExtraByte) {
  TInterfaceStream M;
  CheckSetIStream(M);
  TScratch Dir;
  TInterfaceFileStream F(Dir.Path("copy.bin"), fmCreate);
  CheckSetIStream(F);
}

// A 3 x 2, 24-bit bottom-up DIB: rows of 9 bytes padded to 12.
Bytes SampleDib() {
  Bytes B(40, 0);
  Put32(B, 0, 40);
  Put32(B, 4, 3);
  Put32(B, 8, 2);
  Put16(B, 12, 1);
  Put16(B, 14, 24);
  for (int I = 0; I < 24; ++I) B.push_back(uint8_t(I * 7));
  return B;
}

TEST(ILoadResource, LoadsBitmapsFromResourceLibraries) {
  TScratch Dir;
  const Bytes Dib = SampleDib();
  Dir.Write("Images.dll", BuildPE(false, {{TResId::FromId(RT_BITMAP), TResId::FromName("LOGO"),
                                           0x0409, Dib}}));
  Dir.Write("Images.bpl", BuildElf(true, BuildResFile({{TResId::FromId(RT_BITMAP),
                                                        TResId::FromName("LOGO"), 0, Dib}})));
  ::setenv("VEL_PACKAGE_PATH", (Dir.Path("nowhere") + ":" + Dir.Path("")).c_str(), 1);
  for (const char16_t* Library : {u"Images.dll", u"Images.bpl"}) {
    IPtr<ILoadResource> L(new TILoadResource);
    L->SetResourceDLLName(Library);
    EXPECT_EQ(L->GetResourceDLLName(), Library);
    TIcon* Icon = L->LoadIcon(u"logo");
    TBitmap* Bmp = L->LoadBitmap(u"logo");
    EXPECT_EQ(L->LoadIcon(u"LOGO"), Icon);
    EXPECT_TRUE(Icon->Empty());
    EXPECT_EQ(Bmp->Width(), 3);
    EXPECT_EQ(Bmp->Height(), 2);
    EXPECT_EQ(Bmp->Dib(), Dib);
    // The .bmp file: "BM", file size, two reserved words, pixel offset 54.
    Bmp->SaveToFile(Dir.Path("logo.bmp"));
    std::ifstream In(Dir.Path("logo.bmp"), std::ios::binary);
    const Bytes File((std::istreambuf_iterator<char>(In)), {});
    Bytes Want = {'B', 'M', 78, 0, 0, 0, 0, 0, 0, 0, 54, 0, 0, 0};
    Want.insert(Want.end(), Dib.begin(), Dib.end());
    EXPECT_EQ(File, Want);
    TBitmap Back;
    Back.LoadFromFile(Dir.Path("logo.bmp"));
    EXPECT_EQ(Back.Dib(), Dib);

    try {
      L->LoadBitmap(u"NOPE");
      FAIL();
    } catch (const EResNotFound& E) {
      EXPECT_STREQ(E.what(), "Resource NOPE not found");
    }
    EXPECT_EQ(Bmp->Dib(), Dib);  // the failed load left the bitmap alone
  }
  IPtr<ILoadResource> Missing(new TILoadResource);
  Missing->SetResourceDLLName(u"Absent.dll");
  EXPECT_THROW(Missing->LoadBitmap(u"LOGO"), EResourceError);
}

TEST(TBitmap, RefusesDibsThatDoNotHoldTogether) {
  auto Bad = [](auto Change) {
    Bytes D = SampleDib();
    Change(D);
    TBitmap B;
    try {
      B.SetDib(D);
    } catch (const EInvalidGraphic& E) {
      return std::string(E.what());
    }
    return std::string("accepted");
  };
  EXPECT_EQ(Bad([](Bytes&) {}), "accepted");
  EXPECT_EQ(Bad([](Bytes& D) { D.resize(D.size() - 1); }), "Bitmap image is not valid");
  EXPECT_EQ(Bad([](Bytes& D) { Put32(D, 4, 0x40000000); }), "Bitmap image is not valid");
  EXPECT_EQ(Bad([](Bytes& D) { Put16(D, 14, 7); }), "Bitmap image is not valid");
  EXPECT_EQ(Bad([](Bytes& D) { Put32(D, 0, 1000); }), "Bitmap image is not valid");
  EXPECT_EQ(Bad([](Bytes& D) { Put16(D, 14, 8); Put32(D, 32, 300); }), "Bitmap image is not valid");
  // Top-down rows (negative height) are kept as they are.
  EXPECT_EQ(Bad([](Bytes& D) { Put32(D, 8, uint32_t(-2)); }), "accepted");
}

}  // namespace
