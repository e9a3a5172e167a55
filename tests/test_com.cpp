// COM-style interfaces: GUID text, reference counting and queries, the
// locked interface list, stream adapters in both directions, apartments and
// marshalling between threads.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "vel/rtl/Com.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/TypInfo.h"

using namespace vel;

namespace comtest {

struct IGreeter : IInterface {
  VEL_INTERFACE_ID("{5D4F8A10-1111-4000-8000-00000000A001}")
  virtual int Greet() = 0;
};

struct ILoudGreeter : IGreeter {
  VEL_INTERFACE_ID("{5D4F8A10-1111-4000-8000-00000000A002}")
  virtual int Shout() = 0;
};

struct IOther : IInterface {
  VEL_INTERFACE_ID("{5D4F8A10-1111-4000-8000-00000000A003}")
};

std::atomic<int> Live{0};

class TGreeter : public TInterfacedObject, public IGreeter {
  VEL_CLASS(TGreeter, TInterfacedObject)
  VEL_INTERFACES(IGreeter)
 public:
  TGreeter() { ++Live; }
  ~TGreeter() override { --Live; }
  int Greet() override { return 42; }
};

// Lists only the derived interface: its ancestor is not answered.
class TLoud : public TInterfacedObject, public ILoudGreeter {
  VEL_CLASS(TLoud, TInterfacedObject)
  VEL_INTERFACES(ILoudGreeter)
 public:
  TLoud() { ++Live; }
  ~TLoud() override { --Live; }
  int Greet() override { return 1; }
  int Shout() override { return 2; }
};

// A stream that records its own destruction.
class TTracedStream : public TMemoryStream {
  VEL_CLASS(TTracedStream, TMemoryStream)
 public:
  explicit TTracedStream(bool* Freed = nullptr) : FFreed(Freed) {}
  ~TTracedStream() override {
    if (FFreed) *FFreed = true;
  }

 private:
  bool* FFreed;
};

// An IStream whose every call fails with one code.
class TFailingStream : public TInterfacedObject, public IStream {
  VEL_CLASS(TFailingStream, TInterfacedObject)
  VEL_INTERFACES(ISequentialStream, IStream)
 public:
  explicit TFailingStream(HRESULT Code = E_FAIL) : FCode(Code) {}
  HRESULT Read(void*, uint32_t, uint32_t*) override { return FCode; }
  HRESULT Write(const void*, uint32_t, uint32_t*) override { return FCode; }
  HRESULT Seek(int64_t, uint32_t, uint64_t*) override { return FCode; }
  HRESULT SetSize(uint64_t) override { return FCode; }
  HRESULT CopyTo(IStream*, uint64_t, uint64_t*, uint64_t*) override { return FCode; }
  HRESULT Commit(uint32_t) override { return FCode; }
  HRESULT Revert() override { return FCode; }
  HRESULT LockRegion(uint64_t, uint64_t, uint32_t) override { return FCode; }
  HRESULT UnlockRegion(uint64_t, uint64_t, uint32_t) override { return FCode; }
  HRESULT Stat(STATSTG*, uint32_t) override { return FCode; }
  HRESULT Clone(IStream**) override { return FCode; }

 private:
  HRESULT FCode;
};

}  // namespace comtest

using namespace comtest;
VEL_IMPLEMENT(TGreeter)
VEL_IMPLEMENT(TLoud)
VEL_IMPLEMENT(TTracedStream)
VEL_IMPLEMENT(TFailingStream)

static_assert(IIDOf<IInterface>.D1 == 0 && IIDOf<IInterface>.D4[0] == 0xC0 &&
                  IIDOf<IInterface>.D4[7] == 0x46,
              "identifiers are parsed at compile time");

