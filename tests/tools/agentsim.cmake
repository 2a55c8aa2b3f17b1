# The simulated agent: the real program on a real bus.
add_executable(orvagentsim_test
  agentsim_test.cpp
  ${PROJECT_SOURCE_DIR}/tests/platform/exchange_support.cpp)
target_include_directories(orvagentsim_test PRIVATE ${PROJECT_SOURCE_DIR}/tests/platform)
target_compile_definitions(orvagentsim_test PRIVATE
  ORVEXCHANGED="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/orvexchanged"
  ORVAGENTSIM="$<TARGET_FILE:orvagentsim>")
target_link_libraries(orvagentsim_test PRIVATE
  orvdevmgmt orvexchange orvutils PkgConfig::dbus GTest::gtest_main)
add_dependencies(orvagentsim_test orvagentsim)
gtest_discover_tests(orvagentsim_test PROPERTIES TIMEOUT 120)
