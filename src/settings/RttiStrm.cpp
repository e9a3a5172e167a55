#include "vel/RttiStrm.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>

#include <pugixml.hpp>

#include "vel/RegistryClasses.h"
#include "vel/rtl/Messages.h"
#include "vel/rtl/Registry.h"
#include "vel/rtl/Streams.h"
#include "vel/rtl/SysUtils.h"
#include "vel/rtl/VeluSystem.h"

namespace vel {

VEL_IMPLEMENT(TRTTIStream)

namespace {

using namespace RttiStrm;

// Unit-level state shared by every pass.
std::string CurrentKeyPath;
std::unique_ptr<TFileStream> RegEditFile;

std::mutex SingletonLock;
TRTTIStream* Singleton = nullptr;
// Set except while RTTIStream() constructs the instance.
bool ConstructionGuard = true;
int ConstructionCount = 0;

struct TFinalization {
  ~TFinalization() {
    ReleaseRTTIStream();
    CurrentKeyPath.clear();
  }
} Finalization;

constexpr const char* SConfigFile = "/Misc/Corvane.config";
constexpr const char* SLineBreak = "\r\n";

std::string WithBackslash(const std::string& Key) {
  if (!Key.empty() && Key.back() == '\\') return Key;
  return Key + '\\';
}

std::string WithoutBackslash(std::string Key) {
  if (!Key.empty() && Key.back() == '\\') Key.pop_back();
  return Key;
}

// "Name"=dword:0000000a: eight lower-case hexadecimal digits of the 32-bit
// pattern.
std::string DwordLine(const std::string& Name, int32_t Value) {
  char Hex[9];
  std::snprintf(Hex, sizeof Hex, "%08x", static_cast<uint32_t>(Value));
  return "\"" + Name + "\"=dword:" + Hex;
}

bool StreamedProperty(const std::string& Name) { return Name != "Name" && Name != "Tag"; }

// The kinds the value walk visits: all but class, method, int64 and
// dynamic array.
bool WalkedKind(TTypeKind K) {
  return K != tkClass && K != tkMethod && K != tkInt64 && K != tkDynArray;
}

bool IsBooleanType(PTypeInfo T) {
  return T == TypeInfoBoolean() || (T->Data.BaseType && T->Data.BaseType == TypeInfoBoolean());
}

// Sets an enumeration property by the name of an ordinal, as the runtime's
// SetEnumProp does; a name the type does not know is an error.
void SetEnumByName(TObject* Obj, PPropInfo Info, const std::string& Name) {
  int V = GetEnumValue(Info->PropType, Name);
  if (V < 0) throw EPropertyConvertError(Format(SRttiInvalidPropertyElement, {Name}));
  SetOrdProp(Obj, Info, V);
}

std::string OrdinalName(PPropInfo Info, int32_t Ordinal) {
  return GetEnumName(Info->PropType, Ordinal);
}

void WriteLine(const std::string& S) {
  std::string L = S;
  L += SLineBreak;
  RegEditFile->WriteBuffer(L.data(), static_cast<int64_t>(L.size()));
}

// The MSXML "text" of a node: all descendant text, in document order.
void AppendText(pugi::xml_node N, std::string& Out) {
  for (pugi::xml_node C = N.first_child(); C; C = C.next_sibling()) {
    if (C.type() == pugi::node_pcdata || C.type() == pugi::node_cdata)
      Out += C.value();
    else if (C.type() == pugi::node_element)
      AppendText(C, Out);
  }
}

std::string NodeText(pugi::xml_node N) {
  if (N.type() == pugi::node_pcdata || N.type() == pugi::node_cdata) return N.value();
  std::string S;
  AppendText(N, S);
  return S;
}

void SetNodeText(pugi::xml_node N, const std::string& Utf8) {
  while (N.first_child()) N.remove_child(N.first_child());
  N.append_child(pugi::node_pcdata).set_value(Utf8.c_str());
}

// ---------------------------------------------------------------------------
// The configuration file

bool IEquals(std::string_view A, std::string_view B) {
  if (A.size() != B.size()) return false;
  for (size_t I = 0; I < A.size(); ++I)
    if (std::tolower(static_cast<unsigned char>(A[I])) != std::tolower(static_cast<unsigned char>(B[I])))
      return false;
  return true;
}

// Whether an encoding name is one that Windows reads as Windows-1252.
bool IsCp1252Name(std::string_view Enc) {
  return IEquals(Enc, "windows-1252") || IEquals(Enc, "iso-8859-1") || IEquals(Enc, "latin1") ||
         IEquals(Enc, "cp1252");
}

// Windows-1252 bytes for UTF-8 text; a character the code page lacks
// becomes a character reference, so that text the walk did not touch keeps
// every character it was loaded with.
std::string ToCp1252WithReferences(const std::string& Utf8) {
  std::u16string W = Utf8ToWide(Utf8);
  std::string Out;
  Out.reserve(W.size());
  for (size_t I = 0; I < W.size(); ++I) {
    char32_t C = W[I];
    if (C >= 0xD800 && C < 0xDC00 && I + 1 < W.size() && W[I + 1] >= 0xDC00 && W[I + 1] < 0xE000) {
      C = 0x10000 + ((C - 0xD800) << 10) + (W[I + 1] - 0xDC00);
      ++I;
    }
    char B = WideCharToCp1252(C);
    if (B == '?' && C != U'?')
      Out += "&#" + std::to_string(static_cast<uint32_t>(C)) + ";";
    else
      Out += B;
  }
  return Out;
}

// A configuration document loaded from disk, remembering how its bytes were
// laid out (encoding, byte-order mark, line breaks between the top-level
// nodes) so that saving changes only the texts the walk replaced.
struct TConfigDocument {
  pugi::xml_document Doc;
  pugi::xml_encoding Encoding = pugi::encoding_utf8;
  bool Cp1252 = false;
  bool Bom = false;
  std::string Eol = "\n";
  bool TrailingEol = false;

