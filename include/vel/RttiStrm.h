// RttiStrm: copies the published properties of a settings object between
// the object and three stores: a registry key, a registry export text file
// (REGEDIT4) and an element of the XML configuration file
// "Misc/Corvane.config".
//
// The walk visits the properties sorted by name, one registry value or XML
// element per integer, enumeration (Boolean included) or string property,
// named after the property; "Name" and "Tag" are never stored; other kinds
// are passed over. With Recurse, each published object property becomes a
// subkey (or child element) named after the property, to any depth.
//
// Every pass is tolerant: a failure on one property is caught, its message
// added to Errors(), and the walk goes on. Each public operation returns the
// number of errors of its pass. With SilentErrors (the default) nothing is
// re-raised; otherwise OnException decides (see TRTTIExceptionEvent).
//
// Registry passes: StreamRegToProps and StreamPropsToReg use a read-only
// accessor on HKEY_LOCAL_MACHINE; PropValuesByName a read-only one and
// StreamPropsToRegEdit a full-access one on HKEY_CURRENT_USER. An object
// derived from TCustomRegKey switches the accessor to its own root key when
// its key is opened (the accessor keeps that root for the rest of the pass).
// StreamPropsToReg writes nothing: it only checks that every integer,
// enumeration and Boolean value exists with the right type. The library
// never writes integers or booleans to the registry; values get there by
// importing export files.
//
// The export file: "REGEDIT4", an empty line, a first header made of the
// key twice ("[" Key Key-without-trailing-backslash "]"), then for each
// object an empty line, "[" key-with-trailing-backslash "]" and one line per
// property: "Name"=dword:0000000a (eight lower-case hex digits, Booleans 0
// or 1) or "Name"="text" (no escaping). Lines end with CR LF. Each value is
// first read from the registry into the object, so the export shows the
// registry's values where they can be read and the object's otherwise.
//
// The XML configuration file is read from GetDataFolder()/Misc/Corvane.config
// and saved to GetSystemFolder()/Misc/Corvane.config: two separate settings
// (see vel/rtl/VeluSystem.h). The key is an XPath expression relative to
// the document element. A file that cannot be loaded makes the pass return
// 0 and change nothing. Saving replaces the file atomically (a temporary file
// in the same folder, flushed to disk, renamed over the old one), so a crash
// leaves the old file or the new one. A property whose element is missing is
// never added: the file must already hold every element to be saved.
//
// Thread safety: none. The singleton and the export file are shared; run
// one pass at a time.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "vel/rtl/Persistent.h"
#include "vel/rtl/StringLists.h"
#include "vel/rtl/System.h"
#include "vel/rtl/TypInfo.h"

namespace vel {

class TRegistry;

VEL_EXCEPTION(ERttiStream, Exception);
VEL_EXCEPTION(ERttiStreamInit, Exception);

inline constexpr const char* SRttiStreamAlreadyInitialized =
    "Run Time Type Information Stream Already Initialized.";
inline constexpr const char* SRttiStreamCallClassFunction =
    "Call the class function to reference this class.";
inline constexpr const char* SRttiStreamCreatedAgain = "Singleton Created Again";
inline constexpr const char* SRttiStreamNoPublished =
    "Only descendants of TPersistent containing Published properties can be Streamed";
// The text is literally this, identifier included.
inline constexpr const char* SRttiInvalidPropertyElement = "SInvalidPropertyElement %s";
inline constexpr const char* SRttiDomNodeNotAssigned = "ADOMNode is not assigned ...";
// Raised when a nested object to walk is nil, or an XML pass has no node.
inline constexpr const char* SRttiObjectNotAssigned = "Object to stream is not assigned";
inline constexpr const char* SRttiNodeNotAssigned = "XML node is not assigned";
// The configuration key is not a valid XPath expression.
inline constexpr const char* SRttiInvalidConfigKey = "Invalid configuration key \"%s\": %s";
// The configuration file could not be replaced.
inline constexpr const char* SRttiConfigSaveFailed = "Cannot save configuration file \"%s\": %s";
// ReadConfigValue/WriteConfigValue: no file, or nothing selected.
inline constexpr const char* SRttiConfigLoadFailed = "Cannot load configuration file \"%s\"";
inline constexpr const char* SRttiConfigNoMatch = "Nothing in the configuration file matches \"%s\"";

// The unit's own stream states (apart from the streamers' TStreamState).
namespace RttiStrm {
enum TStreamState : uint8_t {
  ssNone, ssCreating, ssReadingRegistry, ssWritingRegistry, ssReadingByName, ssWritingRegEdit,
  ssDestroying
};
VEL_ENUM(TStreamState, "ssNone", "ssCreating", "ssReadingRegistry", "ssWritingRegistry",
         "ssReadingByName", "ssWritingRegEdit", "ssDestroying")
}  // namespace RttiStrm

class TRTTIStream;

// Called for a caught error when SilentErrors is false. Ignore enters as
// true and its value on return says whether the error is re-raised: a
// handler that wants the error swallowed sets it to false.
using TRTTIExceptionEvent =
    TEvent<void(TRTTIStream* Sender, const std::exception& EInstance, bool& Ignore)>;

class VEL_API TRTTIStream : public TObject {
  VEL_CLASS(TRTTIStream, TObject)
 public:
  // Refused unless called by RTTIStream(): raises ERttiStream
  // SRttiStreamAlreadyInitialized when the singleton exists, else
  // SRttiStreamCallClassFunction.
  TRTTIStream();
  // Clears the singleton reference; the next RTTIStream() makes a new
  // instance (and reports "Singleton Created Again<n>" through the dialog
  // sink).
  ~TRTTIStream() override;

