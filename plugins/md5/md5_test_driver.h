// What the tests of the md5 plug-in need beside the shared driver.
#pragma once

#include <string>
#include <vector>

#include "plugin_common/plugin_driver.h"

namespace rq::md5 {

// An entry that the worker was given to copy.
struct Published {
    std::string path;
    std::string failure;
    std::uint32_t has;
    std::string first;
    std::string computed;
};

class PluginDriver : public task::PluginDriver {
  protected:
    PluginDriver() {
        m_host.publishResult = [](void* self, std::uint32_t kind, const void* entry) {
            EXPECT_EQ(kind, RQ_RESULT_MD5_FILE);
            const auto& file = *static_cast<const RQMd5File*>(entry);
            // What it was given as its context is the shared driver.
            static_cast<PluginDriver*>(static_cast<task::PluginDriver*>(self))
                ->m_published.push_back({Text(file.first), Text(file.second), file.has, Hex(file.firstMd5),
                                         Hex(file.computedMd5)});
            return 0;
        };
    }

    // A file of zeros that takes no room.
    std::string WriteSparse(const std::string& name, std::uintmax_t size_bytes) const {
        kit::MakeSparseFile(PathFromUtf8(PathOf(name)), size_bytes);
        return PathOf(name);
    }

    static std::string FileElement(const std::string& path, const std::string& md5 = {}) {
        return "<File><Path>" + path + "</Path>" + (md5.empty() ? "" : "<MD5>" + md5 + "</MD5>") + "</File>";
    }
    // `options` stand behind the files.
    static std::string TaskText(const std::string& files, const std::string& options = {}) {
        return "<MD5Task><ID>t 1</ID><Files>" + files + "</Files>" + options + "</MD5Task>";
    }

    void Do(const std::string& files, const std::string& options = {}) {
        ASSERT_EQ(Analyse(TaskText(files, options)), 0) << (m_log.empty() ? "" : m_log.back());
        Perform();
    }

    const RQResultList& Results() const { return *static_cast<const RQMd5Data*>(m_info->typeData)->files; }
    std::size_t ResultCount() const { return RQLoad32(&Results().count); }
    const RQMd5File& Result(std::size_t i) const {
        EXPECT_LT(i, ResultCount());
        return *static_cast<const RQMd5File*>(Results().items[i]);
    }
    static std::string Text(RQText text) { return std::string(plugin::View(text)); }
    static std::string Hex(const std::uint8_t (&digest)[16]) {
        constexpr char kDigits[] = "0123456789abcdef";
        std::string text;
        for (const std::uint8_t byte : digest) {
            text += kDigits[byte >> 4];
            text += kDigits[byte & 15];
        }
        return text;
    }

    // Never back, never over the total, and at the end there.
    void ExpectWholeProgress(std::int64_t total) const {
        ASSERT_FALSE(m_progress.empty());
        std::int64_t last = 0;
        for (const task::ProgressCall& call : m_progress) {
            EXPECT_EQ(call.total, total);
            EXPECT_GE(call.done, last);
            EXPECT_LE(call.done, call.total);
            last = call.done;
        }
        EXPECT_EQ(last, total);
    }

    std::vector<Published> m_published;
};

}  // namespace rq::md5
