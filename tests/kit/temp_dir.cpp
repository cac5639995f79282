#include "kit/temp_dir.h"

#include <fstream>
#include <stdexcept>
#include <vector>

#include "base/paths.h"
#include "platform/environment.h"
#include "platform/identity.h"

namespace rq::kit {

namespace {

void Apply(const std::string& name, const std::optional<std::string>& value) {
    if (value) {
        platform::SetEnvironment(name.c_str(), *value);
    } else {
        platform::UnsetEnvironment(name.c_str());
    }
}

// What can be removed. One try for each: on Windows a file that this process still has open (its log) goes
// with its last handle, and the folders that it is in stay.
void RemoveTree(const std::filesystem::path& folder) {
    std::error_code ignored;
    std::vector<std::filesystem::directory_entry> entries;
    for (std::filesystem::directory_iterator at(folder, ignored), end; !ignored && at != end;
         at.increment(ignored))
        entries.push_back(*at);
    for (const auto& entry : entries) {
        if (entry.symlink_status(ignored).type() == std::filesystem::file_type::directory) {
            RemoveTree(entry.path());
        } else {
            std::filesystem::remove(entry.path(), ignored);
        }
    }
    std::filesystem::remove(folder, ignored);
}

}  // namespace

TempDir::TempDir()
    : m_path(std::filesystem::temp_directory_path() /
             PathFromUtf8("rqworker 测试 " + platform::RandomHex(6))) {
    std::filesystem::create_directories(m_path);
}

TempDir::~TempDir() {
    RemoveTree(m_path);
}

std::string TempDir::Utf8(std::string_view name) const {
    return Utf8FromPath(name.empty() ? m_path : m_path / PathFromUtf8(name));
}

std::filesystem::path TempDir::Write(std::string_view name, std::string_view bytes) const {
    const auto path = m_path / PathFromUtf8(name);
    std::filesystem::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.flush();
    if (!file) throw std::runtime_error("cannot write " + Utf8FromPath(path));
    return path;
}

ScopedEnvironment::ScopedEnvironment(const char* name, std::optional<std::string> value)
    : m_name(name), m_before(platform::GetEnvironment(name)) {
    Apply(m_name, value);
}

ScopedEnvironment::~ScopedEnvironment() {
    Apply(m_name, m_before);
}

ScopedDirectory::ScopedDirectory(const std::filesystem::path& path)
    : m_before(std::filesystem::current_path()) {
    std::filesystem::current_path(path);
}

ScopedDirectory::~ScopedDirectory() {
    std::error_code ignored;
    std::filesystem::current_path(m_before, ignored);
}

}  // namespace rq::kit
