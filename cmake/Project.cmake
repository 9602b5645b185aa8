# Helpers shared by every directory's CMakeLists.txt.

set(MROUTE_WARNINGS -Wall -Wextra -Werror)

function(mroute_add_optional_subdirectory dir)
  if(EXISTS ${CMAKE_SOURCE_DIR}/${dir}/CMakeLists.txt)
    add_subdirectory(${CMAKE_SOURCE_DIR}/${dir} ${CMAKE_BINARY_DIR}/${dir})
  endif()
endfunction()

# mroute_library(Name SOURCES a.cpp ... LIBS Dep ...)
function(mroute_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${MROUTE_WARNINGS})
  target_link_libraries(${name} PUBLIC ${ARG_LIBS})
endfunction()

# mroute_executable(Name SOURCES ... LIBS ...)
function(mroute_executable name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${MROUTE_WARNINGS})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS})
endfunction()

# mroute_test(Name SOURCES ... LIBS ... [LABELS kernel] [TIMEOUT s])
# One ctest entry per GoogleTest case, discovered when ctest runs so that the
# build never executes test binaries.
function(mroute_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${MROUTE_WARNINGS})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gmock GTest::gtest_main Threads::Threads)
  # Ring-buffer trace files of test processes stay in the build tree.
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/Testing/brisklog)
  set(props TIMEOUT ${ARG_TIMEOUT} ENVIRONMENT "BRISKLOG_DIR=${CMAKE_BINARY_DIR}/Testing/brisklog")
  if(ARG_LABELS)
    list(APPEND props LABELS "${ARG_LABELS}")
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
                       PROPERTIES ${props}
                       TEST_PREFIX "${name}.")
endfunction()
