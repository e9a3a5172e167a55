// TMemoryMapFile of the ExtendedClasses unit: open or create, fstat, mmap.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vel/ExtendedClasses.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TMemoryMapFile)

TMemoryMapFile::TMemoryMapFile(const std::string& AFileName, int32_t AMode, int32_t /*Unused*/)
    : FFileName(AFileName), FMode(AMode) {
  try {
    LoadFile();
    struct stat St {};
    if (::fstat(FFileHandle, &St) != 0) throw EMemoryMapFile(Format(SMemoryMapFile, {FFileName}));
    if (static_cast<uint64_t>(St.st_size) > 0xFFFFFFFFull)
      throw EMemoryMapFile(Format(SMemoryMapTooLarge, {FFileName}));
    FFileSize = static_cast<uint32_t>(St.st_size);
    CreateFileMap();
    MapFileView();
  } catch (...) {
    Release();
    throw;
  }
}

TMemoryMapFile::~TMemoryMapFile() {
  Release();
}

void TMemoryMapFile::Release() {
  // The handles go first; the view keeps the mapping alive until unmapped.
  if (FFileHandle >= 0) ::close(FFileHandle);
  FFileHandle = -1;
  if (FMapHandle >= 0) ::close(FMapHandle);
  FMapHandle = -1;
  FreeMapView();
}

void TMemoryMapFile::LoadFile() {
  if (FMode == mmCreate) {
    FFileHandle = ::open(FFileName.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  } else {
    static const int Access[] = {O_RDONLY, O_WRONLY, O_RDWR};
    const int A = FMode & 3;
    FFileHandle = A < 3 ? ::open(FFileName.c_str(), Access[A] | O_CLOEXEC) : -1;
  }
  if (FFileHandle < 0) throw EMemoryMapFile(Format(SMemoryMapLoadFile, {FFileName}));
}

void TMemoryMapFile::CreateFileMap() {
  // A mapping of the whole file: an empty file has nothing to map, and the
  // protection asked for must be allowed by the file's open access.
  const int Flags = ::fcntl(FFileHandle, F_GETFL);
  const int Acc = Flags < 0 ? -1 : (Flags & O_ACCMODE);
  const bool Allowed = FMode != 0 ? Acc == O_RDWR : (Acc == O_RDONLY || Acc == O_RDWR);
  if (FFileSize == 0 || !Allowed) throw EMemoryMapFile(Format(SMemoryMapFile, {FFileName}));
  FMapHandle = ::fcntl(FFileHandle, F_DUPFD_CLOEXEC, 0);
  if (FMapHandle < 0) throw EMemoryMapFile(Format(SMemoryMapFile, {FFileName}));
}

void TMemoryMapFile::MapFileView() {
  const int Prot = FMode != 0 ? PROT_READ | PROT_WRITE : PROT_READ;
  void* P = ::mmap(nullptr, FFileSize, Prot, MAP_SHARED, FMapHandle, 0);
  if (P == MAP_FAILED) throw EMemoryMapFile(Format(SMemoryMapView, {FFileName}));
  FData = P;
}

void TMemoryMapFile::FreeMapView() {
  if (FData) ::munmap(FData, FFileSize);
  FData = nullptr;
}

}  // namespace vel
