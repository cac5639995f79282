// The whole engine: from a submission to its record, and what workers, clients and ends of it do.
#include "engine/engine_fixture.h"

namespace rq::engine {
namespace {

TEST_F(EngineTest, ATaskRunsFromSubmissionToResult) {
    Start();
    const auto id = Submit(
        "connect\nnotice job-7\nstatus 3\nprogress 41.5 812.25\nprint 你好\nfinal 0\nawait 4014\nbye\n");
    const json task = Ended(id);
    EXPECT_EQ(task["state"], "finished");
    EXPECT_EQ(task["percent"], 100.0);
    EXPECT_EQ(task["result"]["files"][0]["computed_md5"], "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(task["result"]["files"][0]["first"], "/a b");
    const json attempt = task["attempt_list"][0];
    EXPECT_EQ(attempt["state"], "finished");
    EXPECT_EQ(attempt["exit"], json::parse(R"({"code":0})"));
    EXPECT_EQ(attempt["reported_task"], "job-7");
    EXPECT_EQ(attempt["worker_guid"], "guid-1");
    EXPECT_EQ(attempt["speed"], 812.25);
    // The engine knows the process by its start, whatever HELLO said.
    EXPECT_NE(attempt["pid"], 4711);
    const auto output = kit::ReadText(PathFromUtf8(attempt["output"].get<std::string>()));
    EXPECT_EQ(output, "type mc flag 1\n你好\n");
    EXPECT_TRUE(std::filesystem::is_empty(Data("params")));
    const auto events = EventsUntil(id, "worker-exited");
    for (const char* kind :
         {"claimed", "worker-started", "connected", "notice", "progress", "final", "order"})
        EXPECT_EQ(Count(events, kind), 1) << kind;
}

TEST_F(EngineTest, TheSameFinalStatusTwiceIsAcknowledgedTwiceAndCountsOnce) {
    Start();
    const auto id = Submit("connect\nstatus 3\nfinal 0\nfinal 0\nbye\n");
    EXPECT_EQ(Ended(id)["state"], "finished");
    const auto events = EventsUntil(id, "worker-exited");
    EXPECT_EQ(Count(events, "final"), 1);
    EXPECT_EQ(Count(events, "late-status"), 0);
}

TEST_F(EngineTest, TheFirstFinalStatusDecides) {
    Start();
    const auto id = Submit("connect\nstatus 3\nfinal-text 4 Task Not Response !\nfinal 5\nbye\n");
    const json task = Ended(id);
    EXPECT_EQ(task["state"], "failed");
    EXPECT_EQ(task["reason"], "Task Not Response !");
    EXPECT_EQ(Count(EventsUntil(id, "worker-exited"), "late-status"), 1);
}

TEST_F(EngineTest, AWorkerKilledByASignalIsSaidSo) {
    Start();
    const auto id = Submit("connect\nstatus 3\nprogress 10 1\nkilled\n");
    const json task = Ended(id);
    EXPECT_EQ(task["state"], "lost");
    EXPECT_EQ(task["reason"], "worker ended " + kit::KilledWords() + " before it reported a final status");
    EXPECT_EQ(task["attempt_list"][0]["state"], "lost");
    EXPECT_EQ(task["attempt_list"][0]["exit"], KilledExit());
}

TEST_F(EngineTest, AWorkerThatEndsWithoutAFinalStatusIsLostWhateverItsExitCode) {
    Start();
    const auto zero = Submit("connect\nstatus 3\n");
    const auto seven = Submit("exit 7\n");
    EXPECT_EQ(Ended(zero)["reason"], "worker ended with exit code 0 before it reported a final status");
    EXPECT_EQ(Ended(seven)["reason"], "worker ended with exit code 7 before it reported a final status");
}

TEST_F(EngineTest, AFinalStatusThatWasSentJustBeforeADeathCounts) {
    Start();
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(Ended(Submit("connect\nstatus 3\nfinal 0\nkilled\n"))["state"], "finished");
}

TEST_F(EngineTest, AProgramThatCannotBeStartedLosesTheTask) {
    m_settings.stageFolder = m_folder.Utf8("stage");
    std::filesystem::copy(PathFromUtf8(RQ_SCRIPTED_STAGE), PathFromUtf8(m_settings.stageFolder));
    const auto program = m_folder.Write("stage/" RQ_WORKER_FILE_NAME, "no program");
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    Start();
    const auto id = Submit("exit 0\n");
    AwaitState(id, "lost");
    EXPECT_NE(Show(id)["reason"].get<std::string>().find("cannot be started"), std::string::npos);
    EXPECT_TRUE(std::filesystem::is_empty(Data("params")));
}

TEST_F(EngineTest, AWorkerThatDoesNotConnectIsEnded) {
    m_settings.connectLimit = 200ms;
    Start();
    const json task = Ended(Submit("hang\n"));
    EXPECT_EQ(task["state"], "lost");
    EXPECT_EQ(task["reason"],
              "the worker did not connect within 200 ms (worker ended " + kit::KilledWords() + ")");
}

TEST_F(EngineTest, AWorkerThatLivesOnWithoutItsConnectionIsEnded) {
    m_settings.linkGrace = 200ms;
    Start();
    const json task = Ended(Submit("connect\nstatus 3\nclose\nhang\n"));
    EXPECT_EQ(task["state"], "lost");
    const std::string reason = task["reason"];
    EXPECT_EQ(reason.find("the connection ended ("), 0u) << reason;
    EXPECT_NE(reason.find("within 200 ms"), std::string::npos) << reason;
}

TEST_F(EngineTest, AWorkerThatIgnoresTheOrderToExitIsEndedAndItsTaskStaysFinished) {
    m_settings.destroyGrace = 200ms;
    Start();
    const auto id = Submit("connect\nstatus 3\nfinal 0\nhang\n");
    const json task = Ended(id);
    EXPECT_EQ(task["state"], "finished");
    EXPECT_EQ(task["attempt_list"][0]["exit"], KilledExit());
    EXPECT_EQ(Count(EventsUntil(id, "worker-exited"), "killed"), 1);
}

TEST_F(EngineTest, ACancelReachesTheWorkerAsAnOrder) {
    Start();
    const auto id = Submit("connect\nnotice job\nstatus 3\nawait 4002\nreply 4003\nfinal 5\nbye\n");
    AwaitState(id, "running");
    EXPECT_EQ(Ask("POST", "/api/v1/tasks/" + id + "/cancel")["result"], "requested");
    const json task = Ended(id);
    EXPECT_EQ(task["state"], "cancelled");
    EXPECT_EQ(task["status"], 5);
    const auto events = EventsUntil(id, "worker-exited");
    const auto reply = std::find_if(events.begin(), events.end(),
                                    [](const json& event) { return event["kind"] == "reply"; });
    ASSERT_NE(reply, events.end());
    EXPECT_EQ((*reply)["data"]["message"], "结束");
    EXPECT_EQ(Ask("POST", "/api/v1/tasks/" + id + "/cancel")["result"], "already-ended");
}

TEST_F(EngineTest, ACancelledWorkerMayEndWithoutAFinalStatus) {
    Start();
    const auto id = Submit("connect\nstatus 3\nawait 4002\nbye\n");
    AwaitState(id, "running");
    Ask("POST", "/api/v1/tasks/" + id + "/cancel");
    const json task = Ended(id);
    EXPECT_EQ(task["state"], "cancelled");
    EXPECT_EQ(task["attempt_list"][0]["state"], "cancelled");
}

TEST_F(EngineTest, AWorkerThatIgnoresACancelIsEnded) {
    m_settings.cancelGrace = 200ms;
    Start();
    const auto id = Submit("connect\nstatus 3\nhang\n");
    AwaitState(id, "running");
    Ask("POST", "/api/v1/tasks/" + id + "/cancel");
    EXPECT_EQ(Ended(id)["state"], "cancelled");
}

TEST_F(EngineTest, ACancelBeforeTheWorkerConnectsEndsIt) {
    Start();
    const auto id = Submit("hang\n");
    EventsUntil(id, "worker-started");
    Ask("POST", "/api/v1/tasks/" + id + "/cancel");
    const json task = Ended(id);
    EXPECT_EQ(task["state"], "cancelled");
    EXPECT_EQ(task["reason"],
              "cancelled before its worker connected (worker ended " + kit::KilledWords() + ")");
}

TEST_F(EngineTest, NoMoreWorkersRunThanAllowedAndTheQueueKeepsItsOrder) {
    m_settings.maxWorkers = 1;
    Start();
    const auto first = Submit("connect\nstatus 3\nawait 4002\nfinal 5\nbye\n");
    const auto second = Submit("connect\nstatus 3\nfinal 0\nbye\n");
    const auto third = Submit("connect\nstatus 3\nfinal 0\nbye\n");
    AwaitState(first, "running");
    EXPECT_EQ(Show(second)["state"], "queued");
    EXPECT_EQ(Ask("GET", "/api/v1/health")["workers"], json::parse(R"({"running":1,"max":1})"));
    Ask("POST", "/api/v1/tasks/" + third + "/cancel");
    EXPECT_EQ(Show(third)["state"], "cancelled");
    Ask("POST", "/api/v1/tasks/" + first + "/cancel");
    EXPECT_EQ(Ended(second)["state"], "finished");
    EXPECT_EQ(Show(first)["state"], "cancelled");
}

TEST_F(EngineTest, APackageWorkerIsEndedByTheFinishOrder) {
    m_settings.packageIdle = 0ms;
    Start();
    const auto id = Ask("POST", "/api/v1/tasks",
                        {{"type", 14}, {"text", "connect\nstatus 3\nfinal 0\nawait 4019\nreply 4020\nbye\n"}})
                        .value("id", "");
    const json task = Ended(id);
    EXPECT_EQ(task["state"], "finished");
    EXPECT_EQ(kit::ReadText(PathFromUtf8(task["attempt_list"][0]["output"].get<std::string>())),
              "type 14 flag 1\n");
}

TEST_F(EngineTest, AnAttemptConnectsOnceOnly) {
    Start();
    const auto id = Submit("connect\nconnect-again\nstatus 3\nfinal 0\nbye\n");
    EXPECT_EQ(Ended(id)["attempt_list"][0]["further_text"], "refused 3");
}

TEST_F(EngineTest, WrongTokensVersionsAndAttemptsAreRefused) {
    Start();
    const auto greet = [&](const std::string& token, const std::string& attempt, std::uint32_t version) {
        LinkClient client;
        EXPECT_TRUE(client.Connect(m_engine->LinkPort()));
        const auto code = client.Greet(token, attempt, version);
        client.WaitClose();
        return code;
    };
    EXPECT_EQ(greet("wrong", "", 1), link::kRefuseToken);
    EXPECT_EQ(greet("", "", 1), link::kRefuseToken);
    EXPECT_TRUE(kit::WaitForText(Data("logs") / "engine.log", "RQ_ENGINE_TOKEN")) << "says which is wanted";
    EXPECT_EQ(greet(m_engine->Token(), "unknown", 1), link::kRefuseAttempt);
    EXPECT_EQ(greet(m_engine->Token(), "", 2), link::kRefuseVersion);
}

TEST_F(EngineTest, AWorkerStartedByHandGetsATaskOfItsOwn) {
    Start();
    LinkClient client;
    ASSERT_TRUE(client.Connect(m_engine->LinkPort()));
    ASSERT_EQ(client.Greet(m_engine->Token(), ""), 0u);
    EXPECT_NE(client.SessionId(), 0u);
    client.Send(TCP_WORKER_SEND_ID, TaskNotice{"1.0", "g", "by-hand"});
    EXPECT_TRUE(client.WaitAck(client.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskRunning))));
    json task = Show("t1");
    EXPECT_EQ(task["origin"], "external");
    EXPECT_EQ(task["state"], "running");
    EXPECT_EQ(task["type_code"], "mc");
    EXPECT_TRUE(client.WaitAck(client.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskFinished))));
    EXPECT_EQ(client.WaitOrder()->id, TCP_WORKER_DESTROY_ID);
    client.SendFrame({0, 0, link::kByeId, {}});
    client.WaitClose();
    EXPECT_EQ(Show("t1")["state"], "finished");

    LinkClient lost;
    ASSERT_TRUE(lost.Connect(m_engine->LinkPort()));
    ASSERT_EQ(lost.Greet(m_engine->Token(), ""), 0u);
    lost.Close();
    AwaitState("t2", "lost");
    EXPECT_EQ(Show("t2")["reason"], "the connection ended before it reported a final status");
}

