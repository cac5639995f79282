// Sessions that outlive their connection, and attempts that outlive the engine.
#include <boost/asio/ip/tcp.hpp>

#include "engine/resume_fixture.h"
#include "link/spool_file.h"

namespace rq::engine {
namespace {

namespace fs = std::filesystem;
using link::kRefuseSession;

TEST_F(ResumeTest, ASessionGoesOnWhereItsConnectionBroke) {
    Start();
    LinkClient worker;
    const auto id = Begin(worker);
    EXPECT_EQ(worker.Welcome().resumeWindow_ms, 60'000u);
    EXPECT_TRUE(link::IsSpoolAttempt(worker.Welcome().attempt));
    EXPECT_TRUE(fs::is_directory(PathFromUtf8(worker.Welcome().spoolFolder)));
    const auto session = worker.SessionId();
    ASSERT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskRunning))));
    worker.Close();
    EventsUntil(id, "interrupted");
    // Orders that are given meanwhile wait for it.
    EXPECT_EQ(Order(id, "suspend")["result"], "requested");
    EXPECT_EQ(Order(id, "cancel")["result"], "requested");
    ASSERT_EQ(Resume(worker), 0u);
    EXPECT_EQ(worker.SessionId(), session);
    EXPECT_EQ(worker.Acked(), 1u);
    auto order = worker.WaitOrder();
    ASSERT_TRUE(order);
    EXPECT_EQ(order->id, std::uint32_t{TCP_TASK_SUSPEND_ID});
    EXPECT_EQ(order->seq, 1u);
    order = worker.WaitOrder();
    ASSERT_TRUE(order);
    EXPECT_EQ(order->id, std::uint32_t{TCP_TASK_CANCEL_ID});
    EXPECT_EQ(order->seq, 2u);
    // One that says it did not get the second has it again, and only that, under its number.
    auto hello = worker.Resuming(m_engine->Token());
    hello.resumeReceived = 1;
    worker.Close();
    LinkClient later;
    later.SetProcess(platform::CurrentProcessId());
    ASSERT_TRUE(later.Connect(m_engine->LinkPort()));
    ASSERT_EQ(later.Greet(hello), 0u);
    order = later.WaitOrder();
    ASSERT_TRUE(order);
    EXPECT_EQ(order->id, std::uint32_t{TCP_TASK_CANCEL_ID});
    EXPECT_EQ(order->seq, 2u);
    const auto events = EventsUntil(id, "resumed");
    EXPECT_EQ(Count(events, "connected"), 1);
    EXPECT_EQ(Count(events, "disconnected"), 0);
}

TEST_F(ResumeTest, AnOrderToEndIsKeptHoweverManyWait) {
    m_settings.durability = Durability::Process;
    m_settings.cancelGrace = 1h;
    Start();
    LinkClient worker;
    const auto id = Begin(worker);
    ASSERT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskRunning))));
    worker.Close();
    EventsUntil(id, "interrupted");
    json answer;
    int kept = 0;
    for (; kept <= 1000; ++kept) {
        answer = Ask("POST", "/api/v1/tasks/" + id + "/update", {{"text", std::to_string(kept)}});
        if (!answer.contains("result")) break;
    }
    EXPECT_EQ(kept, 1000);
    EXPECT_EQ(answer["error"]["code"], "wrong-state");
    EXPECT_EQ(Order(id, "finish")["result"], "requested");
    EXPECT_EQ(Order(id, "cancel")["result"], "requested");
    ASSERT_EQ(Resume(worker), 0u);
    std::uint32_t last = 0;
    for (int i = 0; i < 1002; ++i) {
        const auto order = worker.WaitOrder();
        ASSERT_TRUE(order) << i;
        last = order->id;
    }
    EXPECT_EQ(last, std::uint32_t{TCP_TASK_CANCEL_ID});
}

// Its tasks are the next engine's: what it says of them now would not be so.
TEST_F(ResumeTest, NoOrderIsTakenWhenTheTasksHaveBeenHandedOn) {
    Start();
    LinkClient worker;
    const auto id = Begin(worker);
    ASSERT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskRunning))));
    EXPECT_EQ(Order(id, "suspend")["result"], "requested");
    m_engine->RequestEnd(Engine::End::LeaveWorkers);
    for (;;) {
        const auto answer = m_http->Send("POST", "/api/v1/tasks/" + id + "/resume", "");
        if (!answer) break;
        if (answer->status == 200) continue;
        EXPECT_EQ(answer->status, 503) << answer->body;
    }
    Stop();
}

