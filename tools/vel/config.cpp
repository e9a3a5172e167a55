// vel config: reads and changes the XML configuration file.
//
//   vel config get XPATH        the text of the first node XPATH selects, on
//                               stdout with a line feed
//   vel config set XPATH VALUE  replaces that text and saves the file
//
// XPATH is relative to the document element, as the settings keys are. The
// file is read from $VEL_DATA_DIR/Misc/Corvane.config and saved (atomically)
// to $VEL_SYSTEM_DIR/Misc/Corvane.config; see vel/rtl/VeluSystem.h for the
// defaults. Text is UTF-8.
#include <memory>

#include "Commands.h"
#include "vel/RttiStrm.h"

namespace {

vel::tool::Registration Reg("config", "read and change the XML configuration file", [](CLI::App& Sub) {
  Sub.require_subcommand(1);
  auto XPath = std::make_shared<std::string>();
  auto Value = std::make_shared<std::string>();

  auto* Get = Sub.add_subcommand("get", "print the text of the first node XPATH selects");
  Get->add_option("XPATH", *XPath, "XPath below the document element")->required();
  Get->callback([XPath] {
    std::string Text = vel::ReadConfigValue(*XPath) + "\n";
    vel::tool::Status = vel::tool::WriteStdout(Text.data(), Text.size()) ? 0 : 1;
  });

  auto* Set = Sub.add_subcommand("set", "replace the text of the first node XPATH selects and save");
  Set->add_option("XPATH", *XPath, "XPath below the document element")->required();
  Set->add_option("VALUE", *Value, "the new text")->required();
  Set->callback([XPath, Value] { vel::WriteConfigValue(*XPath, *Value); });
});

}  // namespace