TEST_F(EngineTest, BrokenFramesEndTheirConnectionAndNothingElse) {
    m_settings.helloLimit = 100ms;
    Start();
    const auto session = [&](LinkClient& client) {
        ASSERT_TRUE(client.Connect(m_engine->LinkPort()));
        ASSERT_EQ(client.Greet(m_engine->Token(), ""), 0u);
    };
    const std::string running =
        link::EncodeWorkerRecord(TCP_WORKER_STATE_ID, link::WorkerRecord(StateMessage(kTaskRunning))).value();
    const std::vector<link::Frame> broken = {
        {5, 0, TCP_WORKER_STATE_ID, running},     // a gap
        {0, 0, TCP_WORKER_STATE_ID, running},     // a message without a number
        {1, 0, link::kPingId, {}},                // a control frame with one
        {1, 9, TCP_WORKER_STATE_ID, running},     // acknowledges what was never sent
        {1, 0, TCP_WORKER_STATE_ID, "\xff\xff"},  // a body that is none
        {0, 0, 0, {}},                            // id 0
        {0, 0, link::kWelcomeId, {}},             // the engine's own
    };
    for (const auto& frame : broken) {
        LinkClient client;
        session(client);
        client.SendFrame(frame);
        EXPECT_FALSE(client.WaitClose()) << "id " << frame.id << " seq " << frame.seq;
    }
    for (const std::string& bytes :
         {std::string("GET / HTTP/1.1\r\n\r\n"), std::string(4, '\0'), std::string()}) {
        LinkClient client;
        ASSERT_TRUE(client.Connect(m_engine->LinkPort()));
        client.SendBytes(bytes);  // nothing at all: half open
        const auto answer = client.ReadFrame();
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->id, link::kRefuseId);
        EXPECT_EQ(link::DecodeRefuse(answer->body)->code, link::kRefuseHandshake);
        client.WaitClose();
    }
    EXPECT_EQ(Ended(Submit("connect\nstatus 3\nfinal 0\nbye\n"))["state"], "finished");
}