TEST_F(ResumeTest, WhatWasSentTwiceCountsOnce) {
    Start();
    LinkClient worker;
    const auto id = Begin(worker);
    worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskRunning));
    ASSERT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(17))));
    // As one that has not seen that acknowledgement: it sends both again.
    auto hello = worker.Resuming(m_engine->Token());
    hello.resumeAcknowledged = 0;
    worker.Close();
    LinkClient later;
    later.SetProcess(platform::CurrentProcessId());
    ASSERT_TRUE(later.Connect(m_engine->LinkPort()));
    ASSERT_EQ(later.Greet(hello), 0u);
    EXPECT_EQ(later.Acked(), 2u) << "in WELCOME";
    later.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskRunning));
    later.Send(TCP_WORKER_STATE_ID, StateMessage(17));
    ASSERT_TRUE(later.WaitAck(later.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskFinished))));
    const auto events = EventsUntil(id, "final");
    EXPECT_EQ(std::count_if(events.begin(), events.end(),
                            [](const json& event) {
                                return event["kind"] == "unknown-status" && event["data"]["status"] == 17;
                            }),
              1);
}

TEST_F(ResumeTest, WhatDoesNotFitIsRefused) {
    Start();
    LinkClient worker;
    Begin(worker);
    ASSERT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskRunning))));
    const auto good = worker.Resuming(m_engine->Token());
    const auto answer = [&](const std::function<void(link::Hello&)>& change) {
        auto hello = good;
        change(hello);
        LinkClient other;
        EXPECT_TRUE(other.Connect(m_engine->LinkPort()));
        return other.Greet(hello).value_or(99);
    };
    EXPECT_EQ(answer([](auto& hello) { ++hello.resumeSessionId; }), kRefuseSession);
    EXPECT_EQ(answer([](auto& hello) { hello.attempt = "nobody"; }), kRefuseSession);
    EXPECT_EQ(answer([](auto& hello) { hello.resumeAcknowledged = 2; }), kRefuseSession);
    EXPECT_EQ(answer([](auto& hello) { hello.resumeReceived = 1; }), kRefuseSession);
    EXPECT_EQ(answer([](auto& hello) { hello.token = "x"; }), std::uint32_t{link::kRefuseToken});
    EXPECT_EQ(answer([](auto& hello) { hello.protocolVersion = 9; }), std::uint32_t{link::kRefuseVersion});
    // None of them took the connection away.
    EXPECT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(17))));
    // The worker's own does: it has noticed first that the old one is none any more.
    EXPECT_EQ(answer([](auto& hello) { hello.resumeAcknowledged = 1; }), 0u);
    EXPECT_FALSE(worker.WaitClose()) << "without BYE";
}

TEST_F(ResumeTest, AGoodbyeEndsASessionAtOnce) {
    Start();
    LinkClient worker;
    const auto id = Begin(worker);
    ASSERT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskFinished))));
    worker.SendFrame({0, 0, link::kByeId, {}});
    worker.WaitClose();
    EventsUntil(id, "disconnected");
    EXPECT_EQ(Resume(worker), std::uint32_t{kRefuseSession});
}

TEST_F(ResumeTest, AWorkerThatStaysAwayIsEndedAfterTheWindowAndTheGrace) {
    m_settings.resumeWindow = 300ms;
    m_settings.heartbeatInterval = 50ms;  // nobody watches for them meanwhile
    m_settings.leastSilence = 0ms;
    Start();
    const auto id = Submit("connect\nstatus 3\nclose\nhang\n");
    EXPECT_EQ(Ended(id)["state"], "lost");
    EXPECT_EQ(
        Verdict(id),
        "connection-lost: the connection ended, and the worker neither came back nor ended within 500 ms");
}

