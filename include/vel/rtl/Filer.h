// Component streams: the runtime's binary form of components with their
// published properties, owned components, collections, string lists and
// data defined through DefineProperties.
//
// A component stream is
//
//   "TPF0"                      signature
//   [0xF0 | flags [child pos]]  optional prefix (ffInherited 1, ffChildPos 2,
//                               ffInline 4; the position is an integer value)
//   class name, component name  short strings (1 length byte + characters)
//   property*                   name (short string, dotted for nested
//                               persistent objects) + value
//   vaNull                      end of the properties
//   component*                  owned components, each in the same form
//                               (without signature)
//   vaNull                      end of the owned components
//
// A value is a TValueType byte followed by its payload, little-endian:
// integers in the smallest of vaInt8/vaInt16/vaInt32 (vaInt64 beyond 32
// bits); floats as vaExtended (10-byte x87 layout), singles as vaSingle,
// currency as vaCurrency (scaled 64-bit integer), TDateTime as vaDate;
// strings as vaString (up to 255 bytes) or vaLString; wide strings that
// Windows-1252 cannot hold as vaWString (UTF-16); enumerations as vaIdent
// (with vaFalse/vaTrue for False/True); sets as vaSet + names + empty name;
// lists as vaList ... vaNull; collections as vaCollection, one list per item,
// vaNull; binary data as vaBinary + 32-bit length; nil references as vaNil.
// Reading also accepts vaUTF8String and any numeric type for floats.
//
// Written are the stored published properties that can be read and written
// and do not hold their default (ordinals: the declared default; floats and
// Int64: 0; texts: empty; variants: unassigned), in declaration order with
// inherited ones first. Object properties are written in place (also
// read-only ones): a persistent object as its dotted properties, a
// collection as vaCollection; a property holding a component refers to it
// by name ("Name", "Owner.Name", or "Owner" for the root) and is resolved
// once the whole stream has been read (names not found leave the property
// as it was). Events are written as the name of the lookup root's published
// method.
//
// Owned components are written nested under their owner, and the reader
// creates each one with the enclosing component as owner, so that a tree of
// components reads back as the same tree, in the stream's order. A component
// the owner already has under the same name and class (one its constructor
// made) is read into instead of being made again.
//
// Errors raised by reading: EReadError "Invalid stream format" (bad
// signature, a value-type byte above vaUTF8String, negative lengths, nesting
// deeper than 128 levels), "Stream read error" (the stream ends early),
// "Property %s does not exist", "Invalid property value", "Invalid property
// path", "Property is read-only"; EClassNotFound "Class %s not found" for an
// unregistered component class; EReadError "Ancestor for '%s' not found" for
// an inherited component that does not exist. Errors met while reading a
// property are raised as EReadError "Error reading <object>.<property>:
// <message>", after OnError had the chance to ignore them (the value is
// then skipped and reading goes on).
//
// Thread safety: a TReader or TWriter is used by one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "vel/rtl/Components.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

class TReader;
class TWriter;
class TStrings;

enum TValueType : uint8_t {
  vaNull, vaList, vaInt8, vaInt16, vaInt32, vaExtended, vaString, vaIdent, vaFalse, vaTrue,
  vaBinary, vaSet, vaLString, vaNil, vaCollection, vaSingle, vaCurrency, vaDate, vaWString,
  vaInt64, vaUTF8String
};

enum TFilerFlag : uint8_t { ffInherited, ffChildPos, ffInline };
using TFilerFlags = TSet<TFilerFlag>;

// The four signature bytes of a component stream.
inline constexpr char FilerSignature[4] = {'T', 'P', 'F', '0'};

// Callbacks of DefineProperty and DefineBinaryProperty.
using TReaderProc = std::function<void(TReader*)>;
using TWriterProc = std::function<void(TWriter*)>;
using TStreamProc = std::function<void(TStream*)>;

// The common base of TReader and TWriter.
class VEL_API TFiler : public TObject {
  VEL_CLASS(TFiler, TObject)
 public:
  explicit TFiler(TStream* Stream) : FStream(Stream) {}
  ~TFiler() override;

