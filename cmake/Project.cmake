# Helpers shared by every directory's CMakeLists.txt.

include(GNUInstallDirs)

set(MROUTE_WARNINGS -Wall -Wextra -Werror)

# Libraries are installed as libmroute-<name>.so.<major>.<minor> so that they
# cannot clash with other projects' libraries in a system directory; the
# CMake targets keep their short names (Kiv, Vorn, ...) inside this tree and
# are exported as mroute::<name>.
set(MROUTE_SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
# Every library target, in the order they were declared (dependencies first).
set_property(GLOBAL PROPERTY MROUTE_LIBRARIES "")

function(mroute_add_optional_subdirectory dir)
  if(EXISTS ${CMAKE_SOURCE_DIR}/${dir}/CMakeLists.txt)
    add_subdirectory(${CMAKE_SOURCE_DIR}/${dir} ${CMAKE_BINARY_DIR}/${dir})
  endif()
endfunction()

# mroute_library(Name SOURCES a.cpp ... LIBS Dep ...)
# The headers of the library's directory are its public headers, installed
# under include/mroute/ with the spelling used in the tree ("Kiv/Ptr.h").
function(mroute_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} ${ARG_SOURCES})
  add_library(mroute::${name} ALIAS ${name})
  string(TOLOWER ${name} lower)
  set_target_properties(${name} PROPERTIES
    OUTPUT_NAME mroute-${lower}
    VERSION ${PROJECT_VERSION}
    SOVERSION ${MROUTE_SOVERSION}
    EXPORT_NAME ${name})
  target_compile_options(${name} PRIVATE ${MROUTE_WARNINGS})
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}>
    $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/platform>
    $<BUILD_INTERFACE:${MROUTE_GENERATED_INCLUDE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/mroute>)
  target_link_libraries(${name} PUBLIC ${ARG_LIBS})
  install(TARGETS ${name} EXPORT mrouteTargets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  # The directory's path below the repository or platform/ is its include
  # spelling: platform/Schema/Mfib -> Schema/Mfib.
  file(RELATIVE_PATH rel ${CMAKE_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  string(REGEX REPLACE "^platform/" "" rel ${rel})
  file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mroute/${rel})
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/detail)
    install(DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/detail
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mroute/${rel} FILES_MATCHING PATTERN "*.h")
  endif()
  set_property(GLOBAL APPEND PROPERTY MROUTE_LIBRARIES ${name})
endfunction()

# mroute_executable(Name SOURCES ... LIBS ... [INSTALL])
# INSTALL: a tool for operators, installed to bin/ (it finds the libraries
# through a relative rpath).
function(mroute_executable name)
  cmake_parse_arguments(ARG "INSTALL" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${MROUTE_WARNINGS})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS})
  if(ARG_INSTALL)
    install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
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

# mroute_fuzz_target(Name SOURCE file.cpp DEPENDS_ON dir... WHAT "text")
# A libFuzzer target needs clang: the directory's fuzz/build.sh builds it
# beside the rest of the build, and make test runs it for a few seconds
# (ctest label "fuzz"). Without clang it is left out, with a status line.
function(mroute_fuzz_target name)
  cmake_parse_arguments(ARG "" "SOURCE;WHAT" "DEPENDS_ON" ${ARGN})
  find_program(MROUTE_FUZZ_CXX NAMES clang++ clang++-14)
  if(NOT MROUTE_FUZZ_CXX)
    message(STATUS "clang++ not found: the ${ARG_WHAT} fuzz target is not built")
    return()
  endif()
  set(deps)
  foreach(dir ${ARG_DEPENDS_ON})
    file(GLOB found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${dir}/*)
    list(APPEND deps ${found})
  endforeach()
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/bin/${name}
                     COMMAND ${CMAKE_COMMAND} -E env CXX=${MROUTE_FUZZ_CXX}
                             sh ${CMAKE_CURRENT_SOURCE_DIR}/fuzz/build.sh ${CMAKE_BINARY_DIR}/bin/${name}
                     DEPENDS ${ARG_SOURCE} fuzz/build.sh ${deps}
                     COMMENT "Building the ${ARG_WHAT} fuzz target with clang" VERBATIM)
  add_custom_target(${name} ALL DEPENDS ${CMAKE_BINARY_DIR}/bin/${name})
  add_test(NAME ${name} COMMAND ${CMAKE_BINARY_DIR}/bin/${name} -max_total_time=8 -seed=1 -timeout=10
           WORKING_DIRECTORY ${CMAKE_BINARY_DIR}/Testing)
  set_tests_properties(${name} PROPERTIES LABELS fuzz TIMEOUT 120)
endfunction()
