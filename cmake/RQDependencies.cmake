# Every third-party library, found once. docs/dependencies.md says what each is for.

if(CMAKE_CROSSCOMPILING AND WIN32)
  include(RQDependenciesWindows)
  return()
endif()

find_package(Threads REQUIRED)

# Boost 1.81, not Debian's default 1.74.
find_package(Boost 1.81 REQUIRED COMPONENTS chrono thread)

# TinyXML has no CMake package; its users define TIXML_USE_STL as the library was built.
find_path(TINYXML_INCLUDE_DIR tinyxml.h REQUIRED)
find_library(TINYXML_LIBRARY tinyxml REQUIRED)
add_library(RQ::TinyXML UNKNOWN IMPORTED)
set_target_properties(RQ::TinyXML PROPERTIES
  IMPORTED_LOCATION "${TINYXML_LIBRARY}"
  INTERFACE_INCLUDE_DIRECTORIES "${TINYXML_INCLUDE_DIR}"
  INTERFACE_COMPILE_DEFINITIONS TIXML_USE_STL)

find_package(EXPAT 2.5 REQUIRED)
find_package(Protobuf 3.21 REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
add_library(RQ::Digest INTERFACE IMPORTED GLOBAL)
set_target_properties(RQ::Digest PROPERTIES INTERFACE_LINK_LIBRARIES OpenSSL::Crypto)
find_package(spdlog 1.10 REQUIRED)
find_package(fmt 9 REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(CLI11 2.1 REQUIRED)
find_package(GTest REQUIRED)

find_path(SIMPLEINI_INCLUDE_DIR SimpleIni.h PATH_SUFFIXES simpleini REQUIRED)
add_library(RQ::SimpleIni INTERFACE IMPORTED)
set_target_properties(RQ::SimpleIni PROPERTIES INTERFACE_INCLUDE_DIRECTORIES "${SIMPLEINI_INCLUDE_DIR}")

find_path(TOMLPLUSPLUS_INCLUDE_DIR toml++/toml.h REQUIRED)
add_library(RQ::Toml INTERFACE IMPORTED)
set_target_properties(RQ::Toml PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES "${TOMLPLUSPLUS_INCLUDE_DIR}" INTERFACE_COMPILE_DEFINITIONS TOML_EXCEPTIONS=0)

# For URLs in the transfer plug-in.
find_package(CURL 7.88 REQUIRED)
add_library(RQ::Curl INTERFACE IMPORTED GLOBAL)
set_target_properties(RQ::Curl PROPERTIES INTERFACE_LINK_LIBRARIES CURL::libcurl)

find_package(ZLIB REQUIRED)
add_library(RQ::Zlib INTERFACE IMPORTED)
set_target_properties(RQ::Zlib PROPERTIES INTERFACE_LINK_LIBRARIES ZLIB::ZLIB)

# elfutils, for the stacks in crash reports.
find_path(LIBDW_INCLUDE_DIR elfutils/libdwfl.h REQUIRED)
find_library(LIBDW_LIBRARY dw REQUIRED)
add_library(RQ::Dwfl UNKNOWN IMPORTED)
set_target_properties(RQ::Dwfl PROPERTIES
  IMPORTED_LOCATION "${LIBDW_LIBRARY}" INTERFACE_INCLUDE_DIRECTORIES "${LIBDW_INCLUDE_DIR}")

# FFmpeg, for the plug-ins that work on media. It has no CMake package.
find_package(PkgConfig REQUIRED)
pkg_check_modules(RQ_FFMPEG REQUIRED IMPORTED_TARGET
  libavformat>=59 libavcodec>=59 libavfilter>=8 libavutil>=57)
