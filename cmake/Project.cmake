# Helpers shared by every directory's CMakeLists.txt.

include(GNUInstallDirs)

set(MROUTE_WARNINGS -Wall -Wextra -Werror)

# Compiler caching where present (scripts/install-deps installs ccache): a
# second build tree, a branch switch or a clean rebuild compiles only what
# changed. -DCMAKE_CXX_COMPILER_LAUNCHER= (empty) turns it off.
find_program(MROUTE_CCACHE ccache)
if(MROUTE_CCACHE AND NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${MROUTE_CCACHE})
endif()
if(MROUTE_CCACHE AND NOT DEFINED CMAKE_C_COMPILER_LAUNCHER)
  set(CMAKE_C_COMPILER_LAUNCHER ${MROUTE_CCACHE})
endif()

# Unity builds: a target listed in cmake/Unity.cmake compiles its sources in
# batches of up to eight per translation unit. Most of a compile here is the
# code generated for the headers' templates and inline functions (tables,
# reflection, GoogleTest), which a batch generates once instead of once per
# source; batches of eight leave enough translation units to keep two cores
# busy. -DMROUTE_UNITY_BUILD=OFF compiles every source on its own (make lint
# does, for clang-tidy's compile database).
option(MROUTE_UNITY_BUILD "Compile the targets listed in cmake/Unity.cmake in batches" ON)
if(NOT DEFINED CMAKE_UNITY_BUILD_BATCH_SIZE)
  set(CMAKE_UNITY_BUILD_BATCH_SIZE 8)
endif()
# A batch includes its sources, and GCC takes a fixture in an anonymous
# namespace of an included file for one in a header.
add_compile_options($<$<AND:$<COMPILE_LANG_AND_ID:CXX,GNU>,$<BOOL:$<TARGET_PROPERTY:UNITY_BUILD>>>:-Wno-subobject-linkage>)

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
  # Parameterized cases are named by their generators (".../Ipv4") or by
  # their index, never by a dump of the parameter's bytes.
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
                       PROPERTIES ${props}
                       TEST_PREFIX "${name}."
                       NO_PRETTY_VALUES)
endfunction()

# mroute_fuzz_target(Name SOURCE file.cpp DEPENDS_ON dir... [EXCLUDE file...]
#                    [INCLUDES dir...] WHAT "text")
# A libFuzzer target needs clang (the directory's fuzz/build.sh builds it by
# hand): the harness and every source of the DEPENDS_ON directories (less
# EXCLUDE, relative to the top) under AddressSanitizer and UBSan. make test
# runs it for a few seconds (ctest label "fuzz"). Without clang it is left
# out, with a status line. The targets are only recorded here; the
# directory that calls mroute_fuzz_targets_finish() builds them all, so that
# sources they share (Kiv, Brisklog, ...) compile once, each source on its
# own in parallel with the rest of the build.
function(mroute_fuzz_target name)
  cmake_parse_arguments(ARG "" "SOURCE;WHAT" "DEPENDS_ON;EXCLUDE;INCLUDES" ${ARGN})
  find_program(MROUTE_FUZZ_CXX NAMES clang++ clang++-14)
  if(NOT MROUTE_FUZZ_CXX)
    message(STATUS "clang++ not found: the ${ARG_WHAT} fuzz target is not built")
    return()
  endif()
  set(sources)
  foreach(dir ${ARG_DEPENDS_ON})
    file(GLOB found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${dir}/*.cpp)
    list(APPEND sources ${found})
  endforeach()
  foreach(skip ${ARG_EXCLUDE})
    list(REMOVE_ITEM sources ${PROJECT_SOURCE_DIR}/${skip})
  endforeach()
  set(includes)
  foreach(dir ${ARG_INCLUDES})
    list(APPEND includes -I${CMAKE_CURRENT_SOURCE_DIR}/${dir})
  endforeach()
  set_property(GLOBAL APPEND PROPERTY MROUTE_FUZZ_TARGETS ${name})
  set_property(GLOBAL PROPERTY MROUTE_FUZZ_${name}_HARNESS ${CMAKE_CURRENT_SOURCE_DIR}/${ARG_SOURCE})
  set_property(GLOBAL PROPERTY MROUTE_FUZZ_${name}_SOURCES ${sources})
  set_property(GLOBAL PROPERTY MROUTE_FUZZ_${name}_INCLUDES ${includes})
endfunction()

# The objects of the fuzz targets live in <build>/fuzz/, one per source,
# found again by their path below the top.
function(mroute_fuzz_object src extra_flags out_var)
  file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${src})
  set(obj ${CMAKE_BINARY_DIR}/fuzz/${rel}.o)
  get_property(made GLOBAL PROPERTY MROUTE_FUZZ_OBJECTS)
  if(NOT obj IN_LIST made)
    set_property(GLOBAL APPEND PROPERTY MROUTE_FUZZ_OBJECTS ${obj})
    get_filename_component(dir ${obj} DIRECTORY)
    file(MAKE_DIRECTORY ${dir})
    # Line tables are enough for the stack of a finding, at a fraction of
    # the cost of full debug information.
    add_custom_command(OUTPUT ${obj}
                       COMMAND ${CMAKE_CXX_COMPILER_LAUNCHER} ${MROUTE_FUZZ_CXX} -std=c++20 -gline-tables-only -O1
                               -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined
                               -I${PROJECT_SOURCE_DIR} -I${PROJECT_SOURCE_DIR}/platform ${extra_flags}
                               -MD -MF ${obj}.d -c ${src} -o ${obj}
                       DEPENDS ${src} DEPFILE ${obj}.d
                       COMMENT "Building ${rel} for fuzzing" VERBATIM)
  endif()
  set(${out_var} ${obj} PARENT_SCOPE)
endfunction()

function(mroute_fuzz_targets_finish)
  get_property(targets GLOBAL PROPERTY MROUTE_FUZZ_TARGETS)
  foreach(name ${targets})
    get_property(harness GLOBAL PROPERTY MROUTE_FUZZ_${name}_HARNESS)
    get_property(sources GLOBAL PROPERTY MROUTE_FUZZ_${name}_SOURCES)
    get_property(includes GLOBAL PROPERTY MROUTE_FUZZ_${name}_INCLUDES)
    mroute_fuzz_object(${harness} "${includes}" harness_obj)
    set(objs ${harness_obj})
    foreach(src ${sources})
      mroute_fuzz_object(${src} "" obj)
      list(APPEND objs ${obj})
    endforeach()
    set(exe ${CMAKE_BINARY_DIR}/bin/${name})
    add_custom_command(OUTPUT ${exe}
                       COMMAND ${MROUTE_FUZZ_CXX} -fsanitize=fuzzer,address,undefined ${objs} -o ${exe}
                       DEPENDS ${objs}
                       COMMENT "Linking the fuzz target ${name}" VERBATIM)
    add_custom_target(${name} ALL DEPENDS ${exe})
    add_test(NAME ${name} COMMAND ${exe} -max_total_time=8 -seed=1 -timeout=10
             WORKING_DIRECTORY ${CMAKE_BINARY_DIR}/Testing)
    set_tests_properties(${name} PROPERTIES LABELS fuzz TIMEOUT 120)
  endforeach()
endfunction()
