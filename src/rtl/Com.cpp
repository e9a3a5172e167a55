#include "vel/rtl/Com.h"

#include <sys/random.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "vel/rtl/Lists.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

namespace {

constexpr const char* SListIndexError = "List index out of bounds (%d)";
constexpr const char* SListCapacityError = "List capacity out of bounds (%d)";
constexpr const char* SListCountError = "List count out of bounds (%d)";

// The platform's texts for the codes this runtime produces, as its
// SysErrorMessage gives them (trailing period removed).
struct THResultText {
  HRESULT Code;
  const char* Text;
};
constexpr THResultText HResultTexts[] = {
    {E_NOTIMPL, "Not implemented"},
    {E_NOINTERFACE, "No such interface supported"},
    {E_POINTER, "Invalid pointer"},
    {E_ABORT, "Operation aborted"},
    {E_FAIL, "Unspecified error"},
    {E_UNEXPECTED, "Catastrophic failure"},
    {E_ACCESSDENIED, "Access is denied"},
    {E_HANDLE, "The handle is invalid"},
    {E_OUTOFMEMORY, "Not enough storage is available to complete this operation"},
    {E_INVALIDARG, "The parameter is incorrect"},
    {RPC_E_CHANGED_MODE, "Cannot change thread mode after it is set"},
    {CO_E_NOTINITIALIZED, "CoInitialize has not been called"},
    {CLASS_E_NOAGGREGATION, "Class does not support aggregation (or class object is remote)"},
    {REGDB_E_CLASSNOTREG, "Class not registered"},
    {STG_E_INVALIDFUNCTION, "Unable to perform requested operation"},
    {STG_E_ACCESSDENIED, "Access Denied"},
    {STG_E_INVALIDPOINTER, "Invalid pointer error"},
    {STG_E_MEDIUMFULL, "There is insufficient disk space to complete operation"},
};

// The apartment of the calling thread.
struct TApartment {
  int32_t Count = 0;
  bool MultiThreaded = false;
};
thread_local TApartment CurrentApartment;

}  // namespace

// ---------------------------------------------------------------------------
// Messages and exceptions

std::string HResultMessage(HRESULT Code) {
  for (const THResultText& T : HResultTexts)
    if (T.Code == Code) return T.Text;
  return std::string();
}

EOleSysError::EOleSysError(std::string Msg, HRESULT ErrorCode, int32_t HelpContext)
    : EOleError(Msg.empty() ? HResultMessage(ErrorCode) : std::move(Msg)),
      FErrorCode(ErrorCode),
      FHelpContext(HelpContext) {
  if (Message().empty())
    SetMessage(Format(SOleError, {static_cast<int>(static_cast<uint32_t>(ErrorCode))}));
}

void OleError(HRESULT ErrorCode) {
  throw EOleSysError(std::string(), ErrorCode);
}

HRESULT OleCheck(HRESULT Res) {
  if (Failed(Res)) OleError(Res);
  return Res;
}

void RaiseIntfCastError() {
  throw EIntfCastError(SIntfCastError);
}

// ---------------------------------------------------------------------------
// GUID

void detail::RaiseInvalidGUID(std::string_view S) {
  throw EConvertError(Format(SInvalidGUID, {S}));
}

std::string GUIDToString(const TGUID& G) {
  char Buf[40];
  std::snprintf(Buf, sizeof Buf, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                static_cast<unsigned>(G.D1), static_cast<unsigned>(G.D2),
                static_cast<unsigned>(G.D3), G.D4[0], G.D4[1], G.D4[2], G.D4[3], G.D4[4], G.D4[5],
                G.D4[6], G.D4[7]);
  return Buf;
}

TGUID StringToGUID(std::string_view S) {
  return TGUID::Parse(S);
}

TGUID CreateGUID() {
  uint8_t B[16];
  size_t Got = 0;
  while (Got < sizeof B) {
    ssize_t N = getrandom(B + Got, sizeof B - Got, 0);
    if (N <= 0) break;
    Got += static_cast<size_t>(N);
  }
  if (Got < sizeof B) {
    std::random_device Rd;
    for (uint8_t& X : B) X = static_cast<uint8_t>(Rd());
  }
  TGUID G;
  G.D1 = static_cast<uint32_t>(B[0]) | static_cast<uint32_t>(B[1]) << 8 |
         static_cast<uint32_t>(B[2]) << 16 | static_cast<uint32_t>(B[3]) << 24;
  G.D2 = static_cast<uint16_t>(B[4] | B[5] << 8);
  G.D3 = static_cast<uint16_t>(((B[6] | B[7] << 8) & 0x0FFF) | 0x4000);
  std::memcpy(G.D4, B + 8, 8);
  G.D4[0] = static_cast<uint8_t>((G.D4[0] & 0x3F) | 0x80);
  return G;
}

