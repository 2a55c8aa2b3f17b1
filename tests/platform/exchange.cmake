# The exchange: the library against participants written with bare libdbus, and the script that serves the bus.
add_executable(platform_exchange_tests
  exchange_away_test.cpp
  exchange_event_test.cpp
  exchange_publisher_test.cpp
  exchange_request_test.cpp
  exchange_script_test.cpp
  exchange_support.cpp
  exchange_tables_test.cpp)
target_include_directories(platform_exchange_tests PRIVATE ${PROJECT_SOURCE_DIR}/platform/orvexchange)
target_compile_definitions(platform_exchange_tests PRIVATE
  ORVEXCHANGED="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/orvexchanged"
  INSTALLED_CONFIGURATION="${PROJECT_SOURCE_DIR}/packaging/etc/exchange.conf")
target_link_libraries(platform_exchange_tests PRIVATE
  orvexchange orvutils PkgConfig::dbus GTest::gtest_main)
gtest_discover_tests(platform_exchange_tests PROPERTIES TIMEOUT 120)
