// Orders to workers, further attempts, verdicts and stopped types, in the whole engine.
#include "engine/engine_fixture.h"
#include "engine/sqlite.h"

namespace rq::engine {
namespace {

TEST_F(EngineTest, ALostWorkerIsFollowedByAnotherAttempt) {
    AllowAttempts(3);
    Start();
    const auto id = Submit("connect\nstatus 3\nin 1 killed\nin 2 exit 7\nfinal 0\nbye\n");
    AwaitState(id, "finished");
    const json task = Show(id);
    EXPECT_EQ(task["attempts"], 3);
    EXPECT_EQ(task["attempt_list"][0]["state"], "lost");
    EXPECT_EQ(task["attempt_list"][1]["state"], "lost");
    EXPECT_EQ(task["attempt_list"][2]["state"], "finished");
    EXPECT_TRUE(task["reason"].is_null());
    const auto events = EventsUntil(id, "final");
    EXPECT_EQ(Count(events, "repeat"), 2);
}

TEST_F(EngineTest, AttemptsEnd) {
    AllowAttempts(2);
    Start();
    const auto id = Submit("connect\nstatus 3\nexit 7\n");
    AwaitState(id, "lost");
    EXPECT_EQ(Show(id)["attempts"], 2);
    EXPECT_EQ(Count(EventsUntil(id, "no-repeat"), "repeat"), 1);
    // And begin anew by order.
    EXPECT_EQ(Order(id, "retry")["result"], "queued");
    const auto later = [&](const json& event) {
        return event["kind"] == "no-repeat" && event["attempt"] == 4;
    };
    EventsUntil(id, later);
    EXPECT_EQ(Show(id)["state"], "lost");
}

TEST_F(EngineTest, AWaitingTaskSaysForWhat) {
    AllowAttempts(2);
    m_settings.retry.standard.firstDelay = m_settings.retry.standard.longestDelay = 1h;
    Start();
    const auto id = Submit("connect\nstatus 3\nin 1 exit 7\nfinal 0\nbye\n");
    EventsUntil(id, "repeat");
    const json task = Show(id);
    EXPECT_EQ(task["state"], "queued");
    EXPECT_TRUE(task["not_before"].is_string());
    ASSERT_EQ(task["waits"].size(), 1u) << task;
    EXPECT_EQ(task["waits"][0]["rule"], "backoff");
    EXPECT_EQ(task["waits"][0]["until"], task["not_before"]);
    const std::string text = task["waits"][0]["text"];
    EXPECT_EQ(text.find("attempt 2 not before "), 0u) << text;
    EXPECT_NE(text.find("exit code 7"), std::string::npos) << text;
    EXPECT_EQ(Order(id, "cancel")["result"], "cancelled");
}

TEST_F(EngineTest, AWorkerThatEndsInOrderAndInStatus3FailsItsTaskWithoutAnother) {
    AllowAttempts(3);
    Start();
    const auto id = Submit("connect\nstatus 3\nstatus 3\nawait 4014\nbye\n");
    const json task = Ended(id);
    EXPECT_EQ(task["state"], "failed");
    EXPECT_EQ(task["reason"], "the worker ended in good order and in status 3, without a final status");
    EXPECT_EQ(task["attempts"], 1);
    // Whatever it is, it comes behind the perform call. None of them is a pause.
    for (const std::string status : {"7", "1", "42"}) {
        const auto other = Submit("connect\nstatus 2\nstatus 3\nstatus " + status + "\nawait 4014\nbye\n");
        EXPECT_EQ(Ended(other)["reason"],
                  "the worker ended in good order and in status " + status + ", without a final status");
        const auto events = EventsUntil(other, "worker-exited");
        EXPECT_EQ(Count(events, "order"), 1);
        EXPECT_EQ(std::count_if(events.begin(), events.end(),
                                [](const json& event) {
                                    return event["kind"] == "state" && event["data"]["state"] == "paused";
                                }),
                  0);
    }
    EXPECT_EQ(Ended(Submit("connect\nbye\n"))["reason"],
              "the worker ended in good order before its task began");
    // A package worker whose plug-in cannot be initialised does not even connect.
    EXPECT_EQ(Ended(Submit("exit 0\n"))["state"], "failed");
}

TEST_F(EngineTest, SuspendAndResumeAreTheWorkersToAnswer) {
    Start();
    const auto id = Submit(
        "connect\nnotice job\nstatus 3\nawait 4004\nreply 4005\nawait 4006\nreply 4007\nawait 4002\nfinal "
        "5\nbye\n");
    EXPECT_EQ(Ask("POST", "/api/v1/tasks/t9/suspend")["error"]["code"], "unknown-task");
    AwaitState(id, "running");
    EXPECT_EQ(Order(id, "resume")["result"], "not-suspended");
    EXPECT_EQ(Order(id, "suspend")["result"], "requested");
    AwaitState(id, "paused");
    EXPECT_EQ(Order(id, "suspend")["result"], "already-suspended");
    EXPECT_EQ(Order(id, "resume")["result"], "requested");
    EventsUntil(id,
                [](const json& event) { return event["kind"] == "reply" && event["data"]["id"] == 4007; });
    EXPECT_EQ(Show(id)["state"], "running");
    EXPECT_EQ(Order(id, "cancel")["state"], "finishing");
    EXPECT_EQ(Order(id, "suspend")["error"]["code"], "wrong-state");
    EXPECT_EQ(Ended(id)["state"], "cancelled");
    const auto events = EventsUntil(id, "worker-exited");
    EXPECT_EQ(Count(events, "asked"), 2);
    EXPECT_EQ(Count(events, "order"), 4);  // 4004, 4006, 4002, 4014
}

TEST_F(EngineTest, ACancelReachesAWorkerFromItsWelcomeOnAndOtherOrdersFromStatus3On) {
    Start();
    const auto id = Submit("connect\nawait 4002\nreply 4003\nnotice job\nbye\n");
    EventsUntil(id, "connected");
    for (const char* order : {"suspend", "resume", "finish"})
        EXPECT_EQ(Order(id, order)["error"]["code"], "wrong-state") << order;
    EXPECT_EQ(Ask("POST", "/api/v1/tasks/" + id + "/update", {{"text", "x"}})["error"]["code"],
              "wrong-state");
    EXPECT_EQ(Order(id, "cancel")["result"], "requested");
    EXPECT_EQ(Ended(id)["state"], "cancelled");
    // Of one that was started by hand, whose task runs from its connection on, none waits for its notice.
    LinkClient worker;
    ASSERT_TRUE(worker.Connect(m_engine->LinkPort()));
    ASSERT_EQ(worker.Greet(m_engine->Token(), ""), 0u);
    const std::string other = Ask("GET", "/api/v1/tasks?limit=1")["tasks"][0]["id"];
    EXPECT_EQ(Order(other, "suspend")["result"], "requested");
    EXPECT_EQ(worker.WaitOrder()->id, std::uint32_t{TCP_TASK_SUSPEND_ID});
    worker.SendFrame({0, 0, link::kByeId, {}});
    worker.WaitClose();
}

TEST_F(EngineTest, FinishStopsAndKeeps) {
    Start();
    const auto id = Submit("connect\nnotice job\nstatus 3\nawait 4019\nreply 4020\nfinal 0\nbye\n");
    AwaitState(id, "running");
    EXPECT_EQ(Order(id, "finish")["state"], "finishing");
    EXPECT_EQ(Ended(id)["state"], "finished");
    EXPECT_EQ(Order(id, "finish")["result"], "already-ended");
    EXPECT_EQ(Order(id, "retry")["error"]["code"], "wrong-state");
}

TEST_F(EngineTest, AWorkerThatIgnoresAFinishIsEndedWithAVerdict) {
    AllowAttempts(3);
    m_settings.finishGrace = 200ms;
    Start();
    const auto id = Submit("connect\nstatus 3\nhang\n");
    AwaitState(id, "running");
    Order(id, "finish");
    const json task = Ended(id);
    EXPECT_EQ(task["state"], "lost");
    EXPECT_EQ(task["attempts"], 1);
    EXPECT_EQ(Verdict(id), "ignored-finish: the worker did not end within 200 ms of the finish order");
}

TEST_F(EngineTest, AnUpdateReachesTheWorkerAndTheNextAttempt) {
    AllowAttempts(2);
    Start();
    const auto id = Submit("connect\nnotice job\nstatus 3\nawait 4015\nreply 4016\nexit 7\n");
    AwaitState(id, "running");
    const json text = {{"text", "connect\nstatus 3\nfinal 0\nbye\n"}};
    EXPECT_EQ(Ask("POST", "/api/v1/tasks/" + id + "/update", text)["result"], "requested");
    AwaitState(id, "finished");
    EXPECT_EQ(Show(id)["attempts"], 2);
    EXPECT_EQ(Show(id)["text"], text["text"]);
}

TEST_F(EngineTest, WorkersGetTextsWithTheNodesPaths) {
    m_settings.paths = PathMap::Make({{"Z:\\media", "/mnt/a"}}).value();
    Start();
    const std::string text =
        "connect\nnotice <a>Z:\\media\\x</a>\nstatus 3\nawait 4015\nreply 4016\nfinal 0\nbye\n";
    const json answer = Ask("POST", "/api/v1/tasks", {{"type", "mc"}, {"text", text}});
    EXPECT_EQ(answer["paths"], json::parse(R"([{"given": "Z:\\media\\x", "local": "/mnt/a/x"}])"));
    const std::string id = answer["id"];
    AwaitState(id, "running");
    Ask("POST", "/api/v1/tasks/" + id + "/update", {{"text", "<b c='Z:\\media\\y'/>"}});
    AwaitState(id, "finished");
    const json task = Show(id);
    EXPECT_EQ(task["attempt_list"][0]["reported_task"], "<a>/mnt/a/x</a>");
    EXPECT_EQ(task["attempt_list"][0]["further_text"], "<b c='/mnt/a/y'/>");
    EXPECT_EQ(task["text"], "<b c='Z:\\media\\y'/>") << "what was submitted is kept";
    const auto events = EventsUntil(id, "final");
    const auto paths = std::find_if(events.begin(), events.end(),
                                    [](const json& event) { return event["kind"] == "paths"; });
    ASSERT_NE(paths, events.end());
    EXPECT_EQ((*paths)["data"],
              json::parse(R"({"count": 1, "paths": [{"given": "Z:\\media\\x", "local": "/mnt/a/x"}]})"));
}

TEST_F(EngineTest, ARepeatedTaskGetsTheNodesPathsAgain) {
    m_settings.paths = PathMap::Make({{"Z:\\media", "/mnt/a"}}).value();
    Start();
    const std::string id = Submit("connect\nnotice <a>Z:\\media\\x</a>\nstatus 3\nfinal 4\nbye\n");
    AwaitState(id, "failed");
    EXPECT_EQ(Order(id, "retry")["result"], "queued");
    const auto events =
        EventsUntil(id, [](const json& event) { return event["kind"] == "final" && event["attempt"] == 2; });
    EXPECT_EQ(Count(events, "paths"), 2);
    EXPECT_EQ(Show(id)["attempt_list"][1]["reported_task"], "<a>/mnt/a/x</a>");
}

TEST_F(EngineTest, VolumesAreNamedByPathsOfOtherMachines) {
    const kit::TempDir folder;
    m_settings.paths = PathMap::Make({{"Z:\\media", folder.Utf8()}}).value();
    m_settings.node.volumes["media"] = {folder.Utf8(), 0, ""};
    Start();
    const json answer =
        Ask("POST", "/api/v1/tasks", {{"type", "mc"}, {"text", "<a/>"}, {"volumes", {"Z:\\media\\a.mxf"}}});
    ASSERT_TRUE(answer.contains("id")) << answer;
    EXPECT_EQ(Show(answer["id"])["volumes"], json::parse(R"(["media"])"));
}

TEST_F(EngineTest, AWorkerWithoutHeartbeatsIsEndedWithAVerdict) {
    m_settings.heartbeatInterval = 100ms;
    m_settings.leastSilence = 0ms;
    Start();
    const auto id = Submit("connect\nstatus 3\nhang\n");
    const json task = Ended(id);
    EXPECT_EQ(task["state"], "lost");
    EXPECT_EQ(Verdict(id),
              "no-heartbeat: no heartbeat and nothing else came from the worker for 300 ms, three of its "
              "intervals");
    // What is heard in time is let alone.
    std::string script = "connect\nstatus 3\n";
    for (int i = 0; i < 12; ++i) script += "sleep 50\nprogress " + std::to_string(i) + " 1\n";
    EXPECT_EQ(Ended(Submit(script + "final 0\nbye\n"))["state"], "finished");
}

TEST_F(EngineTest, AFinalStatusWithoutAnExitIsAVerdict) {
    m_settings.destroyGrace = 200ms;
    Start();
    const auto id = Submit("connect\nstatus 3\nfinal 0\nhang\n");
    Ended(id);
    EXPECT_EQ(Verdict(id), "no-exit: the worker did not end within 200 ms of the order to exit");
}

TEST_F(EngineTest, ALateWorkerIsToldToStopAndChangesNothing) {
    Start();
    const auto id = Submit("connect\nstatus 3\nexit 7\n");
    EXPECT_EQ(Ended(id)["state"], "lost");
    std::string token;
    {
        auto database = Database::Open(Utf8FromPath(Data("store.db"))).value();
        Statement query = database->Prepare("SELECT token FROM attempts");
        ASSERT_TRUE(query.Row());
        token = query.Text();
    }
    LinkClient late;
    ASSERT_TRUE(late.Connect(m_engine->LinkPort()));
    ASSERT_EQ(late.Greet(m_engine->Token(), token), 0u);
    EXPECT_EQ(late.WaitOrder()->id, TCP_TASK_CANCEL_ID);
    EXPECT_EQ(late.WaitOrder()->id, TCP_WORKER_DESTROY_ID);
    late.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskRunning));
    EXPECT_TRUE(late.WaitAck(late.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskFinished))));
    const json task = Show(id);
    EXPECT_EQ(task["state"], "lost");
    EXPECT_TRUE(task["status"].is_null());
    const auto events = EventsUntil(id, "late-status");
    EXPECT_EQ(Count(events, "late-worker"), 1);
    late.SendFrame({0, 0, link::kByeId, {}});
    late.WaitClose();
}

