// rqworker/plugin.hpp: a thin C++ wrapper over rqworker/plugin.h for plug-in authors. Header-only, C++17 and
// C++20.
//
// What it takes off an author: the exported functions, the fields and lifetimes of TaskInfo, the rule that
// nothing may throw across the boundary, the rule that a record in use outlives an update, and the final
// status. The contract itself stands in plugin.h and is not repeated here.
//
//   class Copy final : public rq::plugin::Plugin {
//     public:
//       Copy() : Plugin({"copy", "1.0.0", {0}, RQ_ABILITY_PAUSE}) {}
//       rq::plugin::Analysis Analyse(std::string_view taskText) override;
//       rq::plugin::Outcome Perform(rq::plugin::TaskRecord& record, rq::plugin::Run& run) override;
//   };
//   RQ_PLUGIN(Copy)      // once, in one source file
//
// Threads: Analyse, Perform, Init and Release are called on the worker's main thread. For a task's new text its
// link thread calls Update while Perform runs, and Analyse else. Host from any thread.
#ifndef RQWORKER_PLUGIN_HPP
#define RQWORKER_PLUGIN_HPP

#include <cstddef>
#include <cstdint>
#include <exception>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "rqworker/plugin.h"

namespace rq::plugin {

template <class Author>
class Exports;

// ---- texts
// ----------------------------------------------------------------------------------------------------------

// The view and the text both borrow: they are good as long as what they were made from.
inline std::string_view View(RQText text) {
    return text.p == nullptr ? std::string_view() : std::string_view(text.p, text.n);
}
inline RQText Borrow(std::string_view text) {
    return RQText{text.data(), text.size()};
}

// ---- host services
// --------------------------------------------------------------------------------------------------

enum class Level : std::int32_t {
    kMilestone = 1,
    kInformation = 2,
    kWarning = 3,
    kFailure = 4,
    kMustNotOccur = 5
};

// The worker's services. Each call does nothing (and returns what the comment says) when the worker does not
// offer it: a worker that never called RQWorkerDescribe, or an older one with a shorter record. Any thread.
class Host {
  public:
    Host() = default;
    explicit Host(const RQHostServices* services) : m_services(services) {}

    void Log(Level level, std::string_view text) const {
        if (Has(&RQHostServices::log))
            m_services->log(m_services->context, static_cast<std::int32_t>(level), Borrow(text));
    }
    // The stop flag; RQ_STOP_NONE at once without the service.
    std::uint32_t WaitForStop(std::uint32_t timeout_ms) const {
        return Has(&RQHostServices::waitForStop) ? m_services->waitForStop(m_services->context, timeout_ms)
                                                 : RQ_STOP_NONE;
    }
    void PublishError(std::uint32_t detailErrorCode, std::int32_t errorCode, std::string_view detailErrorText,
                      std::string_view furtherText) const {
        if (Has(&RQHostServices::publishError))
            m_services->publishError(m_services->context, detailErrorCode, errorCode, Borrow(detailErrorText),
                                     Borrow(furtherText));
    }
    // False for an entry that was not taken, or without the service.
    bool PublishResult(const RQMd5File& entry) const { return Publish(RQ_RESULT_MD5_FILE, &entry); }
    bool PublishResult(const RQVerification& entry) const { return Publish(RQ_RESULT_VERIFICATION, &entry); }
    bool PublishResult(const RQTransferOutput& entry) const {
        return Publish(RQ_RESULT_TRANSFER_OUTPUT, &entry);
    }
    bool PublishResult(const RQTranscodeOutput& entry) const {
        return Publish(RQ_RESULT_TRANSCODE_OUTPUT, &entry);
    }

    void QuietFor(std::uint32_t seconds) const {
        if (Has(&RQHostServices::quietFor)) m_services->quietFor(m_services->context, seconds);
    }
    // Empty without the service.
    std::string_view TemporaryFolder() const {
        return Has(&RQHostServices::temporaryFolder) ? View(m_services->temporaryFolder(m_services->context))
                                                     : std::string_view();
    }