TEST_F(EngineTest, UnknownIdsAreCountedAndPingsAnswered) {
    m_settings.ackDelay = 1ms;
    Start();
    LinkClient client;
    ASSERT_TRUE(client.Connect(m_engine->LinkPort()));
    ASSERT_EQ(client.Greet(m_engine->Token(), ""), 0u);
    client.SendFrame({1, 0, 4999, "x"});
    client.SendFrame({2, 0, TCP_TASK_CANCEL_ID, {}});  // an order; not the worker's to send
    client.SendFrame({0, 0, 77, {}});
    EXPECT_TRUE(client.WaitAck(2));
    client.SendFrame({2, 0, 4999, "x"});  // a repeat
    client.SendFrame({0, 0, link::kPingId, {}});
    const auto answer = client.ReadFrame();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->id, link::kAckId);
    EXPECT_EQ(answer->ack, 2u);
}

TEST_F(EngineTest, ASilentWorkerIsPingedAndThenLost) {
    m_settings.pingInterval = 50ms;
    m_settings.silenceLimit = 300ms;
    Start();
    LinkClient client;
    ASSERT_TRUE(client.Connect(m_engine->LinkPort()));
    ASSERT_EQ(client.Greet(m_engine->Token(), ""), 0u);
    const auto frame = client.ReadFrame();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->id, link::kPingId);
    client.WaitClose();
    AwaitState("t1", "lost");
}