TEST(Com, GuidTextFieldsMalformedTextAndCreatedGuids) {
  TGUID G = StringToGUID("{01234567-89ab-CDEF-0123-456789AbCdEf}");
  EXPECT_EQ(G.D1, 0x01234567u);
  EXPECT_EQ(G.D2, 0x89ABu);
  EXPECT_EQ(G.D3, 0xCDEFu);
  const uint8_t D4[8] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};
  EXPECT_EQ(std::memcmp(G.D4, D4, 8), 0);
  EXPECT_EQ(GUIDToString(G), "{01234567-89AB-CDEF-0123-456789ABCDEF}");
  EXPECT_EQ(StringToGUID(GUIDToString(G)), G);
  EXPECT_EQ(GUIDToString(GUID_NULL), "{00000000-0000-0000-0000-000000000000}");

  // Malformed text is rejected with the text in the message.
  const char* Bad[] = {
      "",
      "01234567-89AB-CDEF-0123-456789ABCDEF",     // no braces
      "{01234567-89AB-CDEF-0123-456789ABCDE}",    // short
      "{01234567-89AB-CDEF-0123-456789ABCDEF0}",  // long
      "{0123456789AB-CDEF-0123-456789ABCDEF-}",   // hyphens misplaced
      "{0123456G-89AB-CDEF-0123-456789ABCDEF}",   // not hex
      "{01234567-89AB-CDEF-0123-456789ABCDEF)",
  };
  for (const char* S : Bad) {
    try {
      StringToGUID(S);
      ADD_FAILURE() << S;
    } catch (const EConvertError& E) {
      EXPECT_EQ(E.Message(), std::string("'") + S + "' is not a valid GUID value");
    }
  }

  // Created identifiers are random (version 4) and distinct.
  std::set<std::string> Seen;
  for (int I = 0; I < 200; ++I) {
    TGUID G = CreateGUID();
    EXPECT_EQ(G.D3 >> 12, 4);
    EXPECT_EQ(G.D4[0] & 0xC0, 0x80);
    Seen.insert(GUIDToString(G));
  }
  EXPECT_EQ(Seen.size(), 200u);
}

TEST(Com, ObjectLivesExactlyAsLongAsItsCountedReferences) {
  ASSERT_EQ(Live, 0);
  auto* Obj = new TGreeter;
  EXPECT_EQ(Obj->RefCount(), 0);
  {
    IPtr<IGreeter> A(Obj);
    EXPECT_EQ(Obj->RefCount(), 1);
    IPtr<IGreeter> B = A;
    EXPECT_EQ(Obj->RefCount(), 2);
    IPtr<IGreeter> C = std::move(B);
    EXPECT_EQ(Obj->RefCount(), 2);
    EXPECT_EQ(B.get(), nullptr);
    IPtr<IInterface> Base = A;  // upcast keeps its own reference
    EXPECT_EQ(Obj->RefCount(), 3);
    C = nullptr;
    A = A;  // self-assignment keeps the object
    EXPECT_EQ(Obj->RefCount(), 2);
    EXPECT_EQ(A->Greet(), 42);
    IGreeter* Raw = A.Detach();
    EXPECT_EQ(Obj->RefCount(), 2);
    IPtr<IGreeter> D = IPtr<IGreeter>::Attach(Raw);
    EXPECT_EQ(Obj->RefCount(), 2);
    EXPECT_EQ(Live, 1);
  }
  EXPECT_EQ(Live, 0);
}

TEST(Com, QueryInterfaceAnswersTheTableOnly) {
  IPtr<IGreeter> G(new TGreeter);
  void* P = reinterpret_cast<void*>(1);
  EXPECT_EQ(G->QueryInterface(IIDOf<IOther>, &P), E_NOINTERFACE);
  EXPECT_EQ(P, nullptr);
  EXPECT_EQ(G->QueryInterface(IIDOf<IGreeter>, nullptr), E_POINTER);
  ASSERT_EQ(G->QueryInterface(IIDOf<IInterface>, &P), S_OK);
  auto* Unk = static_cast<IInterface*>(P);
  // The identity is the same whichever interface asks.
  IPtr<IInterface> Unk2 = G.As<IInterface>();
  EXPECT_EQ(Unk, Unk2.get());
  Unk->_Release();

  // A class that lists only a derived interface does not answer its
  // ancestor.
  IPtr<ILoudGreeter> L(new TLoud);
  IPtr<IGreeter> AsBase;
  EXPECT_FALSE(Supports(static_cast<IInterface*>(L.get()), AsBase));
  EXPECT_EQ(L->Shout(), 2);

  try {
    G.As<IOther>();
    FAIL() << "no exception";
  } catch (const EIntfCastError& E) {
    EXPECT_EQ(E.Message(), "Interface not supported");
  }
}

