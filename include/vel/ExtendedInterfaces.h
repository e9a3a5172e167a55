// The ExtendedInterfaces unit: the logging contract and three small
// interface-based utilities.
//
// Logging:
// The logging contract: the interfaces IEventlog, IExtendEventLog,
// ISystemLog, ILogOptions and ILogNotifier; the no-reference interfaced
// bases; TIEventLog, which turns every kind of log call into a few virtual
// hooks; TISystemLog (options, notifiers, start and stop); TILogOptions;
// TILogNotifier; and the global gSystemLog that the application sets.
//
// The base classes write nothing: WriteText, FormatText, WriteIdentBegin,
// WriteIdentEnd and WriteNameValue are empty hooks a concrete writer fills
// (TFileSystemLog and TSysLogSystemLog below are two ready-made ones).
//
// Construction and the hooks: the runtime creates a log by calling the
// virtual CreateObjects and Initialize from the constructor, and
// DestroyObjects from the destructor. C++ constructors and destructors do
// not reach overrides of a class that is not built yet (or no longer), so:
//  - the public constructors of these classes run the hooks of their own
//    class; a descendant that overrides CreateObjects, Initialize or
//    LoadOptions builds its base with the protected TDeferInit constructor
//    and calls InitLog() as the last statement of its own constructor;
//  - a descendant that overrides DestroyObjects calls DoneLog() at the start
//    of its destructor. DoneLog runs DestroyObjects once; the base
//    destructors call it too and then find it done.
//
// Text: the interfaces take wide (UTF-16) text; inside the classes it is a
// byte string in Windows-1252, the suite's ANSI code page. Characters it
// lacks become '?'.
//
// Thread safety: AddNotifier/RemoveNotifier may be called from any thread
// (the notifier list is locked). LogID and the hooks of the base classes are
// not locked; the concrete writers below lock their own output.
//
// Utilities:
// Three small interface-based utilities:
//  - TICollection (ICollection): a reference-counted list of interface
//    references over the runtime's locked TInterfaceList;
//  - TILoadResource (ILoadResource): loads a bitmap resource from a resource
//    library found by name (a PE DLL or a Linux package, read as data);
//  - TInterfaceStream / TInterfaceFileStream: a memory stream and a file
//    stream that can be filled from, and exposed as, a COM IStream.
//
// Thread safety: TICollection's single operations are atomic (the list's
// lock); sequences such as Contains then Add are not. The loader and the
// streams belong to one thread at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "vel/Export.h"
#include "vel/rtl/Com.h"
#include "vel/rtl/Pictures.h"
#include "vel/rtl/Registry.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/System.h"
#include "vel/velInterfaces.h"