// A worker that is given up while its connection is away, and comes back deaf to every order.
TEST_F(EngineTest, ALateWorkerThatDoesNotStopIsEnded) {
    m_settings.cancelGrace = 300ms;
    m_settings.resumeWindow = 60s;
    Start();
    const auto id = Submit("connect\nstatus 3\nhang\n");
    AwaitState(id, "running");
    const json attempt = Show(id)["attempt_list"][0];
    const std::uint64_t process = attempt["pid"];
    Stop(Engine::End::LeaveWorkers);
    Change("UPDATE attempts SET state = 'lost', is_open = 0");
    Change("UPDATE tasks SET state = 'lost'");
    std::string token;
    {
        auto database = Database::Open(Utf8FromPath(Data("store.db"))).value();
        Statement query = database->Prepare("SELECT token FROM attempts");
        ASSERT_TRUE(query.Row());
        token = query.Text();
    }
    Start();
    // Another process that says so is not ended, and its connection is closed.
    LinkClient stranger;
    ASSERT_TRUE(stranger.Connect(m_engine->LinkPort()));
    ASSERT_EQ(stranger.Greet(m_engine->Token(), token), 0u);
    EXPECT_TRUE(stranger.WaitClose()) << "with BYE";
    EXPECT_EQ(
        Verdict(id),
        "ignored-cancel: the worker of an ended attempt did not end within 300 ms of the order to stop");
    EXPECT_TRUE(platform::ProcessRuns(process));
    LinkClient late;
    late.SetProcess(process);
    ASSERT_TRUE(late.Connect(m_engine->LinkPort()));
    ASSERT_EQ(late.Greet(m_engine->Token(), token), 0u);
    EXPECT_TRUE(kit::WaitUntil([&] { return !platform::ProcessRuns(process); }));
    EXPECT_TRUE(late.WaitClose());
    EXPECT_EQ(Show(id)["state"], "lost");
}

