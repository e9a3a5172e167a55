#include "threads/UsePins.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "vel/rtl/Messages.h"

namespace vel::detail {

namespace {

struct TPin {
  const void* Obj;
  DWORD Thread;
  int Count;
};

// Never destroyed: threads may unpin while the process exits.
struct TPins {
  std::mutex Lock;
  std::condition_variable Changed;
  std::vector<TPin> List;  // few entries: one per notification under way
};

TPins& Pins() {
  static TPins* P = new TPins;
  return *P;
}

bool PinnedByOthers(const TPins& P, const void* Obj, DWORD Self) {
  return std::any_of(P.List.begin(), P.List.end(),
                     [&](const TPin& E) { return E.Obj == Obj && E.Thread != Self; });
}

}  // namespace

void PinObject(const void* Obj) {
  TPins& P = Pins();
  const DWORD Self = GetCurrentThreadId();
  std::lock_guard<std::mutex> L(P.Lock);
  for (TPin& E : P.List)
    if (E.Obj == Obj && E.Thread == Self) {
      ++E.Count;
      return;
    }
  P.List.push_back({Obj, Self, 1});
}

void UnpinObject(const void* Obj) {
  TPins& P = Pins();
  const DWORD Self = GetCurrentThreadId();
  {
    std::lock_guard<std::mutex> L(P.Lock);
    auto It = std::find_if(P.List.begin(), P.List.end(),
                           [&](const TPin& E) { return E.Obj == Obj && E.Thread == Self; });
    if (It == P.List.end() || --It->Count > 0) return;
    P.List.erase(It);
  }
  P.Changed.notify_all();
  // A main thread waiting for this object sleeps in CheckSynchronize.
  WakeMainThread();
}

void WaitUnpinned(const void* Obj) {
  TPins& P = Pins();
  const DWORD Self = GetCurrentThreadId();
  if (Self == MainThreadID()) {
    for (;;) {
      {
        std::lock_guard<std::mutex> L(P.Lock);
        if (!PinnedByOthers(P, Obj, Self)) return;
      }
      CheckSynchronize(1);
    }
  }
  std::unique_lock<std::mutex> L(P.Lock);
  P.Changed.wait(L, [&] { return !PinnedByOthers(P, Obj, Self); });
}

}  // namespace vel::detail
