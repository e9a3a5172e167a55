# Builds a program whose class has VEL_CLASS but neither VEL_PUBLISHED nor
# VEL_IMPLEMENT, expects the link to fail with an undefined symbol naming
# the two macros, and checks that docs/PORTING.md shows that symbol and the
# linker's line for it.
#
# In: VEL_CXX (compiler), VEL_CXX_FLAGS, VEL_INCLUDE_DIR, VEL_LIBRARY,
#     VEL_SOURCE (the example), VEL_DOC (PORTING.md), VEL_WORK_DIR.

file(MAKE_DIRECTORY "${VEL_WORK_DIR}")
separate_arguments(Flags UNIX_COMMAND "${VEL_CXX_FLAGS}")
execute_process(
  COMMAND "${VEL_CXX}" ${Flags} -std=c++20 -I "${VEL_INCLUDE_DIR}" "${VEL_SOURCE}"
          "${VEL_LIBRARY}" -pthread -o "${VEL_WORK_DIR}/forgotten_implement"
  RESULT_VARIABLE Result
  OUTPUT_VARIABLE Out
  ERROR_VARIABLE Err)
string(APPEND Out "${Err}")
if(Result EQUAL 0)
  message(FATAL_ERROR "the class without VEL_PUBLISHED/VEL_IMPLEMENT linked:\n${Out}")
endif()

set(Symbol "TPosition::VEL_PUBLISHED_or_VEL_IMPLEMENT_missing()")
string(FIND "${Out}" "${Symbol}" At)
if(At EQUAL -1)
  message(FATAL_ERROR "the link failed without naming ${Symbol}:\n${Out}")
endif()

file(READ "${VEL_DOC}" Doc)
string(FIND "${Doc}" "${Symbol}" DocAt)
if(DocAt EQUAL -1)
  message(FATAL_ERROR "${VEL_DOC} does not show ${Symbol}")
endif()
# GNU ld's wording, as the page quotes it.
string(REGEX MATCH "undefined reference to `TPosition::VEL_PUBLISHED_or_VEL_IMPLEMENT_missing\\(\\)'" Line "${Out}")
if(Line)
  string(FIND "${Doc}" "${Line}" LineAt)
  if(LineAt EQUAL -1)
    message(FATAL_ERROR "${VEL_DOC} does not quote the linker's line: ${Line}")
  endif()
endif()
message(STATUS "link failed as expected: ${Line}")
