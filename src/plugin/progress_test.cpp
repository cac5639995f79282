// The progress callback: figures, signs of life, two-pass tasks, pauses and the clock behind the stamps.

#include <atomic>
#include <cmath>

#include "base/sync.h"
#include "plugin/runner_fixture.h"
#include "plugin/task_clock.h"

namespace rq {
namespace {

using boost::posix_time::hours;
using boost::posix_time::milliseconds;
using boost::posix_time::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""s;

constexpr const char* kBegin = "2 m_workerPlugin.pPerformTaskFunc begin..";
constexpr const char* kEnd = "2 m_workerPlugin.pPerformTaskFunc end..";
constexpr const char* kResumed = "2 Update Status to Running After Pause!111111111";
constexpr const char* kStopped = "2 Update Status to Running After Pause!22222222222";

class RunnerProgressTest : public RunnerTest {
  protected:
    // Runs a task whose perform call does `body` and leaves status 0.
    void Run(const std::function<void(const PerformArguments&)>& body) {
        m_plugin.perform = [body](const PerformArguments& call) {
            body(call);
            if (RQLoad32(&call.info->status) == RQ_STATUS_RUNNING) call.Leave(RQ_STATUS_FINISHED);
            return 0;
        };
        if (m_runner == nullptr) Ready();
        EXPECT_EQ(Analyse(), 0);
        m_log.Clear();
        EXPECT_EQ(Perform(), 0);
    }
};

TEST_F(RunnerProgressTest, AFigureFillsTheRecord) {
    Run([&](const PerformArguments& call) {
        m_clock.Advance(1500ms);
        EXPECT_EQ(call.Progress(8, 2), 0u);
        const TaskProgress progress = m_runner->GetProgress();
        EXPECT_DOUBLE_EQ(progress.percent, 25);
        EXPECT_EQ(progress.processed, 2);
        EXPECT_EQ(progress.remaining, -1);
        EXPECT_EQ(progress.updated, 1);
        EXPECT_EQ(progress.lastUpdate, m_clock.Local());
        EXPECT_EQ(progress.expectedNextUpdate, m_clock.Local());
        EXPECT_EQ(progress.start, m_clock.Local() - milliseconds(1500));
        EXPECT_EQ(progress.speed, 0);
        EXPECT_EQ(progress.reserved1, 0);
        EXPECT_EQ(progress.reserved2, 0);
        EXPECT_EQ(progress.reserved3, 0);
    });
    EXPECT_THAT(Lines(), ElementsAre(kBegin, kEnd));
}

TEST_F(RunnerProgressTest, WithoutAContextIsRefused) {
    Run([](const PerformArguments& call) { EXPECT_EQ(call.progress(1, 1, nullptr), 0xFFFFFFFFu); });
}

TEST_F(RunnerProgressTest, WithoutATaskDoesNothing) {
    PerformArguments kept;
    Run([&](const PerformArguments& call) { kept = call; });
    m_plugin.analyse = [&](RQText, TaskInfo** info) {
        EXPECT_EQ(kept.Progress(4, 3), 0u);
        EXPECT_EQ(m_runner->GetProgress().percent, 0);
        *info = &m_info;
        return 0;
    };
    m_log.Clear();
    EXPECT_EQ(Analyse(), 0);
    EXPECT_THAT(Lines(), ElementsAre("4 AnalysTask Begin! TaskStr: <t/>"));
}

TEST_F(RunnerProgressTest, TotalZeroIsASignOfLifeAndNoFigure) {
    Run([&](const PerformArguments& call) {
        call.Progress(10, 5);
        m_clock.Advance(1s);
        const LocalTime lastUpdate = m_runner->GetProgress().lastUpdate;
        EXPECT_EQ(call.Progress(0, 300), 0u);
        const TaskProgress progress = m_runner->GetProgress();
        EXPECT_EQ(progress.percent, 50);
        EXPECT_EQ(progress.processed, 5);
        EXPECT_EQ(progress.lastUpdate, lastUpdate);
        EXPECT_EQ(progress.expectedNextUpdate, m_clock.Local() + seconds(300));
    });
}

TEST_F(RunnerProgressTest, ASignOfLifeIsNoUpdate) {
    m_info.taskType = RQ_TYPE_TRANSFER;
    Run([&](const PerformArguments& call) {
        m_clock.Advance(1s);
        call.Progress(0, 300);
        const TaskProgress progress = m_runner->GetProgress();
        EXPECT_EQ(progress.updated, 0);
        EXPECT_EQ(progress.remaining, 0);
        EXPECT_EQ(progress.speed, 0);
        EXPECT_EQ(progress.processed, 0);
    });
}

TEST_F(RunnerProgressTest, AFigureAfterASignOfLifeTakesThePromiseBack) {
    Run([&](const PerformArguments& call) {
        call.Progress(0, 300);
        call.Progress(10, 1);
        EXPECT_EQ(m_runner->GetProgress().expectedNextUpdate, m_clock.Local());
    });
}

TEST_F(RunnerProgressTest, ASignOfLifeForLongerThanTheCalendarIsCut) {
    Run([&](const PerformArguments& call) {
        call.Progress(0, std::numeric_limits<std::int64_t>::max());
        EXPECT_FALSE(m_runner->GetProgress().expectedNextUpdate.is_special());
        EXPECT_GT(m_runner->GetProgress().expectedNextUpdate, m_clock.Local() + hours(24 * 365 * 99));
    });
}

TEST_F(RunnerProgressTest, TwoPassesFillAHalfEach) {
    RQReviewData data{sizeof data, 1, 1, {}};
    m_info.taskType = RQ_TYPE_REVIEW;
    m_info.typeData = &data;
    Run([&](const PerformArguments& call) {
        std::vector<double> percents;
        for (const int done : {25, 50, 100, 0, 50, 100}) {
            call.Progress(100, done);
            percents.push_back(m_runner->GetProgress().percent);
        }
        EXPECT_THAT(percents, ElementsAre(12.5, 25, 50, 50, 75, 100));
    });
}

TEST_F(RunnerProgressTest, ATaskOfOnePassAfterOneOfTwoIsOfOne) {
    RQReviewData data{sizeof data, 1, 1, {}};
    m_info.taskType = RQ_TYPE_REVIEW;
    m_info.typeData = &data;
    Run([](const PerformArguments&) {});
    data.twoPass = 0;
    Run([&](const PerformArguments& call) {
        call.Progress(100, 60);
        EXPECT_EQ(m_runner->GetProgress().percent, 60);
    });
}

TEST_F(RunnerProgressTest, OnePassFlagAloneIsOnePass) {
    RQReviewData data{sizeof data, 1, 0, {}};
    m_info.taskType = RQ_TYPE_REVIEW;
    m_info.typeData = &data;
    Run([&](const PerformArguments& call) {
        call.Progress(100, 60);
        EXPECT_EQ(m_runner->GetProgress().percent, 60);
    });
}

// ---- transfer speed ----

TEST_F(RunnerProgressTest, TransferSpeedIsMegabytesPerSecond) {
    m_info.taskType = RQ_TYPE_TRANSFER;
    Run([&](const PerformArguments& call) {
        m_clock.Advance(2s);
        call.Progress(100 << 20, 10 << 20);
        EXPECT_DOUBLE_EQ(m_runner->GetProgress().speed, 5);
    });
}

TEST_F(RunnerProgressTest, TransferSpeedAtTheStartIsNotGuarded) {
    m_info.taskType = RQ_TYPE_TRANSFER;
    Run([&](const PerformArguments& call) {
        call.Progress(100, 50);
        EXPECT_TRUE(std::isinf(m_runner->GetProgress().speed));
        call.Progress(100, 0);
        EXPECT_TRUE(std::isnan(m_runner->GetProgress().speed));
    });
}

TEST_F(RunnerProgressTest, TransferSpeedWithoutAStartStaysWhatItWas) {
    m_info.taskType = RQ_TYPE_TRANSFER;
    m_parameters.progressPatrolTimeout_s = 0;
    Run([&](const PerformArguments& call) {
        m_clock.Advance(2s);
        call.Progress(100, 50);
        EXPECT_EQ(m_runner->GetProgress().speed, 0);
        EXPECT_EQ(m_runner->GetProgress().percent, 50);
    });
}

TEST_F(RunnerProgressTest, OtherTypesHaveNoSpeed) {
    Run([&](const PerformArguments& call) {
        m_clock.Advance(2s);
        call.Progress(100 << 20, 10 << 20);
        EXPECT_EQ(m_runner->GetProgress().speed, 0);
    });
}

// ---- pauses ----

class RunnerPauseTest : public RunnerProgressTest {
  protected:
    // One pass of the pause loop: it sleeps, the clock moves on by its 100 ms.
    void Pass() {
        ASSERT_TRUE(m_clock.WaitForWaitsBegun(++m_passes));
        m_clock.Advance(100ms);
    }
    void AwaitPass() { ASSERT_TRUE(m_clock.WaitForWaitsBegun(m_passes + 1)); }

