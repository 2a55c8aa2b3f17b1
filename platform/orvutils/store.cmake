add_library(orvutils_store STATIC
  featureutl.cpp
  journal.cpp
  key_lock.cpp
  leases.cpp
  lmdb_check.cpp
  lmdb_environment.cpp
  monitored_key.cpp
  notify.cpp
  setmgmt.cpp
  settings_key.cpp
  subs.cpp
  version.cpp)
target_link_libraries(orvutils_store PUBLIC orvutils_base orvutils_values PRIVATE PkgConfig::lmdb)
set_source_files_properties(setmgmt.cpp settings_key.cpp lmdb_environment.cpp monitored_key.cpp PROPERTIES
  COMPILE_OPTIONS $<$<CONFIG:Release>:-O2>)
