// Shared libraries. Paths are UTF-8. Libraries are never unloaded. Any thread.
#pragma once

#include <string>

#include "platform/os_error.h"

namespace rq::platform {

// Plain search order (LoadLibraryW on Windows, dlopen with RTLD_NOW | RTLD_LOCAL elsewhere). Null on failure.
// `path` is used as it stands when it has a separator. On Linux a library that needs another one beside it,
// in the current directory, finds it there: the missing names are loaded from the current directory first.
void* LoadPlainLibrary(const std::string& path, OsError* error = nullptr);

// Loads by name or path with the library's own folder searched first (LOAD_WITH_ALTERED_SEARCH_PATH on
// Windows; a bare name is looked for beside the executable first elsewhere).
void* LoadLibraryAltered(const std::string& path, OsError* error = nullptr);

// Null when the library does not export the name.
void* FindSymbol(void* library, const char* name);

// "CrashDump" -> "CrashDump.dll" on Windows, "libCrashDump.so" elsewhere.
std::string SharedLibraryFileName(const std::string& stem);

}  // namespace rq::platform
