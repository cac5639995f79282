#include "engine/admission.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "kit/files.h"
#include "kit/os.h"
#include "kit/temp_dir.h"

namespace rq::engine {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr std::int32_t kType = 3;

class AdmissionTest : public testing::Test {
  protected:
    AdmissionTest() {
        m_limits.memory_MiB = 1000;
        m_limits.cores = 4;
        m_limits.passFor = 60s;
        m_limits.typeWorkers[0] = 2;
        m_limits.volumes["media"] = {m_folder.Utf8("media"), 100, ""};
        m_limits.volumes["inner"] = {m_folder.Utf8("media/inner"), 0, ""};
        m_states["media"] = {m_folder.Utf8("media"), 100 << 20, {}, false, 1u << 30, 200 << 20};
        m_states["inner"] = {m_folder.Utf8("media/inner"), 0, {}, false, 1u << 30, 0};
    }
    std::vector<std::string> Rules(const Demand& demand, std::int32_t type = kType) {
        std::vector<std::string> rules;
        for (const auto& reason : Admission(m_limits).Reasons(type, demand, m_usage, m_states))
            rules.push_back(reason.rule);
        return rules;
    }
    std::optional<FieldError> Accept(NewTask& task) { return Admission(m_limits).Accept(task); }
    static Candidate Task(std::int64_t key, std::int64_t memory_MiB, std::int64_t cores = 0) {
        return {key, kType, {memory_MiB, cores, {}}};
    }
    // The first of the candidates that may start, at this time; 0: none.
    std::int64_t Choose(Admission& admission, SteadyTime now, const std::vector<Candidate>& candidates) {
        admission.Begin(m_usage, m_states, now);
        std::int64_t chosen = 0;
        for (const auto& one : candidates) {
            if (chosen == 0 && admission.MayStart(one, true)) chosen = one.task;
        }
        admission.End(chosen == 0);
        return chosen;
    }

