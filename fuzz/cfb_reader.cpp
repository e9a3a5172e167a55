// Feeds arbitrary bytes to the compound-file engine as a file: open,
// enumerate every storage depth first, stat and read every stream in
// pieces, seek and clone; when the first byte is odd, also edit the file
// (create, destroy, resize across the mini-stream cut-off) and save it, then
// open the saved file again. Every call must return an HRESULT, without a
// crash, a leak, a hang or an allocation sized by an unchecked field.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vel/rtl/StructuredStorage.h"

using namespace vel;

namespace {

template <class I>
I** Out(IPtr<I>& P) {
  return reinterpret_cast<I**>(P.Out());
}

constexpr uint32_t RO = STGM_READ | STGM_SHARE_EXCLUSIVE;

void Walk(IStorage* Stg, int Depth) {
  IPtr<IEnumSTATSTG> E;
  if (Stg->EnumElements(0, nullptr, 0, Out(E)) != S_OK) return;
  STATSTG St;
  uint32_t N = 0;
  std::vector<uint8_t> Buf(65536);
  while (E->Next(1, &St, &N) == S_OK) {
    if (St.type == STGTY_STORAGE) {
      IPtr<IStorage> Sub;
      if (Stg->OpenStorage(St.pwcsName.c_str(), nullptr, RO, nullptr, 0, Out(Sub)) == S_OK) {
        STATSTG Own;
        Sub->Stat(&Own, STATFLAG_DEFAULT);
        Walk(Sub, Depth + 1);
      }
      continue;
    }
    IPtr<IStream> S;
    if (Stg->OpenStream(St.pwcsName.c_str(), nullptr, RO, 0, Out(S)) != S_OK) continue;
    uint32_t Got = 0;
    while (S->Read(Buf.data(), static_cast<uint32_t>(Buf.size()), &Got) == S_OK && Got > 0) {
    }
    IPtr<IStream> C;
    if (S->Clone(Out(C)) == S_OK) {
      uint64_t Pos = 0;
      C->Seek(-1, STREAM_SEEK_END, &Pos);
      C->Read(Buf.data(), 16, &Got);
    }
  }
}

void Edit(IStorage* Root) {
  constexpr uint32_t RW = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
  IPtr<IEnumSTATSTG> E;
  STATSTG St;
  uint32_t N = 0;
  if (Root->EnumElements(0, nullptr, 0, Out(E)) == S_OK && E->Next(1, &St, &N) == S_OK) {
    if (St.type == STGTY_STREAM) {
      IPtr<IStream> S;
      if (Root->OpenStream(St.pwcsName.c_str(), nullptr, RW, 0, Out(S)) == S_OK) {
        S->SetSize(St.cbSize < 4096 ? 5000 : 100);
        S->Write("edit", 4, nullptr);
      }
    } else {
      Root->DestroyElement(St.pwcsName.c_str());
    }
  }
  IPtr<IStream> New;
  if (Root->CreateStream(u"FuzzNew", RW | STGM_CREATE, 0, 0, Out(New)) == S_OK) {
    std::vector<uint8_t> B(6000, 0x5A);
    New->Write(B.data(), static_cast<uint32_t>(B.size()), nullptr);
  }
  Root->Commit(STGC_DEFAULT);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  static int Fd = memfd_create("cfb_reader", 0);
  static std::u16string Path = StgUtf8ToName("/proc/self/fd/" + std::to_string(Fd));
  if (Fd < 0 || ftruncate(Fd, 0) != 0) return 0;
  if (Size && pwrite(Fd, Data, Size, 0) != static_cast<ssize_t>(Size)) return 0;
  StgIsStorageFile(Path.c_str());
  bool Write = Size > 0 && (Data[0] & 1);
  {
    IPtr<IStorage> R;
    uint32_t Mode = (Write ? STGM_READWRITE : STGM_READ) | STGM_SHARE_EXCLUSIVE;
    if (StgOpenStorage(Path.c_str(), nullptr, Mode, nullptr, 0, Out(R)) != S_OK) return 0;
    STATSTG St;
    R->Stat(&St, STATFLAG_NONAME);
    Walk(R, 0);
    if (Write) Edit(R);
  }
  if (Write) {
    IPtr<IStorage> R;
    if (StgOpenStorage(Path.c_str(), nullptr, RO, nullptr, 0, Out(R)) == S_OK) Walk(R, 0);
  }
  return 0;
}
