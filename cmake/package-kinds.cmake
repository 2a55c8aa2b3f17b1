# Read by cpack for each kind of package: which components go into it.
if(CPACK_GENERATOR STREQUAL DEB)
  set(CPACK_COMPONENTS_ALL runtime tools development debian)
  set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
else()
  set(CPACK_COMPONENTS_ALL runtime tools)
  set(CPACK_COMPONENTS_GROUPING IGNORE)
endif()