TEST_F(EngineTest, ARefusalNamesTheOrderTheStatesAndWhatIsLacking) {
    m_settings.linkGrace = 1h;
    m_settings.endGrace = 100ms;
    Start();
    const auto id = Submit("connect\nstatus 3\nclose\nhang\n");
    EventsUntil(id, "disconnected");
    const auto refusal = [&](const json& answer) {
        EXPECT_EQ(answer["error"]["code"], "wrong-state") << answer;
        return answer["error"].value("message", "");
    };
    const std::string deaf = "; its worker is not connected: try again when it is";
    EXPECT_EQ(refusal(Order(id, "suspend")),
              "t1 is running: suspend is for a task that is queued, running or paused" + deaf);
    EXPECT_EQ(refusal(Order(id, "resume")),
              "t1 is running: resume is for a task that is queued, running or paused" + deaf);
    EXPECT_EQ(refusal(Order(id, "finish")),
              "t1 is running: finish is for a task that is running or paused" + deaf);
    EXPECT_EQ(refusal(Ask("POST", "/api/v1/tasks/" + id + "/update", {{"text", "x"}})),
              "t1 is running: update is for a task that is queued, running or paused" + deaf);
    const auto ended = Submit("connect\nstatus 3\nfinal 0\nhang\n");
    AwaitState(ended, "finished");
    EXPECT_EQ(refusal(Ask("DELETE", "/api/v1/tasks/" + ended)),
              "t2 is finished: delete is for a task that is finished, failed, cancelled or lost; its worker "
              "has not ended yet: try again");
}

