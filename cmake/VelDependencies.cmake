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

find_package(PkgConfig REQUIRED)

# pugixml (libpugixml-dev): the XML configuration file, the XML walker, and
# the tests that check the XML streamer's output.
pkg_check_modules(PUGIXML REQUIRED IMPORTED_TARGET GLOBAL pugixml)
list(APPEND VEL_PRIVATE_LIBS PkgConfig::PUGIXML)
list(APPEND VEL_PC_REQUIRES_PRIVATE pugixml)

# SQLite (libsqlite3-dev): the registry hives.
pkg_check_modules(SQLITE3 REQUIRED IMPORTED_TARGET GLOBAL sqlite3)
list(APPEND VEL_PRIVATE_LIBS PkgConfig::SQLITE3)
list(APPEND VEL_PC_REQUIRES_PRIVATE sqlite3)

# Crypto++ (libcrypto++-dev): the CAST-256 block function of file encryption,
# linked into the module the library loads at the first cipher, not into the
# library itself.
pkg_check_modules(CRYPTOPP REQUIRED IMPORTED_TARGET GLOBAL libcrypto++)

# SOCI (libsoci-dev): the database connection. Debian ships neither a CMake
# package nor a pkg-config file for it, so the core and the backends the
# library uses are found by name. The core and the SQLite backend are
# linked; the PostgreSQL and ODBC backends are loaded by SOCI at their first
# use, so they are only checked for here.
find_path(SOCI_INCLUDE_DIR soci/soci.h REQUIRED)
foreach(Lib soci_core soci_sqlite3 soci_postgresql soci_odbc)
  find_library(VEL_${Lib}_LIBRARY ${Lib} REQUIRED)
endforeach()
add_library(vel_soci INTERFACE IMPORTED GLOBAL)
target_include_directories(vel_soci INTERFACE "${SOCI_INCLUDE_DIR}")
target_link_libraries(vel_soci INTERFACE ${VEL_soci_core_LIBRARY} ${VEL_soci_sqlite3_LIBRARY})
list(APPEND VEL_PRIVATE_LIBS vel_soci)

# CLI11 (libcli11-dev, header only): the vel tool's command line.
find_package(CLI11 2.1 REQUIRED CONFIG)

if(VEL_BUILD_TESTS)
  function(vel_link_test_dependencies)
    if(TARGET vel_tests)
      target_link_libraries(vel_tests PRIVATE PkgConfig::PUGIXML PkgConfig::SQLITE3)
      # The encryption tests check the library's chaining against Crypto++'s
      # own CBC and CFB modes.
      target_link_libraries(vel_tests PRIVATE PkgConfig::CRYPTOPP)
    endif()
  endfunction()
  cmake_language(DEFER DIRECTORY "${PROJECT_SOURCE_DIR}" CALL vel_link_test_dependencies)
endif()