TEST(Com, SupportsOnObjectsAndInterfaces) {
  auto* Obj = new TGreeter;
  IPtr<IGreeter> Hold(Obj);
  IPtr<IGreeter> G;
  EXPECT_TRUE(Supports(static_cast<TObject*>(Obj), G));
  EXPECT_EQ(Obj->RefCount(), 2);
  EXPECT_FALSE(Supports(static_cast<TObject*>(Obj), IIDOf<IOther>));
  EXPECT_TRUE(Supports(static_cast<TObject*>(Obj), IIDOf<IGreeter>));
  EXPECT_EQ(Obj->RefCount(), 2);  // the test form released what it got
  EXPECT_FALSE(Supports(static_cast<TObject*>(nullptr), IIDOf<IGreeter>));
  EXPECT_FALSE(Supports(static_cast<IInterface*>(nullptr), IIDOf<IGreeter>));
  TObject Plain;
  EXPECT_FALSE(Supports(&Plain, IIDOf<IInterface>));
  EXPECT_THROW(GetIntf<IGreeter>(&Plain), EIntfCastError);
  EXPECT_EQ(GetIntf<IGreeter>(Obj)->Greet(), 42);
}

TEST(Com, ReferenceCountIsExactUnderConcurrentUse) {
  auto* Obj = new TGreeter;
  IPtr<IGreeter> Root(Obj);
  std::vector<std::thread> Threads;
  for (int T = 0; T < 4; ++T)
    Threads.emplace_back([&] {
      for (int I = 0; I < 20000; ++I) {
        IPtr<IGreeter> Copy(Root.get());
        IPtr<IGreeter> Another = Copy;
      }
    });
  for (auto& T : Threads) T.join();
  EXPECT_EQ(Obj->RefCount(), 1);
  EXPECT_EQ(Live, 1);
  Root = nullptr;
  EXPECT_EQ(Live, 0);
}

TEST(Com, InterfaceListHoldsCountedReferences) {
  IPtr<TInterfaceList> List(new TInterfaceList);
  IPtr<IGreeter> A(new TGreeter), B(new TGreeter);
  EXPECT_EQ(List->Add(A), 0);
  EXPECT_EQ(List->Add(B), 1);
  EXPECT_EQ(List->Add(A), 2);
  List->Insert(0, B);
  EXPECT_EQ(List->Count(), 4);
  EXPECT_EQ(List->IndexOf(A), 1);
  EXPECT_EQ(List->IndexOf(nullptr), -1);
  EXPECT_EQ(List->First().get(), static_cast<IInterface*>(B.get()));
  EXPECT_EQ(List->Last().get(), static_cast<IInterface*>(A.get()));
  List->Exchange(0, 3);
  EXPECT_EQ(List->Get(0).get(), static_cast<IInterface*>(A.get()));
  EXPECT_EQ(List->Remove(A), 0);  // first occurrence only
  EXPECT_EQ(List->IndexOf(A), 0);
  List->Put(1, nullptr);
  List->Delete(1);
  EXPECT_EQ(List->Count(), 2);
  List->SetCount(4);
  EXPECT_EQ(List->Get(3).get(), nullptr);

  A = nullptr;
  B = nullptr;
  EXPECT_EQ(Live, 2);  // held by the list
  List->Clear();
  EXPECT_EQ(Live, 0);
  EXPECT_EQ(List->Count(), 0);
}