// As of a newer kind: it would come back with every connection.
TEST_F(ResumeTest, ARecordThatCannotBeTakenDoesNotKeepATaskForEver) {
    m_settings.resumeWindow = 400ms;
    Start();
    LinkClient worker;
    const auto id = Begin(worker);
    ASSERT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskRunning))));
    const auto end = std::chrono::steady_clock::now() + kit::kPatience;
    std::optional<std::uint32_t> answer = 0;
    while (answer == 0u && std::chrono::steady_clock::now() < end) {
        worker.SendFrame({2, 0, TCP_WORKER_STATE_ID, "\xFF"});
        worker.WaitClose();
        std::this_thread::sleep_for(20ms);
        answer = Resume(worker);
    }
    EXPECT_EQ(answer, kRefuseSession);
    EXPECT_NE(Verdict(id).find("connection-lost: each new connection broke before anything had got through"),
              std::string::npos)
        << Verdict(id);
    EXPECT_EQ(Show(id)["state"], "lost");
}

TEST_F(ResumeTest, AnOrderThatIsNeverTakenDoesNotKeepATaskForEver) {
    m_settings.resumeWindow = 400ms;
    Start();
    LinkClient worker;
    const auto id = Begin(worker);
    ASSERT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskRunning))));
    Order(id, "suspend");
    const auto end = std::chrono::steady_clock::now() + kit::kPatience;
    std::optional<std::uint32_t> answer = 0;
    auto last = std::make_unique<LinkClient>();
    while (answer == 0u && std::chrono::steady_clock::now() < end) {
        auto hello = worker.Resuming(m_engine->Token());
        hello.resumeReceived = 0;
        auto next = std::make_unique<LinkClient>();
        next->SetProcess(platform::CurrentProcessId());
        ASSERT_TRUE(next->Connect(m_engine->LinkPort()));
        answer = next->Greet(hello);
        last = std::move(next);
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(answer, kRefuseSession);
    EXPECT_EQ(Show(id)["state"], "lost");
}

// Each connection brings one more: nothing is wrong but the connections.
TEST_F(ResumeTest, WhateverGetsThroughBeginsTheWindowAnew) {
    m_settings.resumeWindow = 100ms;
    Start();
    LinkClient worker;
    const auto id = Begin(worker);
    for (int i = 0; i < 12; ++i) {
        ASSERT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(17)))) << i;
        std::this_thread::sleep_for(50ms);
        ASSERT_EQ(Resume(worker), 0u) << i;
    }
    EXPECT_EQ(Show(id)["state"], "running");
}

TEST_F(ResumeTest, AProcessThatEndsIsNotWaitedFor) {
    Start();
    const json task = Ended(Submit("connect\nstatus 3\nclose\nexit 7\n"));
    EXPECT_EQ(task["state"], "lost");
    EXPECT_EQ(task["attempt_list"][0]["exit"]["code"], 7);
}

TEST_F(ResumeTest, AWorkerGoesOnUnderTheNextEngine) {
    Start();
    const auto port = m_engine->LinkPort();
    const auto id = Submit(
        "connect\nnotice job\nstatus 3\nprogress 10 1\nstatus 17\nresume\nprogress 60 1\nfinal 0\nbye\n");
    EventsUntil(id, [](const json& event) {
        return event["kind"] == "unknown-status" && event["data"]["status"] == 17;
    });
    Restart();
    EXPECT_EQ(m_engine->LinkPort(), port);
    const json task = Ended(id);
    EXPECT_EQ(task["state"], "finished");
    EXPECT_EQ(task["attempts"], 1);
    const auto events = EventsUntil(id, "worker-exited");
    EXPECT_EQ(Count(events, "connected"), 1);
    EXPECT_EQ(Count(events, "interrupted"), 1);
    EXPECT_EQ(Count(events, "resumed"), 1);
    EXPECT_EQ(Count(events, "progress"), 2);
    EXPECT_TRUE(kit::WaitUntil([&] { return FilesIn("params").empty(); }));
    Restart();
    EXPECT_EQ(EventsUntil(id, "worker-exited").size(), events.size()) << "nothing is open any more";
}

