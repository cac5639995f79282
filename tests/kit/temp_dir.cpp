#include "kit/temp_dir.h"

#include <fstream>
#include <stdexcept>

#include "base/paths.h"
#include "base/remove_tree.h"
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
