add_library(orvutils_base STATIC
  daemon.cpp
  locking.cpp
  log.cpp
  root.cpp
  script.cpp
  standard_streams.cpp
  time.cpp)
target_compile_definitions(orvutils_base PRIVATE ORV_PROJECT_VERSION="${PROJECT_VERSION}")
target_link_libraries(orvutils_base PUBLIC orvutils_values)
set_source_files_properties(log.cpp PROPERTIES COMPILE_OPTIONS $<$<CONFIG:Release>:-O2>)
