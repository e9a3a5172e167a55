#include "vel/OleUtils.h"

#include "vel/rtl/Messages.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TSTAThread)
VEL_IMPLEMENT(TApartmentThread)
VEL_IMPLEMENT(TAdoSTAThread)
VEL_IMPLEMENT(TComObjectFactory2)
VEL_IMPLEMENT(TTypedComObjectFactory2)
VEL_IMPLEMENT(TAutoObjectFactory2)

// ---------------------------------------------------------------------------
// InitializeCOM

void InitializeCOM(bool Initialize, TApartmentType ApartmentType) {
  if (!Initialize) {
    CoUninitialize();
    return;
  }
  switch (ApartmentType) {
    case atSTA:
      (void)Succeeded(CoInitialize(nullptr));
      return;
    case atMTA:
      // The runtime always offers multithreaded apartments.
      Verify(true, SNoMTASupport);
      (void)Succeeded(CoInitializeEx(nullptr, COINIT_MULTITHREADED));
      return;
  }
  throw Exception(SApartmentNotSupported);
}

// ---------------------------------------------------------------------------
// TSTAThread

TSTAThread::TSTAThread(bool CreateSuspended) : TCustomThread(true, true) {
  HasStream = false;
  if (!CreateSuspended) Resume();
}

TSTAThread::TSTAThread(bool CreateSuspended, const TGUID& AIID, IInterface* AIntf)
    : TCustomThread(true, true) {
  HasStream = true;
  ReleaseStream();
  // On the creating thread, in the creator's apartment.
  OleCheck(CoMarshalInterThreadInterfaceInStream(AIID, AIntf, reinterpret_cast<IStream**>(Stream.Out())));
  IID = AIID;
  if (!CreateSuspended) Resume();
}

TSTAThread::~TSTAThread() {
  StopThread(false);
}

void TSTAThread::ReleaseStream() {
  Stream = nullptr;
}

void TSTAThread::DoStartExecute() {
  InitializeCOM(true, atSTA);
  if (!HasStream) return;
  if (Stream) {
    // CoGetInterfaceAndReleaseStream consumes the stream's reference in
    // every case.
    IStream* S = Stream.Detach();
    OleCheck(CoGetInterfaceAndReleaseStream(S, IID, Intf.Out()));
    TCustomThread::DoStartExecute();
  } else {
    Terminate();
  }
}

void TSTAThread::DoFinishExecute() {
  InitializeCOM(false, atSTA);
}

// ---------------------------------------------------------------------------
// TAdoSTAThread

TAdoSTAThread::TAdoSTAThread(bool CreateSuspended, const std::string& AUserID,
                             const std::string& APassword, const std::string& AConnectionString,
                             const std::string& ACommandText)
    : TSTAThread(true) {
  UserID = AUserID;
  Password = APassword;
  ConnectionString = AConnectionString;
  CommandText = ACommandText;
  if (!CreateSuspended) Resume();
}

TAdoSTAThread::TAdoSTAThread(bool CreateSuspended, const std::string& AUserID,
                             const std::string& APassword, const std::string& AConnectionString,
                             const std::string& ACommandText, const TGUID& AIID,
                             IInterface* AIntf)
    : TSTAThread(true, AIID, AIntf) {
  UserID = AUserID;
  Password = APassword;
  ConnectionString = AConnectionString;
  CommandText = ACommandText;
  if (!CreateSuspended) Resume();
}

TAdoSTAThread::~TAdoSTAThread() {
  StopThread(false);
  delete Connection;
  Connection = nullptr;
}

void TAdoSTAThread::DoStartExecute() {
  TSTAThread::DoStartExecute();
  if (!Terminated()) {
    Connection = new TADOConnection(nullptr);
    OpenConnection(Connection);
  }
}

void TAdoSTAThread::OpenConnection(TADOConnection* AConnection) {
  try {
    AConnection->ConnectionString = ConnectionString;
    AConnection->LoginPrompt = false;
    AConnection->KeepConnection = true;
    AConnection->Open(UserID, Password);
  } catch (...) {
    AConnection->Close();
    Terminate();
  }
}

void TAdoSTAThread::SafeExecute() {
  if (Connection && Connection->Connected()) {
    std::unique_ptr<TADODataSet> DataSet(new TADODataSet(nullptr));
    try {
      DataSet->Connection = Connection;
      DataSet->CommandType = cmdText;
      DataSet->CommandText = CommandText;
      DataSet->Open();
      DataSet->First();
      if (DataSet->Eof())
        Terminate();
      else
        ProcessResultSet(DataSet.get());
    } catch (...) {
      // Reported by the loop once; the command is not run again.
      Terminate();
      throw;
    }
    if (!Terminated()) Terminate();
    if (!Terminated()) Terminate();
  } else {
    Terminate();
  }
}

void TAdoSTAThread::DoFinishExecute() {
  if (Connection) {
    if (Connection->Connected()) Connection->Close();
    delete Connection;
    Connection = nullptr;
  }
  TSTAThread::DoFinishExecute();
}

