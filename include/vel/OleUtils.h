// COM apartment threads and class factories: InitializeCOM, TSTAThread (a
// self-freeing worker in a single-threaded apartment that may receive one
// interface marshalled from its creator), and the ...Factory2 classes whose
// objects each live in their own apartment thread (TApartmentThread) until
// their last outside reference goes.
//
// The apartments and marshalling are the runtime's in-process ones
// (vel/rtl/Com.h): an unmarshalled interface is the object itself, so calls
// run on the calling thread; the apartment thread serves the object's
// lifetime (it holds one reference and ends when only that one is left).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "vel/ThreadClasses.h"
#include "vel/rtl/ADODB.h"
#include "vel/rtl/Com.h"
#include "vel/rtl/ComObj.h"
#include "vel/rtl/SyncObjs.h"
#include "vel/rtl/Threads.h"

namespace vel {

inline constexpr const char* SNoMTASupport =
    "Operating system does not support multithreaded apartments.\r"
    "You will need to install the latest DCOM version for this feature to work.";
inline constexpr const char* SApartmentNotSupported = "Apartment type not supported.";

// Initialize false: CoUninitialize. True with atSTA: CoInitialize; with
// atMTA: CoInitializeEx(multithreaded) after Verify that the system offers
// it. The result of entering is not reported. Any other type raises
// Exception "Apartment type not supported.".
VEL_API void InitializeCOM(bool Initialize, TApartmentType ApartmentType);

// A self-freeing TCustomThread in a single-threaded apartment. Created
// with an interface, the thread gets it marshalled into its own apartment
// before its first round (in Intf); creating it raises EOleSysError when
// the interface cannot be marshalled (it lacks IID).
//
// Do not keep the object once it runs: it frees itself when it ends.
class VEL_API TSTAThread : public TCustomThread {
  VEL_CLASS(TSTAThread, TCustomThread)
 public:
  explicit TSTAThread(bool CreateSuspended);
  TSTAThread(bool CreateSuspended, const TGUID& IID, IInterface* Intf);
  ~TSTAThread() override;

 protected:
  // Enters the apartment; with a stream, unmarshals it into Intf and then
  // runs the inherited hook (tsExecuting); with the stream already gone,
  // terminates. Without a stream the inherited hook is not run.
  void DoStartExecute() override;
  // Leaves the apartment.
  void DoFinishExecute() override;
  void ReleaseStream();

  bool HasStream = false;
  TGUID IID;
  IPtr<IStream> Stream;
  IPtr<IInterface> Intf;
};

// A TSTAThread that opens a database connection when it starts, runs one
// text command and hands the rows to ProcessResultSet, then ends (and frees
// itself). A connection that does not open ends the thread quietly; a
// command that returns no rows ends it without calling ProcessResultSet.
// A command that fails raises in the thread: the error is reported as any
// round's (TCustomThread) and the thread ends.
//
// ProcessResultSet is pure virtual, so a descendant creates its base
// suspended and calls Resume() as the last statement of its own
// constructor.
class VEL_API TAdoSTAThread : public TSTAThread {
  VEL_CLASS(TAdoSTAThread, TSTAThread)
 public:
  TAdoSTAThread(bool CreateSuspended, const std::string& UserID, const std::string& Password,
                const std::string& ConnectionString, const std::string& CommandText);
  TAdoSTAThread(bool CreateSuspended, const std::string& UserID, const std::string& Password,
                const std::string& ConnectionString, const std::string& CommandText,
                const TGUID& IID, IInterface* Intf);
  ~TAdoSTAThread() override;

 protected:
  // The inherited start; then, unless terminated, creates Connection and
  // calls OpenConnection.
  void DoStartExecute() override;
  // Sets the connection string, login prompt off, KeepConnection on, and
  // opens with UserID and Password; any failure terminates the thread
  // instead of propagating, leaving the connection closed.
  virtual void OpenConnection(TADOConnection* Connection);
  // Receives the opened data set, standing on its first row (not at Eof).
  // The data set is freed after the call.
  virtual void ProcessResultSet(TADODataSet* DataSet) = 0;
  // Runs the command once (see the class comment) and terminates.
  void SafeExecute() override;
  // Closes and frees the connection, then the inherited finish.
  void DoFinishExecute() override;

  TADOConnection* Connection = nullptr;
  std::string ConnectionString;
  std::string CommandText;
  std::string UserID;
  std::string Password;
};

// What an apartment thread hands back to the factory waiting for it: the
// semaphore (count 0, maximum 1) it signals, the creation's HRESULT and the
// marshalled object. Shared, because a thread whose creation failed frees
// itself at once.
struct TApartmentRequest {
  TSemaphore Semaphore{0, 1};
  HRESULT CreateResult = E_FAIL;
  IPtr<IStream> Stream;
};

// One object request served in its own apartment: the thread creates the
// object through Factory's CreateInstanceLic, marshals it, signals the
// waiting factory, then pumps its messages until only its own reference to
// the object is left, releases it and leaves the apartment. Frees itself;
// read the outcome from the request, never from the thread object.
class VEL_API TApartmentThread : public TThread {
  VEL_CLASS(TApartmentThread, TThread)
 public:
  TApartmentThread(IClassFactory2* Factory, IInterface* UnkOuter, const TGUID& IID,
                   std::shared_ptr<TApartmentRequest> Request);
  ~TApartmentThread() override;

 protected:
  void Execute() override;

 private:
  IPtr<IClassFactory2> FFactory;
  IPtr<IInterface> FUnkOuter;
  TGUID FIID;
  std::shared_ptr<TApartmentRequest> FRequest;
};

// The factories whose CreateInstance serves each object in its own
// apartment thread when the server is an executable and the class uses the
// apartment threading model; otherwise they behave as their runtime base.
// Returns the creation's HRESULT, the unmarshalling's, or E_FAIL when the
// wait for the thread failed.
class VEL_API TComObjectFactory2 : public TComObjectFactory {
  VEL_CLASS(TComObjectFactory2, TComObjectFactory)
 public:
  using TComObjectFactory::TComObjectFactory;
  ~TComObjectFactory2() override;
  HRESULT CreateInstance(IInterface* UnkOuter, const TGUID& IID, void** Obj) override;
};

class VEL_API TTypedComObjectFactory2 : public TTypedComObjectFactory {
  VEL_CLASS(TTypedComObjectFactory2, TTypedComObjectFactory)
 public:
  using TTypedComObjectFactory::TTypedComObjectFactory;
  ~TTypedComObjectFactory2() override;
  HRESULT CreateInstance(IInterface* UnkOuter, const TGUID& IID, void** Obj) override;
};

class VEL_API TAutoObjectFactory2 : public TAutoObjectFactory {
  VEL_CLASS(TAutoObjectFactory2, TAutoObjectFactory)
 public:
  using TAutoObjectFactory::TAutoObjectFactory;
  ~TAutoObjectFactory2() override;
  HRESULT CreateInstance(IInterface* UnkOuter, const TGUID& IID, void** Obj) override;
};

}  // namespace vel
