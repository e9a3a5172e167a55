// velStreamRecover: salvages what it can from a damaged component stream.
//
// TStreamRecover reads a component stream (see vel/rtl/Filer.h) with no
// trust in it: every value met is converted to the kind of the property it
// is read into, property names that match nothing are skipped (the bytes
// after them are then read as the next entry), and reading goes on to the
// end of the stream. Bad values never raise; they become 0, empty texts or
// the fixed results below. Every property name read, and every text of a
// recovered string list, goes to the debug output (OutputDebugStringA).
//
// Stream layout as read here: 4 signature bytes (skipped unchecked), class
// name, component name, then entries of a name and a value-type byte (masked
// with 127) with its payload, up to the end of the stream. List ends,
// owned components and the like are not understood: their bytes are read as
// further entries.
//
// Values by the kind of the target property (what each value type gives):
//
//   type        integer/int64       float/date          enumeration         string           variant
//   vaNull      0                   0                   0                   "NULL"           Null
//   vaList,     0                   0                   0                   unchanged        integer 0
//   vaCollection
//   vaInt8,     the value           the value           name of that        decimal text     byte
//   vaSet (one signed byte)                             ordinal, mapped back
//   vaInt16/32  the value           the value           likewise            decimal text     smallint/integer
//   vaExtended  rounded             the value           rounded, mapped     float text       double
//   vaString,   text to number,     text to float /     value of that       the text         string
//   vaLString,  0 when not one      text to date        name (-1 unknown)
//   vaWString
//   vaIdent     0 *                 0 *                 value of that name  unchanged *      integer 0 *
//   vaFalse     0                   0                   0                   "False"          false
//   vaTrue      1                   1                   1                   "True"           true
//   vaBinary    0 *                 0 *                 0 *                 the bytes        string
//   vaNil       0                   0                   0                   "nil"            unassigned
//   vaSingle    rounded             the value           rounded, mapped     float text       single
//   vaCurrency  value/10000 rounded the value/10000     likewise            currency text    currency
//   vaDate      rounded             the value           0 *                 date text        date
//   vaInt64     low 32 bits / value the value           mapped              decimal text     "" *
//   above       0                   0                   0                   unchanged        unchanged
//
//   * the payload is not read: its bytes are taken as the next entry.
//   List and collection payloads and the types above vaInt64 are not read
//   either. "Mapped back": the number is turned into its value name and the
//   name into its ordinal, so numbers outside the enumeration give -1.
//   Rounding is to the nearest integer (halves to even); a float outside the
//   64-bit range saturates, a NaN gives 0.
//
// A dotted name ("Font.Size") is read into the object the property before
// the first dot holds: the stream goes back to the start of the name and the
// object reads on with the first part of each name stripped, to the end of
// the stream (all later entries go to that object). A string list reads a
// vaList of strings instead, and the outer object then reads on.
//
// Limits that keep any input safe: a dotted name whose first part is not an
// object property (or holds nothing) is skipped like an unknown name
// instead of being read again forever; nesting stops at 32 objects; lengths
// are trusted only up to the end of the stream; property setters that raise
// are ignored; read-only properties have their value read and dropped.
//
// Failures: a stream shorter than the signature raises EReadError "Stream
// read error"; an unregistered (or non-component) class when the component
// is to be created raises EClassNotFound "Class %s not found".
//
// Thread safety: one recoverer per thread; it does not lock its stream.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "vel/rtl/Components.h"
#include "vel/rtl/Filer.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/TypInfo.h"
#include "vel/rtl/Variants.h"

namespace vel {

// Text without its first token and the separator after it ("Font.Size" with
// "." gives "Size", "a.b.c" gives "b.c"). When Separator does not occur
// (or is empty) the whole text is the first token and the result is empty.
VEL_API std::string StripFirstToken(const std::string& Text, const std::string& Separator);

class VEL_API TStreamRecover : public TObject {
  VEL_CLASS(TStreamRecover, TObject)
 public:
  // Keeps Stream (not owned) and moves it to its start.
  explicit TStreamRecover(TStream* Stream);
  ~TStreamRecover() override;

  // Creates the component of the stream's class (no owner; the caller owns
  // it) and reads what can be read into it.
  TComponent* RecoverComponent();
  // Reads into Component (the stream's class name is ignored); the name in
  // the stream is given to it through SetName.
  void RecoverComponent(TComponent* Component);

 protected:
  virtual TComponent* CreateComponent();
  void ReadProperties(TPersistent* Obj, const std::string& Prefix);
  void RecoverClassProps(TPersistent* Obj, const std::string& Name);
  void RecoverObject(TPersistent* Obj, const std::string& Name);
  void RecoverStrings(TStrings* Strings, const std::string& Name);
  void ReadProperty(TPersistent* Obj, PPropInfo PropInfo);

  // The tolerant readers: one value-type byte, then whatever follows
  // converted (see the table above). An empty result means "unchanged".
  int32_t CheckReadInteger();
  int64_t CheckReadInt64();
  Extended CheckReadFloat();
  TDateTime CheckReadDateTime();
  int32_t CheckReadEnum(PTypeInfo EnumType);
  std::optional<std::string> CheckReadString();
  std::optional<Variant> CheckReadVariant();

  // Primitive readers. Read records the position first and returns how many
  // bytes came; what did not come reads as zeros.
  int64_t Read(void* Buffer, int64_t Count);
  uint8_t ReadValue();
  std::string ReadStr();
  std::string ReadString();
  std::string ReadWideString();
  int32_t ReadInteger(TValueType ValueType);
  int64_t ReadInt64();
  float ReadSingle();
  Extended ReadFloat();
  Currency ReadCurrency();
  TDateTime ReadDateTime();
  std::string ReadPropName() { return ReadStr(); }
  // The next value byte, not consumed.
  uint8_t ReadNextValue();
  bool EndOfList();

  int64_t FLastPosition = 0;  // the stream position before the latest Read
  TStream* FStream;
  TComponent* FComponent = nullptr;

 private:
  int64_t Remaining();
  std::string ReadCounted(int64_t Count);
  int64_t FSize = 0;
  int FDepth = 0;
};

// A recoverer on Stream creates and recovers the component; the caller owns
// the result.
VEL_API TComponent* RecoverComponentFromStream(TStream* Stream);
// The same into an existing component.
VEL_API void RecoverComponentStream(TStream* Stream, TComponent* Component);

}  // namespace vel
