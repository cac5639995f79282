# Language, warnings, sanitizers, and rq_room(): one static library for each folder under src/.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET default)

set(RQ_SANITIZE "" CACHE STRING "Value for -fsanitize=, empty for none")

find_program(RQ_CCACHE ccache)
if(RQ_CCACHE)
  set(CMAKE_C_COMPILER_LAUNCHER "${RQ_CCACHE}")
  set(CMAKE_CXX_COMPILER_LAUNCHER "${RQ_CCACHE}")
endif()

# Optimised with debug information; asserts stay on, since a broken invariant must not pass silently.
if(MSVC)
  set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "/O2 /Zi")
  set(CMAKE_C_FLAGS_RELWITHDEBINFO "/O2 /Zi")
else()
  set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g1")
  set(CMAKE_C_FLAGS_RELWITHDEBINFO "-O2 -g1")
endif()

if(RQ_SANITIZE)
  add_compile_options(-fsanitize=${RQ_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${RQ_SANITIZE})
  if(RQ_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
  add_compile_definitions(RQ_SANITIZED=1)
  if(RQ_SANITIZE MATCHES "address")
    # Boost.Context-free builds only: nothing here switches stacks.
    set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O1 -g1")
  endif()
endif()

# Where the programs that are built see the file system's root: Wine shows it as a drive. For paths compiled into tests.
set(RQ_PATH_ROOT "")
if(CMAKE_CROSSCOMPILING AND WIN32)
  set(RQ_PATH_ROOT "Z:")
endif()

# Ends the names of the sources that differ by platform: x_${RQ_PLATFORM}.cpp.
if(WIN32)
  set(RQ_PLATFORM win)
else()
  set(RQ_PLATFORM posix)
endif()

if(WIN32)
  # NOUSER: the system's header would make SendMessage a macro.
  add_compile_definitions(UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN NOUSER)
endif()
if(MSVC)
  # Untested. Windows 8 and later, as in the toolchain file of mingw-w64.
  add_compile_definitions(_WIN32_WINNT=0x0602 WINVER=0x0602)
  add_compile_options(/utf-8 /permissive- "$<$<COMPILE_LANGUAGE:CXX>:/EHsc;/Zc:__cplusplus>")
endif()
if(MINGW)
  # Programs and libraries need no DLL of the compiler's, and libraries are called what they are asked for by.
  add_link_options(-static)
  set(CMAKE_SHARED_LIBRARY_PREFIX "")
  set(CMAKE_SHARED_MODULE_PREFIX "")
endif()

# rq_wide_main(<target>...): these programs have wmain instead of main when built for Windows.
function(rq_wide_main)
  if(MINGW)
    foreach(target IN LISTS ARGN)
      target_link_options(${target} PRIVATE -municode)
    endforeach()
  endif()
endfunction()

add_library(rq_warnings INTERFACE)
if(MSVC)
  target_compile_options(rq_warnings INTERFACE /W4)
else()
  target_compile_options(rq_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Werror
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Wthread-safety-beta>)
endif()

# rq_include_root(<target> <scope> <room> <folder>): lets <target> and whoever links it write
# #include "<room>/file.h". Each room has an include root of its own, so that an include of a room that a
# target does not link fails to compile.
function(rq_include_root target scope room folder)
  set(root "${PROJECT_BINARY_DIR}/include_roots/${room}")
  file(MAKE_DIRECTORY "${root}")
  if(NOT EXISTS "${root}/${room}")
    file(CREATE_LINK "${folder}" "${root}/${room}" COPY_ON_ERROR SYMBOLIC)
  endif()
  target_include_directories(${target} ${scope} "${root}")
endfunction()

# rq_room(<name> SOURCES ... [USES room...] [LIBRARIES lib...])
# A room may use only the rooms named in USES; everything is linked PRIVATE.
function(rq_room name)
  cmake_parse_arguments(ROOM "" "" "SOURCES;USES;LIBRARIES" ${ARGN})
  add_library(rq_${name} STATIC ${ROOM_SOURCES})
  rq_include_root(rq_${name} PUBLIC ${name} "${CMAKE_CURRENT_SOURCE_DIR}")
  target_link_libraries(rq_${name} PRIVATE rq_warnings)
  foreach(used IN LISTS ROOM_USES)
    target_link_libraries(rq_${name} PRIVATE rq_${used})
  endforeach()
  target_link_libraries(rq_${name} PRIVATE ${ROOM_LIBRARIES})
endfunction()

# rq_test(<name> SOURCES ... [USES room...] [LIBRARIES lib...] [LABELS ...] [SERIAL] [COST n] [WINE_PATH folder])
# A GoogleTest program; each of its tests becomes one of ctest's. SERIAL keeps it from running beside others. Those of the
# highest COST begin first. WINE_PATH is where, in Wine, it finds DLLs and programs. Programs with the label "threads" make up
# the target rq_threads, which ./test builds and runs alone under the data-race checker.
include(GoogleTest)
add_custom_target(rq_threads)
function(rq_test name)
  cmake_parse_arguments(T "SERIAL" "COST;TIMEOUT;WINE_PATH" "SOURCES;USES;LIBRARIES;LABELS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE rq_warnings GTest::gmock GTest::gtest_main ${T_LIBRARIES})
  foreach(used IN LISTS T_USES)
    target_link_libraries(${name} PRIVATE rq_${used})
  endforeach()
  if(RQ_PATH_ROOT AND T_WINE_PATH)
    set_target_properties(${name} PROPERTIES
      CROSSCOMPILING_EMULATOR "env;WINEPATH=${RQ_PATH_ROOT}${T_WINE_PATH};${CMAKE_CROSSCOMPILING_EMULATOR}")
  endif()
  if("threads" IN_LIST T_LABELS)
    add_dependencies(rq_threads ${name})
  endif()
  set(props)
  if(T_LABELS)
    list(APPEND props LABELS "${T_LABELS}")
  endif()
  if(T_SERIAL)
    list(APPEND props RUN_SERIAL TRUE)
  endif()
  if(T_COST)
    list(APPEND props COST ${T_COST})
  endif()
  if(T_TIMEOUT)
    list(APPEND props TIMEOUT ${T_TIMEOUT})
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 120 PROPERTIES ${props})
endfunction()
