// OleStorage: compound files (a file holding a tree of named storages and
// streams) through three wrapper classes and a set of path functions.
//
//   TCustomOleStorage   one storage interface: open, create, destroy, rename,
//                       move and copy elements, commit, revert, class, state
//                       bits and times, with names cleaned by GetValidName
//   TOleStorage         adds wrapped sub-storages and streams, the
//                       depth-first walk (ForEach, RecurseStorage) and
//                       Contains
//   TOleRootStorage     owns the compound file: create, open, a new file in
//                       the temporary folder, Save under a name with
//                       compaction
//
// Element names. Before a name reaches the file, GetValidName deletes every
// occurrence of the characters  space ! $ % & * , - . / : ; = ? @ [ \ ] ^ { } ~
// and shortens names of 31 characters or more to 30: the first such name a
// wrapper meets becomes its first 29 characters + "0", the second its first
// 29 + "1", the eleventh its first 28 + "10". A wrapper remembers the names it
// shortened ("long=short" lines in GetLongNames) and gives the same short name
// again; a new wrapper over the same file starts counting afresh, so long
// names are only stable within one wrapper's life. Names are Windows-1252
// strings and reach the file as UTF-16.
//
// Paths. The path functions address elements as Clients\1234\Notes. Two ways
// of splitting are used, each by a fixed set of functions:
//   comma text (StorageByPath, StreamByPath, AddPath, DeletePath, and the
//     path forms of WriteComponentToStream / ReadComponentFromStream): every
//     "\" becomes "," and the result is split with the string lists' comma-
//     text rules, so blanks also separate items unless the item is quoted
//     with double quotes ("a\b c\d" is four levels a, b, c, d);
//   tokens (ContentsByPath, WriteStreamByPath, LoadStreamByPath,
//     ReadStreamByPath): TokenParseToStrings(Path, '\\', List), which keeps
//     empty items between two separators and drops a trailing one.
// StorageByPath with an empty path and StreamByPath with a one-component
// path raise EListError "List index out of bounds (-1)": a stream directly
// in the root is reached with StreamByName or ReadStreamByPath.
// WriteStreamByPath and WriteComponentToStream do not truncate the element
// stream: delete the path first when the new contents may be shorter.
//
// Failures: EOleStorageError with "Open Storage %s Failed", "Open Stream %s
// Failed" (the caller's name, before cleaning), "Unable to open %s, file not
// found" and "%s is not a structured storage file."; creating elements and
// opening or creating files raise the engine's HRESULT as EOleSysError;
// the Boolean element operations return false and raise nothing.
//
// Sharing: files and sub-elements are opened share-exclusive, so a second
// opener (in this or another process) fails until the first wrapper is
// freed; free sub-storage and stream wrappers before opening the same
// element again.
//
// Thread safety: none. A wrapper, and the unit's search name and interface
// list used by Contains and the interface path functions, belong to one
// thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "vel/rtl/Com.h"
#include "vel/rtl/Components.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/StructuredStorage.h"
#include "vel/rtl/System.h"