// ---------------------------------------------------------------------------
// Supports

bool Supports(IInterface* Instance, const TGUID& IID, void** Intf) {
  if (!Intf) return false;
  *Intf = nullptr;
  if (!Instance) return false;
  void* P = nullptr;
  if (Instance->QueryInterface(IID, &P) != S_OK || !P) return false;
  *Intf = P;
  return true;
}

bool Supports(IInterface* Instance, const TGUID& IID) {
  void* P = nullptr;
  if (!Supports(Instance, IID, &P)) return false;
  detail::AsUnknown(P)->_Release();
  return true;
}

bool Supports(TObject* Instance, const TGUID& IID, void** Intf) {
  if (!Intf) return false;
  *Intf = nullptr;
  return Instance && Instance->GetInterface(IID, Intf);
}

bool Supports(TObject* Instance, const TGUID& IID) {
  void* P = nullptr;
  if (!Supports(Instance, IID, &P)) return false;
  detail::AsUnknown(P)->_Release();
  return true;
}

// ---------------------------------------------------------------------------
// TInterfacedObject

VEL_IMPLEMENT(TInterfacedObject)

TInterfacedObject::~TInterfacedObject() = default;

HRESULT TInterfacedObject::QueryInterface(const TGUID& IID, void** Obj) {
  if (!Obj) return E_POINTER;
  if (GetInterface(IID, Obj)) return S_OK;
  *Obj = nullptr;
  return E_NOINTERFACE;
}

int32_t TInterfacedObject::_AddRef() {
  return FRefCount.fetch_add(1, std::memory_order_relaxed) + 1;
}

int32_t TInterfacedObject::_Release() {
  int32_t N = FRefCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (N == 0) delete this;
  return N;
}

// ---------------------------------------------------------------------------
// TInterfaceList

VEL_IMPLEMENT(TInterfaceList)

namespace {}  // namespace

TInterfaceList::~TInterfaceList() = default;

void TInterfaceList::CheckIndex(int32_t Index) const {
  if (Index < 0 || Index >= static_cast<int32_t>(FItems.size()))
    throw EListError(Format(SListIndexError, {Index}));
}

IPtr<IInterface> TInterfaceList::Get(int32_t Index) {
  std::lock_guard<std::recursive_mutex> L(FLock);
  CheckIndex(Index);
  return FItems[static_cast<size_t>(Index)];
}

int32_t TInterfaceList::GetCapacity() {
  std::lock_guard<std::recursive_mutex> L(FLock);
  return static_cast<int32_t>(FItems.capacity());
}

int32_t TInterfaceList::GetCount() {
  std::lock_guard<std::recursive_mutex> L(FLock);
  return static_cast<int32_t>(FItems.size());
}

void TInterfaceList::Put(int32_t Index, IInterface* Item) {
  IPtr<IInterface> Old;
  {
    std::lock_guard<std::recursive_mutex> L(FLock);
    CheckIndex(Index);
    Old = std::move(FItems[static_cast<size_t>(Index)]);
    FItems[static_cast<size_t>(Index)] = Item;
  }
}

void TInterfaceList::SetCapacity(int32_t NewCapacity) {
  std::lock_guard<std::recursive_mutex> L(FLock);
  if (NewCapacity < static_cast<int32_t>(FItems.size()) || NewCapacity > MaxListSize)
    throw EListError(Format(SListCapacityError, {NewCapacity}));
  if (static_cast<size_t>(NewCapacity) > FItems.capacity())
    FItems.reserve(static_cast<size_t>(NewCapacity));
  else
    FItems.shrink_to_fit();
}

void TInterfaceList::SetCount(int32_t NewCount) {
  std::vector<IPtr<IInterface>> Gone;
  {
    std::lock_guard<std::recursive_mutex> L(FLock);
    if (NewCount < 0 || NewCount > MaxListSize)
      throw EListError(Format(SListCountError, {NewCount}));
    size_t N = static_cast<size_t>(NewCount);
    if (N < FItems.size()) {
      Gone.assign(std::make_move_iterator(FItems.begin() + static_cast<ptrdiff_t>(N)),
                  std::make_move_iterator(FItems.end()));
    }
    FItems.resize(N);
  }
}

