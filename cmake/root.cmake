# The agent's root directory: everything is installed below it, and everything that is installed expects it there. This is
# the one place that says where: cmake --preset release -DORV_ROOT=/usr/local/agent
#
# It is no CMAKE_INSTALL_PREFIX, since distributions' build systems set that one, to /usr for all packages.
set(ORV_DEFAULT_ROOT /opt/orvane) # what the files in the tree name
set(ORV_ROOT ${ORV_DEFAULT_ROOT} CACHE STRING "The agent's root directory on the machine that it is installed on")
cmake_path(NORMAL_PATH ORV_ROOT OUTPUT_VARIABLE ORV_ROOT)
string(REGEX REPLACE "(.)/$" "\\1" ORV_ROOT "${ORV_ROOT}")

# It ends up in shell scripts, units, XML and bus addresses, which all write other characters in a way of their own.
if(NOT ORV_ROOT MATCHES "^/[-A-Za-z0-9_./]*[-A-Za-z0-9_.]$")
  message(FATAL_ERROR "ORV_ROOT is '${ORV_ROOT}': it must be an absolute path of letters, digits and the characters -_./, "
    "and not the root of the file system")
endif()
if(NOT CMAKE_INSTALL_PREFIX STREQUAL ORV_ROOT AND NOT CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  message(STATUS "Installing below ${ORV_ROOT}, not ${CMAKE_INSTALL_PREFIX}: ORV_ROOT says where")
endif()
set(CMAKE_INSTALL_PREFIX ${ORV_ROOT} CACHE PATH "What ORV_ROOT is" FORCE)

# orv_configure_root(SOURCE FILE): a copy of a file that names the root, naming the one that is configured.
function(orv_configure_root source file)
  cmake_path(ABSOLUTE_PATH source)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
  file(READ ${source} text)
  string(REPLACE ${ORV_DEFAULT_ROOT} ${ORV_ROOT} text "${text}")
  file(WRITE ${file}.new "${text}")
  file(COPY_FILE ${file}.new ${file} ONLY_IF_DIFFERENT)
  file(REMOVE ${file}.new)
endfunction()
