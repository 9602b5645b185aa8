# What another project finds: the umbrella target mroute::mroute (every
# library, with its include directory and its dependencies), the CMake
# package "mroute" and the pkg-config module "mroute".

include(CMakePackageConfigHelpers)

# The manual pages, built from docs/man.
mroute_add_optional_subdirectory(docs/man)

get_property(mroute_libraries GLOBAL PROPERTY MROUTE_LIBRARIES)

add_library(mroute INTERFACE)
add_library(mroute::mroute ALIAS mroute)
target_link_libraries(mroute INTERFACE ${mroute_libraries})
install(TARGETS mroute EXPORT mrouteTargets)

set(MROUTE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/mroute)
install(EXPORT mrouteTargets NAMESPACE mroute:: DESTINATION ${MROUTE_CMAKE_DIR})
configure_package_config_file(cmake/mrouteConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/cmake/mrouteConfig.cmake
                              INSTALL_DESTINATION ${MROUTE_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/cmake/mrouteConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/cmake/mrouteConfig.cmake
              ${CMAKE_BINARY_DIR}/cmake/mrouteConfigVersion.cmake
        DESTINATION ${MROUTE_CMAKE_DIR})

# pkg-config: one -l per library, and the C++ standard the headers need.
set(MROUTE_PC_LIBS "")
foreach(lib ${mroute_libraries})
  string(TOLOWER ${lib} lower)
  string(APPEND MROUTE_PC_LIBS " -lmroute-${lower}")
endforeach()
set(MROUTE_PC_CFLAGS "-std=c++20 -I\${includedir}/mroute")
if(KIV_THREADSAFE_PTR)
  string(APPEND MROUTE_PC_CFLAGS " -DKIV_THREADSAFE_PTR=1")
endif()
# The prefix is found from where the file lies, so an installed tree works
# wherever it is put (cmake --install --prefix, DESTDIR, a moved directory).
file(RELATIVE_PATH MROUTE_PC_PREFIX_FROM_PCDIR
     /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" MROUTE_PC_PREFIX_FROM_PCDIR "${MROUTE_PC_PREFIX_FROM_PCDIR}")
configure_file(cmake/mroute.pc.in ${CMAKE_BINARY_DIR}/mroute.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/mroute.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Installed into the system prefix /usr, the libraries are where the dynamic
# linker looks anyway, and a RUNPATH there is refused by the distribution's
# checks: every program, library and module this install wrote loses it.
# Any other prefix keeps the relative rpath, so such a tree can be moved.
# This runs after every other directory's install rules.
install(CODE [[
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  # The manifest names files without DESTDIR.
  foreach(file ${CMAKE_INSTALL_MANIFEST_FILES})
    set(path "$ENV{DESTDIR}${file}")
    if(NOT IS_SYMLINK "${path}" AND EXISTS "${path}")
      file(READ "${path}" magic LIMIT 4 HEX)
      if(magic STREQUAL "7f454c46")
        file(RPATH_REMOVE FILE "${path}")
      endif()
    endif()
  endforeach()
endif()
]])
