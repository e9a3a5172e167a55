#include "vel/rtl/System.h"

#include <algorithm>

#include "vel/Version.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

namespace {

bool SameTextAscii(std::string_view A, std::string_view B) {
  if (A.size() != B.size()) return false;
  for (size_t I = 0; I < A.size(); ++I) {
    unsigned char X = static_cast<unsigned char>(A[I]);
    unsigned char Y = static_cast<unsigned char>(B[I]);
    if (X >= 'a' && X <= 'z') X -= 32;
    if (Y >= 'a' && Y <= 'z') Y -= 32;
    if (X != Y) return false;
  }
  return true;
}

}  // namespace

const char* LibraryVersion() { return VEL_VERSION_STRING; }

Exception::~Exception() = default;

bool TMetaClass::ClassNameIs(std::string_view S) const { return SameTextAscii(Name, S); }

void* TMetaClass::MethodAddress(std::string_view MethodName) const {
  for (TClass C = this; C; C = C->Parent)
    for (const TPublishedMethod& M : C->Methods)
      if (SameTextAscii(M.Name, MethodName)) return M.Code;
  return nullptr;
}

std::string TMetaClass::MethodName(void* Code) const {
  if (!Code) return std::string();
  for (TClass C = this; C; C = C->Parent)
    for (const TPublishedMethod& M : C->Methods)
      if (M.Code == Code) return M.Name;
  return std::string();
}

const TMessageHandler* TMetaClass::FindHandler(uint32_t Msg) const {
  for (TClass C = this; C; C = C->Parent) {
    const auto& H = C->Handlers;
    if (H.empty()) continue;
    auto It = std::lower_bound(H.begin(), H.end(), Msg,
                               [](const TMessageHandler& E, uint32_t M) { return E.Msg < M; });
    if (It != H.end() && It->Msg == Msg) return &*It;
  }
  return nullptr;
}

TObject* TMetaClass::Create() const {
  if (!PlainCreate) throw EAbstractError("Cannot create an instance of abstract class " + Name);
  return PlainCreate();
}

TObject* TMetaClass::CreateWith(TObject* Arg) const {
  if (VirtualCreate) return VirtualCreate(Arg);
  return Create();
}

TObject::~TObject() = default;

TClass TObject::StaticClass() {
  static constinit detail::TClassSlot Slot;
  return Slot.Get([](TMetaClass* M) {
    M->Name = "TObject";
    M->InstanceSize = sizeof(TObject);
    M->PlainCreate = []() -> TObject* { return new TObject(); };
    detail::TClassBuilder B(M, false);
    B.Finish();
  });
}

TClass TObject::ClassType() const { return StaticClass(); }

void TObject::Dispatch(void* Message) {
  uint32_t Msg;
  std::memcpy(&Msg, Message, sizeof Msg);
  if (const TMessageHandler* H = ClassType()->FindHandler(Msg)) {
    H->Call(this, Message);
    return;
  }
  DefaultHandler(Message);
}

void TObject::DefaultHandler(void*) {}

}  // namespace vel