  // Lets a persistent object stream data that is not a published property,
  // from its DefineProperties: the reader calls ReadData when the stream
  // holds a property of that name; the writer writes the name and calls
  // WriteData when HasData is true.
  virtual void DefineProperty(const std::string& Name, const TReaderProc& ReadData,
                              const TWriterProc& WriteData, bool HasData) = 0;
  // The same for binary data, handed over as a memory stream positioned at
  // its start (vaBinary in the stream).
  virtual void DefineBinaryProperty(const std::string& Name, const TStreamProc& ReadData,
                                    const TStreamProc& WriteData, bool HasData) = 0;
  // Writer: writes the buffered bytes to the stream. Reader: moves the
  // stream back to the first byte not yet read.
  virtual void FlushBuffer() = 0;

  TStream* Stream() const { return FStream; }
  TComponent* Root() const { return FRoot; }
  // Sets the root and the lookup root.
  void SetRoot(TComponent* Value) { FRoot = FLookupRoot = Value; }
  // The component whose published methods name the event handlers.
  TComponent* LookupRoot() const { return FLookupRoot; }
  // The object being compared against (always null: streams are written
  // without ancestors); DefineProperties implementations may test it.
  TPersistent* Ancestor() const { return FAncestor; }
  void SetAncestor(TPersistent* Value) { FAncestor = Value; }
  bool IgnoreChildren() const { return FIgnoreChildren; }
  void SetIgnoreChildren(bool Value) { FIgnoreChildren = Value; }

 protected:
  TStream* FStream;
  TComponent* FRoot = nullptr;
  TComponent* FLookupRoot = nullptr;
  TPersistent* FAncestor = nullptr;
  bool FIgnoreChildren = false;
};

// Writes component streams. Output is buffered; the buffer goes to the
// stream on FlushBuffer, at the end of WriteRootComponent and when the
// writer is freed (errors at that last point cannot be reported: call
// FlushBuffer first when writing piecemeal).
class VEL_API TWriter : public TFiler {
  VEL_CLASS(TWriter, TFiler)
 public:
  // BufSize is raised to at least 1024.
  explicit TWriter(TStream* Stream, int BufSize = 65536);
  ~TWriter() override;

  void DefineProperty(const std::string& Name, const TReaderProc& ReadData,
                      const TWriterProc& WriteData, bool HasData) override;
  void DefineBinaryProperty(const std::string& Name, const TStreamProc& ReadData,
                            const TStreamProc& WriteData, bool HasData) override;
  void FlushBuffer() override;

  // The stream position the next byte will have.
  int64_t Position();

  // Writes the signature, then Root with its properties and owned
  // components, then flushes.
  void WriteRootComponent(TComponent* Root);
  // One component: prefix, class name, name, properties, vaNull, owned
  // components, vaNull.
  void WriteComponent(TComponent* Component);
  // Every stored published property of Instance that does not hold its
  // default, in declaration order (inherited first), then what Instance's
  // DefineProperties adds.
  void WriteProperties(TPersistent* Instance);
  void WriteProperty(TPersistent* Instance, PPropInfo PropInfo);
  void WriteCollection(TCollection* Value);

  void WriteSignature();
  void WritePrefix(TFilerFlags Flags, int32_t ChildPos);
  void WriteValue(TValueType Value) { Put(Value); }
  void WriteListBegin() { WriteValue(vaList); }
  void WriteListEnd() { WriteValue(vaNull); }
  // vaInt8, vaInt16 or vaInt32, whichever is smallest for Value.
  void WriteInteger(int32_t Value);
  // As above within 32 bits, vaInt64 beyond.
  void WriteInteger(int64_t Value);
  void WriteBoolean(bool Value) { WriteValue(Value ? vaTrue : vaFalse); }
  // A one-character string.
  void WriteChar(char Value);
  void WriteWideChar(char16_t Value);
  void WriteFloat(Extended Value);  // vaExtended
  void WriteSingle(float Value);    // vaSingle
  void WriteCurrency(Currency Value);
  void WriteDate(TDateTime Value);
  // vaString up to 255 bytes, vaLString beyond.
  void WriteString(std::string_view Value);
  // As WriteString (Windows-1252) when every character has a Windows-1252
  // byte, else vaWString with the UTF-16 code units.
  void WriteWideString(std::u16string_view Value);
  // "False", "True", "nil" and "Null" (any case) as vaFalse, vaTrue, vaNil,
  // vaNull; anything else as vaIdent.
  void WriteIdent(std::string_view Ident);
  // A short string without value type (names); longer texts are cut at 255.
  void WriteStr(std::string_view Value);
  // Empty as vaNil, Null as vaNull, numbers, strings and booleans in their
  // value types. Arrays raise EWriteError "Stream write error".
  void WriteVariant(const Variant& Value);
  // vaBinary, the 32-bit length, the bytes.
  void WriteBinary(const void* Data, int64_t Count);
  // Raw bytes.
  void Write(const void* Buffer, int64_t Count);

