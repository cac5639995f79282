# The same targets as RQDependencies.cmake, from the folder that scripts/setup-windows-prefix fills. Tools (protoc, Python,
# ffmpeg for the tests) are this machine's own.

get_filename_component(root "${RQ_WINDOWS_PREFIX}" DIRECTORY)
if(NOT EXISTS "${root}/libraries.ready")
  message(FATAL_ERROR "The libraries for Windows are not built: run scripts/setup windows")
endif()
# Configured anew when the recipe changes or the FFmpeg libraries come.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
  "${root}" "${PROJECT_SOURCE_DIR}/scripts/windows/sources.txt" "${PROJECT_SOURCE_DIR}/scripts/windows/prefix-step"
  "${PROJECT_SOURCE_DIR}/scripts/windows/prefix.mk")

find_package(Threads REQUIRED)

# rq_imported(<target> <library> [DEFINITIONS ...] [LINK ...]): lib<library>.a of the prefix.
function(rq_imported target library)
  cmake_parse_arguments(I "" "" "DEFINITIONS;LINK" ${ARGN})
  add_library(${target} STATIC IMPORTED GLOBAL)
  set_target_properties(${target} PROPERTIES
    IMPORTED_LOCATION "${RQ_WINDOWS_PREFIX}/lib/lib${library}.a"
    INTERFACE_INCLUDE_DIRECTORIES "${RQ_WINDOWS_PREFIX}/include"
    INTERFACE_COMPILE_DEFINITIONS "${I_DEFINITIONS}"
    INTERFACE_LINK_LIBRARIES "${I_LINK}")
endfunction()

# rq_imported_headers(<target> <folder>)
function(rq_imported_headers target folder)
  add_library(${target} INTERFACE IMPORTED GLOBAL)
  set_target_properties(${target} PROPERTIES INTERFACE_INCLUDE_DIRECTORIES "${folder}")
endfunction()

rq_imported_headers(Boost::headers "${RQ_WINDOWS_PREFIX}/include")
rq_imported(Boost::chrono boost_chrono LINK Boost::headers
  DEFINITIONS BOOST_ALL_NO_LIB BOOST_CHRONO_STATIC_LINK)
rq_imported(Boost::thread boost_thread LINK Boost::chrono Threads::Threads
  DEFINITIONS BOOST_ALL_NO_LIB BOOST_THREAD_USE_LIB)
rq_imported(RQ::TinyXML tinyxml DEFINITIONS TIXML_USE_STL)
rq_imported(EXPAT::EXPAT expat DEFINITIONS XML_STATIC)
rq_imported(SQLite::SQLite3 sqlite3)
rq_imported(protobuf::libprotobuf-lite protobuf-lite LINK Threads::Threads)
rq_imported_headers(nlohmann_json::nlohmann_json "${RQ_WINDOWS_PREFIX}/include")
rq_imported_headers(CLI11::CLI11 "${RQ_WINDOWS_PREFIX}/include")
rq_imported_headers(RQ::SimpleIni "${RQ_WINDOWS_PREFIX}/include")

# toml++ is headers alone, those of the native package: copied, since nothing else of that folder may be seen here.
if(NOT EXISTS /usr/include/toml++/toml.h)
  message(FATAL_ERROR "toml++ is missing: run scripts/setup windows")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS /usr/include/toml++/toml.h)
file(COPY /usr/include/toml++ DESTINATION "${PROJECT_BINARY_DIR}/native_headers")
rq_imported_headers(RQ::Toml "${PROJECT_BINARY_DIR}/native_headers")
set_target_properties(RQ::Toml PROPERTIES INTERFACE_COMPILE_DEFINITIONS TOML_EXCEPTIONS=0)

# Debian has zlib for Windows ready-made; only the static library, and nothing else of its folder.
set(zlib_root /usr/x86_64-w64-mingw32)
if(NOT EXISTS "${zlib_root}/lib/libz.a")
  message(FATAL_ERROR "zlib for Windows is missing: run scripts/setup windows")
endif()
file(COPY "${zlib_root}/include/zlib.h" "${zlib_root}/include/zconf.h"
  DESTINATION "${PROJECT_BINARY_DIR}/native_headers")
add_library(RQ::Zlib STATIC IMPORTED GLOBAL)
set_target_properties(RQ::Zlib PROPERTIES
  IMPORTED_LOCATION "${zlib_root}/lib/libz.a" INTERFACE_INCLUDE_DIRECTORIES "${PROJECT_BINARY_DIR}/native_headers")

# For URLs in the transfer plug-in. The library has libssh2 and mbed TLS inside; TLS is Windows' own.
rq_imported(RQ::Curl curl DEFINITIONS CURL_STATICLIB LINK ws2_32 crypt32 advapi32 bcrypt)

# Digests are Windows' own.
add_library(RQ::Digest INTERFACE IMPORTED GLOBAL)
set_target_properties(RQ::Digest PROPERTIES INTERFACE_LINK_LIBRARIES bcrypt)

find_program(RQ_PROTOC protoc REQUIRED)
add_executable(protobuf::protoc IMPORTED GLOBAL)
set_target_properties(protobuf::protoc PROPERTIES IMPORTED_LOCATION "${RQ_PROTOC}")

# These have CMake packages. Where one was found before does not matter: the prefix may have changed.
foreach(package fmt spdlog GTest)
  unset(${package}_DIR CACHE)
  find_package(${package} CONFIG REQUIRED PATHS "${RQ_WINDOWS_PREFIX}" NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
endforeach()

# FFmpeg, when it is there. RQ_FFMPEG_DLLS are staged beside the plug-in that needs them.
if(EXISTS "${root}/media.ready")
  add_library(PkgConfig::RQ_FFMPEG INTERFACE IMPORTED GLOBAL)
  set_target_properties(PkgConfig::RQ_FFMPEG PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${root}/media/include"
    INTERFACE_LINK_LIBRARIES
      "${root}/media/lib/libavformat.dll.a;${root}/media/lib/libavcodec.dll.a;${root}/media/lib/libavfilter.dll.a;${root}/media/lib/libavutil.dll.a")
  file(GLOB RQ_FFMPEG_DLLS "${root}/media/bin/*.dll")
  list(FILTER RQ_FFMPEG_DLLS EXCLUDE REGEX "/avdevice-")
  # The same DLLs, and the commands ffmpeg and ffprobe, for tests.
  set(RQ_FFMPEG_FOLDER "${root}/media/bin")
else()
  message(STATUS "No FFmpeg for Windows: the transcode plug-in and its tests are left out (scripts/setup windows-media)")
endif()
