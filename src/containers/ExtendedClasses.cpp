#include "vel/ExtendedClasses.h"

#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "vel/rtl/SysUtils.h"
#include "vel/rtl/Threads.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

namespace {
constexpr const char* SInvalidPointer = "Invalid pointer operation";
}  // namespace

VEL_IMPLEMENT(TVelObjectList)
VEL_IMPLEMENT(TVelComponentList)
VEL_IMPLEMENT(TPersistentList)
VEL_IMPLEMENT(TIntegerList)
VEL_IMPLEMENT(THandleList)
VEL_IMPLEMENT(TMethodList)
VEL_IMPLEMENT(TNotifyEventList)
VEL_IMPLEMENT(TCustomNotifyList)
VEL_IMPLEMENT(TNotifyMsgList)
VEL_IMPLEMENT(TNotifyDispatchList)
VEL_IMPLEMENT(TThreadNotifyList)
VEL_IMPLEMENT(TSearchNotifyList)

// ---------------------------------------------------------------------------
// Typed lists

TVelObjectList::~TVelObjectList() = default;
TVelComponentList::~TVelComponentList() = default;
TPersistentList::~TPersistentList() = default;
TIntegerList::~TIntegerList() = default;
THandleList::~THandleList() = default;

namespace {
int CompareIntegers(void* Item1, void* Item2) {
  auto A = static_cast<int32_t>(reinterpret_cast<intptr_t>(Item1));
  auto B = static_cast<int32_t>(reinterpret_cast<intptr_t>(Item2));
  return A < B ? -1 : (A > B ? 1 : 0);
}
}  // namespace

void TIntegerList::Sort() {
  TList::Sort(&CompareIntegers);
}

// ---------------------------------------------------------------------------
// Method lists

TMethodList::TMethodList() : FList(new TList) {}

TMethodList::~TMethodList() {
  Clear();
  delete FList;
}

void TMethodList::Add(const TMethod& Method, TObject* Sender) {
  if (!Method.Code) return;
  TMethodData* D = NewData();
  D->Code = Method.Code;
  D->Data = Method.Data;
  D->Sender = Sender;
}

void TMethodList::Clear() {
  for (int I = FList->Count() - 1; I >= 0; --I) Delete(I);
}

void TMethodList::Delete(int Index) {
  auto* D = static_cast<TMethodData*>(FList->Get(Index));
  if (D) InitData(*D);
  FList->Delete(Index);
  delete D;
}

TMethodData* TMethodList::FindSender(TObject* Sender) const {
  int I = IndexOf(Sender);
  return I < 0 ? nullptr : static_cast<TMethodData*>(FList->Get(I));
}

int TMethodList::GetCount() const {
  return FList->Count();
}

TMethodData TMethodList::GetItem(int Index) const {
  auto* D = static_cast<TMethodData*>(FList->Get(Index));
  return D ? *D : TMethodData();
}

int TMethodList::IndexOf(TObject* Sender) const {
  for (int I = 0; I < FList->Count(); ++I) {
    auto* D = static_cast<TMethodData*>(FList->Get(I));
    if (D && D->Sender == Sender) return I;
  }
  return -1;
}

void TMethodList::InitData(TMethodData& Data) const {
  Data = TMethodData();
}

TMethodData* TMethodList::NewData() {
  auto* D = new TMethodData();
  try {
    FList->Add(D);
  } catch (...) {
    delete D;
    throw;
  }
  return D;
}

TNotifyEventList::~TNotifyEventList() = default;

void TNotifyEventList::Notify(TObject* Sender) {
  TMethodData* D = FindSender(Sender);
  if (!D || !D->Code) return;
  TMethod M;
  M.Code = D->Code;
  M.Data = D->Data;
  const TNotifyEvent Event(M);
  Event(Sender);
}

// ---------------------------------------------------------------------------
// Notify lists

TCustomNotifyList::TCustomNotifyList(TComponent* AOwner) : TComponent(AOwner) {
  CreateList();
}

TCustomNotifyList::~TCustomNotifyList() {
  FreeList();
}

void TCustomNotifyList::CreateList() {
  FList = new TStringList;
}

void TCustomNotifyList::FreeList() {
  FreeAndNil(FList);
}

