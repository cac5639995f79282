// What the tests of sessions and attempts that go on share: an engine with a window, restarts, and a look at
// its store and folders. As in engine_fixture.h.
#pragma once

#include "engine/engine_fixture.h"
#include "platform/found_process.h"

namespace rq::engine {

class ResumeTest : public EngineTest {
  protected:
    ResumeTest() {
        m_settings.resumeWindow = 60s;
        m_settings.linkGrace = 200ms;
        m_settings.heartbeatInterval = 1h;
        m_settings.endGrace = 300ms;
    }
    // As an update of the engine does it; what is changed in between is seen by the new one.
    void Restart(const std::function<void()>& between = {}) {
        Stop(Engine::End::LeaveWorkers);
        if (between) between();
        Start();
    }
    // A worker that was started by hand, in this process; the task that was made for it.
    std::string Begin(LinkClient& worker, std::uint64_t process = platform::CurrentProcessId()) {
        worker.SetProcess(process);
        EXPECT_TRUE(worker.Connect(m_engine->LinkPort()));
        EXPECT_EQ(worker.Greet(m_engine->Token(), ""), 0u);
        return Ask("GET", "/api/v1/tasks?limit=1")["tasks"][0]["id"];
    }
    std::optional<std::uint32_t> Resume(LinkClient& worker) {
        return worker.Resume(m_engine->LinkPort(), m_engine->Token());
    }
    std::uint64_t ProcessOf(const std::string& id) { return Show(id)["attempt_list"][0]["pid"]; }
    // So that the next engine finds nothing of it.
    void EndWorker(std::uint64_t process) {
        kit::EndProcess(process);
        EXPECT_TRUE(kit::WaitUntil([&] { return platform::ProcessMark(process).empty(); }));
    }
    std::vector<std::string> FilesIn(const char* folder) {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(Data(folder)))
            names.push_back(Utf8FromPath(entry.path().filename()));
        return names;
    }
};

}  // namespace rq::engine