    std::uint64_t m_passes = 0;
};

TEST_F(RunnerPauseTest, HoldsTheCallUntilResumed) {
    Run([&](const PerformArguments& call) {
        EXPECT_EQ(m_runner->SuspendTask(), 0);
        std::thread link([&] {
            Pass();
            AwaitPass();
            EXPECT_EQ(m_runner->GetStatus(), 7u);
            EXPECT_EQ(m_runner->GetProgress().percent, 0);
            EXPECT_EQ(m_runner->ResumeTask(), 0);
            Pass();
        });
        call.Progress(4, 1);
        link.join();
        EXPECT_EQ(RQLoad32(&call.info->status), 3u);
        EXPECT_EQ(m_runner->GetProgress().percent, 25);
        EXPECT_TRUE(m_runner->IsStatusChanged());
    });
    EXPECT_THAT(Lines(), ElementsAre(kBegin, kResumed, kEnd));
}

// Two stamps: the patrol's is from the entry, before the pause; the last update is from after it.
TEST_F(RunnerPauseTest, TheTwoStampsOfAFigureStandOnBothSidesOfThePause) {
    Run([&](const PerformArguments& call) {
        const LocalTime entry = m_clock.Local();
        m_runner->SuspendTask();
        std::thread link([&] {
            Pass();
            AwaitPass();
            m_runner->ResumeTask();
            Pass();
        });
        call.Progress(4, 1);
        link.join();
        EXPECT_EQ(m_runner->GetProgress().expectedNextUpdate, entry);
        EXPECT_EQ(m_runner->GetProgress().lastUpdate, entry + milliseconds(200));
    });
}

TEST_F(RunnerPauseTest, ASignOfLifeCountsFromTheEndOfThePause) {
    Run([&](const PerformArguments& call) {
        const LocalTime entry = m_clock.Local();
        m_runner->SuspendTask();
        std::thread link([&] {
            AwaitPass();
            m_runner->ResumeTask();
            Pass();
        });
        call.Progress(0, 10);
        link.join();
        EXPECT_EQ(m_runner->GetProgress().expectedNextUpdate, entry + milliseconds(100) + seconds(10));
    });
}

TEST_F(RunnerPauseTest, EachPassIsTakenOutOfTheTransferSpeed) {
    m_info.taskType = RQ_TYPE_TRANSFER;
    Run([&](const PerformArguments& call) {
        m_clock.Advance(1s);
        m_runner->SuspendTask();
        std::thread link([&] {
            Pass();
            Pass();
            AwaitPass();
            m_runner->ResumeTask();
            Pass();
        });
        call.Progress(100 << 20, 8 << 20);
        link.join();
        EXPECT_DOUBLE_EQ(m_runner->GetProgress().speed, 8);  // 1300 ms less 300 ms
    });
}

// The time of all tasks is taken out of each one's speed: nothing sets it back.
TEST_F(RunnerPauseTest, ThePausesOfATaskCountInTheNext) {
    m_info.taskType = RQ_TYPE_TRANSFER;
    Run([&](const PerformArguments& call) {
        m_runner->SuspendTask();
        std::thread link([&] {
            AwaitPass();
            m_runner->ResumeTask();
            Pass();
        });
        call.Progress(4, 1);
        link.join();
    });
    Run([&](const PerformArguments& call) {
        m_clock.Advance(1100ms);
        call.Progress(100 << 20, 8 << 20);
        EXPECT_DOUBLE_EQ(m_runner->GetProgress().speed, 8);
    });
}

TEST_F(RunnerPauseTest, StatusChangedIsThatOfTheLastPass) {
    Run([&](const PerformArguments& call) {
        m_runner->SuspendTask();
        std::thread link([&] {
            AwaitPass();
            EXPECT_TRUE(m_runner->IsStatusChanged());  // 3 became 7
            Pass();
            AwaitPass();
            EXPECT_FALSE(m_runner->IsStatusChanged());  // 7 stayed 7
            m_runner->ResumeTask();
            Pass();
        });
        call.Progress(4, 1);
        link.join();
        EXPECT_TRUE(m_runner->IsStatusChanged());
    });
}

// Whoever set it: a task that tells progress is not paused.
TEST_F(RunnerPauseTest, AStatusOfThePluginsOwnThatSaysPausedIsRunningAgain) {
    Run([&](const PerformArguments& call) {
        call.Leave(RQ_STATUS_PAUSED);
        call.Progress(4, 1);
        EXPECT_EQ(RQLoad32(&call.info->status), 3u);
        call.Progress(4, 2);
    });
    EXPECT_THAT(Lines(), ElementsAre(kBegin, kStopped, kEnd));
}

TEST_F(RunnerPauseTest, AFinishEndsThePauseAndTheStatusIsRunningAgain) {
    Run([&](const PerformArguments& call) {
        m_runner->SuspendTask();
        std::thread link([&] {
            AwaitPass();
            m_runner->CloseTask(kCloseFinish, 0);
            Pass();
        });
        call.Progress(4, 1);
        link.join();
        EXPECT_EQ(RQLoad32(&call.info->status), 3u);
    });
    EXPECT_THAT(
        Lines(),
        ElementsAre(kBegin, "2 close task:task-1, mode=6, wait:0...", "2 WB=====>Stop Mode Is Finish",
                    "2 apparitor::close: waiting for thread...", "2 task impl closed.", kStopped, kEnd));
}

TEST_F(RunnerPauseTest, ACancelInThePauseStaysCancelled) {
    Run([&](const PerformArguments& call) {
        m_runner->SuspendTask();
        std::thread link([&] {
            AwaitPass();
            m_runner->CloseTask(kCloseCancel, 0);
            Pass();
        });
        call.Progress(4, 1);
        link.join();
        EXPECT_EQ(RQLoad32(&call.info->status), 5u);
    });
    EXPECT_EQ(m_log.Count("Update Status to Running After Pause!22222222222"), 0u);
}

// A cancel whose status was overwritten by the pass that followed it ends in status 3 until the plug-in
// returns.
TEST_F(RunnerPauseTest, ACancelBetweenTwoPassesCanEndInStatusRunning) {
    Run([&](const PerformArguments& call) {
        m_runner->SuspendTask();
        std::thread link([&] {
            AwaitPass();
            m_runner->CloseTask(kCloseCancel, 0);
            RQStore32(&m_info.status, RQ_STATUS_PAUSED);
            Pass();
        });
        call.Progress(4, 1);
        link.join();
        EXPECT_EQ(RQLoad32(&call.info->status), 3u);
    });
    EXPECT_EQ(m_log.Count(2, "Update Status to Running After Pause!22222222222"), 1u);
}

TEST_F(RunnerPauseTest, DoesNotBeginWhenTheStopFlagIsSet) {
    Run([&](const PerformArguments& call) {
        m_runner->CloseTask(kCloseFinish, 0);
        m_runner->SuspendTask();
        call.Progress(4, 1);
        EXPECT_EQ(m_runner->GetProgress().percent, 25);
    });
    EXPECT_EQ(m_clock.WaitsBegun(), 0u);
}

// ---- breaches: one line for each kind and task ----

using RunnerBreachTest = RunnerProgressTest;

TEST_F(RunnerBreachTest, MoreThanAllIsOneLineAndIsTaken) {
    Run([&](const PerformArguments& call) {
        call.Progress(100, 150);
        EXPECT_EQ(m_runner->GetProgress().percent, 150);
        call.Progress(100, 151);
    });
    EXPECT_THAT(Lines(), ElementsAre(kBegin, "3 plug-in fake told more than 100 percent of progress", kEnd));
}

TEST_F(RunnerBreachTest, NegativeFiguresAreOneLineAndAreTaken) {
    Run([&](const PerformArguments& call) {
        call.Progress(100, -5);
        EXPECT_EQ(m_runner->GetProgress().percent, -5);
        EXPECT_EQ(m_runner->GetProgress().processed, -5);
        call.Progress(-100, 5);
        call.Progress(0, -5);
        EXPECT_EQ(m_runner->GetProgress().expectedNextUpdate, m_clock.Local() - seconds(5));
    });
    EXPECT_THAT(Lines(), ElementsAre(kBegin, "3 plug-in fake told a negative progress figure", kEnd));
}

TEST_F(RunnerBreachTest, ACallAfterTheReturnIsOneLineAndIsTaken) {
    PerformArguments kept;
    Run([&](const PerformArguments& call) { kept = call; });
    EXPECT_EQ(kept.Progress(4, 3), 0u);
    EXPECT_EQ(kept.Progress(4, 4), 0u);
    EXPECT_EQ(m_runner->GetProgress().percent, 100);
    EXPECT_THAT(Lines(), ElementsAre(kBegin, kEnd,
                                     "3 plug-in fake told progress after its perform call had returned"));
}

TEST_F(RunnerBreachTest, ALateCallIsNotHeldByAPause) {
    PerformArguments kept;
    Run([&](const PerformArguments& call) { kept = call; });
    m_runner->SuspendTask();
    EXPECT_EQ(kept.Progress(4, 3), 0u);
    EXPECT_EQ(m_runner->GetStatus(), 0u);
    EXPECT_EQ(m_clock.WaitsBegun(), 0u);
}

// A thread that outlived its perform call may call when the worker has let its runner go.
TEST_F(RunnerBreachTest, ACallAfterTheReleaseOrTheRunnerDoesNothing) {
    PerformArguments kept;
    Run([&](const PerformArguments& call) { kept = call; });
    m_runner->Release();
    m_log.Clear();
    EXPECT_EQ(kept.Progress(4, 3), 0u);
    EXPECT_EQ(m_runner->GetProgress().percent, 0);
    m_runner.reset();
    EXPECT_EQ(kept.Progress(4, 3), 0u);
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(RunnerBreachTest, AnotherThreadIsOneLine) {
    Run([&](const PerformArguments& call) {
        std::thread other([&] {
            call.Progress(4, 1);
            call.Progress(4, 2);
        });
        other.join();
        EXPECT_EQ(m_runner->GetProgress().percent, 50);
    });
    EXPECT_THAT(Lines(),
                ElementsAre(kBegin, "3 plug-in fake told progress from another thread than perform's", kEnd));
}

// A thread that outlives its perform call and goes on while the next one begins. What it reads of the runner
// meanwhile must be whole: linux-tsan sees to that, so nothing here orders the two threads by accident.
TEST_F(RunnerBreachTest, AThreadThatReachesIntoTheNextPerformIsOneLine) {
    std::atomic<int> reports = 0;
    std::atomic<bool> isOver = false;
    std::thread straggler;
    m_plugin.perform = [&](const PerformArguments& call) {
        if (!straggler.joinable()) {
            straggler = std::thread([&isOver, &reports, call] {
                while (!isOver.load(std::memory_order_relaxed)) {
                    call.Progress(4, 1);
                    reports.fetch_add(1, std::memory_order_relaxed);
                }
            });
        }
        const int before = reports.load(std::memory_order_relaxed);
        while (reports.load(std::memory_order_relaxed) < before + 2) std::this_thread::yield();
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    Analysed();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(Perform(), 0);
    isOver.store(true, std::memory_order_relaxed);
    straggler.join();
    EXPECT_EQ(m_log.Count(3, "plug-in fake told progress from another thread than perform's"), 1u);
}

TEST_F(RunnerBreachTest, ANewTaskIsToldOnAgain) {
    const auto tooMuch = [](const PerformArguments& call) {
        call.Progress(1, 2);
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    m_plugin.perform = tooMuch;
    Analysed();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(Analyse(), 0);
        EXPECT_EQ(Perform(), 0);
    }
    EXPECT_EQ(m_log.Count(3, "plug-in fake told more than 100 percent of progress"), 2u);
}

// ---- the clock behind the stamps ----

TEST_F(RunnerProgressTest, StepsOfTheWallClockMoveNoStamp) {
    const LocalTime start = m_clock.Local();
    Run([&](const PerformArguments& call) {
        for (const auto step : {hours(1), hours(-3), hours(24 * 365)}) {
            m_clock.SetLocal(start + step);
            EXPECT_EQ(m_runner->StampNow(), start);
        }
        m_clock.Advance(10s);
        EXPECT_EQ(m_runner->StampNow(), start + seconds(10));
        call.Progress(4, 1);
        EXPECT_EQ(m_runner->GetProgress().lastUpdate, start + seconds(10));
        EXPECT_EQ(m_runner->GetProgress().expectedNextUpdate, start + seconds(10));
        call.Progress(0, 5);
        EXPECT_EQ(m_runner->GetProgress().expectedNextUpdate, start + seconds(15));
    });
}

TEST_F(RunnerProgressTest, TheNextTaskIsAnchoredAnew) {
    Run([](const PerformArguments&) {});
    m_clock.SetLocal(m_clock.Local() + hours(2));
    EXPECT_EQ(m_runner->StampNow(), m_clock.Local() - hours(2));
    EXPECT_EQ(Analyse(), 0);
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(m_runner->StampNow(), m_clock.Local());
    EXPECT_EQ(m_runner->GetProgress().start, m_clock.Local());
}

TEST_F(RunnerProgressTest, BeforeAnyTaskTheClockIsTheWallClock) {
    Ready();
    m_clock.SetLocal(m_clock.Local() + hours(2));
    EXPECT_EQ(m_runner->StampNow(), m_clock.Local());
}

// Many threads at once; the thread checker looks for races.
TEST_F(RunnerProgressTest, ReadersAndOrdersBesideAFloodOfProgress) {
    WorkRunnerSeams seams = Seams();
    seams.clock = &SystemClock();
    MakeRunner(std::move(seams));
    EXPECT_EQ(Init(), 0);
    EXPECT_EQ(Analyse(), 0);
    std::atomic<bool> done{false};
    TaskInfo other = m_info;
    m_plugin.perform = [&](const PerformArguments& call) {
        for (int i = 0; i < 20000 || !done; ++i) call.Progress(1 << 30, i);
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    m_plugin.analyse = [&](RQText, TaskInfo** info) {
        *info = &other;
        return 0;
    };
    std::thread progress([&] {
        for (int i = 0; i < 500; ++i) {
            m_runner->GetProgress();
            m_runner->GetStatus();
            m_runner->GetTaskResult(3);
            m_runner->StampNow();
            m_runner->GetFrameRate();
            m_runner->GetErrorInfo();
        }
    });
    std::thread link([&] {
        for (int i = 0; i < 100; ++i) {
            m_runner->UpdateTask("<u/>");
            m_runner->GetTaskId();
            m_runner->GetTaskResult(4);
        }
        m_runner->SuspendTask();
        m_runner->ResumeTask();
        m_runner->CloseTask(kCloseFinish, 1);
        m_runner->CloseTask(kClosePatrol, 1);
        done = true;
    });
    EXPECT_EQ(Perform(), 0);
    progress.join();
    link.join();
    EXPECT_EQ(m_runner->GetStatus(), 0u);
    EXPECT_GT(m_runner->GetProgress().processed, 0);
}

}  // namespace
}  // namespace rq