// Its attempts are the next engine's: none of them has ended.
TEST_F(ResumeTest, NobodyIsTakenForLateWhileTheEngineEnds) {
    Start();
    LinkClient worker, late;
    const auto id = Begin(worker);
    ASSERT_TRUE(late.Connect(m_engine->LinkPort()));
    m_engine->RequestEnd(Engine::End::LeaveWorkers);
    worker.ReadAll();
    EXPECT_NE(late.Greet(m_engine->Token(), worker.Welcome().attempt), 0u);
    EXPECT_NE(Resume(worker), 0u);
    Restart();
    EXPECT_EQ(Resume(worker), 0u);
    EXPECT_EQ(Count(EventsUntil(id, "resumed"), "late-worker"), 0);
}

TEST_F(ResumeTest, ACancelledWorkerMayComeBackWhileTheEngineEnds) {
    m_settings.endGrace = 60s;
    Start();
    LinkClient worker;
    const auto id = Begin(worker);
    ASSERT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskRunning))));
    worker.Close();
    EventsUntil(id, "interrupted");
    m_engine->RequestEnd(Engine::End::CancelTasks);
    ASSERT_TRUE(kit::WaitUntil([&] { return Ask("GET", "/api/v1/health")["status"] == "ending"; }));
    ASSERT_EQ(Resume(worker), 0u);
    const auto order = worker.WaitOrder();
    ASSERT_TRUE(order);
    EXPECT_EQ(order->id, std::uint32_t{TCP_TASK_CANCEL_ID});
    EXPECT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskCancelled))));
    worker.SendFrame({0, 0, link::kByeId, {}});
    Restart();
    EXPECT_EQ(Show(id)["state"], "cancelled");
}

// Something was acknowledged that could not be stored: the worker knows better.
TEST_F(ResumeTest, AStoreThatHasLessThanTheWorkerCatchesUp) {
    Start();
    LinkClient worker;
    const auto id = Begin(worker);
    worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskRunning));
    ASSERT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(17))));
    Restart([&] { Change("UPDATE attempts SET worker_seq = 0"); });
    ASSERT_EQ(Resume(worker), 0u);
    EXPECT_EQ(worker.Acked(), 2u);
    EXPECT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskFinished))));
    EXPECT_EQ(Show(id)["state"], "finished");
    EXPECT_EQ(Show(id)["attempts"], 1);
}

TEST_F(ResumeTest, AnOrderThatWasNotAnsweredIsGivenAgain) {
    Start();
    const auto id = Submit("connect\nstatus 3\nresume\nawait 4002\nawait 4002\nfinal 5\nbye\n");
    AwaitState(id, "running");
    EXPECT_EQ(Order(id, "cancel")["result"], "requested");
    EventsUntil(id, "order");
    Restart();
    EXPECT_EQ(Ended(id)["state"], "cancelled");
}

TEST_F(ResumeTest, AFinalStatusInTheSpoolEndsAnAttemptWhoseWorkerHasGone) {
    AllowAttempts(3);
    Start();
    const auto id = Submit("connect\nstatus 3\nlose\nspool 0\nexit 0\n");
    AwaitState(id, "running");
    const auto process = ProcessOf(id);
    Restart([&] { EXPECT_TRUE(kit::WaitUntil([&] { return platform::ProcessMark(process).empty(); })); });
    const json task = Ended(id);
    EXPECT_EQ(task["state"], "finished");
    EXPECT_EQ(task["attempts"], 1);
    EXPECT_EQ(task["attempt_list"][0]["exit"]["unknown"], true);
    EXPECT_TRUE(kit::WaitUntil([&] { return FilesIn("spool").empty(); }));
    EXPECT_TRUE(FilesIn("params").empty());
}

TEST_F(ResumeTest, TheSpoolIsReadWhileTheEngineRuns) {
    Start();
    const auto id = Submit("connect\nstatus 3\nspool 4\nexit 1\n");
    EXPECT_EQ(Ended(id)["state"], "failed");
    // The first one decides here, too.
    EXPECT_EQ(Ended(Submit("connect\nstatus 3\nspool 4\nfinal 0\nbye\n"))["state"], "finished");
    EXPECT_TRUE(kit::WaitUntil([&] { return FilesIn("spool").empty(); }));
}

