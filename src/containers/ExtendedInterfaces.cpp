#include "vel/ExtendedInterfaces.h"

#include <memory>

#include "vel/rtl/SysUtils.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

VEL_IMPLEMENT(TICollection)
VEL_IMPLEMENT(TILoadResource)
VEL_IMPLEMENT(TInterfaceStream)
VEL_IMPLEMENT(TInterfaceFileStream)

// ---------------------------------------------------------------------------
// TICollection

TICollection::TICollection() : FList(new TInterfaceList), FListRef(FList) {}

TICollection::~TICollection() = default;

int32_t TICollection::GetCount() {
  return FList->GetCount();
}
IPtr<IInterface> TICollection::GetItems(int32_t Index) {
  return FList->Get(Index);
}
int32_t TICollection::Add(IInterface* Item) {
  return FList->Add(Item);
}
IPtr<IInterface> TICollection::Add() {
  throw EICollection(SNotImplementedOverride);
}
void TICollection::Insert(int32_t Index, IInterface* Item) {
  FList->Insert(Index, Item);
}
void TICollection::Clear() {
  FList->Clear();
}
void TICollection::Delete(int32_t Index) {
  FList->Delete(Index);
}
int32_t TICollection::Remove(IInterface* Item) {
  return FList->Remove(Item);
}
bool TICollection::Contains(IInterface* Item) {
  return IndexOf(Item) >= 0;
}
int32_t TICollection::IndexOf(IInterface* Item) {
  return FList->IndexOf(Item);
}
bool TICollection::IsEmpty() {
  return GetCount() == 0;
}
bool TICollection::IsEqual(ICollection* Other) {
  return Other->GetCount() == GetCount();
}

// ---------------------------------------------------------------------------
// TILoadResource

TILoadResource::TILoadResource() : FBitmap(new TBitmap), FIcon(new TIcon) {}

TILoadResource::~TILoadResource() {
  delete FIcon;
  delete FBitmap;
}

std::u16string TILoadResource::GetResourceDLLName() {
  return Cp1252ToWide(FResourceDLLName);
}
void TILoadResource::SetResourceDLLName(const std::u16string& Value) {
  FResourceDLLName = WideToCp1252(Value);
}
std::u16string TILoadResource::GetResourceName() {
  return Cp1252ToWide(FResourceName);
}
void TILoadResource::SetResourceName(const std::u16string& Value) {
  FResourceName = WideToCp1252(Value);
}

void TILoadResource::LoadInto(const std::u16string& Name, TBitmap& Into) {
  std::string File = FindModuleFile(FResourceDLLName);
  // A name that is nowhere on the search path is reported as given.
  if (File.empty()) File = FResourceDLLName;
  std::shared_ptr<const TResourceModule> Library = TResourceModule::LoadFromFile(File);
  Into.LoadFromResourceName(*Library, WideToCp1252(Name));
}

TBitmap* TILoadResource::LoadBitmap(const std::u16string& Name) {
  TBitmap Picture;
  LoadInto(Name, Picture);
  FBitmap->Assign(&Picture);
  return FBitmap;
}

TIcon* TILoadResource::LoadIcon(const std::u16string& Name) {
  TBitmap Picture;
  LoadInto(Name, Picture);
  return FIcon;
}

// ---------------------------------------------------------------------------
// Interface streams

namespace {

void CopyFromIStream(TStream& Self, IStream* Source) {
  TOleStream Adapter(Source);
  Self.SetPosition(0);
  const int64_t Size = Adapter.GetSize();
  // The copy runs one pass more than the source is long; the buffer keeps
  // its previous byte when the last read finds the end.
  uint8_t Buffer = 0;
  for (int64_t I = 0; I <= Size; ++I) {
    Adapter.Read(&Buffer, 1);
    Self.Write(&Buffer, 1);
  }
  Self.SetPosition(0);
}

IPtr<IStream> ExposeAsIStream(TStream& Self) {
  IPtr<IStream> Result(new TStreamAdapter(&Self, soReference));
  uint64_t NewPos = 0;
  Result->Seek(0, STREAM_SEEK_SET, &NewPos);
  return Result;
}

}  // namespace

TInterfaceStream::~TInterfaceStream() = default;

void TInterfaceStream::SetIStream(IStream* Stream) {
  CopyFromIStream(*this, Stream);
}
IPtr<IStream> TInterfaceStream::GetIStream() {
  return ExposeAsIStream(*this);
}

TInterfaceFileStream::~TInterfaceFileStream() = default;

void TInterfaceFileStream::SetIStream(IStream* Stream) {
  CopyFromIStream(*this, Stream);
}
IPtr<IStream> TInterfaceFileStream::GetIStream() {
  return ExposeAsIStream(*this);
}

}  // namespace vel