void TInterfaceList::Clear() {
  std::vector<IPtr<IInterface>> Gone;
  {
    std::lock_guard<std::recursive_mutex> L(FLock);
    Gone.swap(FItems);
  }
}

void TInterfaceList::Delete(int32_t Index) {
  IPtr<IInterface> Old;
  {
    std::lock_guard<std::recursive_mutex> L(FLock);
    CheckIndex(Index);
    Old = std::move(FItems[static_cast<size_t>(Index)]);
    FItems.erase(FItems.begin() + Index);
  }
}

void TInterfaceList::Exchange(int32_t Index1, int32_t Index2) {
  std::lock_guard<std::recursive_mutex> L(FLock);
  CheckIndex(Index1);
  CheckIndex(Index2);
  std::swap(FItems[static_cast<size_t>(Index1)], FItems[static_cast<size_t>(Index2)]);
}

IPtr<IInterface> TInterfaceList::First() {
  return Get(0);
}

IPtr<IInterface> TInterfaceList::Last() {
  std::lock_guard<std::recursive_mutex> L(FLock);
  return Get(static_cast<int32_t>(FItems.size()) - 1);
}

int32_t TInterfaceList::IndexOf(IInterface* Item) {
  std::lock_guard<std::recursive_mutex> L(FLock);
  for (size_t I = 0; I < FItems.size(); ++I)
    if (FItems[I].get() == Item) return static_cast<int32_t>(I);
  return -1;
}

int32_t TInterfaceList::Add(IInterface* Item) {
  std::lock_guard<std::recursive_mutex> L(FLock);
  if (FItems.size() >= static_cast<size_t>(MaxListSize))
    throw EListError(Format(SListCountError, {MaxListSize + 1}));
  FItems.emplace_back(Item);
  return static_cast<int32_t>(FItems.size()) - 1;
}

void TInterfaceList::Insert(int32_t Index, IInterface* Item) {
  std::lock_guard<std::recursive_mutex> L(FLock);
  if (Index < 0 || Index > static_cast<int32_t>(FItems.size()))
    throw EListError(Format(SListIndexError, {Index}));
  FItems.emplace(FItems.begin() + Index, Item);
}

int32_t TInterfaceList::Remove(IInterface* Item) {
  IPtr<IInterface> Old;
  std::lock_guard<std::recursive_mutex> L(FLock);
  int32_t Index = IndexOf(Item);
  if (Index >= 0) {
    Old = std::move(FItems[static_cast<size_t>(Index)]);
    FItems.erase(FItems.begin() + Index);
  }
  return Index;
}

void TInterfaceList::Lock() {
  FLock.lock();
}
void TInterfaceList::Unlock() {
  FLock.unlock();
}

// ---------------------------------------------------------------------------
// TStreamAdapter

VEL_IMPLEMENT(TStreamAdapter)

TStreamAdapter::TStreamAdapter(TStream* Stream, TStreamOwnership Ownership)
    : FStream(Stream), FOwnership(Ownership) {}

TStreamAdapter::~TStreamAdapter() {
  if (FOwnership == soOwned) delete FStream;
}

HRESULT TStreamAdapter::Read(void* pv, uint32_t cb, uint32_t* pcbRead) {
  try {
    if (!pv) return STG_E_INVALIDPOINTER;
    int64_t N = FStream->Read(pv, cb);
    if (N < 0) N = 0;
    if (pcbRead) *pcbRead = static_cast<uint32_t>(N);
    return S_OK;
  } catch (...) {
    return S_FALSE;
  }
}

HRESULT TStreamAdapter::Write(const void* pv, uint32_t cb, uint32_t* pcbWritten) {
  try {
    if (!pv) return STG_E_INVALIDPOINTER;
    int64_t N = FStream->Write(pv, cb);
    if (N < 0) N = 0;
    if (pcbWritten) *pcbWritten = static_cast<uint32_t>(N);
    return S_OK;
  } catch (...) {
    return STG_E_CANTSAVE;
  }
}