TEST_F(ResumeTest, ADamagedFileInTheSpoolCountsForNothingAndIsKept) {
    Start();
    const auto id = Submit("connect\nstatus 3\nawait 4006\nexit 0\n");
    AwaitState(id, "running");
    std::string token;
    {
        auto database = Database::Open(Utf8FromPath(Data("store.db"))).value();
        Statement query = database->Prepare("SELECT token FROM attempts");
        ASSERT_TRUE(query.Row());
        token = query.Text();
    }
    std::ofstream(Data("spool") / (token + ".final")) << "no frame";
    std::ofstream(Data("spool") / "stranger.final") << "no frame either";
    kit::EndProcess(ProcessOf(id));
    EXPECT_EQ(Ended(id)["state"], "lost");
    EXPECT_EQ(kit::ReadBytes(Data("spool") / (token + ".bad")), "no frame");
    Restart();
    EXPECT_TRUE(fs::exists(Data("spool") / "stranger.bad"));
    fs::last_write_time(Data("spool") / "stranger.bad",
                        fs::file_time_type::clock::now() - std::chrono::hours(24 * 31));
    EXPECT_EQ(Ask("POST", "/api/v1/gc")["removed"]["dumps"]["files"], 1);
    EXPECT_EQ(FilesIn("spool"), std::vector<std::string>{token + ".bad"});
}

TEST_F(ResumeTest, ATaskWhoseWorkerHasGoneIsRepeatedAndOneWhoseWorkerRunsIsNot) {
    AllowAttempts(2);
    Start();
    const auto gone = Submit("connect\nstatus 3\nin 1 hang\nfinal 0\nbye\n");
    const auto there = Submit("connect\nstatus 3\nresume\nsleep 300\nin 1 final 0\nbye\n");
    AwaitState(gone, "running");
    AwaitState(there, "running");
    Restart([&] {
        auto database = Database::Open(Utf8FromPath(Data("store.db"))).value();
        Statement query = database->Prepare("SELECT pid FROM attempts WHERE task = 1");
        ASSERT_TRUE(query.Row());
        const auto process = static_cast<std::uint64_t>(query.Number());
        kit::EndProcess(process);
        EXPECT_TRUE(kit::WaitUntil([&] { return platform::ProcessMark(process).empty(); }));
    });
    AwaitState(gone, "finished");
    EXPECT_EQ(Show(gone)["attempts"], 2);
    EXPECT_EQ(Ended(there)["state"], "finished");
    EXPECT_EQ(Show(there)["attempts"], 1);
}

TEST_F(ResumeTest, AWorkerWhoseStartWasNotRecordedIsTakenWhenItConnects) {
    Start();
    const auto id = Submit("sleep 1500\nconnect\nstatus 3\nfinal 0\nbye\n");
    EventsUntil(id, "worker-started");
    const json output = Show(id)["attempt_list"][0]["output"];
    Restart([&] { Change("UPDATE attempts SET pid = NULL, process_mark = '', output = ''"); });
    EXPECT_EQ(Ended(id)["state"], "finished");
    EXPECT_EQ(Show(id)["attempt_list"][0]["output"], output);
    EXPECT_TRUE(kit::WaitUntil([&] { return FilesIn("params").empty(); }));
    // And given up when it does not.
    m_settings.connectLimit = 300ms;
    const auto deaf = Submit("sleep 5000\n");
    EventsUntil(deaf, "worker-started");
    Restart([&] { Change("UPDATE attempts SET pid = NULL, process_mark = '', output = ''"); });
    AwaitState(deaf, "lost");
}

TEST_F(ResumeTest, AWorkerThatHadDoneNothingCostsNoAttempt) {
    Start();
    const auto id = Submit("in 1 hang\nconnect\nstatus 3\nfinal 0\nbye\n");
    EventsUntil(id, "worker-started");
    const auto process = ProcessOf(id);
    Restart([&] { EndWorker(process); });
    AwaitState(id, "finished");
    EXPECT_EQ(Count(EventsUntil(id, "final"), "start-undone"), 1);
}

TEST_F(ResumeTest, AWorkerWhoseStartWasNotRecordedIsFound) {
    m_settings.connectLimit = 4s;
    Start();
    const auto there = Submit("sleep 3000\nconnect\nstatus 3\nfinal 0\nbye\n");
    EventsUntil(there, "worker-started");
    const auto gone = Submit("in 1 hang\nconnect\nstatus 3\nfinal 0\nbye\n");
    EventsUntil(gone, "worker-started");
    const auto process = ProcessOf(gone);
    Restart([&] {
        EndWorker(process);
        Change("UPDATE attempts SET pid = NULL, process_mark = '', output = ''");
    });
    // On Windows names of trees are a session's: that there is none proves nothing, and it is waited for.
    AwaitState(gone, "finished");
    EXPECT_EQ(Count(EventsUntil(gone, "final"), "start-undone"), 1);
    AwaitState(there, "finished");
    EXPECT_EQ(Show(there)["attempts"], 1);
}

