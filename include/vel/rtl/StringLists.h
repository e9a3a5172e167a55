// The runtime's string lists: the abstract TStrings (lines with attached
// objects, name=value pairs, comma and delimited text, text with line
// breaks, streams and files) and TStringList, which stores the lines in one
// contiguous array and can keep them sorted.
//
// Comparisons: TStrings compares case-insensitively (CompareStrings).
// Letters of Windows-1252 (ASCII and the accented Latin-1 letters, Š, Œ, Ž,
// Ÿ) compare equal to their other case; the order is that of the bytes
// after folding to lower case. TStringList with CaseSensitive compares the
// folded text first and, where that is equal, puts a lower-case letter
// before its upper-case form (the order Windows gives "a" and "A").
//
// Attached objects are never owned: no list here frees them.
//
// Thread safety: none. A list may be used by one thread at a time.
#pragma once

#include <string>
#include <vector>

#include "vel/rtl/Lists.h"
#include "vel/rtl/Persistent.h"

namespace vel {

class TStream;

VEL_EXCEPTION(EStringListError, EListError);

enum TDuplicates : uint8_t { dupIgnore, dupAccept, dupError };

// One line of a string list with its attached object.
struct TStringItem {
  std::string FString;
  TObject* FObject = nullptr;
};

class VEL_API TStrings : public TPersistent {
  VEL_CLASS(TStrings, TPersistent)
 public:
  TStrings() = default;
  ~TStrings() override;

  // --- the lines and their objects -----------------------------------------
  virtual int Add(const std::string& S);
  virtual int AddObject(const std::string& S, TObject* AObject);
  void Append(const std::string& S) { Add(S); }
  // Adds every line (with its object) of Strings, inside one update.
  virtual void AddStrings(TStrings* Strings);
  virtual void Insert(int Index, const std::string& S) = 0;
  virtual void InsertObject(int Index, const std::string& S, TObject* AObject);
  virtual void Delete(int Index) = 0;
  virtual void Clear() = 0;
  virtual void Exchange(int Index1, int Index2);
  virtual void Move(int CurIndex, int NewIndex);

  // Copies the lines, objects and text settings of another TStrings; any
  // other source is handed to TPersistent::Assign.
  void Assign(TPersistent* Source) override;
  // In component streams the lines are the defined property "Strings": a
  // list of strings, written when there are lines.
  void DefineProperties(TFiler* Filer) override;

  int Count() const { return GetCount(); }
  std::string Strings(int Index) const { return Get(Index); }
  void SetStrings(int Index, const std::string& S) { Put(Index, S); }
  std::string operator[](int Index) const { return Get(Index); }
  TObject* Objects(int Index) const { return GetObject(Index); }
  void SetObjects(int Index, TObject* AObject) { PutObject(Index, AObject); }

  virtual int IndexOf(const std::string& S) const;
  virtual int IndexOfName(const std::string& Name) const;
  virtual int IndexOfObject(TObject* AObject) const;
  // Same lines in the same order (compared exactly); objects are ignored.
  bool Equals(const TStrings* Strings) const;

  // --- name=value pairs ----------------------------------------------------
  // The part of line Index before the first separator ("" without one).
  std::string Names(int Index) const;
  // The value of the first line whose name matches Name ("" when none).
  std::string Values(const std::string& Name) const;
  // Sets the value of Name, appending "Name=Value" when there is no such
  // line; an empty Value deletes the line.
  void SetValues(const std::string& Name, const std::string& Value);
  // The part of line Index after the first separator ("" without one).
  std::string ValueFromIndex(int Index) const;
  void SetValueFromIndex(int Index, const std::string& Value);
  char NameValueSeparator() const { return FNameValueSeparator; }
  void SetNameValueSeparator(char Value) { FNameValueSeparator = Value; }

  // --- whole-list text -----------------------------------------------------
  // Every line followed by LineBreak.
  std::string Text() const { return GetTextStr(); }
  // Replaces the lines with those of Value, split at CR, LF or CR LF.
  void SetText(const std::string& Value) { SetTextStr(Value); }
  const std::string& LineBreak() const { return FLineBreak; }
  void SetLineBreak(const std::string& Value) { FLineBreak = Value; }

  // DelimitedText with ',' and '"', whatever Delimiter and QuoteChar hold.
  std::string CommaText() const;
  void SetCommaText(const std::string& Value);
  std::string DelimitedText() const;
  void SetDelimitedText(const std::string& Value);
  char Delimiter() const { return FDelimiter; }
  void SetDelimiter(char Value) { FDelimiter = Value; }
  char QuoteChar() const { return FQuoteChar; }
  void SetQuoteChar(char Value) { FQuoteChar = Value; }

  // --- streams and files ---------------------------------------------------
  // Writes Text to the stream.
  virtual void SaveToStream(TStream* Stream) const;
  // Replaces the lines with the text from the stream's position to its end.
  virtual void LoadFromStream(TStream* Stream);
  virtual void SaveToFile(const std::string& FileName) const;
  virtual void LoadFromFile(const std::string& FileName);

  // --- updates -------------------------------------------------------------
  // Nested; the first BeginUpdate and the last EndUpdate call
  // SetUpdateState. An EndUpdate without a BeginUpdate is ignored.
  void BeginUpdate();
  void EndUpdate();