  private:
    // Whether the service lies inside the worker's record and is there.
    template <class Function>
    bool Has(Function RQHostServices::*member) const {
        if (m_services == nullptr) return false;
        const auto* end = reinterpret_cast<const char*>(&(m_services->*member) + 1);
        return end - reinterpret_cast<const char*>(m_services) <=
                   static_cast<std::ptrdiff_t>(m_services->size) &&
               m_services->*member != nullptr;
    }
    bool Publish(std::uint32_t kind, const void* entry) const {
        return Has(&RQHostServices::publishResult) &&
               m_services->publishResult(m_services->context, kind, entry) == 0;
    }

    const RQHostServices* m_services = nullptr;
};

// ---- results
// --------------------------------------------------------------------------------------------------------

// A result list of fixed capacity. One thread at a time publishes; the worker reads at any time. The texts
// that an entry borrows must live as long as the record that holds the list, and must not change once
// published.
template <class Entry>
class ResultList {
  public:
    explicit ResultList(std::size_t capacity) : m_entries(capacity), m_items(capacity) {
        for (std::size_t i = 0; i < capacity; ++i) m_items[i] = &m_entries[i];
        m_raw.size = sizeof m_raw;
        m_raw.capacity = static_cast<std::uint32_t>(capacity);
        m_raw.items = capacity == 0 ? nullptr : m_items.data();
    }
    ResultList(const ResultList&) = delete;
    ResultList& operator=(const ResultList&) = delete;

    // False when the list is full. Sets the entry's `size`.
    bool Publish(Entry entry) {
        const std::uint32_t count = RQLoad32(&m_raw.count);
        if (count >= m_raw.capacity) return false;
        entry.size = sizeof(Entry);
        m_entries[count] = entry;
        RQStore32(&m_raw.count, count + 1);
        return true;
    }
    std::uint32_t Count() const { return RQLoad32(&m_raw.count); }
    RQResultList* Raw() { return &m_raw; }

  private:
    std::vector<Entry> m_entries;
    std::vector<const void*> m_items;
    RQResultList m_raw{};
};

// ---- the task record
// ------------------------------------------------------------------------------------------------

// Owns a TaskInfo and the texts that it borrows. Derive from it to hold what the task needs; the wrapper
// keeps it alive as the contract asks: until the next analysis, one that was performed until the next perform
// call, and all of them at most until the release.
class TaskRecord {
  public:
    explicit TaskRecord(std::int32_t taskType, std::string taskId = {}) : m_taskId(std::move(taskId)) {
        m_info.size = sizeof m_info;
        m_info.contractVersion = RQ_CONTRACT_VERSION;
        m_info.taskId = Borrow(m_taskId);
        m_info.own = this;
        m_info.taskType = taskType;
    }
    virtual ~TaskRecord() = default;
    TaskRecord(const TaskRecord&) = delete;
    TaskRecord& operator=(const TaskRecord&) = delete;

    TaskInfo* Info() { return &m_info; }
    const std::string& TaskId() const { return m_taskId; }

    // On the thread of Analyse or Perform only; from other threads use Host::PublishError.
    void SetError(std::uint32_t detailErrorCode, std::int32_t errorCode, std::string detailErrorText,
                  std::string furtherText) {
        m_detailErrorText = std::move(detailErrorText);
        m_furtherText = std::move(furtherText);
        m_info.detailErrorCode = detailErrorCode;
        m_info.errorCode = errorCode;
        m_info.detailErrorText = Borrow(m_detailErrorText);
        m_info.furtherText = Borrow(m_furtherText);
    }
    void SetFurtherText(std::string text) {
        m_furtherText = std::move(text);
        m_info.furtherText = Borrow(m_furtherText);
    }

