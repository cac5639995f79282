# The stage: a runnable tree in build/<preset>/stage/, filled by each target as it is built.

set(RQ_STAGE "${PROJECT_BINARY_DIR}/stage")
file(MAKE_DIRECTORY "${RQ_STAGE}")

# Windows programs carry a manifest: as a resource, which Microsoft's linker makes by itself.
if(MINGW)
  add_library(rq_program_manifest OBJECT "${PROJECT_SOURCE_DIR}/cmake/windows/program.rc")
  set_source_files_properties("${PROJECT_SOURCE_DIR}/cmake/windows/program.rc" PROPERTIES
    OBJECT_DEPENDS "${PROJECT_SOURCE_DIR}/cmake/windows/program.manifest")
  set(rq_program_manifest "$<TARGET_OBJECTS:rq_program_manifest>")
elseif(WIN32)
  set(rq_program_manifest "${PROJECT_SOURCE_DIR}/cmake/windows/program.manifest")
endif()

# A program at the top of the stage.
function(rq_stage_program target)
  target_sources(${target} PRIVATE ${rq_program_manifest})
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${RQ_STAGE}")
endfunction()

# A shared library at the top of the stage.
function(rq_stage_library target)
  set_target_properties(${target} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY "${RQ_STAGE}" RUNTIME_OUTPUT_DIRECTORY "${RQ_STAGE}")
endfunction()

# A plug-in library in stage/plugins/<name>/, with a worker.uid beside it: the worker makes that folder its
# current directory, and a restart looks for the lock file there.
function(rq_stage_plugin target name)
  set_target_properties(${target} PROPERTIES
    PREFIX "" OUTPUT_NAME "${name}"
    LIBRARY_OUTPUT_DIRECTORY "${RQ_STAGE}/plugins/${name}"
    RUNTIME_OUTPUT_DIRECTORY "${RQ_STAGE}/plugins/${name}")
  rq_stage_file("${PROJECT_SOURCE_DIR}/data/worker.uid" "plugins/${name}/worker.uid")
endfunction()

# A data file, copied when it changes.
function(rq_stage_file from to)
  configure_file("${from}" "${RQ_STAGE}/${to}" COPYONLY)
endfunction()

# DLLs that a staged plug-in needs and that no system has, beside it.
function(rq_stage_plugin_libraries name)
  foreach(library IN LISTS ARGN)
    get_filename_component(file "${library}" NAME)
    rq_stage_file("${library}" "plugins/${name}/${file}")
  endforeach()
endfunction()