namespace vel {

class TComponent;

inline constexpr const char* SInvalidLogValues = "Invalid Log Values Idents <> Values";
// The name under which WriteLogValues passes the message.
inline constexpr const char* SLogMsgTextName = "MsgText";

// ---------------------------------------------------------------------------
// Interfaces

struct VEL_API IEventlog : IInterface {
  VEL_INTERFACE_ID("{5CBDB1F9-C79E-481A-8FDB-57D74C10482A}")
  virtual void WriteComponentToLog(TComponent* Component, int32_t LogCat) = 0;
  virtual void WriteLogFmt(const std::u16string& Fmt, std::span<const TVarRec> Args,
                           int32_t LogCat) = 0;
  virtual void WriteLogValues(const std::u16string& Msg, std::span<const std::string> Idents,
                              std::span<const TVarRec> Values, int32_t LogCat) = 0;
};

struct VEL_API IExtendEventLog : IInterface {
  VEL_INTERFACE_ID("{CB05DFCD-2433-4E94-96F1-0721EABB8EC2}")
  virtual void WriteIdentBegin(int32_t LogCat) = 0;
  virtual void WriteIdentEnd(int32_t LogCat) = 0;
  virtual void WriteNameValue(const std::string& Name, const std::string& Value,
                              int32_t LogCat) = 0;
  virtual void WriteLog(const std::u16string& Text) = 0;
  virtual void WriteLog(const std::u16string& Text, int32_t LogCat) = 0;
  virtual void WriteLogStream(IStream* Stream, int32_t LogCat) = 0;
};

struct ILogOptions;
struct ILogNotifier;

struct VEL_API ISystemLog : IInterface {
  VEL_INTERFACE_ID("{218AEA60-2572-4657-AAC0-A4905366EF82}")
  virtual void WriteIdentBegin(int32_t LogCat) = 0;
  virtual void WriteIdentEnd(int32_t LogCat) = 0;
  virtual void WriteNameValue(const std::string& Name, const std::string& Value,
                              int32_t LogCat) = 0;
  virtual void WriteLog(const std::u16string& Text) = 0;
  virtual void WriteLog(const std::u16string& Text, int32_t LogCat) = 0;
  virtual void WriteLogStream(IStream* Stream, int32_t LogCat) = 0;
  virtual bool GetRunning() = 0;
  virtual IPtr<ILogOptions> GetOptions() = 0;
  virtual void Start() = 0;
  virtual void Stop() = 0;
  virtual void AddNotifier(ILogNotifier* Notifier) = 0;
  virtual void RemoveNotifier(ILogNotifier* Notifier) = 0;
};

struct VEL_API ILogOptions : IInterface {
  VEL_INTERFACE_ID("{1A87C30D-C98B-428E-B516-32665F4A82BA}")
  virtual std::string GetRegKey() = 0;
  virtual void SetRegKey(const std::string& Value) = 0;
  virtual TGUID GetOptionsIntf() = 0;
  virtual void SetOptionsIntf(const TGUID& Value) = 0;
  virtual void InitializeOptions() = 0;
  virtual void LoadFromRegistry(TRegistry* Registry) = 0;
};

// ILogNotifier (a notifier interface: ICustomNotifier's subscription
// methods, then NotifyMsg) is declared with the other notifier interfaces in
// velInterfaces.h.

// (Sender: the notifier; LogMsg: the message as a byte string; LogCat.)
using TLogMsgEvent = TEvent<void(TObject* Sender, const std::string& LogMsg, int32_t LogCat)>;

// ---------------------------------------------------------------------------
// No-reference interfaced objects

// An interfaced object whose _AddRef and _Release return -1 and never free
// it: interface references do not keep it alive; its creator deletes it.
class VEL_API TNoRefInterfacedObject : public TInterfacedObject {
  VEL_CLASS(TNoRefInterfacedObject, TInterfacedObject)
 public:
  TNoRefInterfacedObject() = default;
  ~TNoRefInterfacedObject() override;
  int32_t _AddRef() override { return -1; }
  int32_t _Release() override { return -1; }
};

// The same with IDispatch; its automation methods return E_NOTIMPL (a
// descendant with a type library supplies them).
class VEL_API TNoRefAutoIntfObject : public TNoRefInterfacedObject, public IDispatch {
  VEL_CLASS(TNoRefAutoIntfObject, TNoRefInterfacedObject)
  VEL_INTERFACES(IDispatch)
 public:
  TNoRefAutoIntfObject() = default;
  ~TNoRefAutoIntfObject() override;
  HRESULT GetTypeInfoCount(int32_t* Count) override;
  HRESULT GetTypeInfo(int32_t Index, int32_t LocaleID, void** TypeInfo) override;
  HRESULT GetIDsOfNames(const TGUID& IID, void* Names, int32_t NameCount, int32_t LocaleID,
                        void* DispIDs) override;
  HRESULT Invoke(int32_t DispID, const TGUID& IID, int32_t LocaleID, uint16_t Flags, void* Params,
                 void* VarResult, void* ExcepInfo, void* ArgErr) override;
};

// ---------------------------------------------------------------------------
// TIEventLog

// Tag of the constructors that leave CreateObjects/Initialize to InitLog().
struct TDeferInit {};
inline constexpr TDeferInit DeferInit{};

class VEL_API TIEventLog : public TNoRefInterfacedObject, public IEventlog, public IExtendEventLog {
  VEL_CLASS(TIEventLog, TNoRefInterfacedObject)
  VEL_INTERFACES(IEventlog, IExtendEventLog)
 public:
  // CreateObjects, then Initialize.
  TIEventLog();
  ~TIEventLog() override;

