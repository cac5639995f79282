// The plug-in of type 0: docs/tasks/transfer.md.
#include "plugin_common/codes.h"
#include "transfer_task.h"
#include "transfer_work.h"

namespace rq::transfer {

class TransferPlugin final : public plugin::Plugin {
  public:
    TransferPlugin()
        : Plugin({"transfer", "1.0.0", {RQ_TYPE_TRANSFER}, RQ_ABILITY_PAUSE | RQ_ABILITY_FINISH}) {}

    plugin::Analysis Analyse(std::string_view taskText) override {
        TransferTask task;
        task::XmlError error;
        if (ReadTransferTask(taskText, task, error))
            return {0, std::make_unique<TransferRecord>(std::move(task))};
        return {task::kAnalysisTaskText, std::make_unique<plugin::TaskRecord>(RQ_TYPE_TRANSFER, task.id),
                error.Text()};
    }

    plugin::Outcome Perform(plugin::TaskRecord& record, plugin::Run& run) override {
        return TransferWork(dynamic_cast<TransferRecord&>(record), run, Services()).Do();
    }
};

}  // namespace rq::transfer

RQ_PLUGIN(rq::transfer::TransferPlugin)