    kit::TempDir m_folder;
    NodeLimits m_limits;
    Usage m_usage;
    VolumeStates m_states;
};

TEST_F(AdmissionTest, WhatFitsBesideTheOthersMayStart) {
    m_usage.memory_MiB = 600;
    m_usage.cores = 3;
    EXPECT_TRUE(Rules({400, 1, {"media"}}).empty());
    EXPECT_EQ(Rules({401, 0, {}}), (std::vector<std::string>{"memory"}));
    EXPECT_EQ(Rules({401, 2, {}}), (std::vector<std::string>{"memory", "cores"}));
    EXPECT_TRUE(Rules({}).empty()) << "who says nothing is not counted";
    m_usage.memory_MiB = 5000;
    EXPECT_TRUE(Rules({0, 1, {}}).empty());
}

TEST_F(AdmissionTest, AReasonHasLimitAndPresentValue) {
    m_usage.memory_MiB = 600;
    const auto reasons = Admission(m_limits).Reasons(kType, {500, 0, {}}, m_usage, m_states);
    ASSERT_EQ(reasons.size(), 1u);
    EXPECT_EQ(reasons[0].text, "it takes 500 MiB; running tasks take 600 of 1000 MiB");
    EXPECT_EQ(reasons[0].limit, 1000);
    EXPECT_EQ(reasons[0].present, 600);
    EXPECT_EQ(reasons[0].unit, "MiB");
}

TEST_F(AdmissionTest, WorkersAreCountedByType) {
    m_usage.workers[0] = 2;
    m_usage.workers[kType] = 9;
    EXPECT_EQ(Rules({}, 0), (std::vector<std::string>{"type-workers"}));
    EXPECT_TRUE(Rules({}).empty());
    m_usage.workers[0] = 1;
    EXPECT_TRUE(Rules({}, 0).empty());
}

TEST_F(AdmissionTest, AVolumeHoldsItsTasksAlone) {
    m_states["media"].free_bytes = (100 << 20) - 1;
    EXPECT_EQ(Rules({0, 0, {"media"}}), (std::vector<std::string>{"volume-space"}));
    m_states["media"].free_bytes = 100 << 20;
    EXPECT_TRUE(Rules({0, 0, {"media"}}).empty());
    m_states["media"].away = "gone";
    EXPECT_EQ(Rules({0, 0, {"inner", "media"}}), (std::vector<std::string>{"volume"}));
    EXPECT_TRUE(Rules({0, 0, {"inner"}}).empty());
    EXPECT_EQ(Rules({0, 0, {"old"}}), (std::vector<std::string>{"volume"})) << "not configured any more";
}

TEST_F(AdmissionTest, ASubmissionNamesVolumesByNameOrPath) {
    NewTask task;
    task.demand.volumes = {m_folder.Utf8("media/inner/a.mxf"), "media", m_folder.Utf8("media/b"), "media"};
    ASSERT_FALSE(Accept(task));
    EXPECT_EQ(task.demand.volumes, (std::vector<std::string>{"inner", "media"}));
    // A name that only begins like the folder's is not on it.
    for (const auto& wrong : {m_folder.Utf8("mediae/a"), m_folder.Utf8("media/../x"), std::string("other"),
                              std::string("media/x"), m_folder.Utf8("media/inner/..")}) {
        task.demand.volumes = {wrong};
        const auto fault = Accept(task);
        ASSERT_TRUE(fault) << wrong;
        EXPECT_EQ(fault->field, "volumes");
        EXPECT_THAT(fault->message, HasSubstr(wrong.substr(0, 20)));
    }
    m_limits.volumes.clear();
    task.demand.volumes = {"media"};
    EXPECT_THAT(Accept(task)->message, HasSubstr("[volumes.NAME]"));
}

// As the texts of tasks do.
TEST_F(AdmissionTest, ASubmissionNamesVolumesByPathsOfOtherMachines) {
    const Admission admission(m_limits, *PathMap::Make({{"Q:\\media", m_folder.Utf8("media")}}));
    NewTask task;
    task.demand.volumes = {"q:/Media/inner/a.mxf", "Q:\\media", "media"};
    EXPECT_FALSE(admission.Accept(task));
    EXPECT_EQ(task.demand.volumes, (std::vector<std::string>{"inner", "media"}));
    task.demand.volumes = {"Q:\\media\\..\\a"};
    const auto fault = admission.Accept(task);
    ASSERT_TRUE(fault);
    EXPECT_THAT(fault->message, HasSubstr("\"Q:\\media\\..\\a\", here \"" + m_folder.Utf8("media")));
    EXPECT_THAT(fault->message, HasSubstr("holds \"..\""));
}

TEST_F(AdmissionTest, WhatCouldNeverStartIsRefusedWithTheFigures) {
    NewTask task;
    task.demand.memory_MiB = 1001;
    EXPECT_EQ(Accept(task)->message,
              "memory_mib: 1001 MiB are more than the node has, 1000; such a task could never start here");
    task.demand = {1000, 5, {}};
    EXPECT_EQ(Accept(task)->field, "cores");
    task.demand = {1000, 4, {}};
    EXPECT_FALSE(Accept(task));
}

TEST_F(AdmissionTest, WhatTheMachineHasIsTheLimitThatNobodySet) {
    const Admission admission{NodeLimits()};
    EXPECT_GE(admission.Limits().memory_MiB, 64u);
    EXPECT_GE(admission.Limits().cores, 1u);
}

TEST_F(AdmissionTest, ALargeTaskIsPassedForAWhileAndThenFirst) {
    Admission admission(m_limits);
    m_usage.memory_MiB = 500;
    const Candidate large = Task(1, 800), small = Task(2, 100), smaller = Task(3, 0, 1), silent = Task(4, 0);
    const SteadyTime start{};
    EXPECT_EQ(Choose(admission, start, {large, small}), 2);
    EXPECT_EQ(admission.PassedSince(1), start);
    EXPECT_EQ(Choose(admission, start + 59s, {large, small}), 2);
    EXPECT_FALSE(admission.KeptFor());
    // Its time is over: nothing that declares goes before it; what declares nothing does.
    EXPECT_EQ(Choose(admission, start + 60s, {large, small, smaller}), 0);
    EXPECT_EQ(admission.KeptFor(), 1);
    EXPECT_EQ(Choose(admission, start + 61s, {large, small, silent}), 4);
    // A task of a higher priority stands before it and is not held up.
    EXPECT_EQ(Choose(admission, start + 62s, {small, large}), 2);
    m_usage.memory_MiB = 200;
    EXPECT_EQ(Choose(admission, start + 63s, {large, small}), 1);
    EXPECT_FALSE(admission.PassedSince(1));
    EXPECT_EQ(Choose(admission, start + 64s, {small}), 2);
}

TEST_F(AdmissionTest, OnlyATaskThatLacksRoomAloneIsWaitedFor) {
    Admission admission(m_limits);
    m_usage.memory_MiB = 500;
    Candidate away = Task(1, 800);
    away.demand.volumes = {"media"};
    m_states["media"].away = "gone";
    EXPECT_EQ(Choose(admission, SteadyTime{}, {away, Task(2, 100)}), 2);
    EXPECT_EQ(Choose(admission, SteadyTime{} + 100s, {away, Task(2, 100)}), 2);
    EXPECT_FALSE(admission.PassedSince(1));
    // And not one that can never start, since the node is smaller than when it was submitted.
    EXPECT_EQ(Choose(admission, SteadyTime{}, {Task(3, 2000), Task(2, 100)}), 2);
    EXPECT_EQ(Choose(admission, SteadyTime{} + 100s, {Task(3, 2000), Task(2, 100)}), 2);
}

TEST_F(AdmissionTest, WhoHasEndedIsForgotten) {
    Admission admission(m_limits);
    m_usage.memory_MiB = 500;
    EXPECT_EQ(Choose(admission, SteadyTime{}, {Task(1, 800)}), 0);
    EXPECT_EQ(Choose(admission, SteadyTime{} + 1s, {}), 0);
    EXPECT_FALSE(admission.PassedSince(1));
}

// ---- volumes ----

class VolumeWatchTest : public testing::Test {
  protected:
    VolumeWatchTest() {
        std::filesystem::create_directories(m_folder.Path() / "disk");
        m_limits.volumeInterval = 10ms;
        m_limits.volumes["disk"] = {m_folder.Utf8("disk"), 0, ""};
    }
    VolumeState Await(const VolumeWatch& watch, const std::function<bool(const VolumeState&)>& enough) {
        const auto end = std::chrono::steady_clock::now() + kit::kPatience;
        for (;;) {
            VolumeState state = watch.States().at("disk");
            if (enough(state)) return state;
            if (std::chrono::steady_clock::now() > end) {
                ADD_FAILURE() << "the awaited state did not come: " << state.away.value_or("there");
                return state;
            }
            std::this_thread::sleep_for(5ms);
        }
    }
    static bool IsThere(const VolumeState& state) { return !state.away; }
    static bool IsAway(const VolumeState& state) { return state.away && !state.unknown; }

