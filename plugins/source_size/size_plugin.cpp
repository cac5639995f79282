// The plug-in of type 5: docs/tasks/source_size.md.
#include "plugin_common/codes.h"
#include "size_task.h"
#include "size_work.h"

namespace rq::source_size {

class SizePlugin final : public plugin::Plugin {
  public:
    SizePlugin()
        : Plugin({"source_size", "1.0.0", {RQ_TYPE_SOURCE_SIZE}, RQ_ABILITY_PAUSE | RQ_ABILITY_FINISH}) {}

    plugin::Analysis Analyse(std::string_view taskText) override {
        SizeTask task;
        task::XmlError error;
        if (ReadSizeTask(taskText, task, error)) return {0, std::make_unique<SizeRecord>(std::move(task))};
        return {task::kAnalysisTaskText, std::make_unique<plugin::TaskRecord>(RQ_TYPE_SOURCE_SIZE, task.id),
                error.Text()};
    }

    plugin::Outcome Perform(plugin::TaskRecord& record, plugin::Run& run) override {
        return SizeWork(dynamic_cast<SizeRecord&>(record), run, Services()).Do();
    }
};

}  // namespace rq::source_size

RQ_PLUGIN(rq::source_size::SizePlugin)
