# Programs that tests run as processes of their own. One for another processor needs its emulator: CMake adds that to the
# tests themselves, but not to what they run.

# gssip_runnable(RESULT NAME PROGRAM): a file that runs the program as it is, or a script of that name that does.
function(gssip_runnable result name program)
  if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    set(${result} ${program} PARENT_SCOPE)
    return()
  endif()
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
  set(script ${CMAKE_CURRENT_BINARY_DIR}/emulated/${name})
  file(GENERATE OUTPUT ${script} CONTENT "#!/bin/sh\nexec ${emulator} '${program}' \"$@\"\n"
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  set(${result} ${script} PARENT_SCOPE)
endfunction()
