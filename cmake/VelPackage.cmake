# vel_add_package: builds a plug-in package, an ELF shared object that keeps
# its Windows name (ProdTree.bpl) and carries its resources (version
# information, "DESCRIPTION", "PACKAGEINFO") in its .velrsrc section, where
# vel version, vel package, TVersionInfo and TPackageInfo read them without
# running its code. Its sources declare the entry points and the unit table
# with VEL_PACKAGE_ENTRY (vel/VelClassesLib.h).
#
#   vel_add_package(<target>
#     FILE_NAME ProdTree.bpl              # the package's file name
#     SOURCES tree.cpp ...
#     VERSION 1.2.3.4                     # file and product version
#     DESCRIPTION "Product tree"          # the package description (UTF-8)
#     USAGE run                           # none, design, run or both
#     STRINGS "CompanyName=Velmont" ...   # version strings, KEY=VALUE (UTF-8)
#     UNITS ProdTree:1 TreeView ...       # contained units, UNIT or UNIT:FLAGS
#     REQUIRES VelClassesLib ...          # required packages
#     LINK other-targets ...)             # linked privately besides the library
#
# The resources are written by the vel tool (vel res) and added to the
# linked file with objcopy after each link.

function(vel_add_package Target)
  cmake_parse_arguments(P "" "FILE_NAME;VERSION;DESCRIPTION;USAGE;OUTPUT_DIRECTORY"
                        "SOURCES;STRINGS;UNITS;REQUIRES;LINK" ${ARGN})
  if(NOT P_FILE_NAME)
    set(P_FILE_NAME "${Target}.bpl")
  endif()
  if(NOT P_VERSION)
    set(P_VERSION "1.0.0.0")
  endif()
  if(NOT P_USAGE)
    set(P_USAGE run)
  endif()
  if(TARGET vel)
    set(VelTool $<TARGET_FILE:vel>)
    set(VelToolDep vel)
  else()
    find_program(VEL_TOOL_PROGRAM vel REQUIRED)
    set(VelTool ${VEL_TOOL_PROGRAM})
    set(VelToolDep ${VEL_TOOL_PROGRAM})
  endif()
  if(NOT CMAKE_OBJCOPY)
    find_program(CMAKE_OBJCOPY objcopy REQUIRED)
  endif()
  if(TARGET velclasses)
    set(VelLib velclasses)
  else()
    set(VelLib VelClasses::velclasses)
  endif()

  add_library(${Target} SHARED ${P_SOURCES})
  target_link_libraries(${Target} PRIVATE ${VelLib} ${P_LINK})
  get_filename_component(Stem "${P_FILE_NAME}" NAME_WE)
  get_filename_component(Ext "${P_FILE_NAME}" EXT)
  set_target_properties(${Target} PROPERTIES
    PREFIX ""
    OUTPUT_NAME "${Stem}"
    SUFFIX "${Ext}"
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN OFF)
  if(P_OUTPUT_DIRECTORY)
    set_target_properties(${Target} PROPERTIES LIBRARY_OUTPUT_DIRECTORY "${P_OUTPUT_DIRECTORY}")
  endif()

  set(Args --file-version ${P_VERSION} --description "${P_DESCRIPTION}" --usage ${P_USAGE}
           --package-name ${Stem})
  foreach(S IN LISTS P_STRINGS)
    list(APPEND Args --string "${S}")
  endforeach()
  foreach(U IN LISTS P_UNITS)
    list(APPEND Args --contains "${U}")
  endforeach()
  foreach(R IN LISTS P_REQUIRES)
    list(APPEND Args --requires "${R}")
  endforeach()
  set(Res "${CMAKE_CURRENT_BINARY_DIR}/${Target}.res")
  add_custom_command(OUTPUT "${Res}"
    # A sanitizer build of the tool must not fail the build over leak
    # reports at its exit.
    COMMAND ${CMAKE_COMMAND} -E env ASAN_OPTIONS=detect_leaks=0 ${VelTool} res "${Res}" ${Args}
    DEPENDS ${VelToolDep}
    COMMENT "Resources of ${P_FILE_NAME}"
    VERBATIM)
  add_custom_target(${Target}_resources DEPENDS "${Res}")
  add_dependencies(${Target} ${Target}_resources)
  # New resources relink the package, so that the step below adds them.
  set_property(TARGET ${Target} APPEND PROPERTY LINK_DEPENDS "${Res}")
  add_custom_command(TARGET ${Target} POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --remove-section .velrsrc --add-section .velrsrc=${Res}
            $<TARGET_FILE:${Target}>
    VERBATIM)
endfunction()