  // IEventlog
  // WriteLog(ComponentToString(Component), LogCat).
  void WriteComponentToLog(TComponent* Component, int32_t LogCat) override;
  // WriteLog(Format(Fmt, Args), LogCat); a format error propagates.
  void WriteLogFmt(const std::u16string& Fmt, std::span<const TVarRec> Args,
                   int32_t LogCat) override;
  // When Idents and Values differ in length: WriteLog("Invalid Log Values
  // Idents <> Values", LogCat). Otherwise WriteIdentBegin, WriteNameValue
  // ("MsgText", Msg), one WriteNameValue(Idents[i], VarRecToStr(Values[i]))
  // per pair, WriteIdentEnd. CanWriteLog is not consulted here.
  void WriteLogValues(const std::u16string& Msg, std::span<const std::string> Idents,
                      std::span<const TVarRec> Values, int32_t LogCat) override;
  // Braced lists for the two calls above.
  void WriteLogFmt(const std::u16string& Fmt, std::initializer_list<TVarRec> Args, int32_t LogCat) {
    WriteLogFmt(Fmt, std::span<const TVarRec>(Args.begin(), Args.size()), LogCat);
  }
  void WriteLogValues(const std::u16string& Msg, std::initializer_list<std::string> Idents,
                      std::initializer_list<TVarRec> Values, int32_t LogCat) {
    WriteLogValues(Msg, std::span<const std::string>(Idents.begin(), Idents.size()),
                   std::span<const TVarRec>(Values.begin(), Values.size()), LogCat);
  }

  // IExtendEventLog
  void WriteIdentBegin(int32_t LogCat) override;
  void WriteIdentEnd(int32_t LogCat) override;
  void WriteNameValue(const std::string& Name, const std::string& Value, int32_t LogCat) override;
  // WriteLog(Text, 0).
  void WriteLog(const std::u16string& Text) override;
  // When CanWriteLog(LogCat): WriteText(Text as bytes, LogCat, true).
  void WriteLog(const std::u16string& Text, int32_t LogCat) override;
  // The stream's whole content from position 0, as one text, to
  // WriteLog(Text, LogCat). Stream errors raise EOleSysError.
  void WriteLogStream(IStream* Stream, int32_t LogCat) override;

  // Increments LogID and returns the new value (1 after Initialize).
  // Not locked.
  int32_t NextLogID() { return ++LogID; }

 protected:
  explicit TIEventLog(TDeferInit) {}
  // CreateObjects, then Initialize, through their virtual slots.
  void InitLog();
  // DestroyObjects through its virtual slot, once.
  void DoneLog();

  // The hooks, in slot order.
  virtual void FormatText(std::string& S1, const std::string& S2);
  virtual void WriteText(const std::string& Text, int32_t LogCat, bool NewLine);
  // True for category 0 only.
  virtual bool CanWriteLog(int32_t LogCat);
  virtual void CreateObjects();
  virtual void DestroyObjects();
  // LogID := 0.
  virtual void Initialize();

  int32_t LogID = 0;

 private:
  bool FDone = false;
};

// ---------------------------------------------------------------------------
// TISystemLog

class VEL_API TISystemLog : public TIEventLog, public ISystemLog {
  VEL_CLASS(TISystemLog, TIEventLog)
  VEL_INTERFACES(ISystemLog)
 public:
  TISystemLog();
  ~TISystemLog() override;

