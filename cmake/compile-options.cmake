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

  # Who finds a mistake in a program finds no address that he knows, no table of functions that he can write
  # to, no stack that he can run, and no jump to where no function begins: docs/security.md. These are flags
  # of CMake's since they are for all that is linked: one object that is compiled without takes what guards
  # jumps from a whole program.
  include(CheckCXXCompilerFlag)
  set(hardening "-fPIE")
  set(CMAKE_REQUIRED_FLAGS -Werror) # a compiler that only warns of a flag of another processor's does not have it
  foreach(flag IN ITEMS -fcf-protection=full -mbranch-protection=standard) # x86; 64-bit ARM
    string(MAKE_C_IDENTIFIER ORV_COMPILER_HAS${flag} has)
    check_cxx_compiler_flag(${flag} ${has})
    if(${has})
      string(APPEND hardening " ${flag}")
    endif()
  endforeach()
  unset(CMAKE_REQUIRED_FLAGS)
  string(APPEND CMAKE_C_FLAGS " ${hardening}")
  string(APPEND CMAKE_CXX_FLAGS " ${hardening}")
  target_link_options(orv_options INTERFACE -pie -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)

  # glibc makes the tables of a static program read-only, too; musl does not.
  include(CheckCSourceCompiles)
  check_c_source_compiles("#include <features.h>\n#ifndef __GLIBC__\n#error\n#endif\nint main(void) { return 0; }" ORV_HAS_GLIBC)
  if(NOT ORV_HAS_GLIBC)
    add_library(orv_read_only_tables OBJECT ${CMAKE_SOURCE_DIR}/cmake/read-only-tables.c)
    target_compile_options(orv_read_only_tables PRIVATE -Wall -Wextra)
  endif()
endif()

# orv_build_for_speed(TARGET_OR_SOURCE...): the program as shipped is built for size (-Os); what every request
# goes through, whole targets or sources of the calling folder, is built for speed instead.
function(orv_build_for_speed)
  foreach(name IN LISTS ARGN)
    if(TARGET ${name})
      target_compile_options(${name} PRIVATE $<$<CONFIG:Release>:-O2>)
    else()
      set_property(SOURCE ${name} APPEND PROPERTY COMPILE_OPTIONS $<$<CONFIG:Release>:-O2>)
    endif()
  endforeach()
endfunction()

# orv_harden(PROGRAM...): what more than flags it takes.
function(orv_harden)
  if(TARGET orv_read_only_tables)
    foreach(name IN LISTS ARGN)
      target_sources(${name} PRIVATE $<TARGET_OBJECTS:orv_read_only_tables>)
    endforeach()
  endif()
endfunction()

# orv_make_small(PROGRAM...): leaves out of programs that go into a router's image what only ever tells of a
# mistake of their own.
function(orv_make_small)
  if(ORV_STATIC_LIBRARIES AND NOT ORV_SANITIZE)
    foreach(name IN LISTS ARGN)
      target_sources(${name} PRIVATE $<TARGET_OBJECTS:orv_plain_terminate>)
    endforeach()
  endif()
endfunction()
