// Typed lists over the runtime's lists (objects, components, persistent
// objects, integers, handles), method lists, and notify lists: lists of
// receivers to which one call posts a window message, dispatches a message
// record, or posts a thread message.
//
// Delivery rules of the notify lists:
//  - to windows (TCustomNotifyList::Notify(Msg, WParam, LParam), used
//    through TNotifyMsgList and TThreadNotifyList): PostMessage to each
//    entry's window, asynchronous, delivered later on the window's thread;
//  - to objects (Notify(Msg*) and TSearchNotifyList for non-thread
//    receivers): the receiver's Dispatch, synchronously, in the caller's
//    thread;
//  - to threads (TSearchNotifyList for TThread receivers): PostThreadMessage
//    of the message number alone (WParam and LParam 0).
// The lists never own their receivers: a receiver that is freed must be
// deleted from the lists first.
//
// Thread safety: only TThreadNotifyList locks, and only once LockDisabled
// has been cleared (it is set at construction); everything else belongs to
// one thread at a time.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "vel/rtl/Components.h"
#include "vel/rtl/Lists.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/Persistent.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/SyncObjs.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_EXCEPTION(ENotifyError, Exception);

inline constexpr const char* SObjectNotFound = "Object not found in notification list";
inline constexpr const char* SPostMessageFailed =
    "Postmessage() Failed in NotifyMsgList, HWND: %d, MSGID: %d\n\r%s";
inline constexpr const char* SMessageDispatchFailure =
    "Message Dispatch Failure : Class: %s,  MsgId: %d\n\rReason: %s";

// ---------------------------------------------------------------------------
// Typed lists

class VEL_API TVelObjectList : public TObjectList {
  VEL_CLASS(TVelObjectList, TObjectList)
 public:
  explicit TVelObjectList(bool AOwnsObjects = true) : TObjectList(AOwnsObjects) {}
  ~TVelObjectList() override;
  bool Contains(TObject* Obj) const { return IndexOf(Obj) >= 0; }
  bool IsEmpty() const { return Count() == 0; }
};

class VEL_API TVelComponentList : public TComponentList {
  VEL_CLASS(TVelComponentList, TComponentList)
 public:
  explicit TVelComponentList(bool AOwnsObjects = true) : TComponentList(AOwnsObjects) {}
  ~TVelComponentList() override;
  bool Contains(TComponent* Component) const { return IndexOf(Component) >= 0; }
  bool IsEmpty() const { return Count() == 0; }
};

// An object list of persistent objects.
class VEL_API TPersistentList : public TVelObjectList {
  VEL_CLASS(TPersistentList, TVelObjectList)
 public:
  explicit TPersistentList(bool AOwnsObjects = true) : TVelObjectList(AOwnsObjects) {}
  ~TPersistentList() override;
  int Add(TPersistent* Item) { return TObjectList::Add(Item); }
  bool Contains(TPersistent* Item) const { return TVelObjectList::Contains(Item); }
  TPersistent* GetItem(int Index) const { return static_cast<TPersistent*>(Get(Index)); }
  int IndexOf(TPersistent* Item) const { return TObjectList::IndexOf(Item); }
  void Insert(int Index, TPersistent* Item) { TObjectList::Insert(Index, Item); }
  int Remove(TPersistent* Item) { return TObjectList::Remove(Item); }
  void SetItem(int Index, TPersistent* Item) { Put(Index, Item); }
  TPersistent* Items(int Index) const { return GetItem(Index); }
  TPersistent* operator[](int Index) const { return GetItem(Index); }
};

// 32-bit signed integers held in the slots of a pointer list.
class VEL_API TIntegerList : public TList {
  VEL_CLASS(TIntegerList, TList)
 public:
  TIntegerList() = default;
  ~TIntegerList() override;
  int Add(int32_t Value) { return TList::Add(ToPtr(Value)); }
  bool Contains(int32_t Value) const { return IndexOf(Value) >= 0; }
  // Removes the first occurrence of Value and returns it; 0 when absent.
  int32_t Extract(int32_t Value) { return FromPtr(TList::Extract(ToPtr(Value))); }
  int32_t First() const { return FromPtr(TList::First()); }
  int32_t Last() const { return FromPtr(TList::Last()); }
  int32_t GetItem(int Index) const { return FromPtr(Get(Index)); }
  int IndexOf(int32_t Value) const { return TList::IndexOf(ToPtr(Value)); }
  void Insert(int Index, int32_t Value) { TList::Insert(Index, ToPtr(Value)); }
  int Remove(int32_t Value) { return TList::Remove(ToPtr(Value)); }
  void SetItem(int Index, int32_t Value) { Put(Index, ToPtr(Value)); }
  int32_t Items(int Index) const { return GetItem(Index); }
  int32_t operator[](int Index) const { return GetItem(Index); }
  // Ascending, by signed comparison, with the runtime list's sort.
  void Sort();

