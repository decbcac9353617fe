# How code of this project is compiled: warnings, sanitizers, and the rules of the cache library itself.

add_library(dm_warnings INTERFACE)
target_compile_options(dm_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${DM_WERROR}>:-Werror>
  $<$<COMPILE_LANGUAGE:CXX>:-Wmissing-declarations>)
# At -O3, g++ 12 sees in the string concatenations of its own library copies that overlap (restrict), that are longer than any
# object (stringop-overflow) or that leave one (array-bounds).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  set(release_cxx $<AND:$<CONFIG:Release>,$<COMPILE_LANGUAGE:CXX>>)
  target_compile_options(dm_warnings INTERFACE $<${release_cxx}:-Wno-restrict>
    $<${release_cxx}:-Wno-stringop-overflow> $<${release_cxx}:-Wno-array-bounds>)
endif()
target_include_directories(dm_warnings INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)

# The cache library runs without the C++ run-time library.
add_library(dm_no_cxx_runtime INTERFACE)
target_compile_options(dm_no_cxx_runtime INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)

if(DM_SANITIZE)
  # g++'s flow analysis takes instrumented std::function code of the standard library for uninitialised.
  target_compile_options(dm_warnings INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  add_compile_options(-fsanitize=${DM_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${DM_SANITIZE})
else()
  # A sanitizer's own symbols are found at run time only.
  set(DM_NO_UNDEFINED -Wl,-z,defs)
  # Everything is bound before the first instruction runs, then write-protected.
  add_link_options(-Wl,-z,relro,-z,now)
endif()
