// The host's two folders, which the Windows suite took from its base
// package's system object: the data folder (the text that replaces
// "[DataPath]" in settings, and where "Misc/Corvane.config" is read from)
// and the system folder (where the configuration file is saved).
//
// $VEL_DATA_DIR and $VEL_SYSTEM_DIR when set and not empty, else
// $XDG_DATA_HOME/velmont/data and $XDG_DATA_HOME/velmont/system
// ($XDG_DATA_HOME defaulting to $HOME/.local/share). The environment is read
// on every call, so a host may change it before it reads its settings.
// The folders are returned without a trailing delimiter and are not created.
//
// Thread safety: as getenv; do not change the environment while another
// thread calls these.
#pragma once

#include <string>

#include "vel/Export.h"

namespace vel {

VEL_API std::string GetDataFolder();
VEL_API std::string GetSystemFolder();

}  // namespace vel
