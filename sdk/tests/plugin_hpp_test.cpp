// The C++ wrapper: what it promises authors, driven as a worker does.
#include "rqworker/plugin.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <thread>

using namespace rq::plugin;

namespace {

using Work = rq::plugin::Run;  // GoogleTest's fixtures have a Run of their own

// A plug-in whose functions do what the test says.
struct Script {
    std::function<Analysis()> analyse;
    std::function<Outcome(TaskRecord&, Work&)> perform;
    std::function<std::int32_t(TaskRecord&)> update;
    int alive = 0;  // records
};
Script g_script;

class Counted final : public TaskRecord {
  public:
    explicit Counted(std::string id) : TaskRecord(7, std::move(id)) { ++g_script.alive; }
    ~Counted() override { --g_script.alive; }
};

class Scripted final : public Plugin {
  public:
    Scripted() : Plugin({"scripted", "1.2.3", {7, 8}, RQ_ABILITY_UPDATE}) {}
    Analysis Analyse(std::string_view) override { return g_script.analyse(); }
    Outcome Perform(TaskRecord& record, Work& run) override { return g_script.perform(record, run); }
    std::int32_t Update(std::string_view text, TaskRecord& running) override {
        return g_script.update ? g_script.update(running) : Plugin::Update(text, running);
    }
};

}  // namespace

RQ_PLUGIN(Scripted)

namespace {

class Wrapper : public testing::Test {
  protected:
    Wrapper() {
        g_script = {};
        g_script.analyse = [] { return Analysis{0, std::make_unique<Counted>("id")}; };
        g_script.perform = [](TaskRecord&, Work&) { return Outcome::kFinished; };
        m_host.size = sizeof m_host;
        m_host.context = this;
        m_host.log = [](void* self, std::int32_t level, RQText text) {
            static_cast<Wrapper*>(self)->m_log +=
                std::to_string(level) + " " + std::string(View(text)) + "\n";
        };
        RQWorkerDescribe(&m_host);
    }
    ~Wrapper() override {
        RQWorkerRelease();
        EXPECT_EQ(g_script.alive, 0);
        RQWorkerDescribe(nullptr);
    }

    // A new task.
    std::int32_t Analyse() {
        m_info = nullptr;
        return RQWorkerAnalyseTask(Borrow("text"), &m_info);
    }
    // Another text for the present one.
    std::int32_t Update() { return RQWorkerAnalyseTask(Borrow("text"), &m_info); }
    void Perform() {
        RQStore32(&m_info->status, RQ_STATUS_RUNNING);
        RQWorkerPerformTask(m_info, &m_stop, nullptr, nullptr, nullptr);
    }

    RQHostServices m_host{};
    TaskInfo* m_info = nullptr;
    volatile std::uint32_t m_stop = RQ_STOP_NONE;
    std::string m_log;
};

TEST_F(Wrapper, GivesTheDescription) {
    const RQPluginDescription* description = RQWorkerDescribe(&m_host);
    EXPECT_EQ(description->size, sizeof(RQPluginDescription));
    EXPECT_EQ(View(description->name), "scripted");
    EXPECT_EQ(View(description->version), "1.2.3");
    ASSERT_EQ(description->typeCount, 2u);
    EXPECT_EQ(description->types[1], 8);
    EXPECT_EQ(description->abilities, RQ_ABILITY_UPDATE);
}

TEST_F(Wrapper, FillsTheRecord) {
    EXPECT_EQ(Analyse(), 0);
    EXPECT_EQ(m_info->size, sizeof(TaskInfo));
    EXPECT_EQ(View(m_info->taskId), "id");
    EXPECT_EQ(m_info->taskType, 7);
    EXPECT_EQ(m_info->typeData, nullptr);
}

TEST_F(Wrapper, AlwaysLeavesARecord) {
    g_script.analyse = [] { return Analysis{5, nullptr}; };
    EXPECT_EQ(Analyse(), 5);
    ASSERT_NE(m_info, nullptr);
    EXPECT_EQ(View(m_info->taskId), "");
    EXPECT_EQ(m_info->taskType, 7);

    g_script.analyse = []() -> Analysis { throw std::runtime_error("bad text"); };
    EXPECT_EQ(Analyse(), kInternalError);
    ASSERT_NE(m_info, nullptr);
    EXPECT_EQ(m_log, "5 analysis: bad text\n");
    EXPECT_EQ(View(m_info->furtherText), "bad text");
}

TEST_F(Wrapper, TellsWhyATextIsRefused) {
    g_script.analyse = [] { return Analysis{5, std::make_unique<Counted>("id"), "line 3: no"}; };
    EXPECT_EQ(Analyse(), 5);
    EXPECT_EQ(View(m_info->taskId), "id");
    EXPECT_EQ(View(m_info->furtherText), "line 3: no");
    EXPECT_EQ(m_log, "4 scripted: the task text is refused: line 3: no\n");
    EXPECT_EQ(static_cast<TaskRecord*>(m_info->own)->Refusal(), 5);
}

TEST_F(Wrapper, NeverPerformsARefusedText) {
    bool performed = false;
    g_script.perform = [&](TaskRecord&, Work&) {
        performed = true;
        return Outcome::kFinished;
    };
    g_script.analyse = [] { return Analysis{5, std::make_unique<Counted>("id"), "line 3: no"}; };
    Analyse();
    Perform();
    EXPECT_FALSE(performed);
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_ERROR);
    EXPECT_EQ(m_info->errorCode, 5);
    EXPECT_EQ(View(m_info->detailErrorText), "the task text was refused; there is nothing to do");
    EXPECT_EQ(View(m_info->furtherText), "line 3: no");
}