namespace vel {

VEL_EXCEPTION(EOleStorageError, Exception);

inline constexpr const char* SOpenStreamFailed = "Open Stream %s Failed";
inline constexpr const char* SOpenStorageFailed = "Open Storage %s Failed";
inline constexpr const char* SStorageFileNotFound = "Unable to open %s, file not found";
inline constexpr const char* SNotStorageFile = "%s is not a structured storage file.";

// The mode flags the wrappers use (the file format's values).
inline constexpr uint32_t stgRead = 0x0000;
inline constexpr uint32_t stgWrite = 0x0001;
inline constexpr uint32_t stgReadWrite = 0x0002;
inline constexpr uint32_t stgShareExclusive = 0x0010;
inline constexpr uint32_t stgCreate = 0x1000;

// The status of one element in plain form.
struct TElementInfo {
  // A name whose first character is below 32 is given as "#" + its decimal
  // code + the rest ("\x05SummaryInformation" is "#5SummaryInformation").
  std::string Name;
  uint32_t ElementType = 0;  // STGTY_STORAGE 1, STGTY_STREAM 2, 3, 4
  uint64_t Size = 0;
  // Local times; an unset time (file time 0) gives 0.
  TDateTime Modified;
  TDateTime Created;
  TDateTime Accessed;
  uint32_t Mode = 0;
  uint32_t LocksSupported = 0;
  TCLSID ClassID;
  uint32_t StateBits = 0;
  // Filled during enumeration: the storage holding the element and its
  // depth (1 for the elements of the storage walked, 2 below them ...).
  IPtr<IStorage> Storage;
  int Depth = 0;
};

// True when every bit of Flag is set in Value, comparing the low 16 bits.
VEL_API bool IsFlagSet(uint32_t Value, uint32_t Flag);
// Name deletes every character the wrappers do not hand to the file.
VEL_API std::string CleanElementName(std::string_view Name);
// A file time (UTC) as a local date-time, and back; 0 gives 0 both ways.
VEL_API TDateTime FileTimeToLocalDateTime(const FILETIME& Time);
VEL_API FILETIME LocalDateTimeToFileTime(TDateTime Time);
// A status record in plain form (Storage and Depth left empty).
VEL_API TElementInfo TranslateStatStg(const STATSTG& Stat);

// The deepest level RecurseStorage (and so ForEach, Contains and the
// structure display) descends to: storages below it are reported but not
// entered, so that a hostile file cannot exhaust the stack. Real files
// nest a few levels.
inline constexpr int MaxStorageDepth = 512;

// Called for each element of a walk; clearing Continue stops it.
using TElementCallback =
    std::function<void(TObject* Sender, const TElementInfo& Info, bool& Continue)>;

// ---------------------------------------------------------------------------
// TCustomOleStorage

class VEL_API TCustomOleStorage : public TObject {
  VEL_CLASS(TCustomOleStorage, TObject)
 public:
  // Holds a reference to Storage (may be null for a root not yet open).
  explicit TCustomOleStorage(IStorage* Storage);
  ~TCustomOleStorage() override;

  // Opens the sub-storage Name. When it cannot be opened: with
  // CreateIfMissing it is created with Mode | stgCreate, else
  // EOleStorageError "Open Storage <Name> Failed".
  void OpenStorage(const std::string& Name, uint32_t Mode, IPtr<IStorage>& Storage,
                   bool CreateIfMissing);
  // The same for a stream ("Open Stream <Name> Failed").
  void OpenStream(const std::string& Name, uint32_t Mode, IPtr<IStream>& Stream,
                  bool CreateIfMissing);
  // Create elements; the engine's failure is raised as EOleSysError.
  void CreateStorage(const std::string& Name, uint32_t Mode, IPtr<IStorage>& Storage);
  void CreateStream(const std::string& Name, uint32_t Mode, IPtr<IStream>& Stream);

  // True when the call succeeded.
  bool DestroyElement(const std::string& Name);
  bool RenameElement(const std::string& OldName, const std::string& NewName);
  bool MoveElementTo(const std::string& Name, IStorage* Dest, const std::string& NewName,
                     uint32_t Flags);
  bool CopyTo(IStorage* Dest);
  bool Commit(uint32_t Flags);
  bool Revert();
  bool EnumElements(IPtr<IEnumSTATSTG>& Enum);
  bool SetClass(const TCLSID& ClassID);
  bool SetStateBits(uint32_t Bits, uint32_t Mask);
  // Times in local time.
  bool SetElementTimes(const std::string& Name, TDateTime Created, TDateTime Accessed,
                       TDateTime Modified);

  // The storage's own status; raises EOleSysError on failure.
  void Stat(STATSTG& Stat, uint32_t Flag);
  // The storage's name as the file holds it (Windows-1252).
  std::string GetName();
  virtual TElementInfo TranslateStatStg(const STATSTG& Stat);

  // The name as handed to the file (see the top of this header).
  std::string GetValidName(const std::string& Name);
  // "long=short" per shortened name, created on first use; owned.
  TStringList* GetLongNames();

