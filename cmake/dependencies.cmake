# The libraries that the project is built on, as imported targets.
#
# Where static archives of them are installed they are linked, and so is the C++ runtime: one program then shares
# nothing but libc with the rest of the router, which saves more than half of its resident memory and most of its
# start-up time. fmt is used as headers for the same reason.
option(ORV_STATIC_LIBRARIES "Link all libraries but libc statically" ON)

find_package(PkgConfig REQUIRED)
pkg_check_modules(jansson REQUIRED IMPORTED_TARGET GLOBAL jansson)
pkg_check_modules(lmdb REQUIRED IMPORTED_TARGET GLOBAL lmdb)
pkg_check_modules(dbus REQUIRED IMPORTED_TARGET GLOBAL dbus-1)
find_package(fmt REQUIRED)
find_package(Threads REQUIRED)
if(ORV_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()

if(ORV_STATIC_LIBRARIES)
  # Some distributions build libdbus' server side with socket activation. A participant never serves, so the two
  # functions that this needs are never called; they only have to be there.
  add_library(orv_no_activation STATIC ${CMAKE_SOURCE_DIR}/cmake/no-socket-activation.c)
  target_compile_options(orv_no_activation PRIVATE -Wall -Wextra)

  # Into programs whose C++ runtime is in them, too.
  add_library(orv_plain_terminate OBJECT ${CMAKE_SOURCE_DIR}/cmake/plain-terminate.cpp)

  function(orv_link_archive package archive target)
    pkg_get_variable(directory ${package} libdir)
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
