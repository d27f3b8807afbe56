add_library(fmt::fmt INTERFACE IMPORTED)
set_target_properties(fmt::fmt PROPERTIES INTERFACE_COMPILE_DEFINITIONS FMT_HEADER_ONLY=1)
target_include_directories(fmt::fmt SYSTEM INTERFACE ${TW_HEADERS})