  // The singleton, made on the first call.
  static TRTTIStream* RTTIStream();

  int StreamRegToProps(const std::string& Key, TPersistent* Obj, bool Recurse);
  int StreamPropsToReg(TPersistent* Obj, const std::string& Key, bool Recurse);
  // Creates or truncates FileName before the walk; a file that cannot be
  // created raises its error to the caller with nothing read.
  int StreamPropsToRegEdit(const std::string& Key, const std::string& FileName, TPersistent* Obj,
                           bool Recurse);
  // Reads like StreamRegToProps (from HKEY_CURRENT_USER) and adds a line
  // "Last.Property=value" to PropValues() for each property named in Names
  // (and in the names of earlier passes: PropNames() is never cleared),
  // where Last is the last component of the key the property was read in.
  int PropValuesByName(TPersistent* Obj, const std::string& Key,
                       const std::vector<std::string>& Names, bool Recurse);
  int StreamConfigToProps(const std::string& Key, TPersistent* Obj, bool Recurse);
  int StreamPropsToConfig(TPersistent* Obj, const std::string& Key, bool Recurse);

  TStringList* PropNames() const { return FPropNames.get(); }
  TStringList* Errors() const { return FErrors.get(); }
  // Filled by PropValuesByName; the caller reads and clears it.
  TStringList* PropValues() const { return FPropValues.get(); }
  bool SilentErrors() const { return FSilentErrors; }
  void SetSilentErrors(bool Value) { FSilentErrors = Value; }
  RttiStrm::TStreamState State() const { return FState; }
  TRTTIExceptionEvent OnException;

 private:
  struct TPass;
  friend struct TPass;

  TPersistent* FRoot = nullptr;
  std::unique_ptr<TStringList> FPropNames;
  std::unique_ptr<TStringList> FErrors;
  std::unique_ptr<TStringList> FPropValues;
  std::unique_ptr<TStringList> FSpare;  // kept for layout; no operation uses it
  bool FSilentErrors = true;
  bool FRecurse = false;
  std::string FExportFileName;
  std::string FKey;
  RttiStrm::TStreamState FState = RttiStrm::ssNone;

  // Adds the message to Errors and says whether E is to be re-raised.
  bool CanRaise(const std::exception& E);
};

// The singleton (TRTTIStream::RTTIStream).
VEL_API TRTTIStream* RTTIStream();
// Frees the singleton if it exists (run when the library is unloaded).
VEL_API void ReleaseRTTIStream();

// The configuration file by hand (the vel tool's "config" command). Text is
// UTF-8 here. XPath is relative to the document element of
// GetDataFolder()/Misc/Corvane.config.
// ReadConfigValue: the text of the first node selected; raises ERttiStream
// when the file cannot be loaded, the expression is invalid or selects
// nothing.
VEL_API std::string ReadConfigValue(const std::string& XPath);
// WriteConfigValue: replaces the text of the first node selected (an
// element or an attribute) and saves the file atomically to
// GetSystemFolder()/Misc/Corvane.config; raises ERttiStream as above.
VEL_API void WriteConfigValue(const std::string& XPath, const std::string& Value);

}  // namespace vel