    kit::TempDir m_folder;
    NodeLimits m_limits;
};

TEST_F(VolumeWatchTest, AVolumeComesAndGoes) {
    const VolumeWatch watch(m_limits);
    EXPECT_GT(Await(watch, IsThere).free_bytes, 0u);
    std::filesystem::rename(m_folder.Path() / "disk", m_folder.Path() / "away");
    EXPECT_THAT(*Await(watch, IsAway).away, HasSubstr("is missing"));
    std::filesystem::rename(m_folder.Path() / "away", m_folder.Path() / "disk");
    Await(watch, IsThere);
    EXPECT_TRUE(watch.HasLooked());
}

TEST_F(VolumeWatchTest, AMountPointWithoutItsMarkerIsAway) {
    m_limits.volumes["disk"].marker = ".this-is-it";
    const VolumeWatch watch(m_limits);
    EXPECT_THAT(*Await(watch, IsAway).away, HasSubstr(".this-is-it"));
    std::ofstream(m_folder.Path() / "disk" / ".this-is-it") << "x";
    Await(watch, IsThere);
}

TEST_F(VolumeWatchTest, TheFloorIsInTheState) {
    m_limits.volumes["disk"].free_MiB = std::uint64_t{1} << 40;
    const VolumeWatch watch(m_limits);
    EXPECT_TRUE(Await(watch, IsThere).IsShort());
}

TEST_F(VolumeWatchTest, AVolumeThatIsAFileIsAway) {
    std::ofstream(m_folder.Path() / "file") << "x";
    EXPECT_THAT(*LookAt({m_folder.Utf8("file"), 0, ""}).away, HasSubstr("is no folder"));
}

}  // namespace
}  // namespace rq::engine