int TCustomNotifyList::Count() const {
  return FList->Count();
}

void TCustomNotifyList::Add(TObject* Receiver, uint32_t Handle) {
  if (!Receiver || Handle == 0) return;
  FList->AddObject(IntToStr(static_cast<int64_t>(Handle)), Receiver);
}

void TCustomNotifyList::Add(TObject* Receiver) {
  if (!Receiver) return;
  FList->AddObject(std::string(), Receiver);
}

void TCustomNotifyList::Notify(uint32_t Msg, int32_t WParam, int32_t LParam) {
  const int N = FList->Count();
  for (int I = 0; I < N; ++I) {
    if (!FList->Objects(I)) {
      FList->Delete(I);
      continue;
    }
    std::string Text = FList->Strings(I);
    std::string Reason;
    try {
      auto Wnd = static_cast<HWND>(StrToInt64(Text));
      PostMessage(Wnd, Msg, static_cast<WPARAM>(static_cast<intptr_t>(WParam)),
                  static_cast<LPARAM>(LParam));
      continue;
    } catch (const std::exception& E) {
      Reason = E.what();
    } catch (...) {
    }
    throw ENotifyError(Format(SPostMessageFailed, {Text, static_cast<int64_t>(Msg), Reason}));
  }
}

void TCustomNotifyList::Notify(void* Msg) {
  const int N = FList->Count();
  for (int I = 0; I < N; ++I) {
    TObject* Receiver = FList->Objects(I);
    if (!Receiver) {
      FList->Delete(I);
      continue;
    }
    Receiver->Dispatch(Msg);
  }
}

void TCustomNotifyList::Delete(TObject* Receiver) {
  int I = FList->IndexOfObject(Receiver);
  if (I < 0) throw ENotifyError(SObjectNotFound);
  FList->Delete(I);
}

TNotifyMsgList::~TNotifyMsgList() = default;

void TNotifyMsgList::Add(TObject* Receiver, uint32_t Handle) {
  TCustomNotifyList::Add(Receiver, Handle);
}

void TNotifyMsgList::Notify(uint32_t Msg, int32_t WParam, int32_t LParam) {
  TCustomNotifyList::Notify(Msg, WParam, LParam);
}

TNotifyDispatchList::~TNotifyDispatchList() = default;

void TNotifyDispatchList::Add(TObject* Receiver) {
  TCustomNotifyList::Add(Receiver);
}

void TNotifyDispatchList::Notify(void* Msg) {
  TCustomNotifyList::Notify(Msg);
}

// ---------------------------------------------------------------------------
// TThreadNotifyList and its shared lock

namespace {

// The critical section shared by every TThreadNotifyList. Sections replaced
// or released by a list's construction or destruction are retired, not
// freed, so a thread still inside one can leave it; all are freed when the
// library is unloaded.
struct TSharedNotifyLock {
  std::mutex Guard;
  TCriticalSection* Current = nullptr;
  std::vector<TCriticalSection*> Retired;

  ~TSharedNotifyLock() {
    delete Current;
    for (TCriticalSection* C : Retired) delete C;
  }
  void Replace() {
    std::lock_guard<std::mutex> L(Guard);
    if (Current) Retired.push_back(Current);
    Current = new TCriticalSection;
  }
  void Release() {
    std::lock_guard<std::mutex> L(Guard);
    if (Current) Retired.push_back(Current);
    Current = nullptr;
  }
  TCriticalSection* Get() {
    std::lock_guard<std::mutex> L(Guard);
    if (!Current) Current = new TCriticalSection;
    return Current;
  }
};

TSharedNotifyLock SharedNotifyLock;

// The sections the calling thread entered through DoEnter, innermost last.
thread_local std::vector<std::pair<const TThreadNotifyList*, TCriticalSection*>> EnteredLocks;

// Runs DoLeave when the locked operation ends, also by an exception.
template <class F>
struct TLeaveGuard {
  F Leave;
  ~TLeaveGuard() { Leave(); }
};
template <class F>
TLeaveGuard(F) -> TLeaveGuard<F>;

}  // namespace

TThreadNotifyList::TThreadNotifyList(TComponent* AOwner) : TNotifyMsgList(AOwner) {
  SharedNotifyLock.Replace();
}

