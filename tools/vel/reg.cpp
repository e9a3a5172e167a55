// vel reg: the registry hives and regedit's files.
//
//   vel reg import FILE.reg                 applies a .reg file (all or nothing)
//   vel reg export KEY FILE.reg [--v5]      writes KEY and its subkeys as a
//                                           REGEDIT4 file (--v5: version 5)
//   vel reg query KEY [VALUE]               prints the values as .reg lines
//   vel reg set KEY VALUE TYPE DATA         sets one value
//   vel reg delete KEY [VALUE]              deletes a key tree or one value
//
// KEY starts with its hive: HKEY_CURRENT_USER\Software\..., or HKCU\...
// (also HKLM, HKCR, HKU, HKCC). VALUE "@" is the key's default value. TYPE is
// REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ (DATA's items separated by "\0"),
// REG_DWORD, REG_QWORD (decimal, or hexadecimal after 0x), REG_BINARY or
// REG_NONE (hexadecimal bytes, optionally separated by commas). Names and
// text on the command line and on the output are UTF-8. The hives live
// under $VEL_REGISTRY_DIR when it is set.
#include <cstdio>
#include <memory>
#include <string>

#include "Commands.h"
#include "vel/rtl/RegFiles.h"
#include "vel/rtl/Registry.h"
#include "vel/rtl/SysUtils.h"

