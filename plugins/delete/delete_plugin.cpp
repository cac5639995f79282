// The plug-in of type 7: docs/tasks/delete.md.
#include "delete_task.h"
#include "delete_work.h"
#include "plugin_common/codes.h"

namespace rq::del {

class DeletePlugin final : public plugin::Plugin {
  public:
    DeletePlugin() : Plugin({"delete", "1.0.0", {RQ_TYPE_DELETE}, RQ_ABILITY_PAUSE | RQ_ABILITY_FINISH}) {}

    plugin::Analysis Analyse(std::string_view taskText) override {
        DeleteTask task;
        task::XmlError error;
        if (ReadDeleteTask(taskText, task, error))
            return {0, std::make_unique<DeleteRecord>(std::move(task))};
        return {task::kAnalysisTaskText, std::make_unique<plugin::TaskRecord>(RQ_TYPE_DELETE, task.id),
                error.Text()};
    }

    plugin::Outcome Perform(plugin::TaskRecord& record, plugin::Run& run) override {
        return DeleteWork(dynamic_cast<DeleteRecord&>(record), run, Services()).Do();
    }
};

}  // namespace rq::del

RQ_PLUGIN(rq::del::DeletePlugin)
