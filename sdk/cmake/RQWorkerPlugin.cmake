# rq_add_plugin(<name> <source>...): the plug-in library plugins/<name>/<name>.so (.dll on Windows) of the build folder, in the
# form that a worker loads: that name without a prefix, nothing exported but the contract's functions, nothing left unresolved,
# and on Windows no DLL of the compiler's. Beside it stands the worker.uid that a worker wants in a plug-in's folder: the
# folder as it is goes below plugins/ of a stage. <name> is an ordinary target: target_link_libraries and the like work.
function(rq_add_plugin name)
  if(NOT ARGN)
    message(FATAL_ERROR "rq_add_plugin(${name}): give the source files")
  endif()
  set(folder "${CMAKE_BINARY_DIR}/plugins/${name}")
  add_library(${name} MODULE ${ARGN})
  target_link_libraries(${name} PRIVATE RQWorker::SDK)
  set_target_properties(${name} PROPERTIES
    PREFIX "" OUTPUT_NAME "${name}" DEBUG_POSTFIX ""
    C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
    BUILD_RPATH_USE_ORIGIN ON INSTALL_RPATH "$ORIGIN")
  # Generators with several configurations would add a folder for each; $<1:> keeps them from it.
  set_target_properties(${name} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY "$<1:${folder}>" RUNTIME_OUTPUT_DIRECTORY "$<1:${folder}>")
  get_property(languages GLOBAL PROPERTY ENABLED_LANGUAGES)
  if("CXX" IN_LIST languages)
    target_compile_features(${name} PRIVATE cxx_std_17)
  endif()
  if(MSVC)
    target_compile_options(${name} PRIVATE /utf-8)
  elseif(MINGW)
    target_link_options(${name} PRIVATE -static)
  elseif(UNIX AND NOT APPLE)
    target_link_options(${name} PRIVATE "LINKER:--version-script=${RQWorkerSDK_FOLDER}/plugin_exports.map")
    if(NOT "${CMAKE_C_FLAGS} ${CMAKE_CXX_FLAGS}" MATCHES "-fsanitize")  # a sanitizer's symbols come with the program
      target_link_options(${name} PRIVATE LINKER:-z,defs)
    endif()
  endif()
  configure_file("${RQWorkerSDK_DATA}/worker.uid" "${folder}/worker.uid" COPYONLY)
endfunction()

# rq_check_plugin(<name> TASK <file> [TYPE <number>] [TASKS <number>] [TIME <seconds>]): the ctest test <name>.check, which drives
# the plug-in with rqplugin-check. TASK is a file with a task text that succeeds each time it is performed, and soon. Without
# an rqplugin-check for the system that is built for there is no test, and a line says so.
function(rq_check_plugin name)
  cmake_parse_arguments(CHECK "" "TASK;TYPE;TASKS;TIME" "" ${ARGN})
  if(NOT CHECK_TASK OR CHECK_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "rq_check_plugin(${name}): give TASK <file> [TYPE <number>] [TASKS <number>] [TIME <seconds>]")
  endif()
  if(NOT TARGET RQWorker::plugin-check)
    message(STATUS "${name}.check is left out: this SDK has no rqplugin-check for ${CMAKE_SYSTEM_NAME}")
    return()
  endif()
  get_filename_component(task "${CHECK_TASK}" ABSOLUTE)
  set(options --task "${task}")
  foreach(option TYPE TASKS TIME)
    if(DEFINED CHECK_${option})
      string(TOLOWER "--${option}" word)
      list(APPEND options ${word} "${CHECK_${option}}")
    endif()
  endforeach()
  set(emulator)
  if(CMAKE_CROSSCOMPILING)
    set(emulator ${CMAKE_CROSSCOMPILING_EMULATOR})
  endif()
  add_test(NAME ${name}.check
    COMMAND ${emulator} "$<TARGET_FILE:RQWorker::plugin-check>" "$<TARGET_FILE:${name}>" ${options})
endfunction()