    // The code of the analysis that made this record; other than 0 when it refused the task text.
    std::int32_t Refusal() const { return m_refusal; }

  protected:
    // One of the RQ...Data records, a member of the derived class. In its constructor only.
    void SetTypeData(const void* data) { m_info.typeData = data; }

  private:
    template <class Author>
    friend class Exports;

    TaskInfo m_info{};
    std::int32_t m_refusal = 0;
    std::string m_taskId;
    std::string m_detailErrorText;
    std::string m_furtherText;
};

// ---- one perform call
// -----------------------------------------------------------------------------------------------

// How a perform call ended; the wrapper stores it as the task's status.
enum class Outcome : std::uint32_t {
    kFinished = RQ_STATUS_FINISHED,    // also after RQ_STOP_FINISH, with what is done
    kFailed = RQ_STATUS_ERROR,         // with TaskRecord::SetError
    kCancelled = RQ_STATUS_CANCELLED,  // after RQ_STOP_CANCEL
};

// The worker's side of a perform call. The perform call's thread, except Stop, which any thread may ask.
class Run {
  public:
    Run(const volatile std::uint32_t* stopFlag, RQProgressCallback progress, void* context,
        const RQRunningParameter* parameter)
        : m_stopFlag(stopFlag), m_progress(progress), m_context(context), m_parameter(parameter) {}

    std::uint32_t Stop() const { return m_stopFlag == nullptr ? RQ_STOP_NONE : RQLoad32(m_stopFlag); }

    // Does not return while the task is suspended. A total below 1 is given as 1, since 0 would mean a sign
    // of life.
    void Progress(std::int64_t total, std::int64_t done) { Call(total < 1 ? 1 : total, done); }
    // Nothing moves and nothing will for `seconds`.
    void QuietFor(std::int64_t seconds) { Call(0, seconds); }

    // The worker's running parameters; may be null. Good for the perform call.
    const RQRunningParameter* Parameter() const { return m_parameter; }

  private:
    void Call(std::int64_t total, std::int64_t done) {
        if (m_progress != nullptr) m_progress(total, done, m_context);
    }

    const volatile std::uint32_t* m_stopFlag;
    RQProgressCallback m_progress;
    void* m_context;
    const RQRunningParameter* m_parameter;
};

// ---- the plug-in
// ----------------------------------------------------------------------------------------------------

// What an analysis gives. With a code other than 0 the task is not performed, and `reason` says what is wrong
// with the text, and where: the wrapper logs it and puts it into the record's further text, with which it
// reaches the operator. A record with the task's ID is still wanted when that much could be read. Without a
// record the wrapper gives an empty one.
struct Analysis {
    std::int32_t code = 0;
    std::unique_ptr<TaskRecord> record;
    std::string reason = {};
};

struct Description {
    std::string name;
    std::string version;
    std::vector<std::int32_t> types;
    std::uint64_t abilities = 0;
};

// Result codes of the wrapper's own.
constexpr std::int32_t kUpdateNotTaken = -2;  // an update of a running task that the plug-in does not take
constexpr std::int32_t kInternalError = -3;   // an exception left the plug-in's code

class Plugin {
  public:
    explicit Plugin(Description description) : m_description(std::move(description)) {
        m_raw.size = sizeof m_raw;
        m_raw.contractVersion = RQ_CONTRACT_VERSION;
        m_raw.name = Borrow(m_description.name);
        m_raw.version = Borrow(m_description.version);
        m_raw.types = m_description.types.data();
        m_raw.typeCount = static_cast<std::uint32_t>(m_description.types.size());
        m_raw.abilities = m_description.abilities;
    }
    virtual ~Plugin() = default;
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    // `parameter`: see RQWorkerInitFunc.
    virtual std::int32_t Init(const void* /*parameter*/) { return 0; }
    virtual Analysis Analyse(std::string_view taskText) = 0;
    // Never called with a record whose text was refused; such a task ends with status 4 and the refusal's
    // code.
    virtual Outcome Perform(TaskRecord& record, Run& run) = 0;
    // A new text for the task that Perform is working on, on the link thread, beside Perform: what both touch
    // needs a lock or atomics. The record in use stays the task's record. Perform does not return before
    // Update has.
    virtual std::int32_t Update(std::string_view /*taskText*/, TaskRecord& /*running*/) {
        m_host.Log(Level::kWarning,
                   m_description.name + ": the update is not taken, the task goes on as it is");
        return kUpdateNotTaken;
    }
    virtual void Release() {}