  // The IExtendEventLog methods, which ISystemLog repeats.
  void WriteIdentBegin(int32_t LogCat) override { TIEventLog::WriteIdentBegin(LogCat); }
  void WriteIdentEnd(int32_t LogCat) override { TIEventLog::WriteIdentEnd(LogCat); }
  void WriteNameValue(const std::string& Name, const std::string& Value, int32_t LogCat) override {
    TIEventLog::WriteNameValue(Name, Value, LogCat);
  }
  void WriteLog(const std::u16string& Text) override { TIEventLog::WriteLog(Text); }
  void WriteLog(const std::u16string& Text, int32_t LogCat) override {
    TIEventLog::WriteLog(Text, LogCat);
  }
  void WriteLogStream(IStream* Stream, int32_t LogCat) override {
    TIEventLog::WriteLogStream(Stream, LogCat);
  }

  // False here.
  bool GetRunning() override;
  IPtr<ILogOptions> GetOptions() override;
  // Nothing here; a writer opens and closes its target.
  void Start() override;
  void Stop() override;
  // Adds Notifier unless it is listed already (the list is made on first
  // use). Notifiers are not reference counted: remove a notifier, or free
  // the log, before freeing the notifier.
  void AddNotifier(ILogNotifier* Notifier) override;
  // Removes Notifier when listed; nothing otherwise.
  void RemoveNotifier(ILogNotifier* Notifier) override;
  // The number of listed notifiers (0 before the list exists).
  int32_t NotifierCount();

 protected:
  explicit TISystemLog(TDeferInit) : TIEventLog(DeferInit) {}

  // Inherited WriteText (nothing), then Notify(Text, LogCat).
  void WriteText(const std::string& Text, int32_t LogCat, bool NewLine) override;
  void CreateObjects() override;
  // Releases Options; clears and frees the notifier list.
  void DestroyObjects() override;
  // Inherited, clears the notifier list, Options := LoadOptions, and
  // Options->InitializeOptions() when there are options.
  void Initialize() override;

  bool Running() { return GetRunning(); }
  // Returns at once here: this class does not broadcast. A writer that
  // wants its lines sent to the notifiers overrides it and calls
  // NotifyAll.
  virtual void Notify(const std::string& Text, int32_t LogCat);
  // Null here.
  virtual IPtr<ILogOptions> LoadOptions();
  // Calls NotifyMsg(Text, LogCat) of every listed notifier, in order, with
  // the list locked.
  void NotifyAll(const std::string& Text, int32_t LogCat);

  IPtr<ILogOptions> Options;

 private:
  std::mutex FNotifiersLock;  // guards the creation of FNotifiers
  std::atomic<TInterfaceList*> FNotifiers{nullptr};
  TInterfaceList* NotifiersNeeded();
};

// ---------------------------------------------------------------------------
// TILogOptions

// Reference counted: hold it in IPtr from creation on.
class VEL_API TILogOptions : public TInterfacedObject, public ILogOptions {
  VEL_CLASS(TILogOptions, TInterfacedObject)
  VEL_INTERFACES(ILogOptions)
 public:
  TILogOptions() = default;
  ~TILogOptions() override;

  std::string GetRegKey() override;
  void SetRegKey(const std::string& Value) override;
  TGUID GetOptionsIntf() override;
  void SetOptionsIntf(const TGUID& Value) override;
  // LoadFromRegistry(nullptr).
  void InitializeOptions() override;
  // Nothing here; a descendant reads its values under RegKey.
  void LoadFromRegistry(TRegistry* Registry) override;

 protected:
  std::string RegKey;
  TGUID OptionsIntf;
  std::mutex FLock;  // RegKey and OptionsIntf may be read from other threads
};

// ---------------------------------------------------------------------------
// TILogNotifier

class VEL_API TILogNotifier : public TNoRefInterfacedObject, public ILogNotifier {
  VEL_CLASS(TILogNotifier, TNoRefInterfacedObject)
  VEL_INTERFACES(ILogNotifier)
 public:
  TILogNotifier() = default;
  ~TILogNotifier() override;
  // OnLogMsg(this, Msg as bytes, LogCat) when assigned.
  void NotifyMsg(const std::u16string& Msg, int32_t LogCat) override;
  // The source this notifier is attached to, held without counting (as
  // every notifier holds it).
  IPtr<ISubscribe> GetSubscribe() override { return FSubscribe; }
  void SetSubscribe(ISubscribe* Value) override { FSubscribe = Value; }