 protected:
  static void* ToPtr(int32_t Value) {
    return reinterpret_cast<void*>(static_cast<intptr_t>(Value));
  }
  static int32_t FromPtr(void* P) { return static_cast<int32_t>(reinterpret_cast<intptr_t>(P)); }
};

// Window handles as integers.
class VEL_API THandleList : public TIntegerList {
  VEL_CLASS(THandleList, TIntegerList)
 public:
  THandleList() = default;
  ~THandleList() override;
  int Add(HWND Handle) { return TIntegerList::Add(static_cast<int32_t>(Handle)); }
};

// ---------------------------------------------------------------------------
// Method lists

// One registered method and the sender it is registered for.
struct TMethodData {
  void* Code = nullptr;
  void* Data = nullptr;
  TObject* Sender = nullptr;
};

// Methods with the sender each is registered for, in insertion order. The
// records are owned by the list.
class VEL_API TMethodList : public TObject {
  VEL_CLASS(TMethodList, TObject)
 public:
  TMethodList();
  ~TMethodList() override;

  // Appends (Method, Sender) unless Method.Code is null. No duplicate check.
  void Add(const TMethod& Method, TObject* Sender);
  void Clear();
  // Raises EListError "List index out of bounds (%d)" for a bad index.
  void Delete(int Index);
  // The first record registered for Sender, or null.
  TMethodData* FindSender(TObject* Sender) const;
  int GetCount() const;
  int Count() const { return GetCount(); }
  // A copy of the record at Index (EListError for a bad index).
  TMethodData GetItem(int Index) const;
  int IndexOf(TObject* Sender) const;
  // Resets Data to the empty method and a null sender.
  void InitData(TMethodData& Data) const;
  // Appends a zero-filled record and returns it.
  TMethodData* NewData();
  virtual void Notify(TObject* Sender) = 0;

 private:
  TList* FList;
};

// Notify events by sender: Notify(Sender) calls the first event registered
// for Sender (only that one, also when more are registered).
class VEL_API TNotifyEventList : public TMethodList {
  VEL_CLASS(TNotifyEventList, TMethodList)
 public:
  TNotifyEventList() = default;
  ~TNotifyEventList() override;
  void Add(const TNotifyEvent& Event, TObject* Sender) { TMethodList::Add(Event, Sender); }
  void Notify(TObject* Sender) override;
};

// ---------------------------------------------------------------------------
// Notify lists

// Receivers, each with the decimal text of its window handle (or no text),
// in a string list, in insertion order; a receiver may be listed more than
// once.
class VEL_API TCustomNotifyList : public TComponent {
  VEL_CLASS(TCustomNotifyList, TComponent)
 public:
  explicit TCustomNotifyList(TComponent* AOwner = nullptr);
  ~TCustomNotifyList() override;

  // Appends (Receiver, Handle); nothing when Receiver is null or Handle 0.
  virtual void Add(TObject* Receiver, uint32_t Handle);
  // Appends Receiver without a handle; nothing when Receiver is null.
  virtual void Add(TObject* Receiver);
  // Posts the message to every entry's window, over the count taken at the
  // start; an entry whose object is null is deleted (the entry moving into
  // its place is skipped). A refused post is ignored. When an entry's
  // handle cannot be used (an entry without a handle), the broadcast ends
  // with the error of formatting "Postmessage() Failed in NotifyMsgList,
  // HWND: %d, MSGID: %d\n\r%s" with the entry's text, which is a string
  // for %d: EConvertError "Format '...' invalid or incompatible with
  // argument" from Format, in place of the ENotifyError it describes.
  virtual void Notify(uint32_t Msg, int32_t WParam, int32_t LParam);
  // Calls every receiver's Dispatch with Msg in the calling thread.
  // Exceptions end the broadcast and propagate.
  virtual void Notify(void* Msg);
  // Deletes the first entry of Receiver; ENotifyError "Object not found in
  // notification list" when there is none.
  virtual void Delete(TObject* Receiver);
  int Count() const;

