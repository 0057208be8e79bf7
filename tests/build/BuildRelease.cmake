# cmake -DSOURCE=folder -P BuildRelease.cmake
# Builds what is shipped as script/sbom does, in the preset's own folder.
execute_process(COMMAND ${CMAKE_COMMAND} --preset release
  WORKING_DIRECTORY ${SOURCE} COMMAND_ERROR_IS_FATAL ANY)
execute_process(
  COMMAND ${CMAKE_COMMAND} --build --preset release
    --target KetraCommon KetraPlugins KetraTestKit ketra-host ketra
  WORKING_DIRECTORY ${SOURCE} COMMAND_ERROR_IS_FATAL ANY)
