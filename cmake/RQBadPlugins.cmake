# The plug-ins under tests/bad_plugins: real libraries that keep or break the contract on purpose. Never staged.

set(RQ_BAD_PLUGIN_DIR "${PROJECT_BINARY_DIR}/tests/bad_plugins")

# rq_bad_plugin(<name> <source>...): the library RQ_BAD_PLUGIN_DIR/<name>/<name>.so (.dll on Windows).
function(rq_bad_plugin name)
  add_library(bad_${name} MODULE ${ARGN})
  set_target_properties(bad_${name} PROPERTIES
    PREFIX "" OUTPUT_NAME "${name}"
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
    LIBRARY_OUTPUT_DIRECTORY "${RQ_BAD_PLUGIN_DIR}/${name}")
  target_link_libraries(bad_${name} PRIVATE rq_warnings rq_sdk)
  set_property(GLOBAL APPEND PROPERTY RQ_BAD_PLUGIN_TARGETS bad_${name})
endfunction()

# rq_use_bad_plugins(<target>): <target> is built after all of them and may include "bad_plugins/bad_plugins.h".
function(rq_use_bad_plugins target)
  target_compile_definitions(${target} PRIVATE
    "RQ_BAD_PLUGIN_DIR=\"${RQ_PATH_ROOT}${RQ_BAD_PLUGIN_DIR}\""
    "RQ_BAD_PLUGIN_SUFFIX=\"${CMAKE_SHARED_MODULE_SUFFIX}\"")
  rq_include_root(${target} PRIVATE bad_plugins "${PROJECT_SOURCE_DIR}/tests/bad_plugins")
  add_dependencies(${target} bad_plugins)
endfunction()
