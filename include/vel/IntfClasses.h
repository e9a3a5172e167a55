// Interfaced persistent classes: the runtime's persistent object, thread,
// collection, collection item, component list and the library's persistent
// list with an IInterface implementation (and, in the TAuto... classes,
// IDispatch) that an attached COM object can take over.
//
// Without a COM object the objects answer queries from their own interface
// table, do no reference counting (_AddRef/_Release return -1; the creator
// frees them) and refuse automation calls (E_NOTIMPL). With a COM object
// attached (VCLComObject, see Com.h) every IInterface call, and every
// IDispatch call of the TAuto... classes, goes to it, so the object shares
// the COM object's identity and lifetime; TIntfCollection alone never
// forwards reference counting. GetComObject attaches one on demand through
// the factory hook CreateVCLComObjectProc.
//
// Thread safety: as the base classes (none); a COM object's count is
// atomic.
#pragma once

#include <exception>

#include "vel/ExtendedClasses.h"
#include "vel/rtl/Com.h"
#include "vel/rtl/Components.h"
#include "vel/rtl/Persistent.h"
#include "vel/rtl/Threads.h"

namespace vel {

VEL_EXCEPTION(EIntfClassError, Exception);

// Kept as the text has always read.
inline constexpr const char* SNoComSupport = "No Com Support inmplemented";

// The members every class of the family adds.
#define VEL_INTF_CLASS_MEMBERS_                                                                \
 public:                                                                                       \
  /* Forwarded to the COM object when one is attached; otherwise the own */                    \
  /* interface table: S_OK, or E_NOINTERFACE. */                                               \
  ::vel::HRESULT QueryInterface(const ::vel::TGUID& IID, void** Obj) override;                 \
  int32_t _AddRef() override;                                                                  \
  int32_t _Release() override;                                                                 \
  /* The COM object's handler, or the runtime's default (E_UNEXPECTED). */                     \
  virtual ::vel::HRESULT SafeCallException(std::exception_ptr ExceptObject, void* ExceptAddr); \
  /* Asks the attached COM object to free this object with its last */                         \
  /* reference; nothing without one. */                                                        \
  void FreeOnRelease();                                                                        \
  /* The COM object's IInterface, attaching one through the factory hook */                    \
  /* when none is attached; EIntfClassError "No Com Support inmplemented" */                   \
  /* when still none. */                                                                       \
  ::vel::IPtr<::vel::IInterface> GetComObject();                                               \
                                                                                               \
 private:

// The IDispatch methods of the TAuto... classes: forwarded unchanged to the
// attached COM object, E_NOTIMPL without one.
#define VEL_AUTO_CLASS_MEMBERS_                                                                    \
 public:                                                                                           \
  ::vel::HRESULT GetTypeInfoCount(int32_t* Count) override;                                        \
  ::vel::HRESULT GetTypeInfo(int32_t Index, int32_t LocaleID, void** TypeInfo) override;           \
  ::vel::HRESULT GetIDsOfNames(const ::vel::TGUID& IID, void* Names, int32_t NameCount,            \
                               int32_t LocaleID, void* DispIDs) override;                          \
  ::vel::HRESULT Invoke(int32_t DispID, const ::vel::TGUID& IID, int32_t LocaleID, uint16_t Flags, \
                        void* Params, void* VarResult, void* ExcepInfo, void* ArgErr) override;    \
                                                                                                   \
 private:

class VEL_API TIntfPersistent : public TPersistent, public IInterface, public TVCLComObjectHolder {
  VEL_CLASS(TIntfPersistent, TPersistent)
  VEL_INTERFACE_TABLE(IInterface)
  VEL_INTF_CLASS_MEMBERS_
 public:
  TIntfPersistent() = default;
  ~TIntfPersistent() override;
};

class VEL_API TIntfThread : public TThread, public IInterface, public TVCLComObjectHolder {
  VEL_CLASS(TIntfThread, TThread)
  VEL_INTERFACE_TABLE(IInterface)
  VEL_INTF_CLASS_MEMBERS_
 public:
  explicit TIntfThread(bool CreateSuspended) : TThread(CreateSuspended) {}
  ~TIntfThread() override;
};

// Never forwards _AddRef/_Release, even with a COM object attached.
class VEL_API TIntfCollection : public TCollection, public IInterface, public TVCLComObjectHolder {
  VEL_CLASS(TIntfCollection, TCollection)
  VEL_INTERFACE_TABLE(IInterface)
  VEL_INTF_CLASS_MEMBERS_
 public:
  explicit TIntfCollection(TClass AItemClass = TCollectionItem::StaticClass())
      : TCollection(AItemClass) {}
  ~TIntfCollection() override;
};

class VEL_API TIntfCollectionItem : public TCollectionItem,
                                    public IInterface,
                                    public TVCLComObjectHolder {
  VEL_CLASS(TIntfCollectionItem, TCollectionItem)
  VEL_INTERFACE_TABLE(IInterface)
  VEL_INTF_CLASS_MEMBERS_
 public:
  explicit TIntfCollectionItem(TCollection* ACollection = nullptr) : TCollectionItem(ACollection) {}
  ~TIntfCollectionItem() override;
};

class VEL_API TIntfComponentList : public TComponentList,
                                   public IInterface,
                                   public TVCLComObjectHolder {
  VEL_CLASS(TIntfComponentList, TComponentList)
  VEL_INTERFACE_TABLE(IInterface)
  VEL_INTF_CLASS_MEMBERS_
 public:
  explicit TIntfComponentList(bool AOwnsObjects = true) : TComponentList(AOwnsObjects) {}
  ~TIntfComponentList() override;
};

class VEL_API TIntfPersistentList : public TPersistentList,
                                    public IInterface,
                                    public TVCLComObjectHolder {
  VEL_CLASS(TIntfPersistentList, TPersistentList)
  VEL_INTERFACE_TABLE(IInterface)
  VEL_INTF_CLASS_MEMBERS_
 public:
  explicit TIntfPersistentList(bool AOwnsObjects = true) : TPersistentList(AOwnsObjects) {}
  ~TIntfPersistentList() override;
};

class VEL_API TAutoPersistent : public TIntfPersistent, public IDispatch {
  VEL_CLASS(TAutoPersistent, TIntfPersistent)
  VEL_INTERFACES(IDispatch)
  VEL_AUTO_CLASS_MEMBERS_
 public:
  TAutoPersistent() = default;
  ~TAutoPersistent() override;
};

class VEL_API TAutoCollection : public TIntfCollection, public IDispatch {
  VEL_CLASS(TAutoCollection, TIntfCollection)
  VEL_INTERFACES(IDispatch)
  VEL_AUTO_CLASS_MEMBERS_
 public:
  explicit TAutoCollection(TClass AItemClass = TCollectionItem::StaticClass())
      : TIntfCollection(AItemClass) {}
  ~TAutoCollection() override;
};

class VEL_API TAutoCollectionItem : public TIntfCollectionItem, public IDispatch {
  VEL_CLASS(TAutoCollectionItem, TIntfCollectionItem)
  VEL_INTERFACES(IDispatch)
  VEL_AUTO_CLASS_MEMBERS_
 public:
  explicit TAutoCollectionItem(TCollection* ACollection = nullptr)
      : TIntfCollectionItem(ACollection) {}
  ~TAutoCollectionItem() override;
};

class VEL_API TAutoComponentList : public TIntfComponentList, public IDispatch {
  VEL_CLASS(TAutoComponentList, TIntfComponentList)
  VEL_INTERFACES(IDispatch)
  VEL_AUTO_CLASS_MEMBERS_
 public:
  explicit TAutoComponentList(bool AOwnsObjects = true) : TIntfComponentList(AOwnsObjects) {}
  ~TAutoComponentList() override;
};

class VEL_API TAutoPersistentList : public TIntfPersistentList, public IDispatch {
  VEL_CLASS(TAutoPersistentList, TIntfPersistentList)
  VEL_INTERFACES(IDispatch)
  VEL_AUTO_CLASS_MEMBERS_
 public:
  explicit TAutoPersistentList(bool AOwnsObjects = true) : TIntfPersistentList(AOwnsObjects) {}
  ~TAutoPersistentList() override;
};

#undef VEL_INTF_CLASS_MEMBERS_
#undef VEL_AUTO_CLASS_MEMBERS_

}  // namespace vel