TEST(Com, InterfaceListIndexErrors) {
  IPtr<TInterfaceList> List(new TInterfaceList);
  EXPECT_EQ(vel_test::Raised<EListError>([&] { List->Last(); }), "List index out of bounds (-1)");
  EXPECT_EQ(vel_test::Raised<EListError>([&] { List->First(); }), "List index out of bounds (0)");
  List->Add(nullptr);
  EXPECT_EQ(vel_test::Raised<EListError>([&] { List->Get(1); }), "List index out of bounds (1)");
  EXPECT_EQ(vel_test::Raised<EListError>([&] { List->Put(-1, nullptr); }),
            "List index out of bounds (-1)");
  EXPECT_EQ(vel_test::Raised<EListError>([&] { List->Insert(3, nullptr); }),
            "List index out of bounds (3)");
  EXPECT_EQ(vel_test::Raised<EListError>([&] { List->Exchange(0, 5); }),
            "List index out of bounds (5)");
  EXPECT_EQ(vel_test::Raised<EListError>([&] { List->Delete(2); }), "List index out of bounds (2)");
  EXPECT_EQ(vel_test::Raised<EListError>([&] { List->SetCount(-1); }),
            "List count out of bounds (-1)");
  EXPECT_EQ(vel_test::Raised<EListError>([&] { List->SetCapacity(0); }),
            "List capacity out of bounds (0)");
  EXPECT_EQ(List->Count(), 1);
}