HRESULT TStreamAdapter::Seek(int64_t dlibMove, uint32_t dwOrigin, uint64_t* plibNewPosition) {
  try {
    if (dwOrigin > STREAM_SEEK_END) return STG_E_INVALIDFUNCTION;
    int64_t Pos = FStream->Seek(dlibMove, static_cast<TSeekOrigin>(dwOrigin));
    if (Pos < 0) return STG_E_INVALIDFUNCTION;
    if (plibNewPosition) *plibNewPosition = static_cast<uint64_t>(Pos);
    return S_OK;
  } catch (...) {
    return STG_E_INVALIDPOINTER;
  }
}

HRESULT TStreamAdapter::SetSize(uint64_t libNewSize) {
  try {
    if (libNewSize > static_cast<uint64_t>(INT64_MAX)) return STG_E_INVALIDFUNCTION;
    FStream->SetSize(static_cast<int64_t>(libNewSize));
    if (FStream->GetSize() != static_cast<int64_t>(libNewSize)) return E_FAIL;
    return S_OK;
  } catch (...) {
    return E_UNEXPECTED;
  }
}

HRESULT TStreamAdapter::CopyTo(IStream* pstm, uint64_t cb, uint64_t* pcbRead,
                               uint64_t* pcbWritten) {
  if (!pstm) return STG_E_INVALIDPOINTER;
  constexpr uint64_t MaxBufSize = 1024 * 1024;
  HRESULT Res = S_OK;
  uint64_t BytesRead = 0, BytesWritten = 0;
  try {
    std::vector<uint8_t> Buffer(static_cast<size_t>(std::min<uint64_t>(cb, MaxBufSize)));
    while (cb > 0) {
      uint32_t Chunk = static_cast<uint32_t>(std::min<uint64_t>(cb, MaxBufSize));
      int64_t Got = FStream->Read(Buffer.data(), Chunk);
      if (Got <= 0) break;
      BytesRead += static_cast<uint64_t>(Got);
      uint32_t Put = 0;
      Res = pstm->Write(Buffer.data(), static_cast<uint32_t>(Got), &Put);
      BytesWritten += Put;
      if (Res != S_OK || Put != static_cast<uint32_t>(Got)) break;
      cb -= static_cast<uint64_t>(Got);
    }
  } catch (...) {
    Res = E_UNEXPECTED;
  }
  if (pcbRead) *pcbRead = BytesRead;
  if (pcbWritten) *pcbWritten = BytesWritten;
  return Res;
}

HRESULT TStreamAdapter::Commit(uint32_t) {
  return S_OK;
}
HRESULT TStreamAdapter::Revert() {
  return STG_E_REVERTED;
}
HRESULT TStreamAdapter::LockRegion(uint64_t, uint64_t, uint32_t) {
  return STG_E_INVALIDFUNCTION;
}
HRESULT TStreamAdapter::UnlockRegion(uint64_t, uint64_t, uint32_t) {
  return STG_E_INVALIDFUNCTION;
}

HRESULT TStreamAdapter::Stat(STATSTG* pstatstg, uint32_t) {
  if (!pstatstg) return STG_E_INVALIDPOINTER;
  try {
    *pstatstg = STATSTG();
    pstatstg->type = STGTY_STREAM;
    pstatstg->cbSize = static_cast<uint64_t>(std::max<int64_t>(FStream->GetSize(), 0));
    pstatstg->grfLocksSupported = LOCK_WRITE;
    return S_OK;
  } catch (...) {
    return E_UNEXPECTED;
  }
}

HRESULT TStreamAdapter::Clone(IStream** ppstm) {
  if (ppstm) *ppstm = nullptr;
  return E_NOTIMPL;
}

// ---------------------------------------------------------------------------
// TOleStream

VEL_IMPLEMENT(TOleStream)

TOleStream::TOleStream(IStream* Stream) : FStream(Stream) {}
TOleStream::~TOleStream() = default;

int64_t TOleStream::Read(void* Buffer, int64_t Count) {
  int64_t Total = 0;
  auto* P = static_cast<uint8_t*>(Buffer);
  while (Count > 0) {
    uint32_t Chunk = static_cast<uint32_t>(std::min<int64_t>(Count, 0x40000000));
    uint32_t Got = 0;
    OleCheck(FStream->Read(P + Total, Chunk, &Got));
    Total += Got;
    Count -= Got;
    if (Got < Chunk) break;
  }
  return Total;
}

