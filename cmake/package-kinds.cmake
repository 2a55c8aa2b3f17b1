# Read by cpack for each kind of package: which components go into it.
if(CPACK_GENERATOR STREQUAL DEB)
  list(APPEND CPACK_COMPONENTS_ALL debian)
  set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
else()
  list(REMOVE_ITEM CPACK_COMPONENTS_ALL development)
  set(CPACK_COMPONENTS_GROUPING IGNORE)
endif()