TEST_F(EngineTest, ATypeThatFailsTooOftenIsStoppedAndTriedAgain) {
    m_settings.retry.standard.stopAfter = 2;
    m_settings.retry.standard.stopFor = 1h;
    m_settings.maxWorkers = 1;
    Start();
    const auto first = Submit("connect\nstatus 3\nexit 7\n");
    const auto second = Submit("connect\nstatus 3\nexit 8\n");
    EventsUntil(second, "type-stopped");
    const auto third = Submit("connect\nstatus 3\nfinal 0\nbye\n");
    json task = Show(third);
    EXPECT_EQ(task["state"], "queued");
    ASSERT_FALSE(task["waits"].empty());
    EXPECT_EQ(task["waits"][0]["rule"], "stopped");
    const std::string reason = task["waits"][0]["text"];
    EXPECT_EQ(reason.find("2 attempts of type mc failed in a row, the last of them " + second + ": "), 0u)
        << reason;
    EXPECT_NE(reason.find("exit code 8"), std::string::npos) << reason;
    EXPECT_EQ(Ask("GET", "/api/v1/health")["stopped"][0]["reason"], reason);
    // A restart does not forget it.
    Stop();
    m_settings.retry.standard.stopFor = 50ms;
    Start();
    EXPECT_EQ(Show(third)["state"], "queued");
    EXPECT_EQ(Ask("POST", "/api/v1/undrain", {{"type", "mc"}})["changed"], true);
    EXPECT_EQ(Ended(third)["state"], "finished");
    // Stopped again for a short while, then one is tried by itself.
    Ended(Submit("exit 7\n"));
    EventsUntil(Submit("exit 7\n"), "type-stopped");
    EXPECT_EQ(Ended(Submit("connect\nstatus 3\nfinal 0\nbye\n"))["state"], "finished");
    EXPECT_TRUE(Ask("GET", "/api/v1/health")["stopped"].empty());
    EXPECT_EQ(Show(first)["state"], "lost");
}

