# What an installation holds, and how users find it: by find_package(gssip) or by pkg-config.
# Both kinds of description find the rest from where they stand themselves, so that an installed prefix may be moved.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/gssip)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The one library finds the other beside itself.
set_target_properties(gssipport PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS gssipsupport gssipport EXPORT gssip
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT gssip NAMESPACE gssip:: DESTINATION ${package_dir} FILE gssipTargets.cmake)

set(public_headers "")
foreach(library gssipsupport gssipport)
  get_target_property(headers ${library} GSSIP_PUBLIC_HEADERS)
  get_target_property(folder ${library} SOURCE_DIR)
  list(TRANSFORM headers PREPEND ${folder}/)
  list(APPEND public_headers ${headers})
endforeach()
install(FILES ${public_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/gssip)

# For the scripts and tests that look at each public header.
string(REPLACE ";" "\n" public_headers "${public_headers}")
file(GENERATE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/publicHeaders.txt CONTENT "${public_headers}\n")

configure_package_config_file(cmake/gssipConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/gssipConfig.cmake
  INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/gssipConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/gssipConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/gssipConfigVersion.cmake
  DESTINATION ${package_dir})

# The way from a pkg-config file to a folder given relative to the prefix; an absolute folder stands for itself.
function(gssip_pkgconfig_path result folder)
  if(IS_ABSOLUTE ${folder})
    set(path ${folder})
  elseif(IS_ABSOLUTE ${pkgconfig_dir})
    set(path ${CMAKE_INSTALL_PREFIX}/${folder})
  else()
    set(path "\${prefix}/${folder}")
  endif()
  set(${result} ${path} PARENT_SCOPE)
endfunction()

if(IS_ABSOLUTE ${pkgconfig_dir})
  set(pkgconfig_prefix ${CMAKE_INSTALL_PREFIX})
else()
  file(RELATIVE_PATH way_up "/${pkgconfig_dir}" "/")
  string(REGEX REPLACE "/$" "" way_up "${way_up}")
  set(pkgconfig_prefix "\${pcfiledir}/${way_up}")
endif()
gssip_pkgconfig_path(pkgconfig_libdir ${CMAKE_INSTALL_LIBDIR})
gssip_pkgconfig_path(pkgconfig_includedir ${CMAKE_INSTALL_INCLUDEDIR})
list(TRANSFORM GSSIP_TIME_DEFINITIONS PREPEND " -D" OUTPUT_VARIABLE pkgconfig_time_flags)
string(REPLACE ";" "" pkgconfig_time_flags "${pkgconfig_time_flags}")
foreach(module gssipsupport gssipport)
  configure_file(cmake/${module}.pc.in ${module}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${module}.pc DESTINATION ${pkgconfig_dir})
endforeach()
