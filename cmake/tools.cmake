# The programs for whoever works on a line: gssip-demo prints what arrives at a device, gssip-conformance plays the test
# vectors at it. Built for installing, and so without the test framework.
find_package(CLI11 REQUIRED)

# They find the libraries in the same prefix, wherever it has been moved to.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR} OR IS_ABSOLUTE ${CMAKE_INSTALL_BINDIR})
  set(tools_rpath ${CMAKE_INSTALL_FULL_LIBDIR})
else()
  file(RELATIVE_PATH tools_rpath "/${CMAKE_INSTALL_BINDIR}" "/${CMAKE_INSTALL_LIBDIR}")
  string(PREPEND tools_rpath "$ORIGIN/")
endif()

# gssip_add_tool(NAME FOLDERS folder... FILES source...): the sources include from the folders.
function(gssip_add_tool name)
  cmake_parse_arguments(PARSE_ARGV 1 tool "" "" "FOLDERS;FILES")
  add_executable(tool_${name} ${tool_FILES})
  target_include_directories(tool_${name} PRIVATE ${tool_FOLDERS})
  target_link_libraries(tool_${name} PRIVATE gssip_options gssip::port CLI11::CLI11 Threads::Threads)
  set_target_properties(tool_${name} PROPERTIES
    OUTPUT_NAME ${name}
    RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/tools
    BUILD_RPATH_USE_ORIGIN ON
    INSTALL_RPATH "${tools_rpath}")
  target_compile_options(tool_${name} PRIVATE "$<$<NOT:$<CONFIG:Debug>>:${GSSIP_PREFIX_MAPS}>")
  install(TARGETS tool_${name} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES packaging/man/${name}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endfunction()

gssip_add_tool(gssip-demo
  FOLDERS examples
  FILES
    examples/demo.cpp examples/demoJournal.cpp examples/demoMonitor.cpp examples/demoPrinting.cpp
    examples/demoScenario.cpp examples/demoStation.cpp examples/frameSplitter.cpp examples/nullModem.cpp)
gssip_add_tool(gssip-conformance
  FOLDERS tests/conformance tests/kit
  FILES
    tests/conformance/gssip-conformance.cpp tests/conformance/deviceSubject.cpp tests/conformance/inWords.cpp
    tests/conformance/player.cpp tests/conformance/portSubject.cpp tests/conformance/reactions.cpp
    tests/conformance/runner.cpp tests/conformance/statementWords.cpp tests/conformance/vectorReader.cpp
    tests/kit/frames.cpp tests/kit/pseudoTerminal.cpp)
install(DIRECTORY tests/conformance/vectors/ DESTINATION ${CMAKE_INSTALL_DATADIR}/gssip/vectors
  FILES_MATCHING PATTERN "*.vectors")
