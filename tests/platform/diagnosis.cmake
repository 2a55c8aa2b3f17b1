# The diagnosis records: true values from the stores and the machine, null where there is none.
add_executable(platform_diagnosis_tests
  base_support.cpp
  diagnosis_test.cpp
  store_support.cpp)
target_compile_definitions(platform_diagnosis_tests PRIVATE BASE_PROBE="")
target_link_libraries(platform_diagnosis_tests PRIVATE orvdiagnosis orvdevmgmt orvutils GTest::gtest_main)
gtest_discover_tests(platform_diagnosis_tests PROPERTIES TIMEOUT 60)
