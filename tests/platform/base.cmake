# The platform's base: logging, daemon framework, timers, locks, scripts, addresses, connection buffer.
add_executable(base_probe base_probe.cpp)
target_link_libraries(base_probe PRIVATE orvutils_base)

add_executable(platform_base_tests
  base_buffer_test.cpp
  base_daemon_test.cpp
  base_io_test.cpp
  base_locking_test.cpp
  base_log_test.cpp
  base_root_test.cpp
  base_script_test.cpp
  base_support.cpp
  base_values_test.cpp)
target_include_directories(platform_base_tests PRIVATE ${CMAKE_SOURCE_DIR}/platform/orvutils/base)
target_compile_definitions(platform_base_tests PRIVATE BASE_PROBE="$<TARGET_FILE:base_probe>")
target_link_libraries(platform_base_tests PRIVATE orvutils_base GTest::gtest_main)
# Defined a second time instead, a function would clash with that of a C library that is linked statically.
target_link_options(platform_base_tests PRIVATE
  LINKER:--wrap=realloc LINKER:--wrap=syslog LINKER:--wrap=__syslog_chk)
add_dependencies(platform_base_tests base_probe)
gtest_discover_tests(platform_base_tests PROPERTIES TIMEOUT 60)
