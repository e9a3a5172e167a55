// Three small interface-based utilities:
//  - TICollection (ICollection): a reference-counted list of interface
//    references over the runtime's locked TInterfaceList;
//  - TILoadResource (ILoadResource): loads a bitmap resource from a resource
//    library found by name (a PE DLL or a Linux package, read as data);
//  - TInterfaceStream / TInterfaceFileStream: a memory stream and a file
//    stream that can be filled from, and exposed as, a COM IStream.
//
// Thread safety: TICollection's single operations are atomic (the list's
// lock); sequences such as Contains then Add are not. The loader and the
// streams belong to one thread at a time.
#pragma once

#include <cstdint>
#include <string>

#include "vel/Export.h"
#include "vel/rtl/Com.h"
#include "vel/rtl/Pictures.h"
#include "vel/rtl/Streams.h"

namespace vel {

VEL_EXCEPTION(EICollection, Exception);

inline constexpr const char* SNotImplementedOverride =
    "Not Implemented, override in descendant and implement";

struct VEL_API ICollection : IInterface {
  VEL_INTERFACE_ID("{6B1F4E2A-93C5-4D8E-A7B0-2C5D9E1F3A64}")
  virtual int32_t GetCount() = 0;
  virtual IPtr<IInterface> GetItems(int32_t Index) = 0;
  virtual int32_t Add(IInterface* Item) = 0;
  virtual IPtr<IInterface> Add() = 0;
  virtual void Insert(int32_t Index, IInterface* Item) = 0;
  virtual void Clear() = 0;
  virtual void Delete(int32_t Index) = 0;
  virtual int32_t Remove(IInterface* Item) = 0;
  virtual bool Contains(IInterface* Item) = 0;
  virtual int32_t IndexOf(IInterface* Item) = 0;
  virtual bool IsEmpty() = 0;
  virtual bool IsEqual(ICollection* Other) = 0;
};

struct VEL_API ILoadResource : IInterface {
  VEL_INTERFACE_ID("{A3D7C58E-1F24-4B6A-9E0D-7B8C2F4A5E19}")
  virtual std::u16string GetResourceDLLName() = 0;
  virtual void SetResourceDLLName(const std::u16string& Value) = 0;
  virtual std::u16string GetResourceName() = 0;
  virtual void SetResourceName(const std::u16string& Value) = 0;
  virtual TBitmap* LoadBitmap(const std::u16string& Name) = 0;
  virtual TIcon* LoadIcon(const std::u16string& Name) = 0;
};

class VEL_API TICollection : public TInterfacedObject, public ICollection {
  VEL_CLASS(TICollection, TInterfacedObject)
  VEL_INTERFACES(ICollection)
 public:
  TICollection();
  ~TICollection() override;

  int32_t GetCount() override;
  IPtr<IInterface> GetItems(int32_t Index) override;
  int32_t Add(IInterface* Item) override;
  // Raises EICollection SNotImplementedOverride; descendants create and
  // append a new item.
  IPtr<IInterface> Add() override;
  void Insert(int32_t Index, IInterface* Item) override;
  void Clear() override;
  void Delete(int32_t Index) override;
  int32_t Remove(IInterface* Item) override;
  bool Contains(IInterface* Item) override;
  int32_t IndexOf(IInterface* Item) override;
  bool IsEmpty() override;
  // True when Other holds as many items; the items are not compared.
  bool IsEqual(ICollection* Other) override;

  TInterfaceList* List() const { return FList; }

 private:
  TInterfaceList* FList;
  IPtr<IInterfaceList> FListRef;  // keeps the list alive while owned
};

class VEL_API TILoadResource : public TInterfacedObject, public ILoadResource {
  VEL_CLASS(TILoadResource, TInterfacedObject)
  VEL_INTERFACES(ILoadResource)
 public:
  TILoadResource();
  ~TILoadResource() override;

  std::u16string GetResourceDLLName() override;
  void SetResourceDLLName(const std::u16string& Value) override;
  std::u16string GetResourceName() override;
  void SetResourceName(const std::u16string& Value) override;
  // Reads the bitmap resource Name of the library ResourceDLLName (found as
  // FindModuleFile finds it) into Bitmap and returns Bitmap, which stays
  // owned by the loader. A missing library raises EResourceError, a missing
  // resource EResNotFound.
  TBitmap* LoadBitmap(const std::u16string& Name) override;
  // Loads the bitmap the same way, then discards it and returns Icon as it
  // was (empty unless a descendant filled it).
  TIcon* LoadIcon(const std::u16string& Name) override;

 protected:
  // Loads bitmap Name of the resource library into Into.
  void LoadInto(const std::u16string& Name, TBitmap& Into);
  std::string FResourceDLLName;
  std::string FResourceName;
  TBitmap* FBitmap;
  TIcon* FIcon;
};

// A memory stream filled from an IStream and exposed as one.
class VEL_API TInterfaceStream : public TMemoryStream {
  VEL_CLASS(TInterfaceStream, TMemoryStream)
 public:
  TInterfaceStream() = default;
  ~TInterfaceStream() override;
  // Copies Stream from its current position one byte at a time, Size + 1
  // times (Size being the whole source's size): the
  // last pass reads nothing and writes the previous byte again, so the copy
  // is one byte longer than the source and ends in a repeat of its last
  // byte. Content beyond the written length stays. Position ends at 0.
  void SetIStream(IStream* Stream);
  // An IStream over this stream (not owned by it), positioned at 0. This
  // stream must outlive it.
  IPtr<IStream> GetIStream();
};

// A file stream with the same two operations.
class VEL_API TInterfaceFileStream : public TFileStream {
  VEL_CLASS(TInterfaceFileStream, TFileStream)
 public:
  using TFileStream::TFileStream;
  ~TInterfaceFileStream() override;
  void SetIStream(IStream* Stream);
  IPtr<IStream> GetIStream();
};

}  // namespace vel