  IStorage* Storage() const { return FStorage.get(); }

 protected:
  void ListNeeded();
  bool ListAllocated() const { return FLongNames != nullptr; }
  void CreateList();
  void FreeList();

  TStringList* FLongNames = nullptr;
  IPtr<IStorage> FStorage;
};

// ---------------------------------------------------------------------------
// TOleStorage

class VEL_API TOleStorage : public TCustomOleStorage {
  VEL_CLASS(TOleStorage, TCustomOleStorage)
 public:
  using TCustomOleStorage::TCustomOleStorage;

  // Sub-storages and streams wrapped in new objects the caller owns; the
  // streams are TOleStream objects over the element.
  TOleStorage* CreateOleStorage(const std::string& Name, uint32_t Mode);
  TOleStorage* OpenOleStorage(const std::string& Name, uint32_t Mode, bool CreateIfMissing);
  TStream* CreateOleStream(const std::string& Name, uint32_t Mode);
  TStream* OpenOleStream(const std::string& Name, uint32_t Mode, bool CreateIfMissing);

  // Walks this storage (RecurseStorage with Continue starting true).
  void ForEach(const TElementCallback& Callback, bool Recurse);
  // Calls Callback for each element of Storage in the engine's order; after
  // each storage element, while Continue holds and Recurse is set, opens it
  // read-write share-exclusive (0x12) and walks it, depth first. Depth is
  // the depth of Storage's own elements.
  void RecurseStorage(IStorage* Storage, const TElementCallback& Callback, bool& Continue,
                      bool Recurse, int Depth = 1);
  // Whether an element of that translated name (ignoring case) exists here
  // (or, with Recurse, anywhere below).
  bool Contains(const std::string& Name, bool Recurse);

 private:
  void ContainsElement(TObject* Sender, const TElementInfo& Info, bool& Continue);
};

// ---------------------------------------------------------------------------
// TOleRootStorage

class VEL_API TOleRootStorage : public TOleStorage {
  VEL_CLASS(TOleRootStorage, TOleStorage)
 public:
  // Creates the file when Mode has stgCreate (replacing one that exists),
  // else opens it. The engine's failure is raised as EOleSysError.
  TOleRootStorage(const std::string& FileName, uint16_t Mode);
  ~TOleRootStorage() override;

  // Opens FileName. A missing file raises EOleStorageError "Unable to open
  // <FileName>, file not found" unless CreateIfMissing, which creates it.
  static TOleRootStorage* Open(const std::string& FileName, uint16_t Mode, bool CreateIfMissing);
  // A new file "~tmp<number>." in the temporary folder ($TMPDIR, else
  // /tmp). The file stays there after the object is freed.
  static TOleRootStorage* New(uint16_t Mode);

  // Closes the file (FileName names this object's file: the same text or
  // the same existing file; Windows compares names ignoring case, Linux
  // names are case-sensitive) or copies it into a new file FileName (with
  // TakeName that file becomes this object's file), compacts FileName, and reopens this object's file with the
  // stored mode less stgCreate. Copying to another name releases this
  // object's storage without a commit before reopening it.
  void Save(const std::string& FileName, bool TakeName);

  const std::string& FileName() const { return FFileName; }
  uint16_t Mode() const { return FMode; }

 protected:
  void CreateFileStorage();
  void OpenFileStorage();
  void InternalCloseFile();

 private:
  std::string FFileName;
  uint16_t FMode;
};

// Rewrites FileName into a fresh compound file, which drops its free space:
// copies it into FileName with the extension ".~bak" (which must not exist:
// that failure is raised as EOleSysError), then replaces FileName with it.
VEL_API void CompressFile(const std::string& FileName);

// ---------------------------------------------------------------------------
// Path operations

// A component carrying a string list through component streaming.
class VEL_API TStringsDummy : public TComponent {
  VEL_CLASS(TStringsDummy, TComponent)
 public:
  explicit TStringsDummy(TComponent* AOwner = nullptr);
  ~TStringsDummy() override;
  TStrings* Strings() const { return FStrings; }
  // Copies Value's lines (Assign).
  void SetStrings(TStrings* Value);

