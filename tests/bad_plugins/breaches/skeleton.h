// A plug-in that keeps the contract, for the files of this folder: each changes one thing through Hooks and
// thereby breaks one rule. Its task: 30 ms of work, a progress call each 3 ms, one MD5 entry. Records are
// freed as late as is promised and no later.
#pragma once

#include <rqworker/plugin.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

namespace breach {

struct Record {
    TaskInfo info{};
    std::unique_ptr<std::string> taskId =
        std::make_unique<std::string>("a task ID that does not fit into an object");
    RQMd5File file{};
    const void* items[1] = {&file};
    RQResultList list{};
    RQMd5Data data{};
    RQText lentText{};  // the task text as it was lent: not to be used after the analysis

    Record();
    ~Record();
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;
};

// What a perform call was given.
struct Call {
    Record& record;
    const volatile std::uint32_t* stopFlag;
    RQProgressCallback progress;
    void* context;
    const RQHostServices* host;

    std::uint32_t Stop() const { return RQLoad32(stopFlag); }
    void Progress(std::int64_t total, std::int64_t done) const { progress(total, done, context); }
    // The ordinary work, with the entry at its end.
    void Work() const;
};

// Every member may be empty: then the ordinary thing happens.
struct Hooks {
    std::function<void(const Call&)> work;
    std::function<std::uint32_t(const Call&)> status;        // the one to leave
    std::function<void(Record&, std::string_view)> analyse;  // at the end of an analysis
    std::function<void(Record&)> end;                        // when a record ends
    std::function<void()> init;
    std::function<void()> release;
    std::function<void(RQPluginDescription&)> describe;
    std::uint64_t abilities = RQ_ABILITY_PAUSE | RQ_ABILITY_FINISH;
    bool isRecordFreedEarly = false;  // by the next analysis, whatever it is
};

const Hooks& GetHooks();  // each plug-in defines it

// The services, once described.
const RQHostServices* Host();

}  // namespace breach
