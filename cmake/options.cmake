# How everything in this project is compiled; the two libraries impose none of it on their users.
add_library(gssip_options INTERFACE)
target_compile_features(gssip_options INTERFACE cxx_std_17)
target_compile_options(gssip_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wnon-virtual-dtor
  -Woverloaded-virtual -Wcast-align -Wcast-qual -Wformat=2 -Wundef -Wvla
  $<$<BOOL:${GSSIP_WERROR}>:-Werror>)
if(GSSIP_SANITIZE)
  target_compile_options(gssip_options INTERFACE -fsanitize=${GSSIP_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  target_link_options(gssip_options INTERFACE -fsanitize=${GSSIP_SANITIZE})
endif()

# What is built for use does not tell where it was built: the same source gives the same bytes in any folder.
set(GSSIP_PREFIX_MAPS -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=./build)

# Where time may have 32 or 64 bits it has 64, in the libraries and in whatever uses their headers.
set(GSSIP_TIME_DEFINITIONS "")
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(GSSIP_TIME_DEFINITIONS _TIME_BITS=64 _FILE_OFFSET_BITS=64)
endif()

# One shared library, with the names and properties that both share.
function(gssip_add_library name alias)
  add_library(${name} SHARED ${ARGN})
  add_library(gssip::${alias} ALIAS ${name})
  target_compile_features(${name} PUBLIC cxx_std_17)
  target_compile_definitions(${name} PUBLIC ${GSSIP_TIME_DEFINITIONS})
  target_compile_options(${name} PRIVATE "$<$<NOT:$<CONFIG:Debug>>:${GSSIP_PREFIX_MAPS}>")
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:gssip_options> Threads::Threads)
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/gssip>)
  set_target_properties(${name} PROPERTIES
    EXPORT_NAME ${alias}
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    BUILD_RPATH_USE_ORIGIN ON
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  # What the library exports it also calls itself: directly, as no program replaces it.
  target_compile_options(${name} PRIVATE -fno-semantic-interposition)
  target_link_options(${name} PRIVATE -Wl,--as-needed -Wl,-Bsymbolic-functions)
  if(NOT GSSIP_SANITIZE) # whose functions stand in the program
    set(exports ${PROJECT_SOURCE_DIR}/cmake/${name}.map)
    target_link_options(${name} PRIVATE -Wl,--no-undefined -Wl,--version-script=${exports})
    set_target_properties(${name} PROPERTIES LINK_DEPENDS ${exports})
  endif()
endfunction()
