// Porting a settings object: a class with published properties, saved and
// read back through the three forms a Delphi program used for it.
//
//   1. the binary object stream (ObjectToStream / StreamToObject; string
//      lists come back as the original's format gives them, see below),
//   2. the component stream of .dfm files (WriteComponent / ReadComponent),
//      shown in its text form (ObjectBinaryToText),
//   3. XML, written only (TXMLStreamer), as the original does.
//
// Exits with 0 when every form reads back (or, for XML, holds) the values
// that were written.
#include <cstdio>
#include <memory>
#include <string>

// Delphi's "uses Classes, StreamClasses": the runtime's Classes unit is one
// header, each library unit another.
#include "vel/StreamClasses.h"
#include "vel/rtl/Classes.h"

using namespace vel;

// An enumeration property needs its names, as published enumerations have
// in Delphi: VEL_ENUM gives them, in ordinal order.
enum TChartStyle : uint8_t { csLine, csBar, csPie };
VEL_ENUM(TChartStyle, "csLine", "csBar", "csPie")

// Delphi:
//   TAdviserSettings = class(TComponent)
//   published
//     property Adviser: string ...;
//     property AutoSaveMinutes: Integer ... default 10;
//     ...
//   end;
class TAdviserSettings : public TComponent {
  VEL_CLASS(TAdviserSettings, TComponent)
 public:  // VEL_CLASS leaves what follows it private
  // The owner argument makes this the constructor that streams call
  // (Delphi's virtual constructor Create(AOwner)).
  explicit TAdviserSettings(TComponent* AOwner = nullptr) : TComponent(AOwner) {}
  // An object property is owned by its object: free it here (Delphi's
  // destructor with FRecentFiles.Free).
  ~TAdviserSettings() override { delete RecentFiles; }

  std::string Adviser;
  int32_t AutoSaveMinutes = 10;
  bool ConfirmOnExit = true;
  double DefaultRate = 0;
  TChartStyle ChartStyle = csLine;
  TStringList* RecentFiles = new TStringList;
};

// The published section, in one source file. Defaults work as Delphi's
// "default" clause: a property holding its default is not written.
VEL_PUBLISHED(TAdviserSettings, prop("Adviser", &TAdviserSettings::Adviser),
              prop("AutoSaveMinutes", &TAdviserSettings::AutoSaveMinutes).defaults(10),
              prop("ConfirmOnExit", &TAdviserSettings::ConfirmOnExit).defaults(true),
              prop("DefaultRate", &TAdviserSettings::DefaultRate),
              prop("ChartStyle", &TAdviserSettings::ChartStyle).defaults(csLine),
              prop("RecentFiles", &TAdviserSettings::RecentFiles))

namespace {

bool SameValues(const TAdviserSettings& A, const TAdviserSettings& B) {
  return A.Adviser == B.Adviser && A.AutoSaveMinutes == B.AutoSaveMinutes &&
         A.ConfirmOnExit == B.ConfirmOnExit && A.DefaultRate == B.DefaultRate &&
         A.ChartStyle == B.ChartStyle;
}

bool SameSettings(const TAdviserSettings& A, const TAdviserSettings& B) {
  return SameValues(A, B) && A.RecentFiles->Text() == B.RecentFiles->Text();
}

int Check(bool Ok, const char* What) {
  std::printf("%-44s %s\n", What, Ok ? "ok" : "DIFFERENT");
  return Ok ? 0 : 1;
}

}  // namespace

int main() {
  // Reading creates objects by class name: register the class once, as
  // Delphi's RegisterClass in an initialization section.
  RegisterClass(TAdviserSettings::StaticClass());

  TAdviserSettings Settings;
  Settings.SetName("Settings");
  Settings.Adviser = "M. Okafor";
  Settings.AutoSaveMinutes = 5;
  Settings.ConfirmOnExit = false;
  Settings.DefaultRate = 0.0425;
  Settings.ChartStyle = csPie;
  Settings.RecentFiles->Add("/srv/clients/ashworth.vcl");
  Settings.RecentFiles->Add("/srv/clients/brennan.vcl");

  int Failures = 0;

  // 1. The binary object stream: the form ObjectToStream wrote on Windows.
  TMemoryStream Binary;
  ObjectToStream(&Settings, &Binary);
  Binary.SetPosition(0);
  TAdviserSettings FromBinary;
  StreamToObject(&FromBinary, &Binary);
  Failures += Check(SameValues(Settings, FromBinary), "binary object stream reads back");
  // A string list comes back as the original's streamer gives it: every
  // line but the last with a "," appended. Files written on Windows hold
  // the same bytes, so this is kept; use the component stream (below) for
  // string lists that must come back unchanged.
  Failures += Check(FromBinary.RecentFiles->Count() == 2 &&
                        FromBinary.RecentFiles->Strings(0) == "/srv/clients/ashworth.vcl," &&
                        FromBinary.RecentFiles->Strings(1) == "/srv/clients/brennan.vcl",
                    "binary object stream: list as the original");

  // 2. The component stream ("TPF0"), with the class created by name.
  TMemoryStream Component;
  WriteComponent(&Component, &Settings);
  Component.SetPosition(0);
  std::unique_ptr<TComponent> Read(ReadComponent(&Component));
  auto* FromComponent = dynamic_cast<TAdviserSettings*>(Read.get());
  Failures += Check(FromComponent && SameSettings(Settings, *FromComponent),
                    "component stream reads back");

  // Its text form, as the IDE shows a .dfm.
  Component.SetPosition(0);
  TStringStream Text;
  ObjectBinaryToText(&Component, &Text);
  std::printf("%s", Text.DataString().c_str());

  // 3. XML: written only, as in the original.
  TStringStream Xml;
  TXMLStreamer Writer(&Xml);
  Writer.SaveToStream(&Settings);
  const std::string& Doc = Xml.DataString();
  Failures += Check(Doc.find("<Adviser>'M. Okafor'</Adviser>") != std::string::npos,
                    "XML holds the adviser");
  std::printf("%s\n", Doc.c_str());

  return Failures == 0 ? 0 : 1;
}