 private:
  void WritePropName(std::string_view Name);
  void WriteObjectProp(TPersistent* Instance, PPropInfo PropInfo);
  void WriteStringBody(std::string_view Value);
  void Put(uint8_t B) {
    if (FBufPos == FBuffer.size()) FlushBuffer();
    FBuffer[FBufPos++] = B;
  }
  // Room for N bytes (N no more than the buffer size) at the end of the
  // buffer, counted as written.
  uint8_t* Reserve(size_t N) {
    if (FBuffer.size() - FBufPos < N) FlushBuffer();
    uint8_t* P = FBuffer.data() + FBufPos;
    FBufPos += N;
    return P;
  }

  std::vector<uint8_t> FBuffer;
  size_t FBufPos = 0;
  std::string FPropPath;
  // The persistent objects being written, outermost first: a nested
  // property that refers back to one of them is skipped.
  std::vector<TPersistent*> FWriting;
};

// Reads component streams. Memory streams are read in place; other streams
// through a buffer. The stream is moved to the first unread byte by
// FlushBuffer and when the reader is freed (for streams that can seek).
class VEL_API TReader : public TFiler {
  VEL_CLASS(TReader, TFiler)
 public:
  explicit TReader(TStream* Stream, int BufSize = 65536);
  ~TReader() override;

  void DefineProperty(const std::string& Name, const TReaderProc& ReadData,
                      const TWriterProc& WriteData, bool HasData) override;
  void DefineBinaryProperty(const std::string& Name, const TStreamProc& ReadData,
                            const TStreamProc& WriteData, bool HasData) override;
  void FlushBuffer() override;

  int64_t Position();
  void SetPosition(int64_t Value);

  // Reads the signature and one component. With Root null the root is
  // created (by the class name in the stream, through the class registry)
  // and owned by the caller; otherwise the stream's properties and
  // components are read into Root. Component references are resolved and
  // Loaded is called for every component read once the whole stream has
  // been read. On failure, components created by this call are freed.
  TComponent* ReadRootComponent(TComponent* Root);
  // One component (prefix, class, name, properties, owned components).
  // With Component null it is created with Owner() as owner; an inherited
  // one (ffInherited) is looked up among Owner()'s components instead.
  TComponent* ReadComponent(TComponent* Component);
  // One property entry of Instance.
  void ReadProperty(TPersistent* Instance);
  void ReadCollection(TCollection* Collection);

  void ReadSignature();
  void ReadPrefix(TFilerFlags& Flags, int32_t& ChildPos);
  // The value-type byte; "Invalid stream format" above vaUTF8String.
  TValueType ReadValue() {
    const uint8_t B = GetByte();
    if (B > vaUTF8String) BadValueType();
    return static_cast<TValueType>(B);
  }
  // The next value type, not consumed.
  TValueType NextValue() {
    const uint8_t B = PeekByte();
    if (B > vaUTF8String) BadValueType();
    return static_cast<TValueType>(B);
  }
  // Whether the next byte is vaNull (not consumed).
  bool EndOfList() { return PeekByte() == vaNull; }
  // Reads a value type and raises "Invalid property value" unless it is V.
  void CheckValue(TValueType V);
  void ReadListBegin() { CheckValue(vaList); }
  void ReadListEnd() { CheckValue(vaNull); }
  bool ReadBoolean();
  char ReadChar();
  char16_t ReadWideChar();
  int32_t ReadInteger();  // vaInt8, vaInt16, vaInt32
  int64_t ReadInt64();    // those and vaInt64
  // Any numeric value type (a currency as its value).
  Extended ReadFloat();
  float ReadSingle();
  Currency ReadCurrency();
  TDateTime ReadDate();
  // vaString, vaLString, vaWString and vaUTF8String (wide texts converted
  // to Windows-1252).
  std::string ReadString();
  std::u16string ReadWideString();
  // vaIdent, and vaFalse/vaTrue/vaNil/vaNull as "False"/"True"/"nil"/"Null".
  std::string ReadIdent();
  // A short string without value type.
  std::string ReadStr();
  Variant ReadVariant();
  // The bit pattern of a set of the enumeration EnumType.
  int32_t ReadSet(PTypeInfo EnumType);
  // Skips one value of any type.
  void SkipValue();
  // Raw bytes; EReadError "Stream read error" when the stream ends first.
  void Read(void* Buffer, int64_t Count);

