// A plug-in package for the tests: two units whose initialisations and
// finalisations the library's unit observer records; PLUGIN_FAILS makes
// the second unit's initialisation raise.
#include "vel/VelClassesLib.h"
#include "vel/rtl/System.h"

namespace {

void InitView() {
#ifdef PLUGIN_FAILS
  throw vel::Exception(PLUGIN_UNIT " refuses to start");
#endif
}

}  // namespace

VEL_PACKAGE_ENTRY(VEL_PACKAGE_UNIT(PLUGIN_UNIT, nullptr, nullptr),
                  VEL_PACKAGE_UNIT(PLUGIN_VIEW, &InitView, nullptr))