TEST_F(Wrapper, KeepsOneRecordAtATime) {
    Analyse();
    Analyse();
    EXPECT_EQ(g_script.alive, 1);
}

// An update that lands just as a perform call returns is an analysis like any other to the plug-in; the
// worker reads the outcome after it.
TEST_F(Wrapper, KeepsAPerformedRecordUntilTheNextPerformCall) {
    Analyse();
    TaskInfo* const performed = m_info;
    Perform();
    Analyse();
    Analyse();
    EXPECT_EQ(g_script.alive, 2);
    EXPECT_NE(m_info, performed);
    EXPECT_EQ(RQLoad32(&performed->status), RQ_STATUS_FINISHED);
    EXPECT_EQ(View(performed->taskId), "id");
    Perform();
    EXPECT_EQ(g_script.alive, 1);
}

// The worker may be about to perform the record that an update replaces.
TEST_F(Wrapper, KeepsARecordThatAnUpdateReplacedUntilItIsPerformed) {
    Analyse();
    TaskInfo* const first = m_info;
    Update();
    EXPECT_NE(m_info, first);
    EXPECT_EQ(g_script.alive, 2);
    TaskInfo* const second = m_info;
    m_info = first;
    Perform();
    EXPECT_EQ(RQLoad32(&first->status), RQ_STATUS_FINISHED);
    EXPECT_EQ(View(first->taskId), "id");
    EXPECT_EQ(View(second->taskId), "id");
    Analyse();
    EXPECT_EQ(g_script.alive, 2);  // the performed one and the new one
}

TEST_F(Wrapper, StoresTheOutcomeAsStatus) {
    for (const Outcome outcome : {Outcome::kFinished, Outcome::kFailed, Outcome::kCancelled}) {
        g_script.perform = [=](TaskRecord&, Work&) { return outcome; };
        Analyse();
        Perform();
        EXPECT_EQ(RQLoad32(&m_info->status), static_cast<std::uint32_t>(outcome));
    }
}

TEST_F(Wrapper, TurnsExceptionsIntoErrors) {
    g_script.perform = [](TaskRecord&, Work&) -> Outcome { throw std::runtime_error("broken"); };
    Analyse();
    Perform();
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_ERROR);
    EXPECT_EQ(m_info->errorCode, kInternalError);
    EXPECT_EQ(View(m_info->detailErrorText), "broken");

    g_script.perform = [](TaskRecord&, Work&) -> Outcome { throw 1; };
    Analyse();
    Perform();
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_ERROR);
    EXPECT_EQ(View(m_info->furtherText), "unknown exception");
}

TEST_F(Wrapper, OwnsTheErrorTexts) {
    g_script.perform = [](TaskRecord& record, Work&) {
        record.SetError(2, 7, std::string(100, 'd'), std::string(100, 'f'));
        return Outcome::kFailed;
    };
    Analyse();
    Perform();
    EXPECT_EQ(m_info->detailErrorCode, 2u);
    EXPECT_EQ(m_info->errorCode, 7);
    EXPECT_EQ(View(m_info->detailErrorText), std::string(100, 'd'));
    EXPECT_EQ(View(m_info->furtherText), std::string(100, 'f'));
    // The worker may point a text at memory of its own; the record frees its own all the same.
    m_info->detailErrorText = Borrow("the worker's");
}

TEST_F(Wrapper, AnUpdateKeepsTheRecordInUse) {
    TaskInfo* during = nullptr;
    std::int32_t code = 0;
    g_script.perform = [&](TaskRecord&, Work&) {
        std::thread([&] { code = RQWorkerAnalyseTask(Borrow("new"), &during); }).join();
        return Outcome::kFinished;
    };
    Analyse();
    Perform();
    EXPECT_EQ(during, m_info);
    EXPECT_EQ(code, kUpdateNotTaken);
    EXPECT_EQ(g_script.alive, 1);

    g_script.update = [&](TaskRecord& running) { return running.Info() == m_info ? 0 : 1; };
    Perform();
    EXPECT_EQ(code, 0);

    g_script.update = [](TaskRecord&) -> std::int32_t { throw std::runtime_error("no"); };
    Perform();
    EXPECT_EQ(code, kInternalError);
    EXPECT_EQ(during, m_info);
}