TEST_F(EngineTest, AnOrderlyEndCancelsWhatRunsAndKeepsWhatWaits) {
    m_settings.maxWorkers = 1;
    m_settings.endGrace = 200ms;
    Start();
    const auto stubborn = Submit("connect\nstatus 3\nhang\n");
    const auto waiting = Submit("connect\nstatus 3\nfinal 0\nbye\n");
    AwaitState(stubborn, "running");
    EXPECT_TRUE(std::filesystem::exists(Data("engine.json")));
    EXPECT_EQ(Ask("POST", "/api/v1/shutdown")["status"], "ending");
    m_thread.join();
    EXPECT_FALSE(std::filesystem::exists(Data("engine.json")));
    EXPECT_TRUE(std::filesystem::is_empty(Data("params")));
    m_engine.reset();
    Start();
    EXPECT_EQ(Show(stubborn)["state"], "cancelled");
    EXPECT_EQ(Ended(waiting)["state"], "finished");
}

TEST_F(EngineTest, AnOrderlyEndLetsAWorkerFinishItsCancel) {
    Start();
    const auto id = Submit("connect\nstatus 3\nawait 4002\nfinal 5\nbye\n");
    AwaitState(id, "running");
    Stop();
    Start();
    const json task = Show(id);
    EXPECT_EQ(task["state"], "cancelled");
    EXPECT_EQ(task["status"], 5);
    EXPECT_EQ(task["attempt_list"][0]["exit"], json::parse(R"({"code":0})"));
}

