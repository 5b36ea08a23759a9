# SPDX-License-Identifier: MIT
# The test of what cmake/hardening.cmake did, as the built files say it: all that the default build makes.

# list_built(FOLDER): appends a line for each target of FOLDER and the folders in it, its kind and its file, to ${built}.
function(list_built folder)
  get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
  get_property(subfolders DIRECTORY ${folder} PROPERTY SUBDIRECTORIES)
  foreach(target IN LISTS targets)
    get_target_property(kind ${target} TYPE)
    get_target_property(left_out ${target} EXCLUDE_FROM_ALL)
    if(kind MATCHES "^(EXECUTABLE|(STATIC|SHARED|MODULE)_LIBRARY)$" AND NOT left_out)
      string(APPEND built "${kind} $<TARGET_FILE:${target}>\n")
    endif()
  endforeach()
  foreach(subfolder IN LISTS subfolders)
    list_built(${subfolder})
  endforeach()
  set(built "${built}" PARENT_SCOPE)
endfunction()

set(built "")
list_built(${PROJECT_SOURCE_DIR})
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/built_files.txt CONTENT "${built}")
set(not_tested "")
if(NOT HDMIPLAYER_HARDENING)
  set(not_tested "HDMIPLAYER_HARDENING is off")
elseif(HDMIPLAYER_SANITIZE)
  set(not_tested "what sanitizers are built with is not shipped")
endif()
add_test(NAME hardening COMMAND ${PROJECT_SOURCE_DIR}/tests/hardening_test.sh ${PROJECT_BINARY_DIR}/built_files.txt
         ${CMAKE_READELF} $<IF:$<CONFIG:Release,RelWithDebInfo,MinSizeRel>,optimized,plain> ${CMAKE_CXX_COMPILER}
         "${branch_protection}" "${not_tested}")
set_tests_properties(hardening PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT ${test_timeout})