TEST(Com, InterfaceListLocksAcrossThreads) {
  IPtr<TInterfaceList> List(new TInterfaceList);
  IPtr<IGreeter> G(new TGreeter);
  std::vector<std::thread> Threads;
  for (int T = 0; T < 4; ++T)
    Threads.emplace_back([&] {
      for (int I = 0; I < 500; ++I) {
        List->Add(G);
        if (I % 2) List->Remove(G);
      }
    });
  for (auto& T : Threads) T.join();
  EXPECT_EQ(List->Count(), 4 * 250);

  // A held Lock makes another thread's operation wait for Unlock.
  std::atomic<bool> Added{false};
  List->Lock();
  List->Lock();  // recursive
  std::thread Other([&] {
    List->Add(nullptr);
    Added = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(Added);
  List->Unlock();
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_FALSE(Added);
  List->Unlock();
  Other.join();
  EXPECT_TRUE(Added);
}

TEST(Com, StreamAdapterExposesATStream) {
  bool Freed = false;
  auto* S = new TTracedStream(&Freed);
  {
    IPtr<IStream> Stm(new TStreamAdapter(S, soReference));
    uint32_t N = 0;
    EXPECT_EQ(Stm->Write("abcdef", 6, &N), S_OK);
    EXPECT_EQ(N, 6u);
    uint64_t Pos = 99;
    EXPECT_EQ(Stm->Seek(-4, STREAM_SEEK_END, &Pos), S_OK);
    EXPECT_EQ(Pos, 2u);
    char Buf[8] = {};
    EXPECT_EQ(Stm->Read(Buf, 8, &N), S_OK);  // short read at the end
    EXPECT_EQ(N, 4u);
    EXPECT_STREQ(Buf, "cdef");
    EXPECT_EQ(Stm->Read(nullptr, 1, &N), STG_E_INVALIDPOINTER);
    EXPECT_EQ(Stm->Write(nullptr, 1, &N), STG_E_INVALIDPOINTER);
    EXPECT_EQ(Stm->Seek(0, 3, nullptr), STG_E_INVALIDFUNCTION);
    STATSTG St;
    St.cbSize = 1234;
    EXPECT_EQ(Stm->Stat(&St, STATFLAG_DEFAULT), S_OK);
    EXPECT_EQ(St.type, STGTY_STREAM);
    EXPECT_EQ(St.cbSize, 6u);
    EXPECT_EQ(St.grfLocksSupported, LOCK_WRITE);
    EXPECT_EQ(Stm->SetSize(3), S_OK);
    EXPECT_EQ(S->GetSize(), 3);
    EXPECT_EQ(Stm->Commit(STGC_DEFAULT), S_OK);
    EXPECT_EQ(Stm->Revert(), STG_E_REVERTED);
    EXPECT_EQ(Stm->LockRegion(0, 1, LOCK_WRITE), STG_E_INVALIDFUNCTION);
    IStream* Clone = reinterpret_cast<IStream*>(1);
    EXPECT_EQ(Stm->Clone(&Clone), E_NOTIMPL);
    EXPECT_EQ(Clone, nullptr);

    // CopyTo through another adapter.
    auto* Target = new TMemoryStream;
    IPtr<IStream> Dest(new TStreamAdapter(Target, soOwned));
    Stm->Seek(0, STREAM_SEEK_SET, nullptr);
    uint64_t Read = 0, Written = 0;
    EXPECT_EQ(Stm->CopyTo(Dest, 100, &Read, &Written), S_OK);
    EXPECT_EQ(Read, 3u);
    EXPECT_EQ(Written, 3u);
    ASSERT_EQ(Target->GetSize(), 3);
    EXPECT_EQ(std::memcmp(Target->Memory(), "abc", 3), 0);
  }
  EXPECT_FALSE(Freed);  // reference ownership
  { IPtr<IStream> Owner(new TStreamAdapter(S, soOwned)); }
  EXPECT_TRUE(Freed);
}

TEST(Com, OleStreamAndOleCheckRaiseWithTheSystemText) {
  auto* Mem = new TMemoryStream;
  IPtr<IStream> Stm(new TStreamAdapter(Mem, soOwned));
  TOleStream Ole(Stm);
  Ole.WriteU32LE(0xA1B2C3D4);
  EXPECT_EQ(Ole.GetSize(), 4);
  Ole.SetPosition(0);
  EXPECT_EQ(Ole.ReadU32LE(), 0xA1B2C3D4u);
  EXPECT_THROW(Ole.ReadU8(), EReadError);
  EXPECT_EQ(Ole.GetIStream().get(), Stm.get());

  IPtr<IStream> Bad(new TFailingStream(E_FAIL));
  TOleStream Failing(Bad);
  char C;
  try {
    Failing.Read(&C, 1);
    FAIL();
  } catch (const EOleSysError& E) {
    EXPECT_EQ(E.Message(), "Unspecified error");
    EXPECT_EQ(E.ErrorCode(), E_FAIL);
  }
  EXPECT_THROW(Failing.Seek(0, soBeginning), EOleSysError);

  // OleCheck raises with the system's text, or the code for unknown ones.
  EXPECT_EQ(OleCheck(S_FALSE), S_FALSE);
  try {
    OleCheck(E_NOINTERFACE);
    FAIL();
  } catch (const EOleSysError& E) {
    EXPECT_EQ(E.Message(), "No such interface supported");
    EXPECT_EQ(E.ErrorCode(), E_NOINTERFACE);
  }
  try {
    OleCheck(STG_E_REVERTED);
    FAIL();
  } catch (const EOleSysError& E) {
    EXPECT_EQ(E.Message(), "OLE error 80030102");
  }
  EXPECT_EQ(EOleSysError("own text", E_FAIL).Message(), "own text");
}

TEST(Com, ApartmentsArePerThreadWithTheSystemCodes) {
  auto Check = [](bool MainThread) {
    APTTYPE Type;
    int32_t Q = -1;
    EXPECT_EQ(CoGetApartmentType(&Type, &Q), CO_E_NOTINITIALIZED);
    EXPECT_EQ(CoInitializeEx(reinterpret_cast<void*>(1), COINIT_MULTITHREADED), E_INVALIDARG);
    EXPECT_EQ(CoInitialize(nullptr), S_OK);
    EXPECT_EQ(CoInitialize(nullptr), S_FALSE);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), RPC_E_CHANGED_MODE);
    EXPECT_EQ(CoGetApartmentType(&Type, &Q), S_OK);
    EXPECT_EQ(Type, MainThread ? APTTYPE_MAINSTA : APTTYPE_STA);
    EXPECT_EQ(Q, 0);
    CoUninitialize();
    EXPECT_EQ(CoGetApartmentType(&Type, &Q), S_OK);  // still one level
    CoUninitialize();
    CoUninitialize();  // one too many: ignored
    EXPECT_EQ(CoGetApartmentType(&Type, &Q), CO_E_NOTINITIALIZED);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    EXPECT_EQ(CoInitialize(nullptr), RPC_E_CHANGED_MODE);
    EXPECT_EQ(CoGetApartmentType(&Type, &Q), S_OK);
    EXPECT_EQ(Type, APTTYPE_MTA);
    CoUninitialize();
  };
  ASSERT_EQ(GetCurrentThreadId(), MainThreadID());
  EXPECT_EQ(CoInitialize(nullptr), S_OK);
  std::thread Other([&] { Check(false); });  // the main thread's state is not shared
  Other.join();
  CoUninitialize();
  Check(true);
}