    const Host& Services() const { return m_host; }
    void SetServices(const RQHostServices* services) { m_host = Host(services); }
    const RQPluginDescription* Raw() const { return &m_raw; }

  private:
    Host m_host;
    Description m_description;
    RQPluginDescription m_raw{};
};

// The exported functions, over one object of the author's class. It lives until the process ends.
template <class Author>
class Exports {
  public:
    static const RQPluginDescription* Describe(const RQHostServices* host) noexcept {
        State& state = Get();
        state.author.SetServices(host);
        return state.author.Raw();
    }

    static std::int32_t Init(const void* parameter) noexcept {
        std::int32_t code = kInternalError;
        Guard("init", [&] { code = Get().author.Init(parameter); });
        return code;
    }

    static std::int32_t Analyse(RQText text, TaskInfo** taskInfo) noexcept {
        State& state = Get();
        const std::lock_guard<std::mutex> lock(state.mutex);
        std::int32_t code = kInternalError;
        if (state.performing != nullptr) {
            *taskInfo = state.performing->Info();
            Guard("update", [&] { code = state.author.Update(View(text), *state.performing); });
            return code;
        }
        // An update of a task that is not performed yet, or just about to be: the worker may have it in its
        // hands.
        if (state.record && *taskInfo == state.record->Info())
            state.replaced.push_back(std::move(state.record));
        else if (*taskInfo == nullptr)
            state.replaced.clear();
        state.record.reset();
        std::string reason;
        const std::string thrown = Guard("analysis", [&] {
            Analysis analysis = state.author.Analyse(View(text));
            state.record = std::move(analysis.record);
            reason = std::move(analysis.reason);
            code = analysis.code;
        });
        const RQPluginDescription* description = state.author.Raw();
        if (!state.record)
            state.record =
                std::make_unique<TaskRecord>(description->typeCount == 0 ? 0 : description->types[0]);
        if (code != 0)
            Refuse(*state.record, code, thrown.empty() ? std::move(reason) : thrown, thrown.empty());
        *taskInfo = state.record->Info();
        return code;
    }

    static std::int32_t Perform(TaskInfo* taskInfo, const volatile std::uint32_t* stopFlag,
                                RQProgressCallback progress, void* context,
                                const RQRunningParameter* parameter) noexcept {
        State& state = Get();
        auto* record = static_cast<TaskRecord*>(taskInfo->own);
        BeginPerforming(record);
        // An update between two perform calls that was refused leaves such a record.
        if (record->m_refusal != 0) {
            record->SetError(0, record->m_refusal, "the task text was refused; there is nothing to do",
                             record->m_furtherText);
            RQStore32(&taskInfo->status, RQ_STATUS_ERROR);
            EndPerforming();
            return 0;
        }
        Run run(stopFlag, progress, context, parameter);
        Outcome outcome = Outcome::kFailed;
        const std::string thrown = Guard("perform", [&] { outcome = state.author.Perform(*record, run); });
        if (!thrown.empty()) record->SetError(0, kInternalError, thrown, thrown);
        RQStore32(&taskInfo->status, static_cast<std::uint32_t>(outcome));
        EndPerforming();
        return 0;
    }

