// The dynamic linker never looks into the current directory or beside a library by itself, and its search
// path is fixed when the process starts. So when a library does not load, what it asks for (its DT_NEEDED
// names) is loaded before it: the linker takes a library that is already there under the same DT_SONAME. A
// needed library without a DT_SONAME cannot be found this way.
#include "platform/library.h"

#include <dlfcn.h>
#include <unistd.h>

#include "platform/files.h"
#include "platform/needed_libraries.h"

namespace rq::platform {

namespace {

constexpr int kFlags = RTLD_NOW | RTLD_LOCAL;
constexpr int kDeepest = 32;  // libraries that need libraries; a circle ends here

bool HasSeparator(const std::string& path) {
    return path.find('/') != std::string::npos;
}

bool Exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

// Of a library for another machine the linker says that there is no such file.
void TakeError(const std::string& path, OsError* error) {
    const char* text = ::dlerror();
    if (error == nullptr) return;
    error->code = 0;
    error->message = std::string("dlopen ") + (text != nullptr ? text : "failed");
    if (error->message.starts_with("dlopen " + path + ": cannot open") && ::access(path.c_str(), R_OK) == 0)
        error->message += " (it is there and can be read: it was built for another kind of machine)";
}

std::string FolderWithSlash(const std::string& path) {
    return path.substr(0, path.rfind('/') + 1);
}

enum class FolderTurn { BeforeSystem, AfterSystem };

void* LoadWithFolder(const std::string& path, const std::string& folder, FolderTurn turn, int depth,
                     OsError* error);

// True when one more of the needed libraries is there than before.
bool LoadNeeded(const std::string& path, const std::string& folder, FolderTurn turn, int depth,
                OsError* error) {
    bool any = false;
    for (const std::string& name : NeededLibraries(path)) {
        if (HasSeparator(name)) continue;
        if (::dlopen(name.c_str(), kFlags | RTLD_NOLOAD) != nullptr) continue;
        if (turn == FolderTurn::AfterSystem && ::dlopen(name.c_str(), kFlags) != nullptr) continue;
        if (!Exists(folder + name)) continue;
        if (LoadWithFolder(folder + name, folder, turn, depth + 1, error) != nullptr) any = true;
    }
    return any;
}

void* LoadWithFolder(const std::string& path, const std::string& folder, FolderTurn turn, int depth,
                     OsError* error) {
    if (depth > kDeepest) return nullptr;
    if (turn == FolderTurn::BeforeSystem) LoadNeeded(path, folder, turn, depth, nullptr);
    void* library = ::dlopen(path.c_str(), kFlags);
    if (library != nullptr) return library;
    TakeError(path, error);
    OsError inner;
    if (turn == FolderTurn::BeforeSystem) return nullptr;
    if (!LoadNeeded(path, folder, turn, depth, &inner)) {
        // The needed library that is there but does not load says more than "not found".
        if (error != nullptr && !inner.message.empty()) *error = inner;
        return nullptr;
    }
    library = ::dlopen(path.c_str(), kFlags);
    if (library == nullptr) TakeError(path, error);
    return library;
}

std::string BesideExecutable(const std::string& name) {
    return FolderWithSlash(ModuleFileName()) + name;
}

}  // namespace

void* LoadPlainLibrary(const std::string& path, OsError* error) {
    if (HasSeparator(path)) return LoadWithFolder(path, "./", FolderTurn::AfterSystem, 0, error);
    if (const auto beside = BesideExecutable(path); Exists(beside)) {
        return LoadWithFolder(beside, "./", FolderTurn::AfterSystem, 0, error);
    }
    if (void* library = ::dlopen(path.c_str(), kFlags); library != nullptr) return library;
    TakeError(path, error);
    if (!Exists("./" + path)) return nullptr;
    return LoadWithFolder("./" + path, "./", FolderTurn::AfterSystem, 0, error);
}

void* LoadLibraryAltered(const std::string& path, OsError* error) {
    std::string where = path;
    if (!HasSeparator(path)) {
        if (const auto beside = BesideExecutable(path); Exists(beside)) where = beside;
    }
    if (HasSeparator(where))
        return LoadWithFolder(where, FolderWithSlash(where), FolderTurn::BeforeSystem, 0, error);
    void* library = ::dlopen(where.c_str(), kFlags);
    if (library == nullptr) TakeError(where, error);
    return library;
}

void* FindSymbol(void* library, const char* name) {
    return library == nullptr ? nullptr : ::dlsym(library, name);
}

std::string SharedLibraryFileName(const std::string& stem) {
    return "lib" + stem + ".so";
}

}  // namespace rq::platform
