// The perform call: one function for each word.
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>

#include "script.h"
#include "script_crashes.h"

namespace scripted {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::string_view kNotUtf8 = "broken \xFF\xFE text";

// What the steps of one perform call share.
struct Run {
    Record& record;
    const Call& call;
    std::vector<std::thread>& threads;
    std::optional<std::uint32_t> status;

    void Progress(std::int64_t total, std::int64_t done) const { call.progress(total, done, call.context); }
    std::uint32_t Stop() const { return RQLoad32(call.stopFlag); }
};

std::filesystem::path PathOf(const std::string& utf8) {
    return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

void PollUntilStop(const Run& run, std::int64_t limit_ms, bool isHeld) {
    const auto deadline = steady_clock::now() + milliseconds(limit_ms);
    for (std::int64_t done = 1; run.Stop() == RQ_STOP_NONE && steady_clock::now() < deadline; ++done) {
        if (isHeld) run.Progress(1'000'000, done);
        std::this_thread::sleep_for(milliseconds(5));
    }
}

void SetError(Run& run, std::int64_t detailCode, std::int64_t code, std::string text) {
    Record& record = run.record;
    record.detailErrorText = text;
    record.furtherText = std::move(text);
    record.info.detailErrorCode = static_cast<std::uint32_t>(detailCode);
    record.info.errorCode = static_cast<std::int32_t>(code);
    record.info.detailErrorText = Borrow(record.detailErrorText);
    record.info.furtherText = Borrow(record.furtherText);
}

RQMd5File Md5Entry(RQText first) {
    RQMd5File file{};
    file.size = sizeof file;
    file.has = RQ_HAS_COMPUTED_MD5;
    file.first = first;
    for (std::size_t i = 0; i < sizeof file.computedMd5; ++i)
        file.computedMd5[i] = static_cast<std::uint8_t>(i);
    return file;
}

void AddMd5(Run& run, std::string_view first) {
    Record& record = run.record;
    const std::uint32_t count = RQLoad32(&record.md5List.count);
    if (count >= record.capacity) throw std::length_error("the script publishes more than it made room for");
    record.texts.push_back(std::make_unique<std::string>(first));
    record.md5Files.push_back(std::make_unique<RQMd5File>(Md5Entry(Borrow(*record.texts.back()))));
    record.md5Items[count] = record.md5Files.back().get();
    RQStore32(&record.md5List.count, count + 1);
}

void PublishMd5(const Run& run, std::string first) {
    const RQMd5File file = Md5Entry(Borrow(first));
    const std::int32_t result =
        run.call.host->publishResult(run.call.host->context, RQ_RESULT_MD5_FILE, &file);
    first.assign(first.size(), '#');  // whoever kept the pointer sees this
    if (result != 0) Log(run.call.host, 3, "publishResult " + std::to_string(result));
}

void PublishErrorFromThread(const Run& run, const Step& step) {
    const RQHostServices* host = run.call.host;
    std::thread([&] {
        const std::string text = step.TextAfter(2);
        host->publishError(host->context, static_cast<std::uint32_t>(step.Number(0)),
                           static_cast<std::int32_t>(step.Number(1)), Borrow(text), Borrow(text));
    }).join();
}

void MakeTemporaryFile(const Run& run, const std::string& name) {
    const RQText folder = run.call.host->temporaryFolder(run.call.host->context);
    std::ofstream(PathOf(std::string(folder.p, folder.n)) / PathOf(name)) << "temporary";
    Log(run.call.host, 2, "temporary folder " + std::string(folder.p, folder.n));
}

void AwaitFile(const std::string& path) {
    while (!std::filesystem::exists(PathOf(path))) std::this_thread::sleep_for(milliseconds(5));
}

using Handler = std::function<void(Run&, const Step&)>;

const std::map<std::string, Handler, std::less<>>& Handlers() {
    static const std::map<std::string, Handler, std::less<>> handlers = {
        {"progress", [](Run& run, const Step& step) { run.Progress(step.Number(0), step.Number(1)); }},
        {"flood",
         [](Run& run, const Step& step) {
             for (std::int64_t i = 1; i <= step.Number(0); ++i) run.Progress(step.Number(0), i);
         }},
        {"alive", [](Run& run, const Step& step) { run.Progress(0, step.Number(0)); }},
        {"over", [](Run& run, const Step&) { run.Progress(100, 150); }},
        {"backwards",
         [](Run& run, const Step&) {
             run.Progress(100, 80);
             run.Progress(100, 40);
         }},
        {"negative", [](Run& run, const Step&) { run.Progress(100, -5); }},
        {"sleep", [](Run&, const Step& step) { std::this_thread::sleep_for(milliseconds(step.Number(0))); }},
        {"until-stop", [](Run& run, const Step& step) { PollUntilStop(run, step.Number(0), false); }},
        {"held-until-stop", [](Run& run, const Step& step) { PollUntilStop(run, step.Number(0), true); }},
        {"wait-for-stop",
         [](Run& run, const Step& step) {
             run.call.host->waitForStop(run.call.host->context, static_cast<std::uint32_t>(step.Number(0)));
         }},
        {"status",
         [](Run& run, const Step& step) { run.status = static_cast<std::uint32_t>(step.Number(0)); }},
        {"set-status",
         [](Run& run, const Step& step) {
             RQStore32(&run.record.info.status, static_cast<std::uint32_t>(step.Number(0)));
         }},
        {"error", [](Run& run,
                     const Step& step) { SetError(run, step.Number(0), step.Number(1), step.TextAfter(2)); }},
        {"bad-error", [](Run& run, const Step&) { SetError(run, 1, 1, std::string(kNotUtf8)); }},
        {"md5", [](Run& run, const Step& step) { AddMd5(run, step.rest); }},
        {"md5-bad-text", [](Run& run, const Step&) { AddMd5(run, kNotUtf8); }},
        {"md5-overcount",
         [](Run& run, const Step&) { RQStore32(&run.record.md5List.count, run.record.capacity + 1); }},
        {"publish-md5", [](Run& run, const Step& step) { PublishMd5(run, step.rest); }},
        {"publish-error", [](Run& run, const Step& step) { PublishErrorFromThread(run, step); }},
        {"quiet",
         [](Run& run, const Step& step) {
             run.call.host->quietFor(run.call.host->context, static_cast<std::uint32_t>(step.Number(0)));
         }},
        {"log",
         [](Run& run, const Step& step) {
             Log(run.call.host, static_cast<std::int32_t>(step.Number(0)), step.TextAfter(1));
         }},
        {"log-bad-text", [](Run& run, const Step&) { Log(run.call.host, 2, kNotUtf8); }},
        {"temporary-file", [](Run& run, const Step& step) { MakeTemporaryFile(run, step.rest); }},
        {"touch", [](Run&, const Step& step) { std::ofstream(PathOf(step.rest)) << "touched"; }},
        {"await-file", [](Run&, const Step& step) { AwaitFile(step.rest); }},
        {"run", [](Run&, const Step& step) { (void)!std::system(step.rest.c_str()); }},
        {"throw", [](Run&, const Step& step) { throw std::runtime_error(step.rest); }},
        {"throw-int", [](Run&, const Step& step) { throw static_cast<int>(step.Number(0)); }},
        {"throw-on-thread",
         [](Run&, const Step& step) {
             std::thread([text = step.rest] { throw std::runtime_error(text); }).join();
         }},
        {"late-callback",
         [](Run& run, const Step& step) {
             run.threads.emplace_back([call = run.call, delay = milliseconds(step.Number(0))] {
                 std::this_thread::sleep_for(delay);
                 call.progress(100, 100, call.context);
             });
         }},
        {"leave-thread",
         [](Run& run, const Step& step) {
             run.threads.emplace_back(
                 [delay = milliseconds(step.Number(0))] { std::this_thread::sleep_for(delay); });
         }},
        {"crash", [](Run&, const Step&) { WriteNowhere(); }},
        {"crash-on-thread", [](Run&, const Step&) { std::thread(WriteNowhere).join(); }},
        {"crash-in-malloc", [](Run&, const Step&) { CrashInMalloc(); }},
        {"spoil-heap", [](Run&, const Step&) { SpoilHeap(); }},
        {"call-nowhere", [](Run&, const Step&) { CallNowhere(); }},
        {"divide-by-zero", [](Run&, const Step&) { DivideByZero(); }},
        {"overflow-stack", [](Run&, const Step&) { OverflowStack(); }},
        {"overflow-on-thread", [](Run&, const Step&) { std::thread(OverflowStack).join(); }},
        {"abort", [](Run&, const Step&) { std::abort(); }},
    };
    return handlers;
}

}  // namespace

void RunScript(Record& record, const Call& call, std::vector<std::thread>& threads) {
    Run run{record, call, threads, std::nullopt};
    for (const Step& step : record.steps) {
        const auto handler = Handlers().find(step.word);
        if (handler != Handlers().end()) handler->second(run, step);
    }
    const std::uint32_t ordinary = run.Stop() == RQ_STOP_CANCEL ? RQ_STATUS_CANCELLED : RQ_STATUS_FINISHED;
    RQStore32(&record.info.status, run.status.value_or(ordinary));
}

}  // namespace scripted
