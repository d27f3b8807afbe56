# The libraries that the agent and twreport use: those of the system, or for a portable build
# (TW_PORTABLE, see scripts/release) from sources and headers alone.
option(TW_PORTABLE "Need nothing but glibc 2.28; as scripts/release builds" OFF)
find_package(Threads REQUIRED)

if(TW_PORTABLE)
  include(${CMAKE_CURRENT_LIST_DIR}/portable/apr.cmake)
  # Headers only; TW_HEADERS has those of nlohmann-json, CLI11 and fmt.
  foreach(library nlohmann_json CLI11 fmt)
    set(${library}_DIR ${CMAKE_CURRENT_LIST_DIR}/portable)
  endforeach()
  # The static one of the older Debian, beside its C library.
  add_library(ZLIB::ZLIB STATIC IMPORTED)
  set_target_properties(ZLIB::ZLIB PROPERTIES IMPORTED_LOCATION
                                              ${TW_ROOT}/usr/lib/${TW_TARGET}/libz.a)
  set(ZLIB_FOUND TRUE)
else()
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(APR REQUIRED IMPORTED_TARGET apr-1)
  find_package(ZLIB QUIET)
endif()
find_package(nlohmann_json QUIET)

# makePortable(<target>...): those that exist load with glibc 2.28, wherever it is newer or not.
function(makePortable)
  foreach(target IN LISTS ARGN)
    if(TW_PORTABLE AND TARGET ${target})
      target_link_libraries(${target} PRIVATE olderLibc ${CMAKE_DL_LIBS} Threads::Threads)
      target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc -Wl,--gc-sections
                          -Wl,--as-needed)
    endif()
  endforeach()
endfunction()