TEST_F(EngineTest, OneEngineForADataFolder) {
    Start();
    const auto second = Engine::Create(m_settings);
    ASSERT_FALSE(second);
    EXPECT_NE(second.error().message.find("another engine uses this data folder"), std::string::npos);
    // And what the second one did not get it did not touch.
    EXPECT_TRUE(std::filesystem::exists(Data("engine.json")));
    EXPECT_EQ(Ask("GET", "/api/v1/health")["status"], "ok");
}

TEST_F(EngineTest, ATakenPortIsNamed) {
    Start();
    EngineSettings other = m_settings;
    other.dataFolder = m_folder.Utf8("other");
    other.linkPort = m_engine->LinkPort();
    const auto second = Engine::Create(other);
    ASSERT_FALSE(second);
    EXPECT_NE(second.error().message.find(std::to_string(other.linkPort)), std::string::npos);
}

TEST_F(EngineTest, TheTokenStaysAndADamagedOneIsNamed) {
    Start();
    const std::string token = m_engine->Token();
    EXPECT_EQ(token.size(), 64u);
    const json facts = json::parse(kit::ReadBytes(Data("engine.json")));
    EXPECT_EQ(facts["http_port"], m_engine->HttpPort());
    EXPECT_EQ(facts["link_port"], m_engine->LinkPort());
    Stop();
    Start();
    EXPECT_EQ(m_engine->Token(), token);
    Stop();
    std::ofstream(Data("engine.token")) << "short\n";
    const auto engine = Engine::Create(m_settings);
    ASSERT_FALSE(engine);
    EXPECT_NE(engine.error().message.find("engine.token"), std::string::npos);
}

TEST_F(EngineTest, HttpLimitsHold) {
    Start();
    ctl::HttpClient stranger(m_engine->HttpPort(), "wrong");
    EXPECT_EQ(stranger.Send("GET", "/api/v1/health")->status, 401u);
    EXPECT_EQ(stranger.Send("POST", "/api/v1/tasks", std::string(1u << 20, ' '))->status, 401u);
    EXPECT_EQ(stranger.Send("POST", "/api/v1/tasks", std::string(17u << 20, ' '))->status, 401u);
    EXPECT_EQ(m_http->Send("GET", "/api/v1/health")->status, 200u);
    EXPECT_EQ(m_http->Send("PUT", "/api/v1/health")->status, 405u);
    EXPECT_EQ(m_http->Send("GET", "/" + std::string(20'000, 'x'))->status, 431u);
    EXPECT_EQ(m_http->Send("POST", "/api/v1/tasks", std::string(17u << 20, ' '))->status, 413u);
    EXPECT_EQ(m_http->Send("GET", "/api/v1/health")->status, 200u);

    for (const char* bad :
         {"nonsense\r\n\r\n", "GET / HTTP/1.1\r\nHost: localhost\r\nHost: localhost\r\n\r\n",
          "POST / HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: gzip\r\n\r\n",
          "POST / HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: gzip, chunked\r\n\r\n",
          "POST / HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\nContent-Length: 3\r\n\r\n"}) {
        LinkClient raw;
        ASSERT_TRUE(raw.Connect(m_engine->HttpPort()));
        raw.SendBytes(bad);
        const std::string answer = raw.ReadAll();
        EXPECT_EQ(answer.find("HTTP/1.1 400"), 0u) << bad << answer;
        EXPECT_NE(answer.find("\"bad-request\""), std::string::npos) << bad << answer;
    }
}

}  // namespace
}  // namespace rq::engine
