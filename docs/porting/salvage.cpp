// Reading a component stream that may be damaged: the strict reader with
// an OnError handler skips what is bad and keeps everything else exactly.
#include <string>
#include <vector>

#include "vel/rtl/Classes.h"
#include "vel/velStreamRecover.h"

using namespace vel;

std::vector<std::string> Salvage(TStream* Stream, TComponent* Into) {
  std::vector<std::string> Skipped;
  TReader Reader(Stream);
  Reader.OnError = [&](TReader*, const std::string& Message, bool& Handled) {
    Skipped.push_back(Message);  // "Error reading Desk.Rate: Invalid property value"
    Handled = true;              // skip this property (or component), read on
  };
  Reader.ReadRootComponent(Into);
  return Skipped;
}

// Only when even that fails (the structure itself is broken): the tolerant
// reader, which never raises but converts values and loses sets,
// collections, string lists and owned components.
TComponent* LastResort(TStream* Stream) {
  return RecoverComponentFromStream(Stream);  // the caller owns the result
}
