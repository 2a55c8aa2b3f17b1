# The device store: its reader's and its writer's side.
add_executable(platform_devmgmt_tests
  base_support.cpp
  devmgmt_changes_test.cpp
  devmgmt_json_test.cpp
  devmgmt_store_test.cpp
  devmgmt_support.cpp)
target_include_directories(platform_devmgmt_tests PRIVATE ${CMAKE_SOURCE_DIR}/platform/orvdevmgmt)
target_compile_definitions(platform_devmgmt_tests PRIVATE BASE_PROBE="")
target_link_libraries(platform_devmgmt_tests PRIVATE orvdevmgmt GTest::gtest_main)
gtest_discover_tests(platform_devmgmt_tests DISCOVERY_TIMEOUT 30 PROPERTIES TIMEOUT 120)
