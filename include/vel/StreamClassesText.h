// The write-only encodings of the object walk: indented text
// (TCustomTextStreamer, TTextStreamer, TObjectTextStreamer), XML
// (TXMLStreamer) and the class tree (TClassTreeStreamer).
//
// Part of the StreamClasses unit; StreamClasses.h includes this header.
//
// Output format: each line is preceded by a single carriage return
// (character 13, no line feed) and the current indent, except the first
// line written to an empty stream, which starts at once; no line ends with
// a break (date values are the exception: their three lines end with
// 13 10). Values follow their property name on the same line, in single
// quotes while quoting is on (the default), integers and booleans
// included. Floats are the shortest text that reads back to the same
// value, with "." whatever the locale. A currency property's text is the
// currency the walk hands to WriteCurrency, which carries the value scaled
// by 10000 once more (1.25 is written as '12500'), as the walk does for
// every encoding.
//
// The text is collected in a buffer during SaveToStream and handed to the
// stream in large pieces (and at the end, also when the walk fails), so a
// save costs a handful of stream writes whatever the size of the graph.
// Outside SaveToStream every write goes to the stream at once.
//
// Loading is refused: LoadFromStream raises EStreamPropError "Load for text
// not supported"; the reading primitives read nothing.
//
// Thread safety: as the other streamers, one thread at a time.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "vel/StreamClasses.h"

namespace vel {

namespace streammsg {
inline constexpr const char* SLoadForTextNotSupported = "Load for text not supported";
}  // namespace streammsg

// The words written for booleans: row 0 "False"/"True", row 1 "N"/"Y",
// indexed by the streamer's boolean words selector and the value.
VEL_API extern const char* const BoolIdents[2][2];

class VEL_API TCustomTextStreamer : public TCustomStreamer {
  VEL_CLASS(TCustomTextStreamer, TCustomStreamer)
 public:
  // The streamer's constructor, then: IndentChar ' ', IndentSize 2,
  // WantBlocks, WantIndent and WantClass true, quoting on, boolean words
  // "False"/"True", strip-prefix on with a prefix length of 1.
  explicit TCustomTextStreamer(TStream* AStream);
  // Hands any text still buffered to the stream.
  ~TCustomTextStreamer() override;

  // --- Overrides of the streamer's operations.
  void InitStream(TObject* Root, TStreamState State) override;
  void TermStream() override;
  void WritePropName(TObject* Obj, PPropInfo PropInfo, const std::string& Name) override;
  void WriteEnumProp(TObject* Obj, PPropInfo PropInfo) override;
  void WriteSetProp(TObject* Obj, PPropInfo PropInfo) override;
  void WriteIntegerProp(TObject* Obj, PPropInfo PropInfo) override;
  void WriteClassName(TObject* Obj, const std::string& Name) override;
  std::string ReadClassName() override;
  void WritePropListBegin(TObject* Obj) override;
  void WritePropListEnd(TObject* Obj) override;
  void WriteListBegin(TObject* Obj, int32_t Count, PPropInfo PropInfo) override;
  void WriteListEnd(TObject* Obj, PPropInfo PropInfo) override;
  void WriteAfterListItem(TObject* Obj, PPropInfo PropInfo, int32_t Index) override;
  void WriteBeforeListItem(TObject* Obj, PPropInfo PropInfo, int32_t Index) override;
  void WriteInteger(int32_t Value) override;
  int32_t ReadInteger() override;
  void WriteBoolean(bool Value) override;
  bool ReadBoolean() override;
  void WriteString(const std::string& Value) override;
  std::string ReadString() override;
  void WriteFloat(Extended Value) override;
  Extended ReadFloat() override;
  void WriteSingle(float Value) override;
  float ReadSingle() override;
  void WriteDouble(double Value) override;
  double ReadDouble() override;
  void WriteCurrency(Currency Value) override;
  Currency ReadCurrency() override;
  void WriteDateTime(TDateTime Value) override;
  TDateTime ReadDateTime() override;
  void WriteVariant(const Variant& Value) override;
  Variant ReadVariant() override;
  void WriteInt64(int64_t Value) override;
  int64_t ReadInt64() override;
  bool ReadPropListBegin() override;
  bool ReadPropListEnd() override;
  int32_t ReadListBegin() override;
  bool ReadListEnd() override;
  TObject* ReadBeforeListItem(TObject* List, bool CreateItem) override;
  void ReadAfterListItem(TObject* Obj) override;
  // Raises EStreamPropError "Load for text not supported".
  void LoadFromStream(TObject* Obj) override;
  void SaveToStream(TObject* Obj) override;
  void WriteIdentKind(TIdentKind Value) override;
  TIdentKind ReadIdentKind() override;
  void WriteIdent(const std::string& Value) override;
  std::string ReadIdent() override;
  void WriteSignature() override;
  std::string ReadSignature() override;
  void WriteClose() override;
  void ReadClose() override;

