// Drives the plug-in that a test program contains through its exported functions, as the worker does, and
// keeps what it says. For tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "base/paths.h"
#include "kit/child.h"
#include "kit/files.h"
#include "kit/os.h"
#include "kit/sparse_file.h"
#include "kit/temp_dir.h"
#include "plugin_common/codes.h"
#include "plugin_common/digest.h"
#include "rqworker/plugin.hpp"

extern "C" {
const RQPluginDescription* RQWorkerDescribe(const RQHostServices* host);
int32_t RQWorkerInit(const void* parameter);
int32_t RQWorkerAnalyseTask(RQText taskText, TaskInfo** taskInfo);
int32_t RQWorkerPerformTask(TaskInfo* taskInfo, const volatile uint32_t* stopFlag,
                            RQProgressCallback progress, void* context, const RQRunningParameter* parameter);
int32_t RQWorkerRelease(void);
}

namespace rq::task {

struct ProgressCall {
    std::int64_t total;
    std::int64_t done;
};

class PluginDriver : public testing::Test {
  protected:
    PluginDriver()
        : m_reports("RQ_REPORT_DIR", m_reportDir.Utf8()), m_config("RQ_CONFIG_DIR", m_configDir.Utf8()) {
        m_host.size = sizeof m_host;
        m_host.contractVersion = RQ_CONTRACT_VERSION;
        m_host.context = this;
        m_host.log = [](void* self, std::int32_t level, RQText text) {
            auto& driver = *static_cast<PluginDriver*>(self);
            const std::lock_guard<std::mutex> lock(driver.m_logMutex);
            driver.m_log.push_back(std::to_string(level) + " " + std::string(plugin::View(text)));
        };
        m_host.publishResult = [](void* self, std::uint32_t kind, const void* entry) {
            static_cast<PluginDriver*>(self)->Keep(kind, entry);
            return 0;
        };
        m_description = RQWorkerDescribe(&m_host);
        EXPECT_EQ(RQWorkerInit(nullptr), 0);
    }
    ~PluginDriver() override {
        RQWorkerRelease();
        RQWorkerDescribe(nullptr);
    }

