// Object streaming driven by published properties.
//
// TCustomStreamer walks a root object's published properties (recursing into
// object properties, collections, string lists and object lists) and writes
// each value through overridable primitives; reading walks the stream back
// into an existing object or creates the root by its registered class name.
// TBinaryStreamer is the compact encoding and the one that reads back; the
// conversion functions (DeepCopy, ObjectToStream, ...) package it.
//
// Thread safety: a streamer is used by one thread at a time; distinct
// streamers on distinct streams may run in parallel.
#pragma once

#include <string>

#include "vel/rtl/Components.h"
#include "vel/rtl/Lists.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/TypInfo.h"
#include "vel/rtl/Variants.h"

namespace vel {

// Ordinals of these enumerations are written to streams.
enum TIdentKind : uint8_t { ikNull = 0, ikNil = 1, ikList = 2, ikCount = 3, ikClass = 4 };
enum TIntSize : uint8_t { isInt8 = 0, isInt16 = 1, isInt32 = 2 };
enum TStrSize : uint8_t { ssString = 0, ssLString = 1 };
enum TStreamState : uint8_t { ssNone = 0, ssReading = 1, ssWriting = 2 };
VEL_ENUM(TStreamState, "ssNone", "ssReading", "ssWriting")

VEL_EXCEPTION(EStreamPropError, Exception);

// Message texts of the streamers.
namespace streammsg {
inline constexpr const char* SStreamNotValid = "Stream is not valid (nil)";
inline constexpr const char* SEmptyStream = "Cannot read from an empty stream";
inline constexpr const char* SBeginOfListNotFound =
    "Stream property error, begin of list not found";
inline constexpr const char* SEndOfListNotFound = "Stream property error, end of list not found";
inline constexpr const char* SFailedToReadCount = "Failed to read count for List %s";
inline constexpr const char* SUnknownPropInfo = "Unable to property info for %s";
inline constexpr const char* SCannotCreateRoot =
    "Stream Read Error!  Unable to create root object from stream";
inline constexpr const char* SIntegerOutOfBounds = "Integer out of bounds (8, 16, 32 bit)";
inline constexpr const char* SStringOutOfBounds = "String out of bounds (sstring, LString)";
inline constexpr const char* SArrayNotSupported = "Array types not supported";
inline constexpr const char* SExpectingClassName = "Read Error - Expecting Class name - not found";
}  // namespace streammsg

// The property kinds the walk enumerates by default: every kind but
// tkUnknown and tkMethod.
inline constexpr TTypeKinds DefaultStreamTypeKinds = TTypeKinds::FromOrd(0x3FEFE);

class VEL_API TCustomStreamer : public TObject {
  VEL_CLASS(TCustomStreamer, TObject)
 public:
  // Stores the stream (not owned) and checks it: a null stream raises
  // "Stream is not valid (nil)".
  explicit TCustomStreamer(TStream* AStream);
  ~TCustomStreamer() override;

  // --- Overridable operations, in the order of the original's table.
  virtual TObject* CreateComponent(TObject* Parent, const std::string& ClassName);
  virtual TObject* CreateObject(TObject* Parent, TClass Class);
  virtual TCollectionItem* AddCollectionItem(TCollection* Collection);
  virtual void AddListItem(TObjectList* List, TObject* Item);
  virtual void InitStream(TObject* Root, TStreamState State);
  virtual void TermStream();
  virtual void WriteProperty(TObject* Obj, PPropInfo PropInfo);
  virtual void ReadProperty(TObject* Obj, PPropInfo PropInfo);
  virtual bool CanWriteProp(TObject* Obj, PPropInfo PropInfo);
  virtual void WritePropName(TObject* Obj, PPropInfo PropInfo, const std::string& Name);
  virtual std::string ReadPropName();
  virtual void WriteEnumProp(TObject* Obj, PPropInfo PropInfo);
  virtual int32_t ReadEnumProp(TObject* Obj, PPropInfo PropInfo);
  virtual void WriteSetProp(TObject* Obj, PPropInfo PropInfo);
  virtual int32_t ReadSetProp(TObject* Obj, PPropInfo PropInfo);
  virtual void WriteIntegerProp(TObject* Obj, PPropInfo PropInfo);
  virtual int32_t ReadIntegerProp(TObject* Obj, PPropInfo PropInfo);
  virtual void WriteClassName(TObject* Obj, const std::string& Name);
  virtual std::string ReadClassName();
  // Obj is the property's value here.
  virtual void WriteClassProp(TObject* Obj, PPropInfo PropInfo);
  virtual void ReadClassProp(TObject* Obj, PPropInfo PropInfo);
  virtual void WriteAfterProp(TObject* Obj, PPropInfo PropInfo);
  virtual void WritePropListBegin(TObject* Obj);
  virtual void WritePropListEnd(TObject* Obj);
  virtual void WriteListBegin(TObject* Obj, int32_t Count, PPropInfo PropInfo);
  virtual void WriteListEnd(TObject* Obj, PPropInfo PropInfo);
  virtual void WriteAfterListItem(TObject* Obj, PPropInfo PropInfo, int32_t Index);
  virtual void WriteBeforeListItem(TObject* Obj, PPropInfo PropInfo, int32_t Index);
  virtual void WriteInteger(int32_t Value);
  virtual int32_t ReadInteger();
  virtual void WriteBoolean(bool Value);
  virtual bool ReadBoolean();
  virtual void WriteString(const std::string& Value);
  virtual std::string ReadString();
  virtual void WriteFloat(Extended Value);
  virtual Extended ReadFloat();
  virtual void WriteSingle(float Value);
  virtual float ReadSingle();
  virtual void WriteDouble(double Value);
  virtual double ReadDouble();
  virtual void WriteCurrency(Currency Value);
  virtual Currency ReadCurrency();
  virtual void WriteDateTime(TDateTime Value);
  virtual TDateTime ReadDateTime();
  virtual void WriteMethod(const TMethod& Value);
  virtual TMethod ReadMethod();
  virtual void WriteVariant(const Variant& Value);
  virtual Variant ReadVariant();
  virtual void WriteInt64(int64_t Value);
  virtual int64_t ReadInt64();
  virtual bool ReadPropListBegin();
  virtual bool ReadPropListEnd();
  virtual int32_t ReadListBegin();
  virtual bool ReadListEnd();
  virtual TObject* ReadBeforeListItem(TObject* List, bool CreateItem);
  virtual void ReadAfterListItem(TObject* Obj);
  // Creates the root from the signature's registered class; the caller owns it.
  virtual TObject* CreateFromStream();
  virtual void LoadFromStream(TObject* Obj);
  virtual void SaveToStream(TObject* Obj);