int64_t TOleStream::Write(const void* Buffer, int64_t Count) {
  int64_t Total = 0;
  auto* P = static_cast<const uint8_t*>(Buffer);
  while (Count > 0) {
    uint32_t Chunk = static_cast<uint32_t>(std::min<int64_t>(Count, 0x40000000));
    uint32_t Put = 0;
    OleCheck(FStream->Write(P + Total, Chunk, &Put));
    Total += Put;
    Count -= Put;
    if (Put < Chunk) break;
  }
  return Total;
}

int64_t TOleStream::Seek(int64_t Offset, TSeekOrigin Origin) {
  uint64_t Pos = 0;
  OleCheck(FStream->Seek(Offset, static_cast<uint32_t>(Origin), &Pos));
  return static_cast<int64_t>(Pos);
}

void TOleStream::SetSize(int64_t NewSize) {
  OleCheck(FStream->SetSize(static_cast<uint64_t>(std::max<int64_t>(NewSize, 0))));
}

// ---------------------------------------------------------------------------
// Apartments

HRESULT CoInitializeEx(void* Reserved, uint32_t CoInit) {
  if (Reserved) return E_INVALIDARG;
  bool Multi = (CoInit & COINIT_APARTMENTTHREADED) == 0;
  TApartment& A = CurrentApartment;
  if (A.Count > 0) {
    if (A.MultiThreaded != Multi) return RPC_E_CHANGED_MODE;
    ++A.Count;
    return S_FALSE;
  }
  A.Count = 1;
  A.MultiThreaded = Multi;
  return S_OK;
}

HRESULT CoInitialize(void* Reserved) {
  return CoInitializeEx(Reserved, COINIT_APARTMENTTHREADED);
}

void CoUninitialize() {
  TApartment& A = CurrentApartment;
  if (A.Count > 0) --A.Count;
}

HRESULT CoGetApartmentType(APTTYPE* AptType, int32_t* AptQualifier) {
  if (!AptType || !AptQualifier) return E_INVALIDARG;
  *AptQualifier = 0;
  const TApartment& A = CurrentApartment;
  if (A.Count == 0) {
    *AptType = APTTYPE_CURRENT;
    return CO_E_NOTINITIALIZED;
  }
  if (A.MultiThreaded)
    *AptType = APTTYPE_MTA;
  else
    *AptType = GetCurrentThreadId() == MainThreadID() ? APTTYPE_MAINSTA : APTTYPE_STA;
  return S_OK;
}

// ---------------------------------------------------------------------------
// Marshalling between threads

namespace {

// What a marshalling stream carries besides its bytes.
struct VEL_LOCAL IMarshalledInterface : IInterface {
  VEL_INTERFACE_ID("{6A1F3C52-8E0B-4D71-9A65-2C4B7D10E8F3}")
  // Moves the interface out; E_UNEXPECTED when it was already taken.
  virtual HRESULT Take(IPtr<IInterface>& Intf) = 0;
};

// A memory stream holding the identifier of the marshalled interface (16
// bytes, little-endian) and a counted reference to it.
class VEL_LOCAL TMarshalStream : public TStreamAdapter, public IMarshalledInterface {
  VEL_CLASS(TMarshalStream, TStreamAdapter)
  VEL_INTERFACES(IMarshalledInterface)
 public:
  TMarshalStream(IPtr<IInterface> Intf, const TGUID& IID)
      : TStreamAdapter(new TMemoryStream, soOwned), FIntf(std::move(Intf)) {
    uint8_t B[16];
    for (int I = 0; I < 4; ++I) B[I] = static_cast<uint8_t>(IID.D1 >> (8 * I));
    B[4] = static_cast<uint8_t>(IID.D2);
    B[5] = static_cast<uint8_t>(IID.D2 >> 8);
    B[6] = static_cast<uint8_t>(IID.D3);
    B[7] = static_cast<uint8_t>(IID.D3 >> 8);
    std::memcpy(B + 8, IID.D4, 8);
    Stream()->WriteBuffer(B, sizeof B);
    Stream()->SetPosition(0);
  }

  HRESULT Take(IPtr<IInterface>& Intf) override {
    std::lock_guard<std::mutex> L(FLock);
    if (!FIntf) return E_UNEXPECTED;
    Intf = std::move(FIntf);
    return S_OK;
  }

 private:
  std::mutex FLock;
  IPtr<IInterface> FIntf;
};

}  // namespace

VEL_IMPLEMENT(TMarshalStream)

