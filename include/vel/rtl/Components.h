// Components (owned trees of named objects with free notification) and
// collections (owned lists of items of one class).
//
// Thread safety: none; components and collections belong to one thread at a
// time, as in the runtime.
#pragma once

#include <string>
#include <vector>

#include "vel/rtl/Lists.h"
#include "vel/rtl/Persistent.h"

namespace vel {

class TComponent;
class TCollection;

VEL_EXCEPTION(EComponentError, Exception);

enum TOperation : uint8_t { opInsert, opRemove };

enum TComponentStateItem : uint8_t {
  csLoading, csReading, csWriting, csDestroying, csDesigning, csAncestor, csUpdating,
  csFixups, csFreeNotification, csInline, csDesignInstance
};
using TComponentState = TSet<TComponentStateItem>;

// A persistent object with an owner. The owner frees its components when it
// is freed; components asked for free notification hear of each other's
// destruction through Notification(..., opRemove).
class VEL_API TComponent : public TPersistent {
  VEL_CLASS(TComponent, TPersistent)
 public:
  // The argument of the virtual constructor reached through a class
  // reference (TMetaClass::CreateWith).
  using TCtorArg = TComponent*;

  explicit TComponent(TComponent* AOwner = nullptr);
  ~TComponent() override;

  TComponent* Owner() const { return FOwner; }
  int ComponentCount() const { return static_cast<int>(FComponents.size()); }
  // The owned component at Index; raises EListError-like EComponentError
  // "List index out of bounds (%d)" when out of range.
  TComponent* Components(int Index) const;
  int ComponentIndex() const;
  void SetComponentIndex(int Value);
  // The owned component named Name (any letter case), or null.
  TComponent* FindComponent(std::string_view AName) const;

  const std::string& Name() const { return FName; }
  // Renames the component. Raises EComponentError "'%s' is not a valid
  // component name" or "A component named %s already exists".
  virtual void SetName(const std::string& NewName);
  int32_t Tag() const { return FTag; }
  void SetTag(int32_t Value) { FTag = Value; }
  TComponentState ComponentState() const { return FComponentState; }

  void InsertComponent(TComponent* AComponent);
  void RemoveComponent(TComponent* AComponent);
  // Frees every owned component (last first).
  void DestroyComponents();
  // Marks the component as being destroyed and tells its components.
  void Destroying();

  // Asks that AComponent be told (Notification(this, opRemove)) when this
  // component is freed, and the other way round.
  void FreeNotification(TComponent* AComponent);
  void RemoveFreeNotification(TComponent* AComponent);

  std::string GetNamePath() const override;

  // Called when AComponent is inserted into or removed from this owner, or
  // freed while this component asked for free notification. The base
  // forgets free notifications of removed components and passes the
  // notification on to every owned component.
  virtual void Notification(TComponent* AComponent, TOperation Operation);
  // Called after the component was read from a stream.
  virtual void Loaded();

 protected:
  TPersistent* GetOwner() const override { return FOwner; }
  virtual void ValidateRename(TComponent* AComponent, const std::string& CurName,
                              const std::string& NewName);
  void SetComponentStateFlag(TComponentStateItem Flag, bool On);

 private:
  void Insert(TComponent* AComponent);
  void Remove(TComponent* AComponent);
  void RemoveNotification(TComponent* AComponent);

  TComponent* FOwner = nullptr;
  std::string FName;
  int32_t FTag = 0;
  std::vector<TComponent*> FComponents;
  std::vector<TComponent*> FFreeNotifies;
  TComponentState FComponentState;
};

enum TCollectionNotification : uint8_t { cnAdded, cnExtracting, cnDeleting };

// An item of a collection: created by the collection's Add, owned and freed
// by it. Freeing an item removes it from its collection.
class VEL_API TCollectionItem : public TPersistent {
  VEL_CLASS(TCollectionItem, TPersistent)
 public:
  using TCtorArg = TCollection*;

  explicit TCollectionItem(TCollection* ACollection = nullptr);
  ~TCollectionItem() override;

