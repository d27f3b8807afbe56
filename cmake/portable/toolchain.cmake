# Compiles for any Linux with glibc 2.28 or later: this machine's compiler, the headers and the C
# library of an older Debian. To be given: TW_TARGET (x86_64-linux-gnu or aarch64-linux-gnu) and
# TW_ROOT, the folder into which Debian's libc6-dev for it was unpacked. scripts/release does.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TW_TARGET TW_ROOT)
set(CMAKE_SYSTEM_NAME Linux)
string(REGEX REPLACE "-.*" "" CMAKE_SYSTEM_PROCESSOR ${TW_TARGET})
set(CMAKE_C_COMPILER ${TW_TARGET}-gcc-12)
set(CMAKE_CXX_COMPILER ${TW_TARGET}-g++-12)

# The compiler would find this machine's C library before that of the root: it gets the folders of
# its own, then those of the root, and no others.
execute_process(
  COMMAND ${CMAKE_CXX_COMPILER} -E -v -x c++ /dev/null
  ERROR_VARIABLE searched OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "\n /[^\n]*(c\\+\\+/12|/lib/gcc)[^\n]*" folders "${searched}")
set(twOwnHeaders "")
set(twOwnCppHeaders "")
foreach(folder IN LISTS folders)
  string(STRIP "${folder}" folder)
  file(REAL_PATH ${folder} folder)
  if(folder MATCHES "c\\+\\+/12")
    string(APPEND twOwnCppHeaders " -isystem ${folder}")
  elseif(folder MATCHES "/12/include$")
    string(APPEND twOwnHeaders " -isystem ${folder}")
  endif()
endforeach()
set(twHeaders "${twOwnHeaders} -isystem ${TW_ROOT}/usr/include/${TW_TARGET}\
 -isystem ${TW_ROOT}/usr/include")
set(twLibraries "--sysroot=${TW_ROOT}")
foreach(folder ${TW_ROOT}/usr/lib/${TW_TARGET} ${TW_ROOT}/lib/${TW_TARGET})
  string(APPEND twLibraries " -B${folder} -L${folder}")
endforeach()
set(CMAKE_C_FLAGS_INIT "-nostdinc ${twHeaders} ${twLibraries}")
set(CMAKE_CXX_FLAGS_INIT "-nostdinc ${twOwnCppHeaders} ${twHeaders} ${twLibraries}")