  // --- The second table (dynamic methods of the original).
  virtual void Write(const void* Buffer, int64_t Count);
  virtual void Read(void* Buffer, int64_t Count);
  virtual void WriteIdentKind(TIdentKind Value);
  virtual TIdentKind ReadIdentKind();
  virtual void WriteIdent(const std::string& Value);
  virtual std::string ReadIdent();
  virtual void WriteSignature();
  virtual std::string ReadSignature();
  virtual void WriteClose();
  virtual void ReadClose();
  virtual void WriteCollection(TCollection* Collection, PPropInfo PropInfo);
  virtual void ReadCollection(TCollection* Collection);
  virtual void ReadComponentList(TObjectList* List);

  // --- Fixed operations.
  void CheckStream();
  void WriteComponent(TObject* Obj) { WriteProperties(Obj); }
  void ReadComponent(TObject* Obj) { ReadProperties(Obj); }
  void WriteProperties(TObject* Obj);
  void ReadProperties(TObject* Obj);
  bool EndOfPropList();
  void WriteBeforeProp() {}
  void WriteFloatProp(TObject* Obj, PPropInfo PropInfo);
  Extended ReadFloatProp(TObject* Obj, PPropInfo PropInfo);
  void WriteStrings(TStrings* Strings, PPropInfo PropInfo = nullptr);
  void ReadStrings(TStrings* Strings);
  void WriteComponentList(TObjectList* List, PPropInfo PropInfo = nullptr);
  bool RootCollectable() const;
  void WriteRootCollectable();
  void ReadRootCollectable();

  TObject* RootComponent() const { return FRootComponent; }
  TStream* Stream() const { return FStream; }
  TStreamState StreamState() const { return FStreamState; }
  TTypeKinds TypeKinds() const { return FTypeKinds; }
  void SetTypeKinds(TTypeKinds Value) { FTypeKinds = Value; }

 protected:
  TObject* FRootComponent = nullptr;
  TStream* FStream;
  TTypeKinds FTypeKinds = DefaultStreamTypeKinds;
  TStreamState FStreamState = ssNone;

 private:
  // Reads Count bytes (a compile-time constant at each call) straight from
  // a plain memory stream when this is exactly the binary streamer;
  // otherwise through Read.
  template <size_t Count>
  void ReadFixed(uint8_t* Buffer);
  // Whether the stream has no byte left: a list whose count promises more
  // items than the stream holds ends there instead of reading zeros.
  bool AtEnd();
  // ReadProperty for the exact binary streamer: the same reads, without
  // the virtual dispatch nobody overrides there.
  void ReadPropertyBinary(TObject* Obj, PPropInfo PropInfo);

  // Direct access to a plain memory stream (set when the stream's class
  // is exactly TMemoryStream or TReadOnlyMemoryStream), and whether this
  // streamer is exactly the binary one, so that list markers may be
  // checked in place.
  TCustomMemoryStream* FMemRead = nullptr;
  TMemoryStream* FMemWrite = nullptr;
  bool FExactBinary = false;
};

// The binary encoding: little-endian, size-tagged integers and strings.
class VEL_API TBinaryStreamer : public TCustomStreamer {
  VEL_CLASS(TBinaryStreamer, TCustomStreamer)
 public:
  explicit TBinaryStreamer(TStream* AStream) : TCustomStreamer(AStream) {}
};

// Copies Source's streamed state into Target through a binary stream.
VEL_API void DeepCopy(TObject* Target, TObject* Source);
// Obj as a byte-array variant holding its binary stream (unassigned for a
// component list).
VEL_API Variant ObjectToVariant(TObject* Obj);
// Loads the byte-array variant V into Obj, or creates the root from it when
// Obj is null (the caller owns the result). Null for a component list.
VEL_API TObject* VariantToObject(const Variant& V, TObject* Obj);
VEL_API void ObjectToStream(TObject* Obj, TStream* Stream);
VEL_API void StreamToObject(TObject* Obj, TStream* Stream);
// Whether two component lists of the same class hold at least one item
// each, items of the same classes in the same order, and the same bytes.
VEL_API bool ComponentListsEqual(TComponentList* A, TComponentList* B);

}  // namespace vel
#include "vel/StreamClassesText.h"