    static std::int32_t Release() noexcept {
        State& state = Get();
        Guard("release", [&] { state.author.Release(); });
        const std::lock_guard<std::mutex> lock(state.mutex);
        if (state.performing == nullptr) {
            state.record.reset();
            state.performed.reset();
            state.replaced.clear();
        }
        return 0;
    }

  private:
    struct State {
        Author author;
        std::mutex mutex;                                   // guards the four below
        std::unique_ptr<TaskRecord> record;                 // of the last analysis, not performed yet
        std::vector<std::unique_ptr<TaskRecord>> replaced;  // by updates; one of them may still be performed
        std::unique_ptr<TaskRecord>
            performed;                     // of the last perform call: the worker still reads its outcome
        TaskRecord* performing = nullptr;  // the one that a perform call is using
    };

    static void Refuse(TaskRecord& record, std::int32_t code, std::string reason, bool isNews) {
        const Author& author = Get().author;
        record.m_refusal = code;
        if (isNews && !reason.empty())
            author.Services().Log(Level::kFailure, std::string(View(author.Raw()->name)) +
                                                       ": the task text is refused: " + reason);
        record.SetFurtherText(std::move(reason));
    }

    // Never destroyed: a perform call that was given up may still use it while the process ends.
    static State& Get() {
        static State* const state = new State;
        return *state;
    }

    static void BeginPerforming(TaskRecord* record) {
        State& state = Get();
        const std::lock_guard<std::mutex> lock(state.mutex);
        state.performing = record;
        if (state.record.get() == record) state.performed = std::move(state.record);
        for (auto& candidate : state.replaced) {
            if (candidate.get() == record) state.performed = std::move(candidate);
        }
    }

    static void EndPerforming() {
        State& state = Get();
        const std::lock_guard<std::mutex> lock(state.mutex);
        state.performing = nullptr;
        state.replaced.clear();
    }

    // Runs `work`; the text of what it threw, empty when it did not.
    template <class Work>
    static std::string Guard(const char* where, Work work) {
        std::string thrown;
        try {
            work();
            return thrown;
        } catch (const std::exception& e) {
            thrown = e.what();
        } catch (...) {
            thrown = "unknown exception";
        }
        if (thrown.empty()) thrown = "exception without a text";
        Get().author.Services().Log(Level::kMustNotOccur, std::string(where) + ": " + thrown);
        return thrown;
    }
};

}  // namespace rq::plugin

// Defines the exported functions over `Author`, a class derived from rq::plugin::Plugin with a default
// constructor.
#define RQ_PLUGIN(Author)                                                                                \
    extern "C" {                                                                                         \
    RQ_PLUGIN_EXPORT const RQPluginDescription* RQWorkerDescribe(const RQHostServices* host) {           \
        return ::rq::plugin::Exports<Author>::Describe(host);                                            \
    }                                                                                                    \
    RQ_PLUGIN_EXPORT int32_t RQWorkerInit(const void* parameter) {                                       \
        return ::rq::plugin::Exports<Author>::Init(parameter);                                           \
    }                                                                                                    \
    RQ_PLUGIN_EXPORT int32_t RQWorkerAnalyseTask(RQText taskText, TaskInfo** taskInfo) {                 \
        return ::rq::plugin::Exports<Author>::Analyse(taskText, taskInfo);                               \
    }                                                                                                    \
    RQ_PLUGIN_EXPORT int32_t RQWorkerPerformTask(TaskInfo* taskInfo, const volatile uint32_t* stopFlag,  \
                                                 RQProgressCallback progress, void* context,             \
                                                 const RQRunningParameter* parameter) {                  \
        return ::rq::plugin::Exports<Author>::Perform(taskInfo, stopFlag, progress, context, parameter); \
    }                                                                                                    \
    RQ_PLUGIN_EXPORT int32_t RQWorkerRelease(void) {                                                     \
        return ::rq::plugin::Exports<Author>::Release();                                                 \
    }                                                                                                    \
    }

#endif  // RQWORKER_PLUGIN_HPP