  int Capacity() const { return GetCapacity(); }
  // Default: the capacity is the count, and setting it does nothing.
  virtual int GetCapacity() const;
  virtual void SetCapacity(int NewCapacity);

  // <0, 0 or >0 as S1 sorts before, equal to or after S2 (case-insensitive
  // here; TStringList honours CaseSensitive).
  virtual int CompareStrings(const std::string& S1, const std::string& S2) const;

  // --- the storage a descendant provides -----------------------------------
  virtual std::string Get(int Index) const = 0;
  virtual int GetCount() const = 0;
  virtual TObject* GetObject(int Index) const;
  // Default: delete and re-insert the line, keeping its object.
  virtual void Put(int Index, const std::string& S);
  // Default: objects are not kept.
  virtual void PutObject(int Index, TObject* AObject);

 protected:
  virtual std::string GetTextStr() const;
  virtual void SetTextStr(const std::string& Value);
  virtual void SetUpdateState(bool Updating);
  // Adds many lines at the end (a sorted list places them): Text,
  // CommaText, DelimitedText, AddStrings, Assign and the loads go through
  // here, always inside BeginUpdate/EndUpdate. The lines may be moved
  // from. The default adds them one by one with AddObject (WithObjects) or
  // Add.
  virtual void AddLines(std::vector<TStringItem>& Lines, bool WithObjects);
  int UpdateCount() const { return FUpdateCount; }
  [[noreturn]] static void Error(const char* Msg, int Data);

 private:
  std::string GetDelimited(char Delim, char Quote) const;
  void SetDelimited(const std::string& Value, char Delim, char Quote);

  int FUpdateCount = 0;
  char FDelimiter = ',';
  char FQuoteChar = '"';
  char FNameValueSeparator = '=';
  std::string FLineBreak = "\r\n";
};

class TStringList;
using TStringListSortCompare = int (*)(TStringList* List, int Index1, int Index2);

class VEL_API TStringList : public TStrings {
  VEL_CLASS(TStringList, TStrings)
 public:
  TStringList() = default;
  ~TStringList() override;

  // On a sorted list, Add and AddObject insert at the sorted position and
  // apply Duplicates; otherwise they append.
  int Add(const std::string& S) override;
  int AddObject(const std::string& S, TObject* AObject) override;
  void Clear() override;
  void Delete(int Index) override;
  // Not allowed on a sorted list.
  void Exchange(int Index1, int Index2) override;
  void Move(int CurIndex, int NewIndex) override;
  void Insert(int Index, const std::string& S) override;
  void InsertObject(int Index, const std::string& S, TObject* AObject) override;
  // Binary search for S (the list must be sorted): true when found; Index
  // receives its position, or where it would be inserted. Under dupAccept
  // Index is the first of equal lines (so Add puts a duplicate before its
  // equals); otherwise it is the first equal line the search meets.
  virtual bool Find(const std::string& S, int& Index) const;
  int IndexOf(const std::string& S) const override;
  // Sorts with CompareStrings (does nothing on a list already Sorted).
  virtual void Sort();
  // Sorts with Compare (does nothing on a list already Sorted).
  virtual void CustomSort(TStringListSortCompare Compare);

  bool Sorted() const { return FSorted; }
  void SetSorted(bool Value);
  TDuplicates Duplicates() const { return FDuplicates; }
  void SetDuplicates(TDuplicates Value) { FDuplicates = Value; }
  bool CaseSensitive() const { return FCaseSensitive; }
  void SetCaseSensitive(bool Value);

  int CompareStrings(const std::string& S1, const std::string& S2) const override;

  int GetCapacity() const override { return FCapacity; }
  // Raises "List capacity out of bounds" below Count.
  void SetCapacity(int NewCapacity) override;

  std::string Get(int Index) const override;
  int GetCount() const override { return static_cast<int>(FList.size()); }
  TObject* GetObject(int Index) const override;
  // Not allowed on a sorted list.
  void Put(int Index, const std::string& S) override;
  void PutObject(int Index, TObject* AObject) override;

  // Called before and after every change, unless inside BeginUpdate /
  // EndUpdate (then once at the first BeginUpdate and the last EndUpdate).
  TNotifyEvent OnChange;
  TNotifyEvent OnChanging;

 protected:
  virtual void Changed();
  virtual void Changing();
  virtual void InsertItem(int Index, const std::string& S, TObject* AObject);
  void SetUpdateState(bool Updating) override;
  // A plain TStringList appends without per-line overhead and merges many
  // lines into a sorted list in O(n + m log m), with the result that adding
  // them one by one gives. Subclasses get the one-by-one path, so their
  // overrides of Add, AddObject or InsertItem see every line.
  void AddLines(std::vector<TStringItem>& Lines, bool WithObjects) override;

 private:
  void MergeSorted(std::vector<TStringItem>& Lines);
  void Grow();
  void CheckIndex(int Index) const;
  void SortItems(TStringListSortCompare Compare);
  // The comparison of Sort: CompareStrings of the two lines.
  static int DefaultCompare(TStringList* List, int Index1, int Index2);

  std::vector<TStringItem> FList;
  int FCapacity = 0;
  bool FSorted = false;
  TDuplicates FDuplicates = dupIgnore;
  bool FCaseSensitive = false;
};

}  // namespace vel