TEST(Com, MarshalledInterfaceTravelsAsACountedReference) {
  IStream* Stm = nullptr;
  {
    IPtr<IGreeter> G(new TGreeter);
    std::thread Producer(
        [&] { EXPECT_EQ(CoMarshalInterThreadInterfaceInStream(IIDOf<IGreeter>, G, &Stm), S_OK); });
    Producer.join();
  }
  ASSERT_NE(Stm, nullptr);
  EXPECT_EQ(Live, 1);  // kept alive by the stream alone

  // The stream's bytes are the interface identifier, little-endian.
  STATSTG St;
  ASSERT_EQ(Stm->Stat(&St, STATFLAG_NONAME), S_OK);
  EXPECT_EQ(St.cbSize, 16u);
  uint8_t Bytes[16];
  uint32_t N = 0;
  ASSERT_EQ(Stm->Read(Bytes, 16, &N), S_OK);
  const uint8_t Expected[16] = {0x10, 0x8A, 0x4F, 0x5D, 0x11, 0x11, 0x00, 0x40,
                                0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0xA0, 0x01};
  EXPECT_EQ(std::memcmp(Bytes, Expected, 16), 0);

  int Greeting = 0;
  std::thread Consumer([&] {
    IPtr<IGreeter> Got;
    EXPECT_EQ(CoGetInterfaceAndReleaseStream(Stm, IIDOf<IGreeter>, Got.Out()), S_OK);
    Greeting = Got->Greet();
  });
  Consumer.join();
  EXPECT_EQ(Greeting, 42);
  EXPECT_EQ(Live, 0);  // the stream and the consumer let go
}

TEST(Com, MarshallingFailuresAndForeignStreams) {
  IPtr<IGreeter> G(new TGreeter);
  IStream* Stm = reinterpret_cast<IStream*>(1);
  EXPECT_EQ(CoMarshalInterThreadInterfaceInStream(IIDOf<IOther>, G, &Stm), E_NOINTERFACE);
  EXPECT_EQ(Stm, nullptr);
  EXPECT_EQ(CoMarshalInterThreadInterfaceInStream(IIDOf<IGreeter>, nullptr, &Stm), E_INVALIDARG);
  EXPECT_EQ(CoMarshalInterThreadInterfaceInStream(IIDOf<IGreeter>, G, nullptr), E_INVALIDARG);

  // Unmarshalling into an interface the object lacks still consumes the
  // stream and its reference.
  ASSERT_EQ(CoMarshalInterThreadInterfaceInStream(IIDOf<IGreeter>, G, &Stm), S_OK);
  void* Obj = reinterpret_cast<void*>(1);
  EXPECT_EQ(CoGetInterfaceAndReleaseStream(Stm, IIDOf<IOther>, &Obj), E_NOINTERFACE);
  EXPECT_EQ(Obj, nullptr);
  EXPECT_EQ(static_cast<TGreeter*>(G.get())->RefCount(), 1);

  // A stream that carries nothing is refused and released.
  bool Freed = false;
  IStream* Plain = new TStreamAdapter(new TTracedStream(&Freed), soOwned);
  Plain->_AddRef();
  EXPECT_EQ(CoGetInterfaceAndReleaseStream(Plain, IIDOf<IGreeter>, &Obj), E_INVALIDARG);
  EXPECT_TRUE(Freed);
}
