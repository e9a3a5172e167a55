// Process-wide marks of objects that a thread is using without owning them:
// a thread object about which a notification is under way, a notifier that
// is being called. Code that frees or detaches such an object first waits
// until no other thread has it marked, so a notification never reaches
// freed memory although it is delivered without holding any lock.
#pragma once

namespace vel::detail {

// Marks Obj as used by the calling thread (marks nest).
void PinObject(const void* Obj);
// Takes back one mark of the calling thread.
void UnpinObject(const void* Obj);
// Returns once no thread but the caller has Obj marked. On the main thread
// Synchronize requests are served meanwhile, so a worker that is calling a
// subscriber which synchronises with the main thread can finish.
void WaitUnpinned(const void* Obj);

// Holds one mark for a scope.
class TPinGuard {
 public:
  explicit TPinGuard(const void* Obj) : FObj(Obj) { PinObject(Obj); }
  ~TPinGuard() { UnpinObject(FObj); }
  TPinGuard(const TPinGuard&) = delete;
  TPinGuard& operator=(const TPinGuard&) = delete;

 private:
  const void* FObj;
};

}  // namespace vel::detail