 protected:
  void CreateList();
  void FreeList();
  TStringList* FList = nullptr;
};

// Receivers with window handles.
class VEL_API TNotifyMsgList : public TCustomNotifyList {
  VEL_CLASS(TNotifyMsgList, TCustomNotifyList)
 public:
  explicit TNotifyMsgList(TComponent* AOwner = nullptr) : TCustomNotifyList(AOwner) {}
  ~TNotifyMsgList() override;
  using TCustomNotifyList::Add;
  using TCustomNotifyList::Notify;
  void Add(TObject* Receiver, uint32_t Handle) override;
  void Notify(uint32_t Msg, int32_t WParam, int32_t LParam) override;
};

// Receivers without handles.
class VEL_API TNotifyDispatchList : public TCustomNotifyList {
  VEL_CLASS(TNotifyDispatchList, TCustomNotifyList)
 public:
  explicit TNotifyDispatchList(TComponent* AOwner = nullptr) : TCustomNotifyList(AOwner) {}
  ~TNotifyDispatchList() override;
  using TCustomNotifyList::Add;
  using TCustomNotifyList::Notify;
  void Add(TObject* Receiver) override;
  void Notify(void* Msg) override;
};

// A TNotifyMsgList whose Add(Receiver, Handle), Delete and Notify(Msg,
// WParam, LParam) run inside DoEnter/DoLeave. The lock is one critical
// section shared by all instances: each construction installs a new one,
// each destruction retires the current one (retired sections stay valid
// until the library is unloaded, so a list still inside one is safe; when
// none is current, DoEnter makes one), and DoLeave always leaves the
// section that the same thread's DoEnter entered for this list. DoEnter does
// nothing while LockDisabled is true, as it is after construction.
class VEL_API TThreadNotifyList : public TNotifyMsgList {
  VEL_CLASS(TThreadNotifyList, TNotifyMsgList)
 public:
  explicit TThreadNotifyList(TComponent* AOwner = nullptr);
  ~TThreadNotifyList() override;
  using TCustomNotifyList::Add;
  using TCustomNotifyList::Notify;
  void Add(TObject* Receiver, uint32_t Handle) override;
  void Notify(uint32_t Msg, int32_t WParam, int32_t LParam) override;
  void Delete(TObject* Receiver) override;

  bool Entered() const { return FEntered.load(std::memory_order_relaxed); }
  // Cleared by users that want the locking.
  bool LockDisabled = true;

 protected:
  virtual void DoEnter();
  virtual void DoLeave();

 private:
  std::atomic<bool> FEntered{false};
};

enum TSearchNotifyOption : uint8_t { noFolderChange, noFoundFile };
using TSearchNotifyOptions = TSet<TSearchNotifyOption>;

// Receivers with the notifications they want, in a pointer list of records.
class VEL_API TSearchNotifyList : public TComponent {
  VEL_CLASS(TSearchNotifyList, TComponent)
 public:
  explicit TSearchNotifyList(TComponent* AOwner = nullptr);
  ~TSearchNotifyList() override;

  // Appends a record; no null or duplicate check. Options beyond the first
  // eight values are not kept.
  void Add(TObject* Receiver, TSearchNotifyOptions Options);
  // Removes the first record of Receiver; ENotifyError "Object not found in
  // notification list" when there is none.
  void Delete(TObject* Receiver);
  int IndexOF(TObject* Receiver) const;
  int IndexOf(TObject* Receiver) const { return IndexOF(Receiver); }
  int Count() const;
  // Delivers Msg (a message record: its first 32 bits are the number) to
  // every receiver whose options contain Option, in order. A failure ends
  // the broadcast with ENotifyError "Message Dispatch Failure : Class: %s,
  //  MsgId: %d\n\rReason: %s" (receiver class, message number, reason).
  void Notify(void* Msg, TSearchNotifyOption Option);
  // A TThread receiver gets the message number posted to its thread (WParam
  // and LParam 0; returns whether the post succeeded); any other receiver's
  // Dispatch is called with Msg (returns true). A null receiver raises
  // EInvalidPointer "Invalid pointer operation".
  virtual bool DispatchNotification(void* Msg, TObject* Receiver);

