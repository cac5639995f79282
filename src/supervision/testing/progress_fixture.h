// ProgressFixture: a progress thread on a fake core, moved round by round.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "supervision/progress_thread.h"
#include "supervision/testing/fake_core.h"

namespace rq::testing {

class ProgressFixture : public ::testing::Test {
  protected:
    ~ProgressFixture() override { Stop(); }

    void Start() {
        m_thread = std::thread([this] { EXPECT_EQ(ProgressThread(m_core), 0u); });
    }
    void Stop() {
        if (!m_thread.joinable()) return;
        m_core.working = false;
        m_core.progressSignal.Notify();
        m_thread.join();
        Signal::Hold hold(m_core.progressSignal);
        m_core.progressSignal.Reset(hold);
        m_core.working = true;  // for another start
    }
    // One measured round; the thread waits again when it returns.
    void Round() {
        ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
        m_core.clock.Advance(std::chrono::seconds(m_core.reportInterval_s));
        ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
    }
    // One measured round that is to end the thread.
    void LastRound() {
        ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
        m_core.clock.Advance(std::chrono::seconds(m_core.reportInterval_s));
        m_thread.join();
    }
    // `startsIn`: from now to the task's start stamp.
    void SetWork(double percent, std::int64_t processed, std::chrono::seconds startsIn) {
        const LocalTime start = m_core.clock.Local() + boost::posix_time::seconds(startsIn.count());
        m_core.script.With([&](RunnerAnswers& answers) {
            answers.progress.percent = percent;
            answers.progress.processed = processed;
            answers.progress.start = start;
        });
    }
    // The stamp that the patrol looks at: now plus `in`.
    void ExpectUpdate(std::chrono::milliseconds in) {
        const LocalTime stamp = m_core.clock.Local() + boost::posix_time::milliseconds(in.count());
        m_core.script.With([&](RunnerAnswers& answers) { answers.progress.expectedNextUpdate = stamp; });
    }
    std::vector<SentMessage> Reports() const { return m_core.sent.WithId(TCP_WORKER_PROGRESS_ID); }
    std::vector<SentMessage> Stalls() const { return m_core.sent.WithId(TCP_WORKER_STATE_ID); }

    FakeCore m_core;
    std::thread m_thread;
};

}  // namespace rq::testing