    std::string PathOf(const std::string& name) const { return m_dir.Utf8(name); }
    std::filesystem::path At(const std::string& name) const { return m_dir.Path() / PathFromUtf8(name); }
    std::string Write(const std::string& name, const std::string& bytes) const {
        return Utf8FromPath(m_dir.Write(name, bytes));
    }
    std::string Read(const std::string& name) const { return kit::ReadBytes(At(name)); }
    bool Exists(const std::string& name) const {
        return std::filesystem::symlink_status(At(name)).type() != std::filesystem::file_type::not_found;
    }
    // The names in a folder, in order.
    std::vector<std::string> Names(const std::string& folder = ".") const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(At(folder)))
            names.push_back(Utf8FromPath(entry.path().filename()));
        std::sort(names.begin(), names.end());
        return names;
    }

    std::int32_t Analyse(const std::string& text) {
        m_info = nullptr;
        return RQWorkerAnalyseTask(plugin::Borrow(text), &m_info);
    }
    void Perform() {
        m_progress.clear();
        m_signsOfLife = 0;
        m_outputs.clear();
        m_compared.clear();
        RQStore32(&m_info->status, RQ_STATUS_RUNNING);
        RQWorkerPerformTask(
            m_info, &m_stop,
            [](std::int64_t total, std::int64_t done, void* self) {
                auto& driver = *static_cast<PluginDriver*>(self);
                if (total == 0) {
                    ++driver.m_signsOfLife;
                    if (driver.m_onSignOfLife) driver.m_onSignOfLife();
                    return 0u;
                }
                driver.m_progress.push_back({total, done});
                if (driver.m_onProgress) driver.m_onProgress();
                return 0u;
            },
            this, nullptr);
    }
    // Analyses and performs; the status that it ends with.
    std::uint32_t Do(const std::string& text) {
        const std::int32_t code = Analyse(text);
        EXPECT_EQ(code, 0) << Further();
        if (code != 0) return RQ_STATUS_ERROR;
        Perform();
        return Status();
    }
    std::uint32_t Status() const { return RQLoad32(&m_info->status); }
    std::uint32_t Error() const { return static_cast<std::uint32_t>(m_info->errorCode); }
    std::string Detail() const { return std::string(plugin::View(m_info->detailErrorText)); }
    std::string Further() const { return std::string(plugin::View(m_info->furtherText)); }
    // The only report, with the times left out of its lines.
    std::vector<std::string> Report() const {
        std::vector<std::string> lines;
        const auto files = kit::FindFiles(m_reportDir.Path(), ".txt");
        EXPECT_EQ(files.size(), 1u);
        if (files.empty()) return lines;
        EXPECT_NE(Further().find(Utf8FromPath(files[0])), std::string::npos) << Further();
        for (const std::string& line : kit::ReadLines(files[0])) {
            EXPECT_EQ(line.find('Z'), 19u) << line;
            lines.push_back(line.substr(21));
        }
        return lines;
    }
    // Never back, never over the total, and at the end there.
    void ExpectWholeProgress() const {
        ASSERT_FALSE(m_progress.empty());
        double last = 0;
        for (const ProgressCall& call : m_progress) {
            const double part = static_cast<double>(call.done) / static_cast<double>(call.total);
            EXPECT_GE(part, last);
            EXPECT_LE(call.done, call.total);
            last = part;
        }
        EXPECT_EQ(m_progress.back().done, m_progress.back().total);
    }
    // What rqplugin-check says of the plug-in's library with this task.
    void ExpectCheckPasses(const std::string& text, const std::string& tasks = "60",
                           const std::vector<std::string>& more = {}) const {
        const kit::TempDir folder;
        folder.Write("task.xml", text);
        std::vector<std::string> arguments{RQ_PLUGIN_FILE, "--task", folder.Utf8("task.xml"), "--tasks",
                                           tasks};
        arguments.insert(arguments.end(), more.begin(), more.end());
        kit::Child check(RQ_PLUGIN_CHECK, arguments);
        EXPECT_EQ(check.ExitCode(std::chrono::minutes(3)), 0) << check.Output() << check.Errors();
        EXPECT_NE(check.Output().find("\npassed: "), std::string::npos) << check.Output();
    }

    struct Output {
        std::string first, second, further;
        std::uint64_t size_bytes = 0;
        std::uint32_t kind = 0;
    };
    struct Compared {
        std::string first, second, firstMd5, secondMd5;
    };
    void Keep(std::uint32_t kind, const void* entry) {
        const auto text = [](RQText from) { return std::string(plugin::View(from)); };
        if (kind == RQ_RESULT_TRANSFER_OUTPUT) {
            const auto& output = *static_cast<const RQTransferOutput*>(entry);
            m_outputs.push_back({text(output.first), text(output.second), text(output.further),
                                 output.size_bytes, output.kind});
        } else {
            EXPECT_EQ(kind, RQ_RESULT_VERIFICATION);
            const auto& compared = *static_cast<const RQVerification*>(entry);
            // Both digests, or none when nothing was compared.
            EXPECT_TRUE(compared.has == 0 || compared.has == (RQ_HAS_FIRST_MD5 | RQ_HAS_SECOND_MD5));
            m_compared.push_back({text(compared.first), text(compared.second),
                                  compared.has == 0 ? "" : HexOf(compared.firstMd5, 16),
                                  compared.has == 0 ? "" : HexOf(compared.secondMd5, 16)});
        }
    }

    kit::TempDir m_dir;
    kit::TempDir m_reportDir;
    kit::TempDir m_configDir;
    kit::ScopedEnvironment m_reports;
    kit::ScopedEnvironment m_config;
    RQHostServices m_host{};
    const RQPluginDescription* m_description = nullptr;
    TaskInfo* m_info = nullptr;
    volatile std::uint32_t m_stop = RQ_STOP_NONE;
    std::vector<ProgressCall> m_progress;
    int m_signsOfLife = 0;
    std::function<void()> m_onProgress;
    std::function<void()> m_onSignOfLife;
    std::mutex m_logMutex;  // a library's threads may log too
    std::vector<std::string> m_log;
    std::vector<Output> m_outputs;
    std::vector<Compared> m_compared;
};

}  // namespace rq::task
