// A folder for the tests of publishing, and a look into it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "base/paths.h"
#include "kit/files.h"
#include "kit/temp_dir.h"
#include "plugin_common/codes.h"
#include "plugin_common/publish.h"

namespace rq::task {

inline bool Agree(const std::string&) {
    return true;
}

class PublishTest : public testing::Test {
  protected:
    using Strings = std::vector<std::string>;

    std::string PathOf(const std::string& name) const { return m_dir.Utf8(name); }
    std::filesystem::path Path(const std::string& name) const { return m_dir.Path() / PathFromUtf8(name); }
    std::string Write(const std::string& name, const std::string& bytes) const {
        return Utf8FromPath(m_dir.Write(name, bytes));
    }
    std::string Read(const std::string& name) const { return kit::ReadBytes(Path(name)); }
    // The names in the folder, in order.
    Strings Names() const {
        Strings names;
        for (const auto& entry : std::filesystem::directory_iterator(m_dir.Path()))
            names.push_back(Utf8FromPath(entry.path().filename()));
        std::sort(names.begin(), names.end());
        return names;
    }

    kit::TempDir m_dir;
};

}  // namespace rq::task
