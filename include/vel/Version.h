// The library's version.
#pragma once

#include "vel/Export.h"

#define VEL_VERSION_MAJOR 0
#define VEL_VERSION_MINOR 1
#define VEL_VERSION_PATCH 0
#define VEL_VERSION_STRING "0.1.0"

namespace vel {
// The version of the shared library actually loaded (may differ from the
// headers a program was built with).
VEL_API const char* LibraryVersion();
}  // namespace vel
