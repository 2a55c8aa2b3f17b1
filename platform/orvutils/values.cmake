add_library(orvutils_values STATIC
  connection_buffer.cpp
  error_state.cpp
  io.cpp
  json.cpp
  log_format.cpp
  path.cpp
  sockutl.cpp)
target_link_libraries(orvutils_values PUBLIC orv_platform_headers)
# On the way of every request: built for speed.
target_compile_options(orvutils_values PRIVATE $<$<CONFIG:Release>:-O2>)