  TLogMsgEvent OnLogMsg;

 private:
  ISubscribe* FSubscribe = nullptr;
};

// ---------------------------------------------------------------------------
// The application's system log

// Null at load; the library never assigns it. The application sets it to
// its system log; unloading the library sets it to null. Like any variable,
// it must not be written while another thread reads it.
VEL_API extern IPtr<ISystemLog> gSystemLog;

// ---------------------------------------------------------------------------
// Concrete system logs

// Options of the writers below: the categories written besides 0 (which is
// always written). The caller fills them with Enable/EnableAll, or names a
// registry key for them to be read from. Reference counted.
//
// Registry layout, under RegKey in the hive RootKey (HKEY_CURRENT_USER
// unless given):
//   "Categories"     REG_SZ     the categories to write, decimal numbers
//                               (or hex as "$1F") separated by commas,
//                               semicolons or blanks: "1, 5;12"
//   "AllCategories"  REG_DWORD  non-zero: write every category
// Nothing is written to the registry: a missing key or value means no
// categories beyond 0. A value of another type, or a list entry that is not
// a 32-bit number, is skipped, so a damaged setting never stops a log.
class VEL_API TLogCategoryOptions : public TILogOptions {
  VEL_CLASS(TLogCategoryOptions, TILogOptions)
 public:
  TLogCategoryOptions() = default;
  // Options read from ARegKey (with or without a leading backslash) when
  // the log initialises them.
  explicit TLogCategoryOptions(const std::string& ARegKey, HKEY ARootKey = HKEY_CURRENT_USER);
  ~TLogCategoryOptions() override;
  // Whether LogCat is enabled: category 0 always; others when listed, or
  // every category after EnableAll.
  bool Enabled(int32_t LogCat);
  void Enable(int32_t LogCat);
  void Disable(int32_t LogCat);
  void EnableAll(bool Value);
  // Nothing when RegKey is empty. Otherwise reads the values above from
  // RegKey, opened read-only in Registry (in its root key; its open key is
  // closed afterwards) or, when Registry is null, in a registry of its own
  // on RootKey; they replace the enabled categories. May run while other
  // threads log.
  void LoadFromRegistry(TRegistry* Registry) override;
  HKEY RootKey() const { return FRootKey; }

 private:
  std::vector<int32_t> FCategories;
  bool FAll = false;
  HKEY FRootKey = HKEY_CURRENT_USER;
};

// A system log that appends one line per message to a file:
//   "yyyy-mm-dd hh:nn:ss.zzz [<LogCat>] <text>\n" (UTF-8, local time),
// name/value blocks as indented "  <name> = <value>" lines between
// "begin" and "end" lines of the same form. Lines are written whole under
// a lock (one write per line, the file opened for appending), so several
// threads, and several processes appending to the same file, never
// interleave within a line. Start opens the file (creating it and its
// folder), Stop closes it; nothing is written while stopped. Every written
// line goes to the notifiers.
class VEL_API TFileSystemLog : public TISystemLog {
  VEL_CLASS(TFileSystemLog, TISystemLog)
 public:
  // Options: the categories to write (null: category 0 only; a
  // TLogCategoryOptions with a RegKey reads them from the registry when the
  // log is constructed). Running
  // after construction when AutoStart.
  TFileSystemLog(const std::string& FileName, IPtr<ILogOptions> LogOptions = nullptr,
                 bool AutoStart = true);
  ~TFileSystemLog() override;