TThreadNotifyList::~TThreadNotifyList() {
  SharedNotifyLock.Release();
}

void TThreadNotifyList::DoEnter() {
  if (LockDisabled) return;
  TCriticalSection* C = SharedNotifyLock.Get();
  C->Enter();
  EnteredLocks.emplace_back(this, C);
  FEntered.store(true, std::memory_order_relaxed);
}

void TThreadNotifyList::DoLeave() {
  if (!FEntered.load(std::memory_order_relaxed)) return;
  for (auto It = EnteredLocks.rbegin(); It != EnteredLocks.rend(); ++It) {
    if (It->first == this) {
      TCriticalSection* C = It->second;
      EnteredLocks.erase(std::next(It).base());
      C->Leave();
      return;
    }
  }
}

void TThreadNotifyList::Add(TObject* Receiver, uint32_t Handle) {
  DoEnter();
  TLeaveGuard G{[this] { DoLeave(); }};
  TNotifyMsgList::Add(Receiver, Handle);
}

void TThreadNotifyList::Notify(uint32_t Msg, int32_t WParam, int32_t LParam) {
  DoEnter();
  TLeaveGuard G{[this] { DoLeave(); }};
  TNotifyMsgList::Notify(Msg, WParam, LParam);
}

void TThreadNotifyList::Delete(TObject* Receiver) {
  DoEnter();
  TLeaveGuard G{[this] { DoLeave(); }};
  TNotifyMsgList::Delete(Receiver);
}

// ---------------------------------------------------------------------------
// TSearchNotifyList

TSearchNotifyList::TSearchNotifyList(TComponent* AOwner) : TComponent(AOwner), FList(new TList) {}

TSearchNotifyList::~TSearchNotifyList() {
  for (int I = FList->Count() - 1; I >= 0; --I) delete static_cast<TRecord*>(FList->Get(I));
  delete FList;
}

void TSearchNotifyList::Add(TObject* Receiver, TSearchNotifyOptions Options) {
  auto* R = new TRecord;
  R->Receiver = Receiver;
  R->Options = static_cast<uint8_t>(Options.ToOrd() & 0xFF);
  try {
    FList->Add(R);
  } catch (...) {
    delete R;
    throw;
  }
}

int TSearchNotifyList::IndexOF(TObject* Receiver) const {
  for (int I = 0; I < FList->Count(); ++I)
    if (static_cast<TRecord*>(FList->Get(I))->Receiver == Receiver) return I;
  return -1;
}

int TSearchNotifyList::Count() const {
  return FList->Count();
}

void TSearchNotifyList::Delete(TObject* Receiver) {
  int I = IndexOF(Receiver);
  if (I < 0) throw ENotifyError(SObjectNotFound);
  auto* R = static_cast<TRecord*>(FList->Get(I));
  FList->Delete(I);
  delete R;
}

void TSearchNotifyList::Notify(void* Msg, TSearchNotifyOption Option) {
  const int N = FList->Count();
  const unsigned Bit = static_cast<unsigned>(Option);
  for (int I = 0; I < N; ++I) {
    auto* R = static_cast<TRecord*>(FList->Get(I));
    if (Bit > 7 || !((R->Options >> Bit) & 1u)) continue;
    std::string Reason;
    try {
      DispatchNotification(Msg, R->Receiver);
      continue;
    } catch (const std::exception& E) {
      Reason = E.what();
    } catch (...) {
    }
    uint32_t MsgId;
    std::memcpy(&MsgId, Msg, sizeof MsgId);
    std::string ClassName = R->Receiver ? R->Receiver->ClassName() : std::string();
    throw ENotifyError(
        Format(SMessageDispatchFailure, {ClassName, static_cast<int64_t>(MsgId), Reason}));
  }
}

bool TSearchNotifyList::DispatchNotification(void* Msg, TObject* Receiver) {
  if (auto* T = dynamic_cast<TThread*>(Receiver)) {
    uint32_t MsgId;
    std::memcpy(&MsgId, Msg, sizeof MsgId);
    return PostThreadMessage(T->ThreadID(), MsgId, 0, 0);
  }
  if (!Receiver) throw EInvalidPointer(SInvalidPointer);
  Receiver->Dispatch(Msg);
  return true;
}

}  // namespace vel
