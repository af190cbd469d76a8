# GoogleTest for a processor that Debian's built packages on this machine are not for: made from its source package.
set(sources /usr/src/googletest)
if(NOT TARGET GTest::gtest AND EXISTS ${sources}/CMakeLists.txt)
  set(INSTALL_GTEST OFF CACHE BOOL "Install GoogleTest too")
  add_subdirectory(${sources} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
endif()

include(FindPackageHandleStandardArgs)
if(TARGET GTest::gtest)
  set(gtest_sources ${sources})
endif()
find_package_handle_standard_args(GTest REQUIRED_VARS gtest_sources
  REASON_FAILURE_MESSAGE "Debian's package googletest has its sources")