  // --- Operations added by the text streamers.
  // S in single quotes with inner quotes doubled while quoting is on.
  virtual std::string QuoteString(const std::string& S);
  virtual void WriteClassHeader(TObject* Obj, PPropInfo PropInfo);
  virtual void WriteClassFooter(TObject* Obj, PPropInfo PropInfo);
  virtual void WriteListHeader(TObject* Obj, PPropInfo PropInfo);
  virtual void WriteListFooter(TObject* Obj, PPropInfo PropInfo);
  virtual void WriteItemHeader(TObject* Obj, PPropInfo PropInfo);
  virtual void WriteItemFooter(TObject* Obj, PPropInfo PropInfo);
  // "Name = " here.
  virtual std::string FormatPropName(const std::string& Name);

  // --- Text output.
  // The characters of S as they are.
  void WriteText(std::string_view S);
  // Nothing can be read: always empty.
  std::string ReadText();
  // A carriage return, the current indent, then S.
  void WriteNewLine(std::string_view S);
  // S as a line: with WriteText alone while the stream is still empty,
  // else with WriteNewLine.
  void WriteLine(std::string_view S);
  // Hands the buffered text to the stream.
  void Flush();

  void InitIndent() { FIndent = 0; }
  void IncIndent() { FIndent += FIndentSize; }
  void DecIndent() { FIndent -= FIndentSize; }
  // The current indent as that many IndentChar (none when it is not
  // positive).
  std::string StrIndent() const;
  int32_t Indent() const { return FIndent; }

  // --- Settings.
  char IndentChar() const { return FIndentChar; }
  void SetIndentChar(char Value) { FIndentChar = Value; }
  int32_t IndentSize() const { return FIndentSize; }
  void SetIndentSize(int32_t Value) { FIndentSize = Value; }
  bool WantBlocks() const { return FWantBlocks; }
  void SetWantBlocks(bool Value) { FWantBlocks = Value; }
  bool WantIndent() const { return FWantIndent; }
  // Changes WantIndent only while WantClass is true.
  void SetWantIndent(bool Value);
  bool WantClass() const { return FWantClass; }
  // When it changes, sets WantClass and WantIndent both to Value.
  void SetWantClass(bool Value);
  // Row of BoolIdents used for booleans (0 or 1; other values count as 0).
  int32_t BoolIdentIndex() const { return FBoolIdent; }
  void SetBoolIdentIndex(int32_t Value) { FBoolIdent = Value; }
  bool QuoteStrings() const { return FQuoteStrings; }
  void SetQuoteStrings(bool Value) { FQuoteStrings = Value; }
  // Used by the class tree streamer: drop the first PrefixLength
  // characters of class names.
  bool StripPrefix() const { return FStripPrefix; }
  void SetStripPrefix(bool Value) { FStripPrefix = Value; }
  int32_t PrefixLength() const { return FPrefixLength; }
  void SetPrefixLength(int32_t Value) { FPrefixLength = Value; }

  // An object's label: a component's Name when it is not empty, else the
  // class name without its first character ("Column" for TColumn).
  static std::string ObjectLabel(TObject* Obj);