TEST_F(EngineTest, ADrainedNodeStartsNothingUntilItIsUndrained) {
    Start();
    EXPECT_EQ(Ask("POST", "/api/v1/drain")["changed"], true);
    Stop();
    Start();
    const auto id = Submit("connect\nstatus 3\nfinal 0\nbye\n");
    EXPECT_EQ(Show(id)["waits"][0]["rule"], "drained");
    EXPECT_EQ(Show(id)["attempts"], 0);
    EXPECT_EQ(Ask("POST", "/api/v1/undrain")["changed"], true);
    EXPECT_EQ(Ended(id)["state"], "finished");
}

TEST_F(EngineTest, ADeletedTaskIsGoneWithItsOutput) {
    Start();
    const auto id = Submit("connect\nstatus 3\nprint text\nfinal 0\nbye\n");
    const auto output = PathFromUtf8(Ended(id)["attempt_list"][0]["output"].get<std::string>());
    EXPECT_TRUE(std::filesystem::exists(output));
    // Its worker has exited; the engine may need a moment more to see the end of its session.
    json answer;
    EXPECT_TRUE(kit::WaitUntil([&] {
        answer = Ask("DELETE", "/api/v1/tasks/" + id);
        return answer.contains("result");
    }));
    EXPECT_EQ(answer["result"], "deleted");
    EXPECT_FALSE(std::filesystem::exists(output));
    EXPECT_EQ(Ask("GET", "/api/v1/tasks/" + id)["error"]["code"], "unknown-task");
    EXPECT_EQ(Ask("DELETE", "/api/v1/tasks/" + id)["result"], "already-deleted");
}

}  // namespace
}  // namespace rq::engine
