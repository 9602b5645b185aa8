# The targets that compile in unity batches (see MROUTE_UNITY_BUILD in
# Project.cmake). Sources of one batch share a translation unit, so two
# sources that define the same name in an anonymous namespace (a trace
# handle `th`, a helper, a test fixture) cannot share one: such a source
# compiles alone (mroute_unity_alone), and a target most of whose sources
# collide is not listed. A target added to the list must build with it.
# Included at the end of the top CMakeLists.txt, when every target exists.

# mroute_unity_on(target...)
function(mroute_unity_on)
  foreach(t ${ARGN})
    if(TARGET ${t})
      set_target_properties(${t} PROPERTIES UNITY_BUILD ON)
    endif()
  endforeach()
endfunction()

# mroute_unity_alone(dir file...): the files (relative to dir, the directory
# whose CMakeLists.txt made their target) compile on their own.
function(mroute_unity_alone dir)
  if(NOT EXISTS ${CMAKE_SOURCE_DIR}/${dir}/CMakeLists.txt)
    return()
  endif()
  set(files)
  foreach(f ${ARGN})
    list(APPEND files ${CMAKE_SOURCE_DIR}/${dir}/${f})
  endforeach()
  set_source_files_properties(${files} DIRECTORY ${CMAKE_SOURCE_DIR}/${dir} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()

if(NOT MROUTE_UNITY_BUILD)
  return()
endif()

# Not listed: Mfib, MrtNotify, Stelo and Vorn, whose sources each define
# their own trace handle `th`, class name `className` or netlink helpers.
mroute_unity_on(Kiv Wirly Brisklog Schema BitMapperSchema MfibSchema MrouteLib BitMapper)
mroute_unity_on(mroute-agent-core mroute-agent mroute-static-core mroute-static mcast-probe-core mcast-probe
                mfib-demo-core mfib-demo vornctl kivctl brisklog-cat mrtmon mroute_python flow-burst)
mroute_unity_on(KivTest WirlyTest SchemaTest BrisklogTest BitMapperTest MrouteLibTest MrtNotifyTest
                MrouteAgentTest MrouteAgentKernelTest MrouteAgentRestartTest MrouteAgentForgedReportsTest
                MrouteStaticTest McastProbeTest MfibDemoTest VornctlTest KivctlTest MfibTest MrtNotifyKernelTest
                MfibSchemaTest VornTest VornFullFileSystemTest VornctlDamageTest SteloTest FlowBurstTest
                FlowBurstKernelTest brisklog-helper)

# Sources that define their own `th` trace handle, or test helpers of the
# same name as another test source of their program.
mroute_unity_alone(daemons/mroute-agent UnresolvedScan.cpp)
mroute_unity_alone(tests/Brisklog ReaderTest.cpp)
mroute_unity_alone(tests/MrtNotify MrtNotifySmTest.cpp)
mroute_unity_alone(tests/Kiv EntityTest.cpp ServerSocketTest.cpp)
