# What every target of the project is compiled and linked with: link to orv_options.
add_library(orv_options INTERFACE)
target_compile_features(orv_options INTERFACE cxx_std_17)
target_compile_definitions(orv_options INTERFACE _GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_compile_options(orv_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
  # Paths in the log are those of the source tree, whatever machine built the program.
  -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=
  -ffunction-sections -fdata-sections)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  target_compile_options(orv_options INTERFACE -Wno-psabi) # nothing here is linked with what gcc 6 has compiled
endif()
target_link_options(orv_options INTERFACE -Wl,--gc-sections -Wl,--as-needed)

if(ORV_FUZZ)
  target_compile_options(orv_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(ORV_SANITIZE)
  target_compile_options(orv_options INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer
    $<$<CXX_COMPILER_ID:Clang>:-fsanitize-ignorelist=${CMAKE_SOURCE_DIR}/cmake/sanitizer-ignore.txt>)
  target_link_options(orv_options INTERFACE -fsanitize=address,undefined)
else()
  if(ORV_STATIC_LIBRARIES)
    target_link_options(orv_options INTERFACE -static-libstdc++ -static-libgcc)
  endif()
  # A distribution may have set it already, otherwise. It is a flag, so that folders of tests can be without.
  string(APPEND CMAKE_C_FLAGS_RELEASE " -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2")
  string(APPEND CMAKE_CXX_FLAGS_RELEASE " -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2")
  target_compile_options(orv_options INTERFACE -fstack-protector-strong)
endif()

# orv_build_for_speed(TARGET_OR_SOURCE...): the program as shipped is built for size (-Os); what every request goes
# through, whole targets or sources of the calling folder, is built for speed instead.
function(orv_build_for_speed)
  foreach(name IN LISTS ARGN)
    if(TARGET ${name})
      target_compile_options(${name} PRIVATE $<$<CONFIG:Release>:-O2>)
    else()
      set_property(SOURCE ${name} APPEND PROPERTY COMPILE_OPTIONS $<$<CONFIG:Release>:-O2>)
    endif()
  endforeach()
endfunction()

# orv_make_small(PROGRAM...): leaves out of programs that go into a router's image what only ever tells of a mistake of their own.
function(orv_make_small)
  if(ORV_STATIC_LIBRARIES AND NOT ORV_SANITIZE)
    foreach(name IN LISTS ARGN)
      target_sources(${name} PRIVATE $<TARGET_OBJECTS:orv_plain_terminate>)
    endforeach()
  endif()
endfunction()