TEST_F(ResumeTest, AWindowThatWasPromisedIsKeptByAnEngineWithoutOne) {
    Start();
    LinkClient worker;
    const auto id = Begin(worker);
    ASSERT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskRunning))));
    m_settings.linkGrace = 10s;
    Stop(Engine::End::LeaveWorkers);
    m_settings.resumeWindow = 0ms;
    Start();
    ASSERT_EQ(Resume(worker), 0u);
    EXPECT_EQ(worker.Welcome().resumeWindow_ms, 0u);
    EXPECT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskFinished))));
    EXPECT_EQ(Show(id)["state"], "finished");
}

// No later engine would know of it.
TEST_F(ResumeTest, AWorkerThatCannotBeKeptInTheStoreIsNotWelcomed) {
    Start();
    Change(
        "CREATE TRIGGER full BEFORE UPDATE OF connected_us ON attempts "
        "BEGIN SELECT RAISE(ABORT, 'no room'); END");
    LinkClient refused, worker;
    ASSERT_TRUE(refused.Connect(m_engine->LinkPort()));
    EXPECT_EQ(refused.Greet(m_engine->Token(), ""), std::uint32_t{link::kRefuseEnding});
    Change("DROP TRIGGER full");
    const auto id = Begin(worker);
    EXPECT_EQ(Show(id)["state"], "running");
    EXPECT_EQ(Show("t1")["state"], "lost");
}

TEST_F(ResumeTest, ACancelKeepsItsDeadlineWhenTheWorkerBeginsAnew) {
    m_settings.cancelGrace = 1s;
    Start();
    const auto id = Submit("connect\nclose\nsleep 700\nconnect-anew\nhang\n");
    EventsUntil(id, "interrupted");
    EXPECT_EQ(Order(id, "cancel")["result"], "requested");
    EXPECT_EQ(Verdict(id).substr(0, 14), "ignored-cancel");
    EXPECT_EQ(Ended(id)["state"], "cancelled");
}

TEST_F(ResumeTest, WorkersAreToldHowLongToLookForAnEngine) {
    m_settings.connectLimit = 1s;
    m_settings.resumeWindow = 2s;
    Start();
    const auto id = Submit("connect\nstatus 3\nenvironment RQ_CONNECT_LIMIT_MS\nfinal 0\nbye\n");
    EXPECT_EQ(Ended(id)["attempt_list"][0]["further_text"], "3200");
}

// As after an update from an engine that kept no marks.
TEST_F(ResumeTest, AWorkerWhoseProcessNobodyKnowsIsWaitedFor) {
    AllowAttempts(3);
    Start();
    const auto id = Submit("connect\nnotice job\nstatus 3\nresume\nsleep 300\nfinal 0\nbye\n");
    AwaitState(id, "running");
    Restart([&] { Change("UPDATE attempts SET process_mark = ''"); });
    const json task = Ended(id);
    EXPECT_EQ(task["state"], "finished");
    EXPECT_EQ(task["attempts"], 1);
    EXPECT_EQ(Count(EventsUntil(id, "worker-exited"), "resumed"), 1);
}

// Its number is one of another machine's, say.
TEST_F(ResumeTest, AWorkerStartedByHandThatCannotBeFoundIsWaitedFor) {
    Start();
    LinkClient worker;
    Begin(worker, 0);
    ASSERT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskRunning))));
    Restart();
    EXPECT_EQ(Resume(worker), 0u);
}

TEST_F(ResumeTest, AWorkerThatNeverGotItsWelcomeBeginsAnew) {
    Start();
    const auto id = Submit("connect\nclose\nconnect-anew\nstatus 3\nfinal 0\nbye\n");
    EXPECT_EQ(Ended(id)["state"], "finished");
    EXPECT_EQ(Show(id)["attempts"], 1);
}

