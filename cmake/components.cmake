# What is installed, in components: "runtime" is all that a router needs, "tools" what its administrator is glad of, and
# "development" what only a developer's machine has, the simulated agent among it.
#
# Installing builds what it installs first, so that it does not matter what was built before.
set(ORV_COMPONENTS runtime tools development)
if(NOT ORV_BUILD_TOOLS)
  set(ORV_COMPONENTS runtime development)
endif()
foreach(component IN LISTS ORV_COMPONENTS)
  add_custom_target(component_${component})
  install(CODE "
    file(LOCK \"${CMAKE_BINARY_DIR}/install.lock\" GUARD PROCESS) # two at a time would build over each other
    execute_process(
      COMMAND \"${CMAKE_COMMAND}\" --build \"${CMAKE_BINARY_DIR}\" --config \"\${CMAKE_INSTALL_CONFIG_NAME}\"
        --target component_${component}
      OUTPUT_VARIABLE told ERROR_VARIABLE told RESULT_VARIABLE status)
    file(LOCK \"${CMAKE_BINARY_DIR}/install.lock\" RELEASE)
    if(NOT status EQUAL 0)
      message(FATAL_ERROR \"cannot build what is to be installed:\\n\${told}\")
    endif()" COMPONENT ${component})
endforeach()
add_dependencies(component_runtime orvbrokerd)
add_dependencies(component_development orvbroker_client)
if(ORV_BUILD_TOOLS)
  add_dependencies(component_tools orvctl)
  add_dependencies(component_development orvagentsim)
endif()

# Who installs below another directory gets files that speak of the one that was configured: fine for a look, or for a
# package that is put together somewhere (DESTDIR does that, too), but not to run.
install(CODE "
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL \"${ORV_ROOT}\")
    message(STATUS \"The files are for ${ORV_ROOT}: configure with -DORV_ROOT=\${CMAKE_INSTALL_PREFIX} to run them from there\")
  endif()" COMPONENT runtime)
