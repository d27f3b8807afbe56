# Flags that every target of this project is built with, and the sanitizers that a preset may ask for.
add_library(projectFlags INTERFACE)
target_compile_features(projectFlags INTERFACE cxx_std_20)
target_compile_options(projectFlags INTERFACE -Wall -Wextra -Wshadow -Wconversion -Wold-style-cast
                                              -Werror -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)

if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(projectFlags INTERFACE -Wthread-safety)
endif()

set(TW_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize takes them")
if(TW_SANITIZE)
  target_compile_options(projectFlags INTERFACE -fsanitize=${TW_SANITIZE} -fno-omit-frame-pointer
                                                -fno-sanitize-recover=all)
  target_link_options(projectFlags INTERFACE -fsanitize=${TW_SANITIZE})
endif()

# What tests themselves are built with: they are compiled several times in a run and executed once
# each, so quick to compile is what counts. Sanitizers print the lines of the agent; for those of
# the tests their functions will do.
set(TW_TEST_FLAGS -O0)
if(TW_SANITIZE)
  list(APPEND TW_TEST_FLAGS -g0)
endif()