 private:
  TStringList* FStrings;
};

// Adds the parts of Text between Separator characters to Strings (an empty
// part between two separators too, a trailing empty part not); the list is
// not cleared first. Does nothing when Strings is null.
VEL_API void TokenParseToStrings(const std::string& Text, char Separator, TStrings* Strings);

VEL_API void StorageByName(IStorage* Storage, const std::string& Name, uint32_t Mode,
                           IPtr<IStorage>& Result, bool CreateIfMissing);
VEL_API void StreamByName(IStorage* Storage, const std::string& Name, uint32_t Mode,
                          IPtr<IStream>& Result, bool CreateIfMissing);
// The interface forms keep the storages on the path in the unit's interface
// list until the next call.
VEL_API void StorageByPath(IStorage* Root, const std::string& Path, uint32_t Mode,
                           IPtr<IStorage>& Result, bool CreateIfMissing);
VEL_API void StreamByPath(IStorage* Root, const std::string& Path, uint32_t Mode,
                          IPtr<IStream>& Result, bool CreateIfMissing);

// Creates every missing storage on Path.
VEL_API void AddPath(TOleStorage* Root, const std::string& Path);
// Destroys the element Path names (a storage with all it holds, or a
// stream); false when the engine refused.
VEL_API bool DeletePath(TOleStorage* Root, const std::string& Path);
// Clears Strings and, for a non-empty path, adds the names of the streams
// of the storage at Path (created when missing), in the engine's order.
VEL_API void ContentsByPath(TOleStorage* Root, const std::string& Path, TStrings* Strings);
// Copies Source.Size bytes from Source's position into the stream at Path
// (created when missing); EReadError when Source has fewer bytes left.
VEL_API void WriteStreamByPath(TOleStorage* Root, const std::string& Path, TStream* Source);
// Copies the whole stream at Path (which must exist) into Target, unless it
// is empty.
VEL_API void LoadStreamByPath(TOleStorage* Root, const std::string& Path, TStream* Target);
// The stream at Path opened read-only, as a new stream the caller owns.
VEL_API TStream* ReadStreamByPath(TOleStorage* Root, const std::string& Path,
                                  bool CreateIfMissing);

VEL_API void WriteComponentToStream(TOleStorage* Root, const std::string& Path,
                                    TComponent* Component);
VEL_API void WriteComponentToStream(IStorage* Storage, const std::string& StreamName,
                                    TComponent* Component);
// Reads Component from the stream, unless the stream is empty.
VEL_API void ReadComponentFromStream(TOleStorage* Root, const std::string& Path,
                                     TComponent* Component, bool CreateIfMissing);
VEL_API void ReadComponentFromStream(IStorage* Storage, const std::string& StreamName,
                                     TComponent* Component, bool CreateIfMissing);
VEL_API void WriteStringsToStream(TOleStorage* Root, const std::string& Path, TStrings* Strings);
VEL_API void ReadStringsFromStream(TOleStorage* Root, const std::string& Path, TStrings* Strings,
                                   bool CreateIfMissing);

// Receives a file's element tree from DisplayFileStructure.
struct VEL_API IDisplayStorageTree : IInterface {
  VEL_INTERFACE_ID("{7C1E52A4-3B0D-4E8C-9A61-2F5D0C8B4E17}")
  // Called before the first element with the file (or root storage) name.
  virtual void BeginDisplay(const std::string& RootName) = 0;
  // Called for each element, depth first in the engine's order; Depth is 1
  // for the root's elements.
  virtual void DisplayElement(const TElementInfo& Info) = 0;
  virtual void EndDisplay() = 0;
};

// Walks Root's whole tree (opening storages 0x12) for Display.
VEL_API void DisplayFileStructure(TOleStorage* Root, IDisplayStorageTree* Display);
// The same on a file opened read-write share-exclusive; EOleStorageError
// "<FileName> is not a structured storage file." when it is not one.
VEL_API void DisplayFileStructure(const std::string& FileName, IDisplayStorageTree* Display);

}  // namespace vel
