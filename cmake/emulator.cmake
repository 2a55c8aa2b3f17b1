# Tests of what is built for another machine run here by an emulator of its processor, ORV_EMULATOR, which
# passes system calls on to the kernel. Each program that is linked gets a script in its place that starts it
# so: whoever runs it, tests, CTest or other programs, need not know.
foreach(language C CXX)
  list(APPEND CMAKE_${language}_LINK_EXECUTABLE
    "\"${PROJECT_SOURCE_DIR}/cmake/cross/put-behind-emulator\" ${ORV_EMULATOR} <TARGET>")
endforeach()

# The emulator has no robust mutexes, and without them no store is opened: here, and only here, they are asked
# for in vain. What is linked to LMDB gets the object that does so, too.
add_library(orv_plain_mutexes STATIC ${PROJECT_SOURCE_DIR}/cmake/cross/plain-mutexes.c)
set_property(TARGET PkgConfig::lmdb APPEND PROPERTY INTERFACE_LINK_OPTIONS LINKER:--wrap=pthread_mutexattr_setrobust)
set_property(TARGET PkgConfig::lmdb APPEND PROPERTY INTERFACE_LINK_LIBRARIES orv_plain_mutexes)
