# The libraries that the project is built on, as imported targets.
#
# Where static archives of them are installed they are linked, and so is the C++ runtime: one program then shares
# nothing but libc with the rest of the router, which saves more than half of its resident memory and most of its
# start-up time. fmt is used as headers for the same reason.
option(ORV_STATIC_LIBRARIES "Link all libraries but libc statically" ON)

# Each with the oldest version that will do; an older one ends the configuration with a line that names both versions.
find_package(PkgConfig REQUIRED)
pkg_check_modules(jansson REQUIRED IMPORTED_TARGET GLOBAL jansson>=2.8) # objects keep their order
pkg_check_modules(lmdb QUIET lmdb)
if(lmdb_FOUND)
  pkg_check_modules(lmdb REQUIRED IMPORTED_TARGET GLOBAL lmdb>=0.9.21) # a writer that dies frees its lock
else()
  include(cmake/lmdb.cmake)
endif()
pkg_check_modules(dbus REQUIRED IMPORTED_TARGET GLOBAL dbus-1>=1.12)
find_package(fmt 8 REQUIRED)
find_package(Threads REQUIRED)
if(ORV_BUILD_TOOLS)
  find_package(CLI11 2.1 REQUIRED)
endif()
if(ORV_BUILD_TESTS)
  find_package(GTest 1.11 CONFIG REQUIRED)
endif()

if(ORV_STATIC_LIBRARIES)
  # Some distributions build libdbus' server side with socket activation. A participant never serves, so the two
  # functions that this needs are never called; they only have to be there.
  add_library(orv_no_activation STATIC ${CMAKE_SOURCE_DIR}/cmake/no-socket-activation.c)
  target_compile_options(orv_no_activation PRIVATE -Wall -Wextra)

  # Into programs whose C++ runtime is in them, too.
  add_library(orv_plain_terminate OBJECT ${CMAKE_SOURCE_DIR}/cmake/plain-terminate.cpp)

  function(orv_link_archive package archive target)
    set(directory "")
    if(${target}_FOUND)
      pkg_get_variable(directory ${package} libdir)
    endif()
    find_library(ORV_ARCHIVE_${target} ${archive} HINTS ${directory})
    if(ORV_ARCHIVE_${target})
      set_property(TARGET PkgConfig::${target} PROPERTY INTERFACE_LINK_LIBRARIES
        ${ORV_ARCHIVE_${target}} ${ARGN})
    else()
      message(STATUS "no static archive of ${package}: linking the shared library")
    endif()
  endfunction()
  orv_link_archive(jansson libjansson.a jansson)
  orv_link_archive(lmdb liblmdb.a lmdb Threads::Threads)
  orv_link_archive(dbus-1 libdbus-1.a dbus orv_no_activation Threads::Threads)
endif()