 private:
  struct TRecord {
    TObject* Receiver = nullptr;
    uint8_t Options = 0;
  };
  TList* FList;
};

// ---------------------------------------------------------------------------
// Memory-mapped files

VEL_EXCEPTION(EMemoryMapFile, Exception);

inline constexpr const char* SMemoryMapLoadFile = "Unable to load file %s for memory mapping";
inline constexpr const char* SMemoryMapFile = "Unable to Map File %s";
inline constexpr const char* SMemoryMapView = "Unable to Map View of File %s";
// The size field holds 32 bits: larger files are refused rather than mapped
// in part.
inline constexpr const char* SMemoryMapTooLarge =
    "Unable to Map File %s: files of 4 GiB or more cannot be mapped";

// Mode value that creates (or truncates) the file instead of opening it.
inline constexpr int32_t mmCreate = 0xFFFF;

// Opens or creates a file and maps all of it at construction (MAP_SHARED);
// Data points at its bytes until destruction. Mode is the runtime's open
// mode: its access bits (fmOpenRead 0, fmOpenWrite 1, fmOpenReadWrite 2)
// open the file, and any Mode other than 0 maps the pages for reading and
// writing (so it needs a file opened for both); 0 maps them read-only, and
// a write to them faults. mmCreate creates the file, which is then empty
// and cannot be mapped: construction fails with "Unable to Map File %s" and
// the empty file stays. The mapping covers the size at opening; later
// growth of the file is not seen.
//
// Each step raises EMemoryMapFile with its message (%s is the file name);
// a failed construction releases what it had opened. At destruction the
// file handle is closed, then the mapping handle, then the view unmapped.
//
// Thread safety: the object is immutable after construction; access to
// Data follows the usual rules for shared memory.
class VEL_API TMemoryMapFile : public TObject {
  VEL_CLASS(TMemoryMapFile, TObject)
 public:
  // The third argument is accepted for compatibility and not used.
  TMemoryMapFile(const std::string& AFileName, int32_t AMode, int32_t Unused = 0);
  ~TMemoryMapFile() override;

  const std::string& FileName() const { return FFileName; }
  uint32_t FileSize() const { return FFileSize; }
  int32_t Mode() const { return FMode; }
  int FileHandle() const { return FFileHandle; }
  int MapHandle() const { return FMapHandle; }
  void* Data() const { return FData; }

 protected:
  void LoadFile();
  void CreateFileMap();
  void MapFileView();
  void FreeMapView();

 private:
  void Release();
  std::string FFileName;
  uint32_t FFileSize = 0;
  int32_t FMode = 0;
  int FFileHandle = -1;
  int FMapHandle = -1;
  void* FData = nullptr;
};

// ---------------------------------------------------------------------------
// Version and package information
//
// TVersionInfo reads a file's version resource (PE files and the Linux
// packages' resource section, through the runtime's version calls) and gives
// the ten standard strings of its first translation entry as published
// properties and as "Key=Value" lines. TPackageInfo adds a package's
// description, usage and unit lists. One object belongs to one thread at a
// time.

VEL_EXCEPTION(EVersionInfoError, Exception);
VEL_EXCEPTION(EPackageInfoError, Exception);

inline constexpr const char* SNoVersionInfo = "No Version Info Available For %s.";
inline constexpr const char* SCannotObtainVersionInfo = "Cannot obtain version info for %s.";
inline constexpr const char* SNoTranslationInfo = "Cannot Obtain Language Translation Info for %s.";
inline constexpr const char* SNoFixedFileInfo = "Unable to Read Fixed File Info of %s.";
inline constexpr const char* SNotDelphiPackage = "%s is not a valid Delphi Package";
inline constexpr const char* SPackageDescription = "PackageDescription";
inline constexpr const char* SPackageUsage = "PackageUsage";
inline constexpr const char* SContains = "Contains";
inline constexpr const char* SRequires = "Requires";

enum TVersionLabel : uint8_t {
  vlCompanyName,
  vlFileDescription,
  vlFileVersion,
  vlInternalName,
  vlLegalCopyright,
  vlLegalTrademarks,
  vlOriginalFilename,
  vlProductName,
  vlProductVersion,
  vlComments
};
inline constexpr int VersionLabelCount = 10;
using TVersionItems = std::array<std::string, VersionLabelCount>;
// The resource keys of the labels, in label order.
extern VEL_API const char* const VERSION_LABELS[VersionLabelCount];

