# Toolchain: 64-bit Windows by Debian's mingw-w64 compilers, the variant with POSIX threads (std::thread, std::mutex).
# The libraries are those of scripts/setup-windows-prefix; RQ_WINDOWS_PREFIX may name another folder of the same form.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(RQ_WINDOWS_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${RQ_WINDOWS_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${RQ_WINDOWS_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${RQ_WINDOWS_TRIPLE}-windres)
set(CMAKE_AR ${RQ_WINDOWS_TRIPLE}-gcc-ar-posix CACHE FILEPATH "")
set(CMAKE_RANLIB ${RQ_WINDOWS_TRIPLE}-gcc-ranlib-posix CACHE FILEPATH "")

if(NOT RQ_WINDOWS_PREFIX)
  execute_process(
    COMMAND "${CMAKE_CURRENT_LIST_DIR}/../scripts/setup-windows-prefix" where
    OUTPUT_VARIABLE RQ_WINDOWS_ROOT OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(RQ_WINDOWS_PREFIX "${RQ_WINDOWS_ROOT}/prefix")
endif()
# Visible to the projects that try_compile makes, too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES RQ_WINDOWS_PREFIX)

# Built programs run in Wine.
get_filename_component(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-run" ABSOLUTE)

set(CMAKE_FIND_ROOT_PATH "${RQ_WINDOWS_PREFIX}" /usr/${RQ_WINDOWS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Windows 8 and later.
set(CMAKE_C_FLAGS_INIT "-D_WIN32_WINNT=0x0602 -DWINVER=0x0602")
set(CMAKE_CXX_FLAGS_INIT "-D_WIN32_WINNT=0x0602 -DWINVER=0x0602")