  bool Load(const std::string& FileName) {
    std::ifstream F(FileName, std::ios::binary);
    if (!F) return false;
    std::string Bytes((std::istreambuf_iterator<char>(F)), std::istreambuf_iterator<char>());
    if (F.bad()) return false;
    Bom = Bytes.size() >= 3 && static_cast<unsigned char>(Bytes[0]) == 0xEF &&
          static_cast<unsigned char>(Bytes[1]) == 0xBB && static_cast<unsigned char>(Bytes[2]) == 0xBF;
    // Line ends are kept as they are (no parse_eol), so texts keep their CRs.
    const unsigned Options = (pugi::parse_full | pugi::parse_ws_pcdata) & ~pugi::parse_eol;
    pugi::xml_parse_result R = Doc.load_buffer(Bytes.data(), Bytes.size(), Options, pugi::encoding_auto);
    // An 8-bit file whose declaration names Windows-1252 (or Latin-1, which
    // Windows reads as Windows-1252): pugixml does not decode it, so the
    // bytes are decoded here and parsed again.
    Cp1252 = false;
    if (R && (R.encoding == pugi::encoding_utf8 || R.encoding == pugi::encoding_latin1) && !Bom) {
      pugi::xml_node Decl = Doc.first_child();
      while (Decl && Decl.type() != pugi::node_declaration && Decl.type() != pugi::node_element)
        Decl = Decl.next_sibling();
      if (Decl && Decl.type() == pugi::node_declaration && IsCp1252Name(Decl.attribute("encoding").value())) {
        Cp1252 = true;
        Bytes = Cp1252ToUtf8(Bytes);
        R = Doc.load_buffer(Bytes.data(), Bytes.size(), Options, pugi::encoding_utf8);
      }
    }
    if (!R || !Doc.document_element()) return false;
    Encoding = R.encoding;
    if (Encoding != pugi::encoding_utf8 && Encoding != pugi::encoding_latin1) {
      // Wide files: pugixml found them by their byte-order mark or
      // declaration; the line breaks are looked for in the decoded text.
      Bom = true;
      std::ostringstream U;
      Doc.save(U, "", pugi::format_raw, pugi::encoding_utf8);
      Bytes = U.str();
    }
    size_t Nl = Bytes.find('\n');
    if (Nl == std::string::npos)
      Eol.clear();  // all on one line
    else
      Eol = Nl > 0 && Bytes[Nl - 1] == '\r' ? "\r\n" : "\n";
    size_t Last = Bytes.find_last_not_of(std::string("\0", 1));
    TrailingEol = Last != std::string::npos && Bytes[Last] == '\n';
    return true;
  }