enum TPackageUsage : uint8_t { puNone, puDesignTime, puRunTime, puDesignAndRunTime };
VEL_ENUM(TPackageUsage, "puNone", "puDesignTime", "puRunTime", "puDesignAndRunTime")
// "", "Design Time", "Run Time", "Design And Run Time".
extern VEL_API const char* const PackageUsageText[4];

class VEL_API TVersionInfo : public TComponent {
  VEL_CLASS(TVersionInfo, TComponent)
 public:
  explicit TVersionInfo(TComponent* AOwner = nullptr);
  ~TVersionInfo() override;

  // Reads FileName's version resource and returns Items (owned by this
  // object). Raises EVersionInfoError with SNoVersionInfo,
  // SCannotObtainVersionInfo, SNoTranslationInfo or SNoFixedFileInfo. On an
  // error FileName keeps the new name, Items and Values their old content.
  virtual TStrings* GetVersionInfo(const std::string& FileName);

  const std::string& FileName() const { return FFileName; }
  // Reads the file when Value differs (exactly) from FileName.
  void SetFileName(const std::string& Value);
  const std::string& GetVersionItem(TVersionLabel Index) const { return FValues[Index]; }
  const TVersionItems& Values() const { return FValues; }
  TStringList* Items() const { return FItems; }

  const std::string& CompanyName() const { return FValues[vlCompanyName]; }
  const std::string& FileDescription() const { return FValues[vlFileDescription]; }
  const std::string& FileVersion() const { return FValues[vlFileVersion]; }
  const std::string& InternalName() const { return FValues[vlInternalName]; }
  const std::string& LegalCopyright() const { return FValues[vlLegalCopyright]; }
  const std::string& LegalTrademarks() const { return FValues[vlLegalTrademarks]; }
  const std::string& OriginalFilename() const { return FValues[vlOriginalFilename]; }
  const std::string& ProductName() const { return FValues[vlProductName]; }
  const std::string& ProductVersion() const { return FValues[vlProductVersion]; }
  const std::string& Comments() const { return FValues[vlComments]; }

  uint32_t Handle() const { return FHandle; }
  int32_t Size() const { return FSize; }
  const std::string& Buffer() const { return FBuffer; }
  // The first translation entry (language in the low 16 bits, code page in
  // the high 16 bits) and the 52-byte fixed file information, in Buffer.
  const void* Translation() const { return FTranslation; }
  const void* FixedFileInfo() const { return FFixedFileInfo; }

 protected:
  virtual void ReadFileVersionInfo();
  virtual void ReadFixedFileInfo();

 private:
  uint32_t FHandle = 0;
  int32_t FSize = 0;
  std::string FBuffer;
  const void* FTranslation = nullptr;
  const void* FFixedFileInfo = nullptr;
  std::string FFileName;
  TVersionItems FValues;
  TStringList* FItems;
};

class VEL_API TPackageInfo : public TVersionInfo {
  VEL_CLASS(TPackageInfo, TVersionInfo)
 public:
  explicit TPackageInfo(TComponent* AOwner = nullptr);
  ~TPackageInfo() override;

  // Refuses names whose extension is not exactly ".bpl" or ".dpl"
  // (EPackageInfoError SNotDelphiPackage), then reads the version resource.
  TStrings* GetVersionInfo(const std::string& FileName) override;
  // The version lines, then the description line and, with LoadDetails,
  // the usage, Contains and Requires lines.
  TStrings* LookupPackageInfo(const std::string& FileName, bool LoadDetails);
  void PackageDetails(const std::string& FileName, TStrings*& Info, bool LoadDetails);

  const std::string& PackageDescription() const { return FPackageDescription; }
  TPackageUsage PackageUsage() const { return FPackageUsage; }
  TStringList* ContainsUnits() const { return FContainsUnits; }
  TStringList* RequiresPackages() const { return FRequiresPackages; }
  void SetContains(TStringList* Value) { FContainsUnits->Assign(Value); }
  void SetRequires(TStringList* Value) { FRequiresPackages->Assign(Value); }

 private:
  std::string FPackageDescription;
  TPackageUsage FPackageUsage = puNone;
  TStringList* FContainsUnits;
  TStringList* FRequiresPackages;
};

}  // namespace vel