// ---------------------------------------------------------------------------
// TApartmentThread

TApartmentThread::TApartmentThread(IClassFactory2* Factory, IInterface* UnkOuter, const TGUID& IID,
                                   std::shared_ptr<TApartmentRequest> Request)
    : TThread(true), FFactory(Factory), FUnkOuter(UnkOuter), FIID(IID), FRequest(std::move(Request)) {
  if (!FRequest) FRequest = std::make_shared<TApartmentRequest>();
  SetFreeOnTerminate(true);
  Resume();
}

TApartmentThread::~TApartmentThread() = default;

void TApartmentThread::Execute() {
  CoInitialize(nullptr);
  // The queue exists before the object is handed out, so that a release
  // from outside can always reach this thread.
  TMsg Msg{};
  PeekMessage(&Msg, 0, 0, 0, PM_NOREMOVE);

  IPtr<IInterface> Obj;
  TComObject::SetServingCurrentThread(true);
  HRESULT Res = FFactory->CreateInstanceLic(FUnkOuter, nullptr, FIID, std::u16string(), Obj.Out());
  TComObject::SetServingCurrentThread(false);
  IPtr<IStream> Stream;
  if (Succeeded(Res)) Res = CoMarshalInterThreadInterfaceInStream(FIID, Obj, reinterpret_cast<IStream**>(Stream.Out()));
  // Let go of the factory and the outer object before the creator is woken:
  // once CreateInstance returns, its caller may free the factory.
  FFactory = nullptr;
  FUnkOuter = nullptr;
  {
    std::shared_ptr<TApartmentRequest> Request = std::move(FRequest);
    Request->CreateResult = Res;
    Request->Stream = std::move(Stream);
    Request->Semaphore.ReleaseCount(1);
  }

  if (Succeeded(Res)) {
    while (GetMessageA(&Msg, 0, 0, 0)) {
      DispatchMessageA(&Msg);
      // Only this thread's reference left: nobody outside uses the object.
      Obj->_AddRef();
      if (Obj->_Release() == 1) break;
    }
  }
  Obj = nullptr;
  CoUninitialize();
}

// ---------------------------------------------------------------------------
// The factories

namespace {

using TInherited = HRESULT (*)(TComObjectFactory*, IInterface*, const TGUID&, void**);

HRESULT ApartmentCreateInstance(TComObjectFactory* Factory, IInterface* UnkOuter,
                                const TGUID& IID, void** Obj, TInherited Inherited) {
  if (Factory->Server().IsInprocServer() || Factory->ThreadingModel() != tmApartment)
    return Inherited(Factory, UnkOuter, IID, Obj);
  if (!Obj) return E_POINTER;
  *Obj = nullptr;
  Factory->LockServer(true);
  HRESULT Result;
  auto Request = std::make_shared<TApartmentRequest>();
  new TApartmentThread(Factory, UnkOuter, IID, Request);
  if (Request->Semaphore.WaitFor(INFINITE) == wrSignaled) {
    if (Request->CreateResult == S_OK)
      Result = CoGetInterfaceAndReleaseStream(Request->Stream.Detach(), IID, Obj);
    else
      Result = Request->CreateResult;
  } else {
    Result = E_FAIL;
  }
  Factory->LockServer(false);
  return Result;
}

}  // namespace

TComObjectFactory2::~TComObjectFactory2() = default;
TTypedComObjectFactory2::~TTypedComObjectFactory2() = default;
TAutoObjectFactory2::~TAutoObjectFactory2() = default;

HRESULT TComObjectFactory2::CreateInstance(IInterface* UnkOuter, const TGUID& IID, void** Obj) {
  return ApartmentCreateInstance(this, UnkOuter, IID, Obj,
                                 [](TComObjectFactory* F, IInterface* U, const TGUID& I, void** O) {
                                   return F->TComObjectFactory::CreateInstance(U, I, O);
                                 });
}

HRESULT TTypedComObjectFactory2::CreateInstance(IInterface* UnkOuter, const TGUID& IID,
                                                void** Obj) {
  return ApartmentCreateInstance(this, UnkOuter, IID, Obj,
                                 [](TComObjectFactory* F, IInterface* U, const TGUID& I, void** O) {
                                   return static_cast<TTypedComObjectFactory*>(F)->TTypedComObjectFactory::CreateInstance(U, I, O);
                                 });
}

HRESULT TAutoObjectFactory2::CreateInstance(IInterface* UnkOuter, const TGUID& IID, void** Obj) {
  return ApartmentCreateInstance(this, UnkOuter, IID, Obj,
                                 [](TComObjectFactory* F, IInterface* U, const TGUID& I, void** O) {
                                   return static_cast<TAutoObjectFactory*>(F)->TAutoObjectFactory::CreateInstance(U, I, O);
                                 });
}

}  // namespace vel