HRESULT CoMarshalInterThreadInterfaceInStream(const TGUID& IID, IInterface* Unk, IStream** Stm) {
  if (!Stm) return E_INVALIDARG;
  *Stm = nullptr;
  if (!Unk) return E_INVALIDARG;
  void* P = nullptr;
  HRESULT Res = Unk->QueryInterface(IID, &P);
  if (Res != S_OK || !P) return Failed(Res) ? Res : E_NOINTERFACE;
  IPtr<IInterface> Intf = IPtr<IInterface>::Attach(detail::AsUnknown(P));
  try {
    IStream* S = new TMarshalStream(std::move(Intf), IID);
    S->_AddRef();
    *Stm = S;
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_UNEXPECTED;
  }
}

HRESULT CoGetInterfaceAndReleaseStream(IStream* Stm, const TGUID& IID, void** Obj) {
  if (!Obj) {
    if (Stm) Stm->_Release();
    return E_INVALIDARG;
  }
  *Obj = nullptr;
  if (!Stm) return E_INVALIDARG;
  IPtr<IStream> Stream = IPtr<IStream>::Attach(Stm);  // released on return
  IPtr<IMarshalledInterface> M;
  if (!Supports(static_cast<IInterface*>(Stream.get()), M)) return E_INVALIDARG;
  IPtr<IInterface> Intf;
  HRESULT Res = M->Take(Intf);
  if (Res != S_OK) return Res;
  Res = Intf->QueryInterface(IID, Obj);
  return Res == S_OK ? S_OK : (Failed(Res) ? Res : E_NOINTERFACE);
}

// ---------------------------------------------------------------------------
// Attachable COM objects

std::atomic<TCreateVCLComObjectProc> CreateVCLComObjectProc{nullptr};

TVCLComObjectHolder::~TVCLComObjectHolder() {
  if (FVCLComObject) detail::DetachVCLComObject(this);
}

void detail::DetachVCLComObject(TVCLComObjectHolder* Holder) {
  IVCLComObject* C = Holder->VCLComObject();
  if (!C) return;
  if (auto* T = dynamic_cast<TVCLComObject*>(C)) T->ObjectDestroyed();
  Holder->SetVCLComObject(nullptr);
}

HRESULT DefaultSafeCallException(std::exception_ptr, void*) {
  return E_UNEXPECTED;
}

VEL_IMPLEMENT(TVCLComObject)

TVCLComObject::TVCLComObject(TObject* Obj)
    : FObject(Obj), FHolder(dynamic_cast<TVCLComObjectHolder*>(Obj)) {
  if (!FHolder) RaiseIntfCastError();
  FHolder->SetVCLComObject(this);
}

TVCLComObject::~TVCLComObject() {
  TObject* Obj = FObject;
  if (!Obj) return;
  if (FHolder->VCLComObject() == static_cast<IVCLComObject*>(this))
    FHolder->SetVCLComObject(nullptr);
  FObject = nullptr;
  if (FFreeOnRelease) delete Obj;
}

bool TVCLComObject::GetInterface(const TGUID& IID, void** Obj) {
  if (detail::FindInterface<TVCLComObject, IVCLComObject, IDispatch>(this, IID, Obj)) return true;
  if (TInterfacedObject::GetInterface(IID, Obj)) return true;
  return FObject && FObject->GetInterface(IID, Obj);
}

HRESULT TVCLComObject::GetTypeInfoCount(int32_t* Count) {
  if (Count) *Count = 0;
  return E_NOTIMPL;
}
HRESULT TVCLComObject::GetTypeInfo(int32_t, int32_t, void** TypeInfo) {
  if (TypeInfo) *TypeInfo = nullptr;
  return E_NOTIMPL;
}
HRESULT TVCLComObject::GetIDsOfNames(const TGUID&, void*, int32_t, int32_t, void*) {
  return E_NOTIMPL;
}
HRESULT TVCLComObject::Invoke(int32_t, const TGUID&, int32_t, uint16_t, void*, void*, void*,
                              void*) {
  return E_NOTIMPL;
}
HRESULT TVCLComObject::SafeCallException(std::exception_ptr ExceptObject, void* ExceptAddr) {
  return DefaultSafeCallException(std::move(ExceptObject), ExceptAddr);
}
void TVCLComObject::FreeOnRelease() {
  FFreeOnRelease = true;
}

}  // namespace vel