TEST(WrapperRun, NeverGivesATotalOfZeroAsProgress) {
    std::vector<std::pair<std::int64_t, std::int64_t>> calls;
    const RQProgressCallback keep = [](std::int64_t total, std::int64_t done, void* context) {
        static_cast<decltype(calls)*>(context)->emplace_back(total, done);
        return 0u;
    };
    volatile std::uint32_t stop = RQ_STOP_FINISH;
    Work run(&stop, keep, &calls, nullptr);
    EXPECT_EQ(run.Stop(), RQ_STOP_FINISH);
    run.Progress(0, 0);
    run.Progress(10, 3);
    run.QuietFor(30);
    EXPECT_EQ(calls, (decltype(calls){{1, 0}, {10, 3}, {0, 30}}));
    Work(nullptr, nullptr, nullptr, nullptr).Progress(1, 1);  // without a worker: nothing happens
}

TEST(WrapperResultList, PublishesUpToItsCapacity) {
    ResultList<RQMd5File> list(2);
    RQMd5File entry{};
    entry.has = 1;
    EXPECT_TRUE(list.Publish(entry));
    EXPECT_EQ(list.Count(), 1u);
    entry.has = 2;
    EXPECT_TRUE(list.Publish(entry));
    EXPECT_FALSE(list.Publish(entry));
    const RQResultList& raw = *list.Raw();
    EXPECT_EQ(raw.size, sizeof(RQResultList));
    EXPECT_EQ(raw.capacity, 2u);
    EXPECT_EQ(raw.count, 2u);
    EXPECT_EQ(static_cast<const RQMd5File*>(raw.items[0])->size, sizeof(RQMd5File));
    EXPECT_EQ(static_cast<const RQMd5File*>(raw.items[1])->has, 2u);
    EXPECT_EQ(ResultList<RQMd5File>(0).Raw()->items, nullptr);
}

TEST(WrapperHost, DoesNothingForServicesThatAreNotThere) {
    const Host none;
    none.Log(Level::kFailure, "x");
    EXPECT_EQ(none.WaitForStop(1000), RQ_STOP_NONE);
    EXPECT_FALSE(none.PublishResult(RQMd5File{}));
    EXPECT_EQ(none.TemporaryFolder(), "");

    // A record that ends before waitForStop: what lies behind its size is not read.
    RQHostServices shorter{};
    shorter.size = offsetof(RQHostServices, waitForStop);
    shorter.waitForStop = [](void*, std::uint32_t) { return RQ_STOP_CANCEL; };
    EXPECT_EQ(Host(&shorter).WaitForStop(0), RQ_STOP_NONE);
    shorter.size = sizeof shorter;
    EXPECT_EQ(Host(&shorter).WaitForStop(0), RQ_STOP_CANCEL);
}

TEST(WrapperHost, PassesOnWhatItIsGiven) {
    struct Seen {
        std::uint32_t kind = 0;
        std::string error;
        std::uint32_t seconds = 0;
    } seen;
    RQHostServices services{};
    services.size = sizeof services;
    services.context = &seen;
    services.publishResult = [](void* self, std::uint32_t kind, const void* entry) {
        static_cast<Seen*>(self)->kind = kind;
        return entry == nullptr ? -1 : 0;
    };
    services.publishError = [](void* self, std::uint32_t detail, std::int32_t code, RQText text,
                               RQText further) {
        static_cast<Seen*>(self)->error = std::to_string(detail) + " " + std::to_string(code) + " " +
                                          std::string(View(text)) + " " + std::string(View(further));
    };
    services.quietFor = [](void* self, std::uint32_t seconds) {
        static_cast<Seen*>(self)->seconds = seconds;
    };
    services.temporaryFolder = [](void*) { return RQText{"/tmp/x", 6}; };
    const Host host(&services);
    EXPECT_TRUE(host.PublishResult(RQTranscodeOutput{}));
    EXPECT_EQ(seen.kind, RQ_RESULT_TRANSCODE_OUTPUT);
    host.PublishError(1, -2, "a", "b");
    EXPECT_EQ(seen.error, "1 -2 a b");
    host.QuietFor(9);
    EXPECT_EQ(seen.seconds, 9u);
    EXPECT_EQ(host.TemporaryFolder(), "/tmp/x");
}

}  // namespace
