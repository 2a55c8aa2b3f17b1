# By how much longer than usual tests wait for what they expect.
set(ORV_TEST_PATIENCE 1 CACHE STRING "Factor of the tests' time limits, for slow machines")

# So many seconds on a usual machine, here.
function(orv_patiently variable seconds)
  math(EXPR seconds "${seconds} * ${ORV_TEST_PATIENCE}")
  set(${variable} ${seconds} PARENT_SCOPE)
endfunction()
orv_patiently(a_minute 60)
orv_patiently(two_minutes 120)
orv_patiently(five_minutes 300)

# For folders of tests: what is shipped is optimised; what tests it would only take longer to build.
set(CMAKE_INTERPROCEDURAL_OPTIMIZATION_RELEASE OFF)
set(CMAKE_CXX_FLAGS_RELEASE "-O0 -DNDEBUG -U_FORTIFY_SOURCE")
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  add_link_options(-fno-lto)
endif()
# A sanitizer's report names the lines of what is tested, and the functions of what tests it.
if(ORV_SANITIZE AND NOT ORV_FUZZ)
  set(CMAKE_CXX_FLAGS_DEBUG "")
endif()
