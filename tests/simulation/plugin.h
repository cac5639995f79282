// The scripted plug-in: does what its task's plan says (simulation/scenario.h). Its functions have the form
// of the plug-in contract and find the active world by themselves.
#pragma once

#include <rqworker/plugin.h>

#include <deque>
#include <string>

#include "plugin/work_runner_seams.h"
#include "simulation/scenario.h"

namespace rq::sim {

struct World;

class Plugin {
  public:
    explicit Plugin(World& world) : m_world(world) {}
    // Puts this plug-in in the place of a library.
    void FillIn(WorkRunnerSeams& seams);

  private:
    struct Record {
        TaskInfo info{};
        std::string id;
        std::string further;
    };

    std::int32_t Analyse(RQText text, TaskInfo** info);
    std::int32_t Perform(TaskInfo& info, const volatile std::uint32_t* stop, RQProgressCallback progress,
                         void* context);
    void Take(const PluginStep& step, const TaskInfo& info, RQProgressCallback progress, void* context);
    void PublishResult(const std::string& task) const;

    World& m_world;
    const RQHostServices* m_host = nullptr;
    std::deque<Record> m_records;
};

}  // namespace rq::sim
