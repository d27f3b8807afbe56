# The part of APR that the agent uses, and what that refers to, from its configured sources in
# TW_APR. In place of the system's shared library.
enable_language(C)
add_library(
  aprStatic STATIC
  ${TW_APR}/atomic/unix/builtins.c ${TW_APR}/locks/unix/proc_mutex.c
  ${TW_APR}/locks/unix/thread_cond.c ${TW_APR}/locks/unix/thread_mutex.c
  ${TW_APR}/memory/unix/apr_pools.c ${TW_APR}/misc/unix/start.c
  ${TW_APR}/misc/unix/errorcodes.c ${TW_APR}/network_io/unix/inet_ntop.c
  ${TW_APR}/network_io/unix/sockaddr.c ${TW_APR}/strings/apr_cpystrn.c
  ${TW_APR}/strings/apr_snprintf.c ${TW_APR}/strings/apr_strings.c
  ${TW_APR}/strings/apr_strtok.c ${TW_APR}/tables/apr_hash.c
  ${TW_APR}/threadproc/unix/signals.c ${TW_APR}/time/unix/time.c)
target_include_directories(aprStatic SYSTEM PUBLIC ${TW_APR}/include
                           PRIVATE ${TW_APR}/include/arch/unix ${TW_APR}/include/private)
target_compile_definitions(aprStatic PUBLIC _GNU_SOURCE LINUX APR_DECLARE_STATIC
                           PRIVATE HAVE_CONFIG_H)
target_compile_options(aprStatic PRIVATE -fPIC -fvisibility=hidden -ffunction-sections
                                         -fstack-protector-strong
                                         -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)
add_library(PkgConfig::APR ALIAS aprStatic)
