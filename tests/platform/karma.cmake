# Telemetry: the library on the real outbox, with an exchange that the tests play.
add_executable(platform_karma_tests base_support.cpp karma_test.cpp)
target_compile_definitions(platform_karma_tests PRIVATE BASE_PROBE="")
target_link_libraries(platform_karma_tests PRIVATE orvkarma GTest::gtest_main)
gtest_discover_tests(platform_karma_tests DISCOVERY_TIMEOUT 30 PROPERTIES TIMEOUT 120)
