# Checks an installation of VelClassesLib the way a user meets it.
#
# Run with cmake -P (see tests/CMakeLists.txt). Installs the build tree into a
# fresh prefix, checks the installed files and the SONAME, then builds the
# consumer project in tests/consumer once with find_package and once with
# pkg-config, and runs both programs, which must print "TObject".

cmake_minimum_required(VERSION 3.25)

foreach(Var VEL_BUILD_DIR VEL_CONSUMER_SOURCE_DIR VEL_WORK_DIR VEL_LIBDIR VEL_INCLUDEDIR
            VEL_VERSION VEL_SOVERSION VEL_GENERATOR VEL_CXX_COMPILER)
  if(NOT DEFINED ${Var} OR "${${Var}}" STREQUAL "")
    message(FATAL_ERROR "${Var} is not set")
  endif()
endforeach()

set(Prefix "${VEL_WORK_DIR}/prefix")
set(ConsumerBuild "${VEL_WORK_DIR}/consumer-build")
set(LibDir "${Prefix}/${VEL_LIBDIR}")
set(ExpectedOutput "TObject")

# Runs a command; fails the test with its output when it does not exit 0.
# The standard output is left in RUN_OUTPUT.
function(run_step What)
  execute_process(COMMAND ${ARGN}
    RESULT_VARIABLE Rc
    OUTPUT_VARIABLE Out
    ERROR_VARIABLE Err)
  if(NOT Rc EQUAL 0)
    string(JOIN " " Cmd ${ARGN})
    message(FATAL_ERROR "${What} failed (${Rc}):\n  ${Cmd}\n--- stdout\n${Out}\n--- stderr\n${Err}")
  endif()
  set(RUN_OUTPUT "${Out}" PARENT_SCOPE)
endfunction()

function(expect_output What Actual)
  string(STRIP "${Actual}" Actual)
  if(NOT Actual STREQUAL ExpectedOutput)
    message(FATAL_ERROR "${What} printed \"${Actual}\", expected \"${ExpectedOutput}\"")
  endif()
  message(STATUS "${What}: ${Actual}")
endfunction()

file(REMOVE_RECURSE "${Prefix}" "${ConsumerBuild}")
file(MAKE_DIRECTORY "${VEL_WORK_DIR}")

# --- install
run_step("cmake --install" "${CMAKE_COMMAND}" --install "${VEL_BUILD_DIR}" --prefix "${Prefix}")

set(RealName "libvelclasses.so.${VEL_VERSION}")
set(SoName "libvelclasses.so.${VEL_SOVERSION}")
string(REPLACE "." "\\." SoNameRegex "${SoName}")
foreach(Rel
    "${VEL_LIBDIR}/${RealName}"
    "${VEL_LIBDIR}/libvelclasses-cast256.so.${VEL_SOVERSION}"
    "${VEL_INCLUDEDIR}/vel/Export.h"
    "${VEL_INCLUDEDIR}/vel/rtl/System.h"
    "${VEL_LIBDIR}/cmake/VelClasses/VelClassesConfig.cmake"
    "${VEL_LIBDIR}/cmake/VelClasses/VelClassesConfigVersion.cmake"
    "${VEL_LIBDIR}/cmake/VelClasses/VelClassesTargets.cmake"
    "${VEL_LIBDIR}/cmake/VelClasses/VelPackage.cmake"
    "bin/vel"
    "${VEL_LIBDIR}/pkgconfig/velclasses.pc")
  if(NOT EXISTS "${Prefix}/${Rel}")
    message(FATAL_ERROR "not installed: ${Rel}")
  endif()
endforeach()

# The development link and the SONAME link form the usual chain.
file(READ_SYMLINK "${LibDir}/libvelclasses.so" Target)
if(NOT Target STREQUAL SoName)
  message(FATAL_ERROR "libvelclasses.so points to '${Target}', expected '${SoName}'")
endif()
file(READ_SYMLINK "${LibDir}/${SoName}" Target)
if(NOT Target STREQUAL RealName)
  message(FATAL_ERROR "${SoName} points to '${Target}', expected '${RealName}'")
endif()

if(VEL_OBJDUMP)
  run_step("objdump" "${VEL_OBJDUMP}" -p "${LibDir}/${RealName}")
  if(NOT RUN_OUTPUT MATCHES "SONAME +${SoNameRegex}\n")
    message(FATAL_ERROR "${RealName} does not carry SONAME ${SoName}")
  endif()
endif()