 protected:
  bool IsRoot(TObject* Obj) const { return Obj == FRootComponent; }
  // ObjectLabel without a copy: valid while the object and its name are.
  static std::string_view LabelOf(TObject* Obj);
  // The property's name, or the object's label when there is no property
  // (a list saved as the root).
  static std::string_view ListName(TObject* Obj, PPropInfo PropInfo);

  // Text pieces appended straight to the buffer: WriteTextParts is
  // WriteText of the concatenation, WriteLineParts WriteLine of it.
  void WriteTextParts(std::initializer_list<std::string_view> Parts);
  void WriteLineParts(std::initializer_list<std::string_view> Parts);
  // WriteText(QuoteString(S)). Saves of the library's own streamer classes
  // (which keep the inherited QuoteString) quote straight into the buffer.
  void WriteQuoted(std::string_view S);
  // Whether the running save is by one of the library's own classes, so
  // that the quoting and name formatting they inherit may be done in place.
  bool OwnFormatting() const { return FOwnFormatting; }
  // Hands the buffer on when due after a piece of text.
  void EndPiece() {
    if (!FBuffering || FOut.size() >= FlushThreshold) Flush();
  }
  static constexpr size_t FlushThreshold = 256 * 1024;

  // The text not yet handed to the stream: a plain growable byte buffer
  // (appends of a few bytes are the common case, so it skips the
  // terminator and checks of std::string).
  class TOutBuffer {
   public:
    // Copies N bytes; most pieces are a few bytes, copied with fixed-size
    // moves (two overlapping ones) instead of a call.
    static char* Copy(char* D, const char* P, size_t N) {
      if (N >= 8 && N <= 16) {
        uint64_t A, B;
        std::memcpy(&A, P, 8);
        std::memcpy(&B, P + N - 8, 8);
        std::memcpy(D, &A, 8);
        std::memcpy(D + N - 8, &B, 8);
      } else if (N >= 4 && N < 8) {
        uint32_t A, B;
        std::memcpy(&A, P, 4);
        std::memcpy(&B, P + N - 4, 4);
        std::memcpy(D, &A, 4);
        std::memcpy(D + N - 4, &B, 4);
      } else if (N > 0 && N < 4) {
        D[0] = P[0];
        D[N / 2] = P[N / 2];
        D[N - 1] = P[N - 1];
      } else if (N > 16) {
        std::memcpy(D, P, N);
      }
      return D + N;
    }
    static char* Fill(char* D, size_t N, char C) {
      if (N <= 16) {
        for (size_t I = 0; I < N; ++I) D[I] = C;
      } else {
        std::memset(D, C, N);
      }
      return D + N;
    }
    // Room for N more bytes at the returned position; Commit(end of what
    // was written there) makes them part of the buffer.
    char* Claim(size_t N) {
      if (N > FCap - FLen) Grow(N);
      return FData.get() + FLen;
    }
    void Commit(char* End) { FLen = static_cast<size_t>(End - FData.get()); }

    void append(std::string_view S) { Commit(Copy(Claim(S.size()), S.data(), S.size())); }
    void append(size_t N, char C) { Commit(Fill(Claim(N), N, C)); }
    void push_back(char C) {
      if (FLen == FCap) Grow(1);
      FData[FLen++] = C;
    }
    const char* data() const { return FData.get(); }
    size_t size() const { return FLen; }
    bool empty() const { return FLen == 0; }
    void clear() { FLen = 0; }

   private:
    void Grow(size_t More);
    std::unique_ptr<char[]> FData;
    size_t FLen = 0;
    size_t FCap = 0;
  };

  char FIndentChar = ' ';
  int32_t FBoolIdent = 0;
  bool FWantBlocks = true;
  bool FWantIndent = true;
  bool FWantClass = true;
  bool FQuoteStrings = true;
  int32_t FIndent = 0;
  int32_t FIndentSize = 2;
  bool FStripPrefix = true;
  int32_t FPrefixLength = 1;