  // The owner of the components ReadComponent creates.
  TComponent* Owner() const { return FOwner; }
  void SetOwner(TComponent* Value) { FOwner = Value; }
  // The last property name component read by ReadProperty (as the class
  // declares it when it names a published property).
  const std::string& PropName() const { return FNamedProp ? FNamedProp->Name : FPropName; }

  // Asked with the message of an error met while reading a property (or
  // while creating or naming a component); setting Handled skips the
  // property (or the component) and reading goes on.
  std::function<void(TReader* Reader, const std::string& Message, bool& Handled)> OnError;

 protected:
  // Calls OnError; true when the error was handled.
  virtual bool Error(const std::string& Message);

 private:
  struct TFixup {
    TPersistent* Instance;
    PPropInfo PropInfo;
    std::string Name;
    std::vector<TCollectionItem*> Items;  // the collection items it lies in
  };

  uint8_t GetByte() {
    if (FBufPos == FBufEnd) Refill();
    return FBuf[FBufPos++];
  }
  uint8_t PeekByte() {
    if (FBufPos == FBufEnd) Refill();
    return FBuf[FBufPos];
  }
  // N (at most 16) bytes at the reading position, in the buffer when they
  // lie there whole, else copied together.
  const uint8_t* Take(size_t N) {
    if (FBufEnd - FBufPos >= N) {
      const uint8_t* P = FBuf + FBufPos;
      FBufPos += N;
      return P;
    }
    Read(FScratch, static_cast<int64_t>(N));
    return FScratch;
  }
  void Refill();
  void SkipBytes(int64_t Count);
  int32_t ReadLength();
  void ReadBytes(std::string& Out, int64_t Count);
  void ReadStrInto(std::string& Out);
  void ReadStringInto(std::string& Out);
  std::u16string ReadWideBody(TValueType V);
  void ReadPropValue(TPersistent* Instance, PPropInfo PropInfo);
  void ReadData(TComponent* Instance);
  void SkipProperty();
  void SkipComponent(bool SkipHeader);
  void SkipSetBody();
  PPropInfo FindProp(TClass Class, std::string_view Name);
  void ResolveFixups();
  void ForgetFixupsOf(TCollection* Collection);
  [[noreturn]] void PropValueError();
  [[noreturn]] void BadValueType();

  // The bytes being read: FStorage filled from the stream, or the memory
  // of a memory stream itself (FDirect).
  std::vector<uint8_t> FStorage;
  const uint8_t* FBuf = nullptr;
  bool FDirect = false;
  size_t FBufPos = 0;
  size_t FBufEnd = 0;
  int64_t FOrigin = 0;  // stream position of FBuf[0]
  uint8_t FScratch[16];
  TComponent* FOwner = nullptr;
  std::string FPropName;
  PPropInfo FNamedProp = nullptr;  // the property the last name named, if published
  std::string FPathBuf;
  std::string FStrBuf;
  std::vector<TComponent*> FLoaded;
  std::vector<TFixup> FFixups;
  std::vector<TCollectionItem*> FItemStack;
  int FDepth = 0;
  int FChildIndex = -1;  // where the next owned component read goes, -1: anywhere
  TClass FCacheClass = nullptr;
  size_t FCacheNext = 0;
};

// Writes Instance to Stream as a component stream (signature included),
// at the stream's position.
VEL_API void WriteComponent(TStream* Stream, TComponent* Instance);
// Reads a component stream from Stream's position: into Instance when
// given, else into a new component of the stream's class (owned by the
// caller). Returns the component read. The stream is left after the last
// byte of the component stream.
VEL_API TComponent* ReadComponent(TStream* Stream, TComponent* Instance = nullptr);

}  // namespace vel