  // The document as UTF-8: the top-level nodes one per line, as written
  // by the suite, each printed as it was parsed.
  std::string Utf8Text() const {
    std::ostringstream S;
    bool AfterMarkup = false;
    for (pugi::xml_node N = Doc.first_child(); N; N = N.next_sibling()) {
      // Stray text outside the elements (pugixml keeps it) goes back as it
      // was, with no line break of ours around it.
      if (N.type() == pugi::node_pcdata || N.type() == pugi::node_cdata) {
        S << N.value();
        AfterMarkup = false;
        continue;
      }
      if (AfterMarkup) S << Eol;
      AfterMarkup = true;
      N.print(S, "", pugi::format_raw, pugi::encoding_utf8);
    }
    if (TrailingEol) S << Eol;
    return S.str();
  }

  std::string Bytes() const {
    std::string Text = Utf8Text();
    if (Cp1252) return ToCp1252WithReferences(Text);
    switch (Encoding) {
      case pugi::encoding_utf16_le:
      case pugi::encoding_utf16_be: {
        bool Le = Encoding == pugi::encoding_utf16_le;
        std::u16string W = u"\uFEFF" + Utf8ToWide(Text);
        std::string Out;
        Out.reserve(W.size() * 2);
        for (char16_t C : W) {
          char Lo = static_cast<char>(C & 0xFF), Hi = static_cast<char>(C >> 8);
          Out += Le ? Lo : Hi;
          Out += Le ? Hi : Lo;
        }
        return Out;
      }
      case pugi::encoding_utf8:
        return Bom ? "\xEF\xBB\xBF" + Text : Text;
      default: {
        // Other encodings pugixml found: written by pugixml itself.
        std::ostringstream S;
        Doc.save(S, "", pugi::format_raw | pugi::format_no_declaration | pugi::format_write_bom,
                 Encoding);
        return S.str();
      }
    }
  }
};

void SaveFileAtomically(const std::string& FileName, const std::string& Bytes) {
  auto Fail = [&](int Err) {
    throw ERttiStream(Format(SRttiConfigSaveFailed, {FileName, std::string(std::strerror(Err))}));
  };
  std::string Dir = ExtractFileDir(FileName);
  if (Dir.empty()) Dir = ".";
  if (!ForceDirectories(Dir)) Fail(errno ? errno : EACCES);
  std::string Tmp = Dir + "/." + ExtractFileName(FileName) + ".XXXXXX";
  int Fd = ::mkstemp(Tmp.data());
  if (Fd < 0) Fail(errno);
  auto Abandon = [&](int Err) {
    ::close(Fd);
    ::unlink(Tmp.c_str());
    Fail(Err);
  };
  // The new file keeps the old one's permissions, else the usual 0644.
  struct stat St {};
  mode_t Mode = ::stat(FileName.c_str(), &St) == 0 ? (St.st_mode & 07777) : 0644;
  if (::fchmod(Fd, Mode) != 0) Abandon(errno);
  size_t Done = 0;
  while (Done < Bytes.size()) {
    ssize_t N = ::write(Fd, Bytes.data() + Done, Bytes.size() - Done);
    if (N < 0) {
      if (errno == EINTR) continue;
      Abandon(errno);
    }
    Done += static_cast<size_t>(N);
  }
  if (::fsync(Fd) != 0) Abandon(errno);
  if (::close(Fd) != 0) {
    ::unlink(Tmp.c_str());
    Fail(errno);
  }
  if (::rename(Tmp.c_str(), FileName.c_str()) != 0) {
    int Err = errno;
    ::unlink(Tmp.c_str());
    Fail(Err);
  }
  // The rename itself reaches the disk with the folder.
  int D = ::open(Dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (D >= 0) {
    ::fsync(D);
    ::close(D);
  }
}

pugi::xpath_node SelectConfigNode(pugi::xml_node Root, const std::string& XPath) {
  try {
    pugi::xpath_query Q(XPath.c_str());
    return Q.evaluate_node(Root);
  } catch (const pugi::xpath_exception& E) {
    throw ERttiStream(Format(SRttiInvalidConfigKey, {XPath, std::string(E.what())}));
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// The walk. One registry and one XML overload of each step, as the class is
// laid out; TPass only gives them access to the object's fields.

struct TRTTIStream::TPass {
  TRTTIStream& S;

  // -- common ---------------------------------------------------------------

  void Initialize(bool Recurse, const std::string& Key, TPersistent* Obj, bool Header) {
    S.FRecurse = Recurse;
    S.FKey = Key;
    S.FRoot = Obj;
    CurrentKeyPath.clear();
    S.FErrors->Clear();
    if (Header && S.FState == ssWritingRegEdit) {
      WriteLine("REGEDIT4");
      WriteLine("");
      WriteLine("[" + Key + WithoutBackslash(Key) + "]");
    }
  }

  // Runs F; a failure is collected and re-raised only when CanRaise says so.
  template <class Fn>
  void Guarded(Fn&& F) {
    try {
      F();
    } catch (const std::exception& E) {
      if (S.CanRaise(E)) throw;
    }
  }

  // The class's property count, or null for a nil object (an error).
  const TTypeData* GetObjectTypeData(TObject* Obj) {
    const TTypeData* Data = nullptr;
    Guarded([&] {
      if (!Obj) throw ERttiStream(SRttiObjectNotAssigned);
      Data = GetTypeData(Obj->ClassInfo());
    });
    return Data;
  }

  // The walk over one object's properties; Key or Node says where.
  template <class Store>
  void StreamProperties(TObject* Obj, const std::string& Key, Store& Where) {
    Guarded([&] {
      const TTypeData* Data = GetObjectTypeData(Obj);
      if (!Data) return;
      if (Data->PropCount == 0 && Obj == S.FRoot) throw ERttiStreamInit(SRttiStreamNoPublished);
      std::string K = WithBackslash(Key);
      OpenRegistry(Obj, K, Where);
      ProcessProperties(Obj, Where);
      CloseRegistry(Where);
    });
  }

  template <class Store>
  void ProcessProperties(TObject* Obj, Store& Where) {
    IteratePropList(Obj, Where);
    if (S.FRecurse) {
      CloseRegistry(Where);
      IterateClassList(Obj, Where);
    }
  }

  template <class Store>
  void IteratePropList(TObject* Obj, Store& Where) {
    for (PPropInfo P : GetSortedProps(Obj->ClassType())) {
      TTypeKind K = P->Kind();
      if (!WalkedKind(K) || !StreamedProperty(P->Name)) continue;
      switch (S.FState) {
        case ssReadingRegistry: ReadProperty(Where, Obj, K, P); break;
        case ssWritingRegistry: WriteProperty(Where, Obj, K, P); break;
        case ssReadingByName: ReadPropertyByName(Where, Obj, K, P); break;
        case ssWritingRegEdit: WritePropertyRegEdit(Where, Obj, K, P); break;
        default: break;
      }
    }
  }

  // -- registry -------------------------------------------------------------

  void OpenRegistry(TObject* Obj, const std::string& Key, TRegistry& Reg) {
    CurrentKeyPath.clear();
    if (Obj->InheritsFrom(TCustomRegKey::StaticClass()))
      Reg.SetRootKey(static_cast<TCustomRegKey*>(Obj)->RootKey());
    Reg.OpenKey(WithoutBackslash(Key), true);
    if (S.FState == ssWritingRegEdit) {
      WriteLine("");
      WriteLine("[" + Key + "]");
    }
    CurrentKeyPath = Key;
  }

  void CloseRegistry(TRegistry& Reg) { Reg.CloseKey(); }

  void IterateClassList(TObject* Obj, TRegistry& Reg) {
    for (PPropInfo P : GetSortedProps(Obj->ClassType())) {
      if (P->Kind() != tkClass || !StreamedProperty(P->Name)) continue;
      std::string Saved = CurrentKeyPath;
      std::string SubKey = WithBackslash(CurrentKeyPath) + P->Name;
      TObject* Nested = GetObjectProp(Obj, P);
      StreamProperties(Nested, SubKey, Reg);
      CurrentKeyPath = Saved;
    }
  }

  // "" when the value does not exist, else ReadString. TRegistry's
  // ReadString already gives "" for a missing value, so one look-up does.
  static std::string GetStringKeyValue(TRegistry& Reg, const std::string& Name) {
    return Reg.ReadString(Name);
  }

  void ReadProperty(TRegistry& Reg, TObject* Obj, TTypeKind K, PPropInfo P) {
    Guarded([&] {
      switch (K) {
        case tkInteger:
          SetOrdProp(Obj, P, Reg.ReadInteger(P->Name));
          break;
        case tkEnumeration:
          if (IsBooleanType(P->PropType))
            SetEnumByName(Obj, P, GetEnumName(TypeInfoBoolean(), Reg.ReadBool(P->Name) ? 1 : 0));
          else
            SetEnumByName(Obj, P, OrdinalName(P, Reg.ReadInteger(P->Name)));
          break;
        case tkString:
        case tkLString:
          SetStrProp(Obj, P, GetStringKeyValue(Reg, P->Name));
          break;
        default:
          break;
      }
    });
  }

  // Probes that the value exists with the right type; writes nothing.
  void WriteProperty(TRegistry& Reg, TObject*, TTypeKind K, PPropInfo P) {
    Guarded([&] {
      switch (K) {
        case tkInteger:
          (void)Reg.ReadInteger(P->Name);
          break;
        case tkEnumeration:
          if (IsBooleanType(P->PropType))
            (void)Reg.ReadBool(P->Name);
          else
            (void)Reg.ReadInteger(P->Name);
          break;
        case tkString:
        case tkLString:
          (void)Reg.ReadString(P->Name);
          break;
        default:
          break;
      }
    });
  }

  void WritePropertyRegEdit(TRegistry& Reg, TObject* Obj, TTypeKind K, PPropInfo P) {
    ReadProperty(Reg, Obj, K, P);
    Guarded([&] {
      switch (K) {
        case tkInteger:
        case tkEnumeration:
          WriteLine(DwordLine(P->Name, GetOrdProp(Obj, P)));
          break;
        case tkString:
        case tkLString:
          WriteLine(Format("\"%s\"=\"%s\"", {P->Name, GetStrProp(Obj, P)}));
          break;
        default:
          break;
      }
    });
  }

  void ReadPropertyByName(TRegistry& Reg, TObject* Obj, TTypeKind K, PPropInfo P) {
    ReadProperty(Reg, Obj, K, P);
    Guarded([&] {
      if (S.FPropNames->IndexOf(P->Name) < 0) return;
      std::string Value;
      switch (K) {
        case tkInteger:
        case tkEnumeration:
          Value = IntToStr(GetOrdProp(Obj, P));
          break;
        case tkString:
        case tkLString:
          Value = GetStrProp(Obj, P);
          break;
        default:
          return;
      }
      std::string Path = WithoutBackslash(Reg.CurrentPath());
      size_t Slash = Path.rfind('\\');
      std::string Prefix = (Slash == std::string::npos ? Path : Path.substr(Slash + 1)) + '\\' + P->Name;
      for (char& C : Prefix)
        if (C == '\\') C = '.';
      S.FPropValues->Add(Prefix + "=" + Value);
    });
  }

  // -- XML ------------------------------------------------------------------

  void OpenRegistry(TObject*, const std::string& Key, pugi::xml_node&) {
    CurrentKeyPath = Key;
  }

  void CloseRegistry(pugi::xml_node&) {}

  void IterateClassList(TObject* Obj, pugi::xml_node& Node) {
    for (PPropInfo P : GetSortedProps(Obj->ClassType())) {
      if (P->Kind() != tkClass || !StreamedProperty(P->Name)) continue;
      if (!Node) throw ERttiStream(SRttiNodeNotAssigned);
      pugi::xml_node Child = Node.child(P->Name.c_str());
      if (!Child) continue;
      TObject* Nested = GetObjectProp(Obj, P);
      StreamProperties(Nested, std::string(), Child);
    }
  }

  void ReadProperty(pugi::xml_node& Node, TObject* Obj, TTypeKind K, PPropInfo P) {
    if (K != tkInteger && K != tkEnumeration && K != tkString && K != tkLString) return;
    if (!Node) MessageBoxA(0, SRttiDomNodeNotAssigned, "Information", MB_OK | MB_ICONINFORMATION);
    Guarded([&] {
      if (!Node) throw ERttiStream(SRttiNodeNotAssigned);
      pugi::xml_node Child = Node.child(P->Name.c_str());
      if (!Child) return;
      std::string Text = Utf8ToCp1252(NodeText(Child));
      switch (K) {
        case tkInteger:
          SetOrdProp(Obj, P, StrToIntDef(Text, 0));
          break;
        case tkEnumeration:
          SetEnumByName(Obj, P, OrdinalName(P, StrToIntDef(Text, 0)));
          break;
        default:
          SetStrProp(Obj, P, Text);
          break;
      }
    });
  }

  void WriteProperty(pugi::xml_node& Node, TObject* Obj, TTypeKind K, PPropInfo P) {
    Guarded([&] {
      std::string Value;
      switch (K) {
        case tkInteger:
        case tkEnumeration:
          // Booleans come out as "1" or "0", the others as their ordinal.
          Value = IntToStr(GetOrdProp(Obj, P));
          break;
        case tkString:
        case tkLString:
          Value = GetStrProp(Obj, P);
          break;
        default:
          return;
      }
      if (!Node) throw ERttiStream(SRttiNodeNotAssigned);
      // A missing element is not created.
      if (pugi::xml_node Child = Node.child(P->Name.c_str())) SetNodeText(Child, Cp1252ToUtf8(Value));
    });
  }

  void ReadPropertyByName(pugi::xml_node& Node, TObject* Obj, TTypeKind K, PPropInfo P) {
    ReadProperty(Node, Obj, K, P);
  }

  void WritePropertyRegEdit(pugi::xml_node&, TObject*, TTypeKind, PPropInfo) {}

  // -- passes ---------------------------------------------------------------

  int RegistryPass(const std::string& Key, TPersistent* Obj, bool Recurse, uint32_t Access,
                   bool LocalMachine, const std::vector<std::string>* Names) {
    TRegistry Reg(Access);
    if (LocalMachine) Reg.SetRootKey(HKEY_LOCAL_MACHINE);
    Initialize(Recurse, Key, Obj, true);
    if (Names)
      for (const std::string& N : *Names) S.FPropNames->Add(N);
    StreamProperties(Obj, Key, Reg);
    return S.FErrors->Count();
  }

  int ConfigPass(const std::string& Key, TPersistent* Obj, bool Recurse, bool Save) {
    Initialize(Recurse, Key, Obj, false);
    TConfigDocument Doc;
    if (!Doc.Load(GetDataFolder() + SConfigFile)) return 0;
    pugi::xml_node Node = SelectConfigNode(Doc.Doc.document_element(), Key).node();
    StreamProperties(Obj, Key, Node);
    if (Save) SaveFileAtomically(GetSystemFolder() + SConfigFile, Doc.Bytes());
    return S.FErrors->Count();
  }
};

// ---------------------------------------------------------------------------
// TRTTIStream

TRTTIStream::TRTTIStream() {
  if (Singleton) throw ERttiStream(SRttiStreamAlreadyInitialized);
  if (ConstructionGuard) throw ERttiStream(SRttiStreamCallClassFunction);
  if (++ConstructionCount > 1)
    MessageBoxA(0, std::string(SRttiStreamCreatedAgain) + IntToStr(ConstructionCount), "Information",
                MB_OK | MB_ICONINFORMATION);
  FState = ssCreating;
  FPropNames = std::make_unique<TStringList>();
  FErrors = std::make_unique<TStringList>();
  FPropValues = std::make_unique<TStringList>();
  FSpare = std::make_unique<TStringList>();
  FSilentErrors = true;
}

TRTTIStream::~TRTTIStream() {
  FState = ssDestroying;
  std::lock_guard<std::mutex> L(SingletonLock);
  if (Singleton == this) Singleton = nullptr;
}

TRTTIStream* TRTTIStream::RTTIStream() { return ::vel::RTTIStream(); }

TRTTIStream* RTTIStream() {
  std::lock_guard<std::mutex> L(SingletonLock);
  if (!Singleton) {
    ConstructionGuard = false;
    try {
      Singleton = new TRTTIStream;
    } catch (...) {
      ConstructionGuard = true;
      throw;
    }
    ConstructionGuard = true;
  }
  return Singleton;
}

void ReleaseRTTIStream() {
  TRTTIStream* S;
  {
    std::lock_guard<std::mutex> L(SingletonLock);
    S = Singleton;
  }
  delete S;
}

bool TRTTIStream::CanRaise(const std::exception& E) {
  FErrors->Add(E.what());
  if (FSilentErrors) return false;
  bool Result = true;
  if (OnException) OnException(this, E, Result);
  return Result;
}

int TRTTIStream::StreamRegToProps(const std::string& Key, TPersistent* Obj, bool Recurse) {
  FState = ssReadingRegistry;
  return TPass{*this}.RegistryPass(Key, Obj, Recurse, KEY_READ, true, nullptr);
}

int TRTTIStream::StreamPropsToReg(TPersistent* Obj, const std::string& Key, bool Recurse) {
  FState = ssWritingRegistry;
  return TPass{*this}.RegistryPass(Key, Obj, Recurse, KEY_READ, true, nullptr);
}

int TRTTIStream::StreamPropsToRegEdit(const std::string& Key, const std::string& FileName,
                                      TPersistent* Obj, bool Recurse) {
  FState = ssWritingRegEdit;
  FExportFileName = FileName;
  RegEditFile = std::make_unique<TFileStream>(FileName, fmCreate);
  struct TCloser {
    ~TCloser() { RegEditFile.reset(); }
  } Closer;
  return TPass{*this}.RegistryPass(Key, Obj, Recurse, KEY_ALL_ACCESS, false, nullptr);
}

int TRTTIStream::PropValuesByName(TPersistent* Obj, const std::string& Key,
                                  const std::vector<std::string>& Names, bool Recurse) {
  FState = ssReadingByName;
  return TPass{*this}.RegistryPass(Key, Obj, Recurse, KEY_READ, false, &Names);
}

int TRTTIStream::StreamConfigToProps(const std::string& Key, TPersistent* Obj, bool Recurse) {
  FState = ssReadingRegistry;
  return TPass{*this}.ConfigPass(Key, Obj, Recurse, false);
}

int TRTTIStream::StreamPropsToConfig(TPersistent* Obj, const std::string& Key, bool Recurse) {
  FState = ssWritingRegistry;
  return TPass{*this}.ConfigPass(Key, Obj, Recurse, true);
}

// ---------------------------------------------------------------------------
// The configuration file by hand

namespace {

pugi::xpath_node SelectOrFail(TConfigDocument& Doc, const std::string& XPath) {
  std::string Name = GetDataFolder() + SConfigFile;
  if (!Doc.Load(Name)) throw ERttiStream(Format(SRttiConfigLoadFailed, {Name}));
  pugi::xpath_node N = SelectConfigNode(Doc.Doc.document_element(), XPath);
  if (!N) throw ERttiStream(Format(SRttiConfigNoMatch, {XPath}));
  return N;
}

}  // namespace

std::string ReadConfigValue(const std::string& XPath) {
  TConfigDocument Doc;
  pugi::xpath_node N = SelectOrFail(Doc, XPath);
  return N.attribute() ? std::string(N.attribute().value()) : NodeText(N.node());
}

void WriteConfigValue(const std::string& XPath, const std::string& Value) {
  TConfigDocument Doc;
  pugi::xpath_node N = SelectOrFail(Doc, XPath);
  if (N.attribute())
    N.attribute().set_value(Value.c_str());
  else if (N.node().type() == pugi::node_element)
    SetNodeText(N.node(), Value);
  else
    N.node().set_value(Value.c_str());
  SaveFileAtomically(GetSystemFolder() + SConfigFile, Doc.Bytes());
}

}  // namespace vel
