// Drives the md5 plug-in through its exported functions, as the worker does, and keeps what it says. For
// tests.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "base/paths.h"
#include "kit/sparse_file.h"
#include "kit/temp_dir.h"
#include "rqworker/plugin.hpp"

extern "C" {
const RQPluginDescription* RQWorkerDescribe(const RQHostServices* host);
int32_t RQWorkerInit(const void* parameter);
int32_t RQWorkerAnalyseTask(RQText taskText, TaskInfo** taskInfo);
int32_t RQWorkerPerformTask(TaskInfo* taskInfo, const volatile uint32_t* stopFlag,
                            RQProgressCallback progress, void* context, const RQRunningParameter* parameter);
int32_t RQWorkerRelease(void);
}

namespace rq::md5 {

struct ProgressCall {
    std::int64_t total;
    std::int64_t done;
};

class PluginDriver : public testing::Test {
  protected:
    PluginDriver() {
        m_host.size = sizeof m_host;
        m_host.contractVersion = RQ_CONTRACT_VERSION;
        m_host.context = this;
        m_host.log = [](void* self, std::int32_t level, RQText text) {
            static_cast<PluginDriver*>(self)->m_log.push_back(std::to_string(level) + " " +
                                                              std::string(plugin::View(text)));
        };
        m_description = RQWorkerDescribe(&m_host);
        EXPECT_EQ(RQWorkerInit(nullptr), 0);
    }
    ~PluginDriver() override {
        RQWorkerRelease();
        RQWorkerDescribe(nullptr);
    }

    std::string PathOf(const std::string& name) const { return m_dir.Utf8(name); }

    std::string Write(const std::string& name, const std::string& bytes) const {
        return Utf8FromPath(m_dir.Write(name, bytes));
    }

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

    std::int32_t Analyse(const std::string& text) {
        m_info = nullptr;
        return RQWorkerAnalyseTask(plugin::Borrow(text), &m_info);
    }

    void Perform() {
        RQStore32(&m_info->status, RQ_STATUS_RUNNING);
        RQWorkerPerformTask(
            m_info, &m_stop,
            [](std::int64_t total, std::int64_t done, void* self) {
                auto& driver = *static_cast<PluginDriver*>(self);
                if (total == 0) return 0u;  // a sign of life, which a busy machine makes it give
                driver.m_progress.push_back({total, done});
                if (driver.m_onProgress) driver.m_onProgress();
                return 0u;
            },
            this, nullptr);
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
        for (const ProgressCall& call : m_progress) {
            EXPECT_EQ(call.total, total);
            EXPECT_GE(call.done, last);
            EXPECT_LE(call.done, call.total);
            last = call.done;
        }
        EXPECT_EQ(last, total);
    }

    kit::TempDir m_dir;
    RQHostServices m_host{};
    const RQPluginDescription* m_description = nullptr;
    TaskInfo* m_info = nullptr;
    volatile std::uint32_t m_stop = RQ_STOP_NONE;
    std::vector<ProgressCall> m_progress;
    std::function<void()> m_onProgress;
    std::vector<std::string> m_log;
};

}  // namespace rq::md5
