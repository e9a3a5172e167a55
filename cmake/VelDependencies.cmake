# Third-party libraries the library links against, found in one place.
#
# Each dependency comes from a Debian package; add the package to PACKAGES in
# the top-level Makefile when you add it here. Dependencies are linked
# privately (libvelclasses.so is a shared library, so users never need their
# headers), which keeps them out of the exported CMake targets. Use:
#
#   VEL_PRIVATE_LIBS          targets or flags linked privately into velclasses
#   VEL_PC_REQUIRES_PRIVATE   pkg-config module names for "Requires.private"
#
# Example for a pkg-config module:
#
#   find_package(PkgConfig REQUIRED)
#   pkg_check_modules(PUGIXML REQUIRED IMPORTED_TARGET pugixml)
#   list(APPEND VEL_PRIVATE_LIBS PkgConfig::PUGIXML)
#   list(APPEND VEL_PC_REQUIRES_PRIVATE pugixml)

set(VEL_PRIVATE_LIBS "")
set(VEL_PC_REQUIRES_PRIVATE "")

# pugixml (Debian libpugixml-dev): only the test suite uses it, to check that
# the XML streamer's output parses. It is linked to the test executable once
# that exists (tests/ is added after this file is read).
if(VEL_BUILD_TESTS)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(PUGIXML REQUIRED IMPORTED_TARGET GLOBAL pugixml)
  function(vel_link_test_dependencies)
    if(TARGET vel_tests)
      target_link_libraries(vel_tests PRIVATE PkgConfig::PUGIXML)
    endif()
  endfunction()
  cmake_language(DEFER DIRECTORY "${PROJECT_SOURCE_DIR}" CALL vel_link_test_dependencies)
endif()