  TCollection* Collection() const { return FCollection; }
  // Moves the item into another collection (or out of any, with null).
  virtual void SetCollection(TCollection* Value);
  int ID() const { return FID; }
  int Index() const;
  virtual void SetIndex(int Value);
  virtual std::string GetDisplayName() const;
  std::string GetNamePath() const override;

 protected:
  TPersistent* GetOwner() const override;
  // Tells the collection that this item (or all items) changed.
  void Changed(bool AllItems);

 private:
  friend class TCollection;
  TCollection* FCollection = nullptr;
  int FID = 0;
};

// A list of items of one item class, owned by the collection.
class VEL_API TCollection : public TPersistent {
  VEL_CLASS(TCollection, TPersistent)
 public:
  explicit TCollection(TClass AItemClass = TCollectionItem::StaticClass());
  ~TCollection() override;

  // Creates an item of the item class through its virtual constructor and
  // appends it.
  TCollectionItem* Add();
  TCollectionItem* Insert(int Index);
  void Delete(int Index);
  void Clear();
  int Count() const { return static_cast<int>(FItems.size()); }
  // Raises EListError "List index out of bounds (%d)".
  TCollectionItem* Items(int Index) const;
  // Copies Value into the item at Index.
  void SetItem(int Index, TCollectionItem* Value);
  TCollectionItem* FindItemID(int ID) const;
  TClass ItemClass() const { return FItemClass; }

  void BeginUpdate();
  void EndUpdate();
  int UpdateCount() const { return FUpdateCount; }

  void Assign(TPersistent* Source) override;
  std::string GetNamePath() const override;

 protected:
  // Called when an item (or, with null, the whole collection) changed.
  virtual void Update(TCollectionItem* Item);
  virtual void Notify(TCollectionItem* Item, TCollectionNotification Action);
  void Changed();

 private:
  friend class TCollectionItem;
  void InsertItem(TCollectionItem* Item);
  void RemoveItem(TCollectionItem* Item);
  void MoveItem(TCollectionItem* Item, int NewIndex);
  void CheckIndex(int Index) const;

  TClass FItemClass;
  std::vector<TCollectionItem*> FItems;
  int FUpdateCount = 0;
  int FNextID = 0;
};

// A collection with an owner, used for the name path of its items.
class VEL_API TOwnedCollection : public TCollection {
  VEL_CLASS(TOwnedCollection, TCollection)
 public:
  TOwnedCollection(TPersistent* AOwner, TClass AItemClass);
  // The plain constructor: no owner and the base item class.
  TOwnedCollection() : TCollection() {}

 protected:
  TPersistent* GetOwner() const override { return FOwner; }

 private:
  TPersistent* FOwner = nullptr;
};

// An object list of components that forgets a component when it is freed
// elsewhere (through free notification), and frees the components it still
// holds when it owns them.
class VEL_API TComponentList : public TObjectList {
  VEL_CLASS(TComponentList, TObjectList)
 public:
  explicit TComponentList(bool AOwnsObjects = true);
  ~TComponentList() override;

  int Add(TComponent* AComponent) { return TObjectList::Add(AComponent); }
  void Insert(int Index, TComponent* AComponent) { TObjectList::Insert(Index, AComponent); }
  int IndexOf(TComponent* AComponent) const { return TObjectList::IndexOf(AComponent); }
  int Remove(TComponent* AComponent) { return TObjectList::Remove(AComponent); }
  TComponent* Extract(TComponent* Item) {
    return static_cast<TComponent*>(TObjectList::Extract(Item));
  }
  TComponent* GetItem(int Index) const { return static_cast<TComponent*>(Get(Index)); }
  void SetItem(int Index, TComponent* AComponent) { Put(Index, AComponent); }
  TComponent* Items(int Index) const { return GetItem(Index); }
  TComponent* operator[](int Index) const { return GetItem(Index); }
  TComponent* First() const { return static_cast<TComponent*>(TList::First()); }
  TComponent* Last() const { return static_cast<TComponent*>(TList::Last()); }

 protected:
  void Notify(void* Ptr, TListNotification Action) override;

 private:
  class TNexus;
  TNexus* FNexus;
};

}  // namespace vel
