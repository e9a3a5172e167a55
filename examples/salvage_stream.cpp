// Salvaging a damaged component stream: which reader to use.
//
// A settings component is written as a component stream, then one value is
// damaged (an integer's bytes now say "empty string"), as a file changed by
// hand or by an older program might be. Three ways to read it:
//
//   1. ReadComponent: the strict reader stops at the first error;
//   2. a TReader with an OnError handler: the strict reader skips the bad
//      property, says why, and reads everything else exactly;
//   3. RecoverComponentFromStream: the tolerant reader never raises, but it
//      converts as the original's recovery table does and does not
//      understand sets, collections, string lists or owned components,
//      which it reads as further (lost) entries even in an intact file.
//
// So: salvage with 2; keep 3 for streams whose structure is broken beyond
// the strict reader's reach. Exits with 0 when reader 2 kept every
// undamaged value.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "vel/rtl/Classes.h"
#include "vel/velStreamRecover.h"

using namespace vel;

enum TPanel : uint8_t { pnClients, pnCharts, pnNotes };
VEL_ENUM(TPanel, "pnClients", "pnCharts", "pnNotes")
using TPanels = TSet<TPanel>;

class TDeskSettings : public TComponent {
  VEL_CLASS(TDeskSettings, TComponent)
 public:
  explicit TDeskSettings(TComponent* AOwner = nullptr) : TComponent(AOwner) {}
  ~TDeskSettings() override { delete Watchlist; }

  std::string Adviser;
  int32_t AutoSaveMinutes = 10;
  TPanels Panels;
  TStringList* Watchlist = new TStringList;
  double DefaultRate = 0;

  void Print(const char* Title) const {
    std::printf("%s\n  Adviser=%s AutoSaveMinutes=%d Panels=%u Watchlist=[%s] DefaultRate=%g\n",
                Title, Adviser.c_str(), AutoSaveMinutes, Panels.ToOrd(),
                Watchlist->CommaText().c_str(), DefaultRate);
  }
};

VEL_PUBLISHED(TDeskSettings, prop("Adviser", &TDeskSettings::Adviser),
              prop("AutoSaveMinutes", &TDeskSettings::AutoSaveMinutes).defaults(10),
              prop("Panels", &TDeskSettings::Panels), prop("Watchlist", &TDeskSettings::Watchlist),
              prop("DefaultRate", &TDeskSettings::DefaultRate))

int main() {
  RegisterClass(TDeskSettings::StaticClass());

  TDeskSettings Original;
  Original.SetName("Desk");
  Original.Adviser = "M. Okafor";
  Original.AutoSaveMinutes = 5;
  Original.Panels = TPanels{pnClients, pnNotes};
  Original.Watchlist->Add("VWRL");
  Original.Watchlist->Add("IGLT");
  Original.DefaultRate = 0.0425;
  Original.Print("written:");

  TMemoryStream Good;
  WriteComponent(&Good, &Original);

  // Damage: AutoSaveMinutes's value (vaInt8 5) becomes an empty string
  // (vaString 0), two bytes for two bytes.
  std::vector<uint8_t> Bytes(static_cast<const uint8_t*>(Good.Memory()),
                             static_cast<const uint8_t*>(Good.Memory()) + Good.GetSize());
  const std::string Name = "AutoSaveMinutes";
  auto At = std::search(Bytes.begin(), Bytes.end(), Name.begin(), Name.end());
  if (At == Bytes.end()) return 1;
  const size_t Value = static_cast<size_t>(At - Bytes.begin()) + Name.size();
  Bytes[Value] = static_cast<uint8_t>(vaString);
  Bytes[Value + 1] = 0;

  // 1. The strict reader alone: the whole read fails.
  bool StrictFailed = false;
  try {
    TReadOnlyMemoryStream In(Bytes.data(), static_cast<int64_t>(Bytes.size()));
    std::unique_ptr<TComponent> C(ReadComponent(&In));
  } catch (const EReadError& E) {
    std::printf("ReadComponent: %s\n", E.what());
    StrictFailed = true;
  }

  // 2. The strict reader with OnError: the bad property is skipped.
  TDeskSettings Salvaged;
  {
    TReadOnlyMemoryStream In(Bytes.data(), static_cast<int64_t>(Bytes.size()));
    TReader Reader(&In);
    Reader.OnError = [](TReader*, const std::string& Message, bool& Handled) {
      std::printf("skipped: %s\n", Message.c_str());
      Handled = true;  // leave the property as it is and read on
    };
    Reader.ReadRootComponent(&Salvaged);
  }
  Salvaged.Print("strict reader with OnError:");

  // 3. The tolerant reader: no exception, but a lossy conversion.
  {
    TReadOnlyMemoryStream In(Bytes.data(), static_cast<int64_t>(Bytes.size()));
    std::unique_ptr<TComponent> C(RecoverComponentFromStream(&In));
    if (auto* Recovered = dynamic_cast<TDeskSettings*>(C.get()))
      Recovered->Print("tolerant reader:");
  }

  const bool Kept = Salvaged.Adviser == Original.Adviser && Salvaged.AutoSaveMinutes == 10 &&
                    Salvaged.Panels == Original.Panels &&
                    Salvaged.Watchlist->Text() == Original.Watchlist->Text() &&
                    Salvaged.DefaultRate == Original.DefaultRate;
  return StrictFailed && Kept ? 0 : 1;
}
