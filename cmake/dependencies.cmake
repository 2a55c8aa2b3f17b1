# The libraries that the project is built on, as imported targets.
find_package(PkgConfig REQUIRED)
pkg_check_modules(jansson REQUIRED IMPORTED_TARGET GLOBAL jansson)
pkg_check_modules(lmdb REQUIRED IMPORTED_TARGET GLOBAL lmdb)
pkg_check_modules(dbus REQUIRED IMPORTED_TARGET GLOBAL dbus-1)
find_package(fmt REQUIRED)
if(ORV_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()