  bool GetRunning() override;
  // Raises EFCreateError "Cannot create file <name>" when the file cannot
  // be opened for appending.
  void Start() override;
  void Stop() override;
  const std::string& FileName() const { return FFileName; }

  void WriteIdentBegin(int32_t LogCat) override;
  void WriteIdentEnd(int32_t LogCat) override;
  void WriteNameValue(const std::string& Name, const std::string& Value, int32_t LogCat) override;

 protected:
  // Prefixes S1 with the time stamp and "[S2] ".
  void FormatText(std::string& S1, const std::string& S2) override;
  void WriteText(const std::string& Text, int32_t LogCat, bool NewLine) override;
  bool CanWriteLog(int32_t LogCat) override;
  void Notify(const std::string& Text, int32_t LogCat) override;
  IPtr<ILogOptions> LoadOptions() override;

 private:
  void WriteLine(const std::string& Line);
  std::string FFileName;
  IPtr<ILogOptions> FGivenOptions;
  std::mutex FLock;
  int FHandle = -1;
};

// A system log that sends each message to the system log service as a
// datagram on its socket (SocketPath, "/dev/log" by default, which syslogd
// and systemd's journal read): "<PRI>Mmm dd hh:mm:ss Ident[pid]: text",
// facility user, priority info for category 0 and debug for the others,
// text in UTF-8. Name/value blocks become "begin", "  name = value" and
// "end" messages. Like syslog(3), a message the service does not take
// (no service, socket full) is dropped without error. Every message also
// goes to the notifiers.
class VEL_API TSysLogSystemLog : public TISystemLog {
  VEL_CLASS(TSysLogSystemLog, TISystemLog)
 public:
  TSysLogSystemLog(const std::string& Ident, IPtr<ILogOptions> LogOptions = nullptr,
                   bool AutoStart = true, const std::string& SocketPath = "/dev/log");
  ~TSysLogSystemLog() override;

  bool GetRunning() override;
  // Opens the datagram socket (it connects on each send, so a service
  // started later is found).
  void Start() override;
  void Stop() override;

  void WriteIdentBegin(int32_t LogCat) override;
  void WriteIdentEnd(int32_t LogCat) override;
  void WriteNameValue(const std::string& Name, const std::string& Value, int32_t LogCat) override;

 protected:
  void WriteText(const std::string& Text, int32_t LogCat, bool NewLine) override;
  bool CanWriteLog(int32_t LogCat) override;
  void Notify(const std::string& Text, int32_t LogCat) override;
  IPtr<ILogOptions> LoadOptions() override;

 private:
  void Send(const std::string& Text, int32_t LogCat);
  std::string FIdent;
  std::string FSocketPath;
  IPtr<ILogOptions> FGivenOptions;
  std::mutex FLock;
  int FSocket = -1;
};

// ---------------------------------------------------------------------------
// Interfaced collection, resource loader and interface streams

VEL_EXCEPTION(EICollection, Exception);

inline constexpr const char* SNotImplementedOverride =
    "Not Implemented, override in descendant and implement";

struct VEL_API ICollection : IInterface {
  VEL_INTERFACE_ID("{6B1F4E2A-93C5-4D8E-A7B0-2C5D9E1F3A64}")
  virtual int32_t GetCount() = 0;
  virtual IPtr<IInterface> GetItems(int32_t Index) = 0;
  virtual int32_t Add(IInterface* Item) = 0;
  virtual IPtr<IInterface> Add() = 0;
  virtual void Insert(int32_t Index, IInterface* Item) = 0;
  virtual void Clear() = 0;
  virtual void Delete(int32_t Index) = 0;
  virtual int32_t Remove(IInterface* Item) = 0;
  virtual bool Contains(IInterface* Item) = 0;
  virtual int32_t IndexOf(IInterface* Item) = 0;
  virtual bool IsEmpty() = 0;
  virtual bool IsEqual(ICollection* Other) = 0;
};

struct VEL_API ILoadResource : IInterface {
  VEL_INTERFACE_ID("{A3D7C58E-1F24-4B6A-9E0D-7B8C2F4A5E19}")
  virtual std::u16string GetResourceDLLName() = 0;
  virtual void SetResourceDLLName(const std::u16string& Value) = 0;
  virtual std::u16string GetResourceName() = 0;
  virtual void SetResourceName(const std::u16string& Value) = 0;
  virtual TBitmap* LoadBitmap(const std::u16string& Name) = 0;
  virtual TIcon* LoadIcon(const std::u16string& Name) = 0;
};

class VEL_API TICollection : public TInterfacedObject, public ICollection {
  VEL_CLASS(TICollection, TInterfacedObject)
  VEL_INTERFACES(ICollection)
 public:
  TICollection();
  ~TICollection() override;