namespace {

using namespace vel;

struct TKey {
  HKEY Root = 0;
  std::string Path;  // below the hive, UTF-8
  std::string Full;  // as written on the command line
};

TKey ParseKey(const std::string& Text) {
  TKey K;
  K.Full = Text;
  const size_t Slash = Text.find('\\');
  if (!RootKeyFromName(Text.substr(0, Slash), K.Root))
    throw ERegistryException(Format("Unknown root key '%s'", {Text.substr(0, Slash)}));
  if (Slash != std::string::npos) K.Path = Text.substr(Slash + 1);
  return K;
}

std::string ValueName(const std::string& Arg) { return Arg == "@" ? std::string() : Arg; }

// Opens the key for the tool's use: names in UTF-8, relative to the hive.
void Open(TRegistry& R, const TKey& K, bool Create) {
  R.SetUtf8(true);
  R.SetRootKey(K.Root);
  if (!R.OpenKey("\\" + K.Path, Create)) {
    if (Create) throw ERegistryException(Format(SRegCreateFailed, {K.Full}));
    throw ERegistryException(Format("Key not found: %s", {K.Full}));
  }
}

void PutLine(const std::string& Line) {
  // Continuation lines of hex data keep the tool's own line ends.
  std::string Out;
  for (size_t I = 0; I < Line.size(); ++I)
    if (!(Line[I] == '\r' && I + 1 < Line.size() && Line[I + 1] == '\n')) Out += Line[I];
  Out += '\n';
  if (!vel::tool::WriteStdout(Out.data(), Out.size())) throw ERegistryException("Cannot write the output");
}

int Query(const std::string& Key, const std::string* Value) {
  TRegistry R(KEY_READ);
  Open(R, ParseKey(Key), false);
  TRegValue V;
  if (Value) {
    std::string Name = ValueName(*Value);
    if (!R.ReadValue(Name, V)) throw ERegistryException(Format(SRegGetDataFailed, {*Value}));
    // Show the name as stored, not as typed.
    for (const std::string& Stored : R.ValueNamesUtf8())
      if (AnsiSameText(Utf8ToCp1252(Stored), Utf8ToCp1252(Name))) Name = Stored;
    PutLine(RegValueLine(Name, V, TRegFileFormat::Version5));
    return 0;
  }
  for (const std::string& Name : R.ValueNamesUtf8())
    if (R.ReadValue(Name, V)) PutLine(RegValueLine(Name, V, TRegFileFormat::Version5));
  return 0;
}

std::vector<uint8_t> Utf16(const std::string& Utf8) {
  std::vector<uint8_t> D;
  for (const char16_t C : Utf8ToWide(Utf8)) {
    D.push_back(uint8_t(C & 0xFF));
    D.push_back(uint8_t(C >> 8));
  }
  return D;
}

uint64_t ParseNumber(const std::string& Data, uint64_t Max) {
  const bool Hex = Data.size() > 2 && Data[0] == '0' && (Data[1] == 'x' || Data[1] == 'X');
  size_t Used = 0;
  uint64_t V = 0;
  try {
    V = std::stoull(Hex ? Data.substr(2) : Data, &Used, Hex ? 16 : 10);
  } catch (const std::exception&) {
    Used = 0;
  }
  if (Data.empty() || Data[0] == '-' || Used != Data.size() - (Hex ? 2 : 0) || V > Max)
    throw EConvertError(Format("'%s' is not a valid integer value", {Data}));
  return V;
}

TRegValue MakeValue(const std::string& Type, const std::string& Data) {
  TRegValue V;
  if (SameText(Type, "REG_SZ") || SameText(Type, "REG_EXPAND_SZ")) {
    V.Type = SameText(Type, "REG_SZ") ? REG_SZ : REG_EXPAND_SZ;
    V.Data = Utf16(Data);
    V.Data.insert(V.Data.end(), {0, 0});
  } else if (SameText(Type, "REG_MULTI_SZ")) {
    V.Type = REG_MULTI_SZ;
    size_t Start = 0;
    for (;;) {
      const size_t Sep = Data.find("\\0", Start);
      const std::vector<uint8_t> Item = Utf16(Data.substr(Start, Sep - Start));
      V.Data.insert(V.Data.end(), Item.begin(), Item.end());
      V.Data.insert(V.Data.end(), {0, 0});
      if (Sep == std::string::npos) break;
      Start = Sep + 2;
    }
    V.Data.insert(V.Data.end(), {0, 0});
  } else if (SameText(Type, "REG_DWORD") || SameText(Type, "REG_QWORD")) {
    const bool Q = SameText(Type, "REG_QWORD");
    V.Type = Q ? REG_QWORD : REG_DWORD;
    const uint64_t N = ParseNumber(Data, Q ? UINT64_MAX : UINT32_MAX);
    for (int I = 0; I < (Q ? 8 : 4); ++I) V.Data.push_back(uint8_t(N >> (8 * I)));
  } else if (SameText(Type, "REG_BINARY") || SameText(Type, "REG_NONE")) {
    V.Type = SameText(Type, "REG_BINARY") ? REG_BINARY : REG_NONE;
    std::string Digits;
    for (const char C : Data)
      if (C != ',' && C != ' ') Digits += C;
    if (Digits.size() % 2) throw EConvertError(Format("'%s' is not valid hexadecimal data", {Data}));
    for (size_t I = 0; I < Digits.size(); I += 2) {
      const std::string Byte = Digits.substr(I, 2);
      if (Byte.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw EConvertError(Format("'%s' is not valid hexadecimal data", {Data}));
      V.Data.push_back(uint8_t(std::stoul(Byte, nullptr, 16)));
    }
  } else {
    throw ERegistryException(Format("Unknown value type '%s'", {Type}));
  }
  return V;
}

int Set(const std::string& Key, const std::string& Value, const std::string& Type, const std::string& Data) {
  const TRegValue V = MakeValue(Type, Data);
  TRegistry R;
  Open(R, ParseKey(Key), true);
  R.WriteValue(ValueName(Value), V);
  return 0;
}

int Delete(const std::string& Key, const std::string* Value) {
  const TKey K = ParseKey(Key);
  TRegistry R;
  R.SetUtf8(true);
  R.SetRootKey(K.Root);
  if (Value) {
    Open(R, K, false);
    if (!R.DeleteValue(ValueName(*Value)))
      throw ERegistryException(Format("Cannot delete the value '%s'", {*Value}));
    return 0;
  }
  if (!R.KeyExists("\\" + K.Path)) throw ERegistryException(Format("Key not found: %s", {K.Full}));
  if (!R.DeleteKey("\\" + K.Path)) throw ERegistryException(Format("Cannot delete the key %s", {K.Full}));
  return 0;
}

vel::tool::Registration Reg("reg", "registry hives and .reg files", [](CLI::App& Sub) {
  Sub.require_subcommand(1);

  auto* Import = Sub.add_subcommand("import", "apply a .reg file (REGEDIT4 or version 5), all or nothing");
  auto File = std::make_shared<std::string>();
  Import->add_option("FILE", *File, ".reg file")->required();
  Import->callback([File] {
    ImportRegFile(*File);
    vel::tool::Status = 0;
  });

  auto* Export = Sub.add_subcommand("export", "write a key and its subkeys as a .reg file");
  auto ExKey = std::make_shared<std::string>();
  auto ExFile = std::make_shared<std::string>();
  auto V5 = std::make_shared<bool>(false);
  Export->add_option("KEY", *ExKey, "HKEY_...\\path or HKCU\\path")->required();
  Export->add_option("FILE", *ExFile, "output .reg file")->required();
  Export->add_flag("--v5", *V5, "version 5 form (UTF-16) instead of REGEDIT4");
  Export->callback([ExKey, ExFile, V5] {
    const TKey K = ParseKey(*ExKey);
    ExportRegFile(K.Root, K.Path, *ExFile, *V5 ? TRegFileFormat::Version5 : TRegFileFormat::Regedit4);
  });

  auto* Query = Sub.add_subcommand("query", "print a key's values (or one value) as .reg lines");
  auto QKey = std::make_shared<std::string>();
  auto QValue = std::make_shared<std::string>();
  Query->add_option("KEY", *QKey, "HKEY_...\\path or HKCU\\path")->required();
  auto* QValueOpt = Query->add_option("VALUE", *QValue, "value name (@ for the default value)");
  Query->callback([QKey, QValue, QValueOpt] {
    vel::tool::Status = ::Query(*QKey, QValueOpt->count() ? QValue.get() : nullptr);
  });

  auto* SetCmd = Sub.add_subcommand("set", "set one value");
  auto SKey = std::make_shared<std::string>();
  auto SValue = std::make_shared<std::string>();
  auto SType = std::make_shared<std::string>();
  auto SData = std::make_shared<std::string>();
  SetCmd->add_option("KEY", *SKey, "HKEY_...\\path or HKCU\\path")->required();
  SetCmd->add_option("VALUE", *SValue, "value name (@ for the default value)")->required();
  SetCmd->add_option("TYPE", *SType, "REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_DWORD, REG_QWORD, REG_BINARY, REG_NONE")
      ->required();
  SetCmd->add_option("DATA", *SData, "the value's data")->required();
  SetCmd->callback([SKey, SValue, SType, SData] { vel::tool::Status = Set(*SKey, *SValue, *SType, *SData); });

  auto* Del = Sub.add_subcommand("delete", "delete a key with its subkeys, or one value");
  auto DKey = std::make_shared<std::string>();
  auto DValue = std::make_shared<std::string>();
  Del->add_option("KEY", *DKey, "HKEY_...\\path or HKCU\\path")->required();
  auto* DValueOpt = Del->add_option("VALUE", *DValue, "value name (@ for the default value)");
  Del->callback([DKey, DValue, DValueOpt] {
    vel::tool::Status = Delete(*DKey, DValueOpt->count() ? DValue.get() : nullptr);
  });
});

}  // namespace
