// Package workers in the whole engine: kept, fed, and told apart.
#include "engine/engine_package_fixture.h"

namespace rq::engine {
namespace {

TEST_F(PackageTest, ManyTasksInARowShareAWorkerInTheirOrder) {
    Start();
    std::vector<std::string> ids;
    std::string printed;
    for (int i = 0; i < 30; ++i) {
        ids.push_back(
            SubmitPackage("print task " + std::to_string(i) + "\nstatus 3\nprogress 50 1\nfinal 0\n"));
        printed += "task " + std::to_string(i) + "\n";
    }
    AwaitState(ids.back(), "finished");
    const json first = Show(ids[0])["attempt_list"][0];
    EXPECT_TRUE(first["worker_of"].is_null());
    for (std::size_t i = 1; i < ids.size(); ++i) {
        const json task = Show(ids[i]);
        EXPECT_EQ(task["state"], "finished");
        const json attempt = task["attempt_list"][0];
        EXPECT_EQ(attempt["pid"], first["pid"]);
        EXPECT_EQ(attempt["session"], first["session"]);
        EXPECT_EQ(attempt["worker_of"], json::parse(R"({"task":"t1","attempt":1})"));
        EXPECT_EQ(Count(EventsUntil(ids[i], "final"), "final"), 1);
        EXPECT_EQ(Count(EventsUntil(ids[i], "final"), "progress"), 1);
    }
    EXPECT_EQ(Ask("GET", "/api/v1/health")["workers"]["running"], 1);
    Stop();
    EXPECT_EQ(kit::ReadText(PathFromUtf8(first["output"].get<std::string>())), "type 14 flag 1\n" + printed);
}

TEST_F(PackageTest, AWorkerWithoutATaskIsToldToFinish) {
    m_settings.packageIdle = 100ms;
    Start();
    const auto id = SubmitPackage("status 3\nfinal 0\n");
    const json task = Ended(id);
    EXPECT_EQ(task["state"], "finished");
    EXPECT_EQ(task["attempt_list"][0]["exit"], json::parse(R"({"code":0})"));
    const auto events = EventsUntil(id, "worker-exited");
    EXPECT_EQ(Count(events, "order"), 1);
    EXPECT_EQ(Count(events, "killed"), 0);
}

TEST_F(PackageTest, OneThatIgnoresThatIsEnded) {
    m_settings.packageIdle = 0ms;
    m_settings.destroyGrace = 200ms;
    Start();
    const auto id = SubmitPackage("status 3\nfinal 0\nhang\n");
    EXPECT_EQ(Verdict(id).find("no-exit: "), 0u);
    EXPECT_EQ(Ended(id)["state"], "finished");
}

TEST_F(PackageTest, ATaskThatComesLaterGoesToTheWorkerThatWaits) {
    Start();
    const auto first = SubmitPackage("status 3\nfinal 0\n");
    AwaitState(first, "finished");
    const auto second = SubmitPackage("status 3\nfinal 4\n");
    AwaitState(second, "failed");
    const auto third = SubmitPackage("status 3\nfinal 0\n");
    AwaitState(third, "finished");
    EXPECT_EQ(Show(third)["attempt_list"][0]["pid"], Show(first)["attempt_list"][0]["pid"]);
    for (const auto& id : {first, third})
        EXPECT_EQ(Ask("DELETE", "/api/v1/tasks/" + id)["error"]["code"], "wrong-state");
    EXPECT_EQ(Order(second, "retry")["result"], "queued");
    EventsUntil(second, [](const json& event) { return event["kind"] == "final" && event["attempt"] == 2; });
}

TEST_F(PackageTest, AWorkerIsFedWithTheNodesPaths) {
    m_settings.paths = PathMap::Make({{"Z:\\media", "/mnt/a"}}).value();
    Start();
    const auto first = SubmitPackage("status 3\nfinal 0\n");
    AwaitState(first, "finished");
    const auto second = SubmitPackage("print of the list\nprint <a>Z:\\media\\x</a>\nstatus 3\nfinal 0\n");
    AwaitState(second, "finished");
    EXPECT_EQ(Count(EventsUntil(first, "final"), "paths"), 0);
    EXPECT_EQ(Count(EventsUntil(second, "final"), "paths"), 1);
    EXPECT_EQ(Show(second)["attempt_list"][0]["worker_of"]["task"], first);
    const std::string file = Show(first)["attempt_list"][0]["output"];
    Stop();
    const std::string output = kit::ReadText(PathFromUtf8(file));
    EXPECT_NE(output.find("of the list\n<a>/mnt/a/x</a>\n"), std::string::npos) << output;
}

TEST_F(PackageTest, OneWaitsInTheListAndSaysSo) {
    Start();
    SubmitTwo("await 4006\nreply 4007\nfinal 0\n", "status 3\nfinal 0\n");
    const auto third = SubmitPackage("status 3\nfinal 0\n");
    const json second = Show(m_second);
    EXPECT_EQ(second["state"], "starting");
    ASSERT_EQ(second["waits"].size(), 1u) << second;
    EXPECT_EQ(second["waits"][0]["rule"], "package-list");
    EXPECT_NE(second["waits"][0]["text"].get<std::string>().find("behind " + m_first), std::string::npos);
    const json why = Ask("GET", "/api/v1/tasks/" + m_second + "/explain");
    EXPECT_EQ(why["waits"][0]["rule"], "package-list");
    EXPECT_NE(why["summary"].get<std::string>().find("behind " + m_first), std::string::npos);
    EXPECT_EQ(StateOf(third), "queued");
    EXPECT_EQ(Order(m_second, "suspend")["error"]["code"], "wrong-state");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    AwaitState(third, "finished");
    EXPECT_EQ(StateOf(m_first), "finished");
    EXPECT_EQ(StateOf(m_second), "finished");
}

// The order was for the first and reaches the worker when it has begun the second.
TEST_F(PackageTest, AStopThatCrossesTheEndOfItsTaskDoesNotCountForTheNext) {
    AllowAttempts(2);
    Start();
    SubmitTwo("await 4002\nreply 4003\nfinal 0\ngoes-on\n",
              "status 3\nin 1 final 5\nin 2 final 0\nin 1 stops\n");
    Order(m_first, "cancel");
    AwaitState(m_second, "finished");
    EXPECT_EQ(StateOf(m_first), "finished");
    const json task = Show(m_second);
    EXPECT_EQ(task["attempts"], 2);
    EXPECT_EQ(task["attempt_list"][0]["state"], "lost");
    EXPECT_EQ(Count(EventsUntil(m_second, "late-status"), "late-status"), 1);
}

TEST_F(PackageTest, ACancelOfTheOneInTheListEndsTheWorkerAtItsTurn) {
    Start();
    SubmitTwo("await 4006\nfinal 0\nawait 4002\nreply 4003\n", "print begun\nstatus 3\nfinal 0\n");
    EXPECT_EQ(Order(m_second, "cancel")["result"], "requested");
    EXPECT_EQ(StateOf(m_second), "finishing");
    const auto third = SubmitPackage("status 3\nfinal 0\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    AwaitState(m_second, "cancelled");
    EXPECT_EQ(StateOf(m_first), "finished");
    AwaitState(third, "finished");
    const std::string output = Show(m_second)["attempt_list"][0]["output"];
    EXPECT_EQ(kit::ReadText(PathFromUtf8(output)).find("begun"), std::string::npos);
}

TEST_F(PackageTest, ARepeatIsTheEndedTasksAndAnEqualRefusalTheNextOnes) {
    Start();
    SubmitTwo("await 4006\nfinal-text 4 refused\nagain\nagain\n", "final-text 4 refused\nagain\n");
    const auto third = SubmitPackage("final-text 4 refused\n");
    const auto fourth = SubmitPackage("status 3\nfinal 0\nagain\n");
    const auto fifth = SubmitPackage("status 3\nfinal 0\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    AwaitState(fifth, "finished");
    EXPECT_EQ(StateOf(fourth), "finished");
    for (const auto& id : {m_first, m_second, third}) {
        EXPECT_EQ(StateOf(id), "failed") << id;
        const auto events = EventsUntil(id, "final");
        EXPECT_EQ(Count(events, "final"), 1) << id;
        EXPECT_EQ(Count(events, "late-status"), 0) << id;
        EXPECT_EQ(Show(id)["attempts"], 1) << id;
    }
}

TEST_F(PackageTest, ATaskThatReturnsWithoutAFinalStatusHasFailedAndTheWorkerGoesOn) {
    Start();
    SubmitTwo("status 3\n", "status 3\nfinal 0\n");
    AwaitState(m_second, "finished");
    const json task = Show(m_first);
    EXPECT_EQ(task["state"], "failed");
    EXPECT_EQ(task["reason"], "its perform call returned in status 3, without a final status");
    EXPECT_EQ(Show(m_second)["attempts"], 1);
}

TEST_F(PackageTest, LateReportsOfTheFirstAreNotTheSeconds) {
    Start();
    SubmitTwo(
        "await 4004\nreply 4005\nawait 4006\nreply 4007\nawait 4004\nfinal 0\nprogress 50 1\nreply 4005\n",
        "await 4006\nreply 4007\nstatus 3\nprogress 25 1\nfinal 0\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    EventsUntil(m_first, [](const json& event) {
        return event["kind"] == "order" && event["data"]["id"] == TCP_TASK_RESUME_ID;
    });
    Order(m_first, "suspend");
    AwaitState(m_second, "finished");
    const auto events = EventsUntil(m_second, "final");
    EXPECT_EQ(Count(events, "progress"), 1);
    // The pause that was the first one's is taken from the worker.
    EXPECT_EQ(Count(events, "reply"), 1);
    EXPECT_EQ(Count(EventsUntil(m_first, "final"), "reply"), 3);
    for (const auto& event : events) EXPECT_NE(event["data"].value("state", ""), "paused");
}

TEST_F(PackageTest, AnOlderTaskOfAnotherTypeGetsTheSlotOfAWorkerThatWaits) {
    Start();
    const auto package = SubmitPackage("status 3\nfinal 0\n");
    AwaitState(package, "finished");
    const auto other = Submit("connect\nstatus 3\nfinal 0\nbye\n");
    const auto later = SubmitPackage("status 3\nfinal 0\n");
    EXPECT_EQ(Ended(other)["state"], "finished");
    AwaitState(later, "finished");
    EXPECT_TRUE(Show(later)["attempt_list"][0]["worker_of"].is_null());
}

TEST_F(PackageTest, APackageTaskDoesNotOvertakeAnOlderTaskOfAnotherType) {
    Start();
    SubmitTwo("await 4006\nfinal 0\n", "status 3\nfinal 0\n");
    const auto other = Submit("connect\nstatus 3\nfinal 0\nbye\n");
    const auto later = SubmitPackage("status 3\nfinal 0\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    AwaitState(m_second, "finished");
    EXPECT_EQ(Ended(other)["state"], "finished");
    AwaitState(later, "finished");
    EXPECT_LT(Show(other)["started"].get<std::string>(), Show(later)["started"].get<std::string>());
}

TEST_F(PackageTest, AFreeSlotIsUsedBeforeAList) {
    m_settings.maxWorkers = 2;
    Start();
    const auto first = SubmitPackage("status 3\nawait 4002\nfinal 5\n");
    const auto second = SubmitPackage("status 3\nawait 4002\nfinal 5\n");
    AwaitState(first, "running");
    AwaitState(second, "running");
    EXPECT_NE(Show(first)["attempt_list"][0]["pid"], Show(second)["attempt_list"][0]["pid"]);
    Order(first, "cancel");
    Order(second, "cancel");
    AwaitState(second, "cancelled");
}

TEST_F(PackageTest, ALimitOfWorkersDoesNotHoldWhatAWorkerTakesThatIsThere) {
    m_settings.maxWorkers = 4;
    m_settings.node.typeWorkers[14] = 1;
    Start();
    SubmitTwo("await 4006\nfinal 0\n", "status 3\nfinal 0\n");
    const auto third = SubmitPackage("status 3\nfinal 0\n");
    EXPECT_EQ(StateOf(third), "queued");
    EXPECT_EQ(RuleOf(third), "type-workers");
    // Of another type: the slots are free.
    EXPECT_EQ(Ended(Submit("connect\nstatus 3\nfinal 0\nbye\n"))["state"], "finished");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    AwaitState(third, "finished");
    AwaitState(SubmitPackage("status 3\nfinal 0\n"), "finished");
    EXPECT_EQ(ProcessOf(m_second), ProcessOf(m_first));
    EXPECT_EQ(ProcessOf(third), ProcessOf(m_first));
}

TEST_F(PackageTest, MemoryIsTakenByATaskInTheListAndNotByAWorkerThatWaits) {
    m_settings.node.memory_MiB = 1000;
    Start();
    const auto first =
        SubmitPackage("status 3\nawait 4004\nreply 4005\nawait 4006\nfinal 0\n", {{"memory_mib", 600}});
    AwaitState(first, "running");
    const auto large = SubmitPackage("status 3\nfinal 0\n", {{"memory_mib", 500}});
    const auto listed = SubmitPackage("status 3\nfinal 0\n", {{"memory_mib", 400}});
    EventsUntil(listed, "added");
    EXPECT_EQ(RuleOf(large), "memory");
    EXPECT_EQ(Ask("GET", "/api/v1/health")["node"]["memory_mib"]["declared"], 1000);
    Order(first, "suspend");
    Order(first, "resume");
    AwaitState(large, "finished");
    EXPECT_EQ(StateOf(listed), "finished");
    EXPECT_EQ(ProcessOf(large), ProcessOf(first));
    EXPECT_EQ(Ask("GET", "/api/v1/health")["workers"]["running"], 1);
    EXPECT_EQ(Ask("GET", "/api/v1/health")["node"]["memory_mib"]["declared"], 0);
}

TEST_F(PackageTest, AVolumeThatIsAwayHoldsATaskFromAWorkerThatWaits) {
    m_settings.node.volumeInterval = 20ms;
    m_settings.node.volumes["media"] = {m_folder.Utf8("media"), 0, ""};
    Start();
    const auto first = SubmitPackage("status 3\nfinal 0\n");
    AwaitState(first, "finished");
    const auto held = SubmitPackage("status 3\nfinal 0\n", {{"volumes", {"media"}}});
    const auto other = SubmitPackage("status 3\nfinal 0\n");
    AwaitState(other, "finished");
    EXPECT_EQ(RuleOf(held), "volume");
    std::filesystem::create_directory(m_folder.Path() / "media");
    AwaitState(held, "finished");
    EXPECT_EQ(ProcessOf(held), ProcessOf(first));
}

TEST_F(PackageTest, AWorkerThatWaitsIsWatched) {
    m_settings.heartbeatInterval = 100ms;
    Start();
    const auto id = SubmitPackage("status 3\nfinal 0\nhang\n");
    EXPECT_EQ(Verdict(id).find("no-heartbeat: "), 0u);
    EXPECT_EQ(Ended(id)["state"], "finished");
}

// It would be the next task's that the worker performs: it may look at the new text when it has looked at
// that one's.
TEST_F(PackageTest, ANewTextIsNotGivenToAWorkerThatHasTheNextTaskInItsList) {
    AllowAttempts(2);
    Start();
    SubmitTwo("await 4006\nfinal 4\n", "status 3\nfinal 0\n");
    const json text = {{"text", "first connect\nstatus 3\nprint anew\nfinal 0\nfirst bye\n"}};
    const json answer = Ask("POST", "/api/v1/tasks/" + m_first + "/update", text);
    EXPECT_EQ(answer["result"], "kept") << answer;
    EXPECT_EQ(answer["changed"], true);
    EXPECT_EQ(Ask("POST", "/api/v1/tasks/" + m_first + "/update", text)["changed"], false);
    Order(m_first, "suspend");
    Order(m_first, "resume");
    AwaitState(m_second, "finished");
    for (const auto& event : EventsUntil(m_first, "final"))
        EXPECT_NE(event["data"].value("id", 0u), std::uint32_t{TCP_TASK_UPDATE_ID}) << event;
    EXPECT_EQ(Order(m_first, "retry")["result"], "queued");
    EventsUntil(m_first, [](const json& event) { return event["kind"] == "final" && event["attempt"] == 2; });
    EXPECT_EQ(StateOf(m_first), "finished");
}

TEST_F(PackageTest, NothingIsListedWhileANewTextIsUnanswered) {
    Start();
    const auto first =
        SubmitPackage("status 3\nawait 4015\nawait 4015\nreply 4016\nreply 4016\nawait 4006\nfinal 0\n");
    AwaitState(first, "running");
    const auto update = [&](const char* text) {
        return Ask("POST", "/api/v1/tasks/" + first + "/update", {{"text", text}})["result"];
    };
    EXPECT_EQ(update("<new/>"), "requested");
    const auto second = SubmitPackage("status 3\nfinal 0\n");
    EXPECT_EQ(StateOf(second), "queued");
    EXPECT_EQ(update("<newer/>"), "requested");
    EventsUntil(second, "added");
    Order(first, "suspend");
    Order(first, "resume");
    AwaitState(second, "finished");
    EXPECT_EQ(ProcessOf(second), ProcessOf(first));
}

// Its type is known from its first status.
TEST_F(PackageTest, OneThatWasStartedByHandIsToldToFinish) {
    Start();
    LinkClient worker;
    ASSERT_TRUE(worker.Connect(m_engine->LinkPort()));
    ASSERT_EQ(worker.Greet(m_engine->Token(), ""), 0u);
    auto message = StateMessage(kTaskRunning);
    message.entries[0].taskType = 14;
    worker.Send(TCP_WORKER_STATE_ID, message);
    message.entries[0].status = kTaskFinished;
    EXPECT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, message)));
    const auto order = worker.WaitOrder();
    ASSERT_TRUE(order);
    EXPECT_EQ(order->id, std::uint32_t{TCP_TASK_FINISH_ID});
}

}  // namespace
}  // namespace rq::engine
