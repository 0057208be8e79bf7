# ketra_add_plugin(NAME sources...): the plugin lib<NAME>.so. NAME contains "KetraPlugin", for the host
# loads no other file. The library exports its five entry points and nothing else, since the host
# opens plugins globally and equal symbols of two of them would merge; and it does not link while a
# symbol is missing, which the device would only tell at the first call.
function(ketra_add_plugin NAME)
  if(NOT NAME MATCHES "KetraPlugin")
    message(FATAL_ERROR "ketra_add_plugin: the name ${NAME} has to contain KetraPlugin, "
      "or the host will not load the library; call it KetraPlugin${NAME}, for instance")
  endif()
  set(exports ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/KetraPlugin.map)
  add_library(${NAME} MODULE ${ARGN})
  target_compile_features(${NAME} PRIVATE cxx_std_17)
  target_link_libraries(${NAME} PRIVATE Ketra::Plugins Ketra::Common)
  target_link_options(${NAME} PRIVATE
    -Wl,--no-undefined -Wl,--version-script=${exports})
  set_target_properties(${NAME} PROPERTIES
    PREFIX lib
    SUFFIX .so
    DEBUG_POSTFIX ""
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    LINK_DEPENDS ${exports})
endfunction()