 private:
  // Whether nothing has been written to the stream or the buffer yet.
  bool StreamIsEmpty() { return FOut.empty() && !FKnownNonEmpty && StreamIsEmptySlow(); }
  bool StreamIsEmptySlow();

  TOutBuffer FOut;              // text not yet handed to the stream
  bool FBuffering = false;      // inside SaveToStream
  bool FKnownNonEmpty = false;  // the stream is known to hold bytes
  bool FOwnFormatting = false;  // see OwnFormatting
  bool FOwnNameFormat = false;  // and the class formats names as "Name = "
};

// The text streamer with its settings published.
class VEL_API TTextStreamer : public TCustomTextStreamer {
  VEL_CLASS(TTextStreamer, TCustomTextStreamer)
 public:
  explicit TTextStreamer(TStream* AStream) : TCustomTextStreamer(AStream) {}
};

// Object headers "Corvane object stream - Form1: TMyForm = <" (root) and
// "Object Column: TColumn " (nested), list headers "Columns = <" and
// "Object List Parts = <", list footers "end >".
class VEL_API TObjectTextStreamer : public TCustomTextStreamer {
  VEL_CLASS(TObjectTextStreamer, TCustomTextStreamer)
 public:
  explicit TObjectTextStreamer(TStream* AStream) : TCustomTextStreamer(AStream) {}
  void WriteClassHeader(TObject* Obj, PPropInfo PropInfo) override;
  void WriteListHeader(TObject* Obj, PPropInfo PropInfo) override;
  void WriteListFooter(TObject* Obj, PPropInfo PropInfo) override;
};

// One element per written property ("<Width>'40'</Width>"), per nested
// object, list and collection item (named by labels), inside a Document
// element after the prologue. Element names are not checked. Strings pass
// through the escape table first (see EscapeText).
class VEL_API TXMLStreamer : public TCustomTextStreamer {
  VEL_CLASS(TXMLStreamer, TCustomTextStreamer)
 public:
  explicit TXMLStreamer(TStream* AStream) : TCustomTextStreamer(AStream) {}
  // Bare: no prologue, no Document element and no indentation, for
  // embedding in another document.
  TXMLStreamer(TStream* AStream, bool ABare);

  std::string FormatPropName(const std::string& Name) override;
  // The opening tag from FormatPropName, formatted in place when this is
  // exactly TXMLStreamer.
  void WritePropName(TObject* Obj, PPropInfo PropInfo, const std::string& Name) override;
  void WriteAfterProp(TObject* Obj, PPropInfo PropInfo) override;
  void WriteString(const std::string& Value) override;
  void WriteClassHeader(TObject* Obj, PPropInfo PropInfo) override;
  void WriteClassFooter(TObject* Obj, PPropInfo PropInfo) override;
  void WriteListHeader(TObject* Obj, PPropInfo PropInfo) override;
  void WriteListFooter(TObject* Obj, PPropInfo PropInfo) override;
  void WriteItemHeader(TObject* Obj, PPropInfo PropInfo) override;
  void WriteItemFooter(TObject* Obj, PPropInfo PropInfo) override;

  bool Bare() const { return FBare; }

  // S with & < > ' " and the Windows-1252 characters 145 (left single
  // quotation mark), 203, 207, 232, 233, 234, 235, 239, 244 replaced by
  // their entities; every other character unchanged.
  static std::string EscapeText(std::string_view S);

 private:
  bool FBare = false;
};

// Prints only the tree of nested objects: one line per object, its class
// name without the leading letter, one tab deeper per level.
class VEL_API TClassTreeStreamer : public TCustomTextStreamer {
  VEL_CLASS(TClassTreeStreamer, TCustomTextStreamer)
 public:
  // TypeKinds only tkClass, IndentChar tab, IndentSize 1, WantBlocks false.
  explicit TClassTreeStreamer(TStream* AStream);
  void WriteClassName(TObject* Obj, const std::string& Name) override;
};

}  // namespace vel
