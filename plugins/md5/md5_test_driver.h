// What the tests of the md5 plug-in need beside the shared driver.
#pragma once

#include <string>

#include "plugin_common/plugin_driver.h"

namespace rq::md5 {

class PluginDriver : public task::PluginDriver {
  protected:
    // A file of zeros that takes no room.
    std::string WriteSparse(const std::string& name, std::uintmax_t size_bytes) const {
        kit::MakeSparseFile(PathFromUtf8(PathOf(name)), size_bytes);
        return PathOf(name);
    }

    static std::string FileElement(const std::string& path, const std::string& md5 = {}) {
        return "<File><Path>" + path + "</Path>" + (md5.empty() ? "" : "<MD5>" + md5 + "</MD5>") + "</File>";
    }
    static std::string TaskText(const std::string& files) {
        return "<MD5Task><ID>t 1</ID><Files>" + files + "</Files></MD5Task>";
    }

    void Do(const std::string& files) {
        ASSERT_EQ(Analyse(TaskText(files)), 0) << (m_log.empty() ? "" : m_log.back());
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
};

}  // namespace rq::md5
