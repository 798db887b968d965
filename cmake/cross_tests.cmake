# What the tests of a cross-build need besides what they test: GoogleTest built with this build's
# flags, and programs that this machine can start.
#
# The programs start each other by their paths (a test the daemon, the daemon its notification tool,
# a shell in a test either), and not every machine hands a foreign binary to its emulator. So each
# stands in a folder of scripts that run the real one there, in the same process.
set(BUILD_GMOCK OFF)
set(INSTALL_GTEST OFF)
add_subdirectory(${CMAKE_SYSROOT}/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest
                 EXCLUDE_FROM_ALL)
target_compile_options(gtest PRIVATE -w)

set(ZORV_PROGRAMS ${CMAKE_BINARY_DIR}/emulated)
list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
foreach(program zorvd zorvctl notify platformd)
  file(GENERATE OUTPUT ${ZORV_PROGRAMS}/${program}
       CONTENT "#!/bin/sh\nexec ${emulator} -0 \"$0\" ${CMAKE_BINARY_DIR}/bin/${program} \"$@\"\n"
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
endforeach()
