# Settings shared by every test registered with CTest (unit tests, example
# runs): where test data lives, and a scratch folder inside the build tree
# that receives temporary files, XDG folders and GoogleTest's TempDir(), so a
# test run never writes under /tmp or the user's home.

set(VEL_TEST_DATA_DIR "${PROJECT_SOURCE_DIR}/tests/data")
set(VEL_TEST_TMPDIR "${PROJECT_BINARY_DIR}/tests/tmp")
file(MAKE_DIRECTORY
  "${VEL_TEST_TMPDIR}"
  "${VEL_TEST_TMPDIR}/xdg-config"
  "${VEL_TEST_TMPDIR}/xdg-data"
  "${VEL_TEST_TMPDIR}/xdg-cache")

set(VEL_TEST_ENVIRONMENT
  "VEL_TEST_DATA_DIR=${VEL_TEST_DATA_DIR}"
  "VEL_TEST_TMPDIR=${VEL_TEST_TMPDIR}"
  "TEST_TMPDIR=${VEL_TEST_TMPDIR}"
  "TMPDIR=${VEL_TEST_TMPDIR}"
  "XDG_CONFIG_HOME=${VEL_TEST_TMPDIR}/xdg-config"
  "XDG_DATA_HOME=${VEL_TEST_TMPDIR}/xdg-data"
  "XDG_CACHE_HOME=${VEL_TEST_TMPDIR}/xdg-cache"
  # Registry hives (HKEY_LOCAL_MACHINE would otherwise be under /etc).
  "VEL_REGISTRY_DIR=${VEL_TEST_TMPDIR}/registry")
