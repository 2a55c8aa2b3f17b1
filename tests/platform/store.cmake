# The settings store and what lives in it.
add_executable(platform_store_tests
  base_support.cpp
  store_agent_test.cpp
  store_check_test.cpp
  store_failure_test.cpp
  store_journal_test.cpp
  store_lock_test.cpp
  store_monitor_test.cpp
  store_settings_test.cpp
  store_support.cpp)
target_include_directories(platform_store_tests PRIVATE
  ${PROJECT_SOURCE_DIR}/platform/orvstore ${PROJECT_SOURCE_DIR}/platform/orvutils/store)
target_compile_definitions(platform_store_tests PRIVATE BASE_PROBE="")
target_link_libraries(platform_store_tests PRIVATE orvutils GTest::gtest_main)
gtest_discover_tests(platform_store_tests DISCOVERY_TIMEOUT 30 PROPERTIES TIMEOUT 120)