// Its interval is what the stage said when it began.
TEST_F(ResumeTest, AWorkerKeepsTheSilenceThatItsStartAllowed) {
    m_settings.leastSilence = 0ms;
    Start();
    const auto quiet = Submit("connect\nstatus 3\nresume\nsleep 1000\nfinal 0\nbye\n");
    AwaitState(quiet, "running");
    Stop(Engine::End::LeaveWorkers);
    m_settings.heartbeatInterval = 50ms;
    Start();
    EXPECT_EQ(Ended(quiet)["state"], "finished");
    Stop();
    m_settings.heartbeatInterval = 1s;
    Start();
    const auto hung = Submit("connect\nstatus 3\nresume\nhang\n");
    AwaitState(hung, "running");
    Stop(Engine::End::LeaveWorkers);
    m_settings.heartbeatInterval = 1h;
    Start();
    EXPECT_EQ(
        Verdict(hung),
        "no-heartbeat: no heartbeat and nothing else came from the worker for 3 s, three of its intervals");
}

TEST_F(ResumeTest, AWorkerThatEndedInGoodOrderIsNotLostForTheNextEngine) {
    AllowAttempts(3);
    m_settings.linkGrace = 10s;
    Start();
    const auto gone = Submit("connect\nstatus 3\nbye\nhang\n");
    EventsUntil(gone, "disconnected");
    const auto there = Submit("connect\nstatus 3\nbye\nsleep 1000\n");
    EventsUntil(there, "disconnected");
    const auto process = ProcessOf(gone);
    Restart([&] { EndWorker(process); });
    for (const auto& id : {gone, there}) {
        AwaitState(id, "failed");
        const json task = Show(id);
        EXPECT_EQ(task["attempts"], 1);
        EXPECT_EQ(task["reason"], "the worker ended in good order and in status 3, without a final status");
    }
}

// The last engine was killed between the record of the end and what follows from it.
TEST_F(ResumeTest, AnEndThatWasRecordedIsNotForgotten) {
    Start();
    const auto id = Submit("connect\nstatus 3\nbye\nexit 7\n");
    Ended(id);
    Restart([&] {
        Change(
            "UPDATE attempts SET is_open = 1, state = 'running', finished_us = NULL, reason = NULL; "
            "UPDATE tasks SET state = 'running', finished_us = NULL, reason = NULL");
    });
    ASSERT_TRUE(kit::WaitUntil([&] { return Show(id)["state"] != "running"; }));
    const json task = Show(id);
    EXPECT_EQ(task["state"], "lost");
    EXPECT_EQ(task["attempt_list"][0]["exit"]["code"], 7);
    EXPECT_EQ(task["reason"], "worker ended with exit code 7 before it reported a final status");
    EXPECT_EQ(Count(EventsUntil(id, "worker-exited"), "worker-exited"), 1);
}

TEST_F(ResumeTest, APortThatSomebodyElseHasIsSaid) {
    m_settings.resumeWindow = 200ms;
    Start();
    const auto port = m_engine->LinkPort();
    const auto id = Submit("connect\nstatus 3\nresume\n");
    AwaitState(id, "running");
    boost::asio::io_context io;
    boost::asio::ip::tcp::acceptor other(io);
    Restart([&] {
        other.open(boost::asio::ip::tcp::v4());
        other.set_option(boost::asio::socket_base::reuse_address(true));
        other.bind({boost::asio::ip::address_v4::loopback(), port});
        other.listen();
    });
    EXPECT_NE(m_engine->LinkPort(), port);
    EXPECT_EQ(Ended(id)["state"], "lost");
    EXPECT_NE(kit::ReadBytes(Data("logs") / "engine.log").find("something else listens there"),
              std::string::npos);
}

TEST_F(ResumeTest, AWorkerStartedByHandIsTakenOverToo) {
    Start();
    LinkClient worker;
    const auto id = Begin(worker);
    ASSERT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(17))));
    Restart();
    ASSERT_EQ(Resume(worker), 0u);
    ASSERT_TRUE(worker.WaitAck(worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskFinished))));
    worker.SendFrame({0, 0, link::kByeId, {}});
    worker.WaitClose();
    AwaitState(id, "finished");
}

}  // namespace
}  // namespace rq::engine