  int32_t GetCount() override;
  IPtr<IInterface> GetItems(int32_t Index) override;
  int32_t Add(IInterface* Item) override;
  // Raises EICollection SNotImplementedOverride; descendants create and
  // append a new item.
  IPtr<IInterface> Add() override;
  void Insert(int32_t Index, IInterface* Item) override;
  void Clear() override;
  void Delete(int32_t Index) override;
  int32_t Remove(IInterface* Item) override;
  bool Contains(IInterface* Item) override;
  int32_t IndexOf(IInterface* Item) override;
  bool IsEmpty() override;
  // True when Other holds as many items; the items are not compared.
  bool IsEqual(ICollection* Other) override;

  TInterfaceList* List() const { return FList; }

 private:
  TInterfaceList* FList;
  IPtr<IInterfaceList> FListRef;  // keeps the list alive while owned
};

class VEL_API TILoadResource : public TInterfacedObject, public ILoadResource {
  VEL_CLASS(TILoadResource, TInterfacedObject)
  VEL_INTERFACES(ILoadResource)
 public:
  TILoadResource();
  ~TILoadResource() override;

  std::u16string GetResourceDLLName() override;
  void SetResourceDLLName(const std::u16string& Value) override;
  std::u16string GetResourceName() override;
  void SetResourceName(const std::u16string& Value) override;
  // Reads the bitmap resource Name of the library ResourceDLLName (found as
  // FindModuleFile finds it) into Bitmap and returns Bitmap, which stays
  // owned by the loader. A missing library raises EResourceError, a missing
  // resource EResNotFound.
  TBitmap* LoadBitmap(const std::u16string& Name) override;
  // Loads the bitmap the same way, then discards it and returns Icon as it
  // was (empty unless a descendant filled it).
  TIcon* LoadIcon(const std::u16string& Name) override;

 protected:
  // Loads bitmap Name of the resource library into Into.
  void LoadInto(const std::u16string& Name, TBitmap& Into);
  std::string FResourceDLLName;
  std::string FResourceName;
  TBitmap* FBitmap;
  TIcon* FIcon;
};

// A memory stream filled from an IStream and exposed as one.
class VEL_API TInterfaceStream : public TMemoryStream {
  VEL_CLASS(TInterfaceStream, TMemoryStream)
 public:
  TInterfaceStream() = default;
  ~TInterfaceStream() override;
  // Copies Stream from its current position one byte at a time, Size + 1
  // times (Size being the whole source's size): the
  // last pass reads nothing and writes the previous byte again, so the copy
  // is one byte longer than the source and ends in a repeat of its last
  // byte. Content beyond the written length stays. Position ends at 0.
  void SetIStream(IStream* Stream);
  // An IStream over this stream (not owned by it), positioned at 0. This
  // stream must outlive it.
  IPtr<IStream> GetIStream();
};

// A file stream with the same two operations.
class VEL_API TInterfaceFileStream : public TFileStream {
  VEL_CLASS(TInterfaceFileStream, TFileStream)
 public:
  using TFileStream::TFileStream;
  ~TInterfaceFileStream() override;
  void SetIStream(IStream* Stream);
  IPtr<IStream> GetIStream();
};

}  // namespace vel
