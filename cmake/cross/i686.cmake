# 32-bit x86 with glibc, which every x86-64 machine runs: scripts/cross fetches the libraries and says where they are
# (ORV_CROSS_ROOT); the compiler is the machine's own.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORV_CROSS_ROOT)
if(NOT EXISTS ${ORV_CROSS_ROOT}/usr/include/jansson.h)
  message(FATAL_ERROR "there are no libraries in '${ORV_CROSS_ROOT}': scripts/cross fetches them, and configures the build")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_CROSSCOMPILING FALSE) # what is built runs here
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_C_COMPILER gcc CACHE FILEPATH "")
set(CMAKE_CXX_COMPILER g++ CACHE FILEPATH "")
# The kernel's headers are the same for both widths, but the compiler looks for them in 64-bit programs only.
foreach(language C CXX)
  set(CMAKE_${language}_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
endforeach()

set(CMAKE_FIND_ROOT_PATH ${ORV_CROSS_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(kind LIBRARY INCLUDE PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY)
endforeach()
set(CMAKE_FIND_LIBRARY_SUFFIXES .a)
set(ENV{PKG_CONFIG_LIBDIR} ${ORV_CROSS_ROOT}/usr/lib/i386-linux-gnu/pkgconfig:${ORV_CROSS_ROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${ORV_CROSS_ROOT})
