// Structured storage: compound files (a file holding a tree of named
// storages and streams, in the compound file binary format with 512- or
// 4096-byte sectors) behind the platform's COM surface: StgCreateDocfile,
// StgOpenStorage, StgIsStorageFile, IStorage, IStream, IEnumSTATSTG.
//
// Conventions, as on Windows:
// - element names are UTF-16 (const char16_t*, null-terminated), at most 31
//   characters, without '/', '\', ':' or '!'; names compare ignoring case;
// - file names are UTF-16 as well; on Linux they are converted to UTF-8;
// - every call returns an HRESULT and never throws; out interface pointers
//   receive one counted reference (wrap them with IPtr<I>::Attach);
// - sub-elements must be opened with STGM_SHARE_EXCLUSIVE, and an element
//   that is open already cannot be opened a second time (STG_E_ACCESSDENIED).
//
// Sharing: the root open takes an advisory lock on the file (flock), shared
// for read-only access with STGM_SHARE_DENY_WRITE or STGM_SHARE_DENY_NONE,
// exclusive otherwise; a conflicting opener, in this process or another,
// gets STG_E_SHAREVIOLATION.
//
// Saving: a direct-mode root (no STGM_TRANSACTED) saves its changes on
// Commit and when its last reference is released; a transacted root only on
// Commit, and Revert returns to the last saved state. A save writes every
// changed structure to sectors the saved state does not use, then the
// header: a process killed at any moment leaves the previous or the new
// state. Commit and Revert of a sub-storage act on the whole file.
//
// Thread safety: all objects of one open file share one lock; each call is
// atomic with respect to the others.
#pragma once

#include <cstdint>
#include <string>

#include "vel/rtl/Com.h"