# --- find_package
set(ConfigureArgs
  -S "${VEL_CONSUMER_SOURCE_DIR}" -B "${ConsumerBuild}"
  -G "${VEL_GENERATOR}"
  "-DCMAKE_CXX_COMPILER=${VEL_CXX_COMPILER}"
  "-DCMAKE_CXX_FLAGS=${VEL_CXX_FLAGS}"
  "-DCMAKE_PREFIX_PATH=${Prefix}"
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
if(VEL_MAKE_PROGRAM)
  list(APPEND ConfigureArgs "-DCMAKE_MAKE_PROGRAM=${VEL_MAKE_PROGRAM}")
endif()
if(VEL_BUILD_TYPE)
  list(APPEND ConfigureArgs "-DCMAKE_BUILD_TYPE=${VEL_BUILD_TYPE}")
endif()
run_step("configure consumer" "${CMAKE_COMMAND}" ${ConfigureArgs})
# Must be the package just installed, not one elsewhere on the system.
string(FIND "${RUN_OUTPUT}" "VelClasses package: ${LibDir}/cmake/VelClasses\n" Found)
if(Found EQUAL -1)
  message(FATAL_ERROR "consumer did not use the package under ${Prefix}:\n${RUN_OUTPUT}")
endif()
run_step("build consumer" "${CMAKE_COMMAND}" --build "${ConsumerBuild}")
run_step("run consumer" "${ConsumerBuild}/consumer")
expect_output("find_package consumer" "${RUN_OUTPUT}")

# The plug-in the consumer built with vel_add_package carries its resources:
# the installed tool reads its version and its package information.
run_step("vel version on the consumer's plug-in" "${Prefix}/bin/vel" version
         "${ConsumerBuild}/ConsumerTree.bpl")
foreach(Line "FileVersion=3.1.4.1" "CompanyName=Velmont")
  string(FIND "${RUN_OUTPUT}" "${Line}" Found)
  if(Found EQUAL -1)
    message(FATAL_ERROR "vel version printed no ${Line}:\n${RUN_OUTPUT}")
  endif()
endforeach()
run_step("vel package on the consumer's plug-in" "${Prefix}/bin/vel" package
         "${ConsumerBuild}/ConsumerTree.bpl")
string(FIND "${RUN_OUTPUT}" "ConsumerTree" Found)
if(Found EQUAL -1)
  message(FATAL_ERROR "vel package did not list the unit ConsumerTree:\n${RUN_OUTPUT}")
endif()
message(STATUS "installed vel_add_package: ConsumerTree.bpl carries its resources")

if(VEL_OBJDUMP)
  run_step("objdump" "${VEL_OBJDUMP}" -p "${ConsumerBuild}/consumer")
  if(NOT RUN_OUTPUT MATCHES "NEEDED +${SoNameRegex}\n")
    message(FATAL_ERROR "consumer does not record ${SoName} as NEEDED")
  endif()
endif()

# --- pkg-config
if(NOT VEL_PKG_CONFIG)
  message(FATAL_ERROR "pkg-config not found; install the Debian package pkg-config")
endif()
set(ENV{PKG_CONFIG_PATH} "${LibDir}/pkgconfig")
run_step("pkg-config --modversion" "${VEL_PKG_CONFIG}" --modversion velclasses)
string(STRIP "${RUN_OUTPUT}" PcVersion)
if(NOT PcVersion STREQUAL VEL_VERSION)
  message(FATAL_ERROR "pkg-config reports version '${PcVersion}', expected '${VEL_VERSION}'")
endif()
run_step("pkg-config --variable=libdir" "${VEL_PKG_CONFIG}" --variable=libdir velclasses)
string(STRIP "${RUN_OUTPUT}" PcLibDir)
file(REAL_PATH "${PcLibDir}" PcLibDirReal)
file(REAL_PATH "${LibDir}" LibDirReal)
if(NOT PcLibDirReal STREQUAL LibDirReal)
  message(FATAL_ERROR "pkg-config libdir '${PcLibDir}' is not the installed ${LibDir}")
endif()
run_step("pkg-config --cflags --libs" "${VEL_PKG_CONFIG}" --cflags --libs velclasses)
separate_arguments(PcFlags UNIX_COMMAND "${RUN_OUTPUT}")
separate_arguments(CxxFlags UNIX_COMMAND "${VEL_CXX_FLAGS}")
set(PcProgram "${VEL_WORK_DIR}/consumer-pkg-config")
run_step("compile consumer with pkg-config"
  "${VEL_CXX_COMPILER}" ${CxxFlags} -std=c++20
  "${VEL_CONSUMER_SOURCE_DIR}/main.cpp" -o "${PcProgram}"
  ${PcFlags} "-Wl,-rpath,${PcLibDir}")
run_step("run pkg-config consumer" "${PcProgram}")
expect_output("pkg-config consumer" "${RUN_OUTPUT}")
