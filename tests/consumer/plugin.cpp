// A plug-in package built outside the source tree with the installed
// vel_add_package: its entry points and one unit.
#include "vel/VelClassesLib.h"

VEL_PACKAGE_ENTRY(VEL_PACKAGE_UNIT("ConsumerTree", nullptr, nullptr))