namespace vel {

// ---------------------------------------------------------------------------
// Mode flags (grfMode)

enum : uint32_t {
  STGM_DIRECT = 0x00000000,
  STGM_TRANSACTED = 0x00010000,
  STGM_SIMPLE = 0x08000000,
  STGM_READ = 0x00000000,
  STGM_WRITE = 0x00000001,
  STGM_READWRITE = 0x00000002,
  STGM_SHARE_DENY_NONE = 0x00000040,
  STGM_SHARE_DENY_READ = 0x00000030,
  STGM_SHARE_DENY_WRITE = 0x00000020,
  STGM_SHARE_EXCLUSIVE = 0x00000010,
  STGM_PRIORITY = 0x00040000,
  STGM_DELETEONRELEASE = 0x04000000,
  STGM_NOSCRATCH = 0x00100000,
  STGM_CREATE = 0x00001000,
  STGM_CONVERT = 0x00020000,
  STGM_FAILIFTHERE = 0x00000000,
  STGM_NOSNAPSHOT = 0x00200000,
  STGM_DIRECT_SWMR = 0x00400000,
};

// MoveElementTo flags.
enum : uint32_t { STGMOVE_MOVE = 0, STGMOVE_COPY = 1, STGMOVE_SHALLOWCOPY = 2 };

// Commit flags beyond those of Com.h.
enum : uint32_t { STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE = 4, STGC_CONSOLIDATE = 8 };

// Formats for StgCreateStorageEx.
enum : uint32_t { STGFMT_STORAGE = 0, STGFMT_FILE = 3, STGFMT_ANY = 4, STGFMT_DOCFILE = 5 };

// ---------------------------------------------------------------------------
// Results (Windows' values; the first few are declared in Com.h)

inline constexpr HRESULT STG_E_FILENOTFOUND = detail::HR(0x80030002);
inline constexpr HRESULT STG_E_PATHNOTFOUND = detail::HR(0x80030003);
inline constexpr HRESULT STG_E_TOOMANYOPENFILES = detail::HR(0x80030004);
inline constexpr HRESULT STG_E_INVALIDHANDLE = detail::HR(0x80030006);
inline constexpr HRESULT STG_E_INSUFFICIENTMEMORY = detail::HR(0x80030008);
inline constexpr HRESULT STG_E_NOMOREFILES = detail::HR(0x80030012);
inline constexpr HRESULT STG_E_DISKISWRITEPROTECTED = detail::HR(0x80030013);
inline constexpr HRESULT STG_E_SEEKERROR = detail::HR(0x80030019);
inline constexpr HRESULT STG_E_SHAREVIOLATION = detail::HR(0x80030020);
inline constexpr HRESULT STG_E_LOCKVIOLATION = detail::HR(0x80030021);
inline constexpr HRESULT STG_E_FILEALREADYEXISTS = detail::HR(0x80030050);
inline constexpr HRESULT STG_E_PROPSETMISMATCHED = detail::HR(0x800300F0);
inline constexpr HRESULT STG_E_ABNORMALAPIEXIT = detail::HR(0x800300FA);
inline constexpr HRESULT STG_E_INVALIDHEADER = detail::HR(0x800300FB);
inline constexpr HRESULT STG_E_INVALIDNAME = detail::HR(0x800300FC);
inline constexpr HRESULT STG_E_UNKNOWN = detail::HR(0x800300FD);
inline constexpr HRESULT STG_E_UNIMPLEMENTEDFUNCTION = detail::HR(0x800300FE);
inline constexpr HRESULT STG_E_INVALIDFLAG = detail::HR(0x800300FF);
inline constexpr HRESULT STG_E_INUSE = detail::HR(0x80030100);
inline constexpr HRESULT STG_E_NOTCURRENT = detail::HR(0x80030101);
inline constexpr HRESULT STG_E_OLDFORMAT = detail::HR(0x80030104);
inline constexpr HRESULT STG_E_OLDDLL = detail::HR(0x80030105);
inline constexpr HRESULT STG_E_SHAREREQUIRED = detail::HR(0x80030106);
inline constexpr HRESULT STG_E_NOTFILEBASEDSTORAGE = detail::HR(0x80030107);
inline constexpr HRESULT STG_E_EXTANTMARSHALLINGS = detail::HR(0x80030108);
inline constexpr HRESULT STG_E_DOCFILECORRUPT = detail::HR(0x80030109);
inline constexpr HRESULT STG_E_BADBASEADDRESS = detail::HR(0x80030110);
inline constexpr HRESULT STG_E_DOCFILETOOLARGE = detail::HR(0x80030111);
inline constexpr HRESULT STG_E_NOTSIMPLEFORMAT = detail::HR(0x80030112);
inline constexpr HRESULT STG_E_INCOMPLETE = detail::HR(0x80030201);
inline constexpr HRESULT STG_E_TERMINATED = detail::HR(0x80030202);
inline constexpr HRESULT STG_S_CONVERTED = detail::HR(0x00030200);

// The system text of a structured-storage result (Windows' wording, without
// the final period), or "" for other codes.
VEL_API std::string StgResultMessage(HRESULT Code);

// ---------------------------------------------------------------------------
// Interfaces

// A null-terminated array of element names (snbExclude); nullptr for none.
using SNB = const char16_t* const*;

struct VEL_API IEnumSTATSTG : IInterface {
  VEL_INTERFACE_ID("{0000000D-0000-0000-C000-000000000046}")
  // Fills up to celt records; S_OK when celt were given, S_FALSE when fewer.
  virtual HRESULT Next(uint32_t celt, STATSTG* rgelt, uint32_t* pceltFetched) = 0;
  virtual HRESULT Skip(uint32_t celt) = 0;
  virtual HRESULT Reset() = 0;
  virtual HRESULT Clone(IEnumSTATSTG** ppenum) = 0;
};

struct VEL_API IStorage : IInterface {
  VEL_INTERFACE_ID("{0000000B-0000-0000-C000-000000000046}")
  virtual HRESULT CreateStream(const char16_t* pwcsName, uint32_t grfMode, uint32_t reserved1,
                               uint32_t reserved2, IStream** ppstm) = 0;
  virtual HRESULT OpenStream(const char16_t* pwcsName, void* reserved1, uint32_t grfMode,
                             uint32_t reserved2, IStream** ppstm) = 0;
  virtual HRESULT CreateStorage(const char16_t* pwcsName, uint32_t grfMode, uint32_t reserved1,
                                uint32_t reserved2, IStorage** ppstg) = 0;
  virtual HRESULT OpenStorage(const char16_t* pwcsName, IStorage* pstgPriority, uint32_t grfMode,
                              SNB snbExclude, uint32_t reserved, IStorage** ppstg) = 0;
  // Copies every element (deeply), the class and the state bits into
  // pstgDest, replacing elements of the same name there; elements named in
  // snbExclude are left out.
  virtual HRESULT CopyTo(uint32_t ciidExclude, const TIID* rgiidExclude, SNB snbExclude,
                         IStorage* pstgDest) = 0;
  virtual HRESULT MoveElementTo(const char16_t* pwcsName, IStorage* pstgDest,
                                const char16_t* pwcsNewName, uint32_t grfFlags) = 0;
  virtual HRESULT Commit(uint32_t grfCommitFlags) = 0;
  virtual HRESULT Revert() = 0;
  virtual HRESULT EnumElements(uint32_t reserved1, void* reserved2, uint32_t reserved3,
                               IEnumSTATSTG** ppenum) = 0;
  virtual HRESULT DestroyElement(const char16_t* pwcsName) = 0;
  virtual HRESULT RenameElement(const char16_t* pwcsOldName, const char16_t* pwcsNewName) = 0;
  // A null pwcsName sets the times of this storage itself; a null time
  // pointer leaves that time unchanged.
  virtual HRESULT SetElementTimes(const char16_t* pwcsName, const FILETIME* pctime,
                                  const FILETIME* patime, const FILETIME* pmtime) = 0;
  virtual HRESULT SetClass(const TCLSID& clsid) = 0;
  virtual HRESULT SetStateBits(uint32_t grfStateBits, uint32_t grfMask) = 0;
  virtual HRESULT Stat(STATSTG* pstatstg, uint32_t grfStatFlag) = 0;
};

// ---------------------------------------------------------------------------
// Functions

// Creates a compound file (version 3, 512-byte sectors). Without
// STGM_CREATE an existing file gives STG_E_FILEALREADYEXISTS; with it the
// file is replaced. A null name creates a temporary file that is deleted
// when the storage is released.
VEL_API HRESULT StgCreateDocfile(const char16_t* pwcsName, uint32_t grfMode, uint32_t reserved,
                                 IStorage** ppstgOpen);

// Options of StgCreateStorageEx: ulSectorSize 512 (version 3) or 4096
// (version 4).
struct STGOPTIONS {
  uint16_t usVersion = 1;
  uint16_t reserved = 0;
  uint32_t ulSectorSize = 512;
  const char16_t* pwcsTemplateFile = nullptr;
};

// StgCreateDocfile with a choice of sector size; stgfmt STGFMT_STORAGE or
// STGFMT_DOCFILE, riid IIDOf<IStorage>.
VEL_API HRESULT StgCreateStorageEx(const char16_t* pwcsName, uint32_t grfMode, uint32_t stgfmt,
                                   uint32_t grfAttrs, STGOPTIONS* pStgOptions,
                                   void* pSecurityDescriptor, const TIID& riid,
                                   void** ppObjectOpen);

// Opens a compound file. A missing file gives STG_E_FILENOTFOUND, a file
// that is not a compound file STG_E_FILEALREADYEXISTS, a damaged one
// STG_E_DOCFILECORRUPT (or STG_E_INVALIDHEADER for a bad header).
VEL_API HRESULT StgOpenStorage(const char16_t* pwcsName, IStorage* pstgPriority, uint32_t grfMode,
                               SNB snbExclude, uint32_t reserved, IStorage** ppstgOpen);

// S_OK when the file starts with the compound-file signature, S_FALSE when
// it does not, STG_E_FILENOTFOUND when it cannot be read.
VEL_API HRESULT StgIsStorageFile(const char16_t* pwcsName);

// Conversions for callers holding UTF-8 text.
VEL_API std::u16string StgUtf8ToName(std::string_view Utf8);
VEL_API std::string StgNameToUtf8(std::u16string_view Name);

// Whether two element names are equal in the format's comparison (upper
// case, as Windows folds them), and the format's order of names: a shorter
// name first, then the upper-cased characters by code.
VEL_API int StgCompareNames(std::u16string_view A, std::u16string_view B);

// The current time as a FILETIME (100-ns intervals since 1601, UTC).
VEL_API FILETIME StgCurrentFileTime();

}  // namespace vel
