// The plug-in of type 1 (transcode): docs/tasks/transcode.md.
#include "plugin_common/codes.h"
#include "transcode_record.h"
#include "transcode_task.h"
#include "transcode_work.h"

namespace rq::transcode {

class TranscodePlugin final : public plugin::Plugin {
  public:
    TranscodePlugin()
        : Plugin({"transcode", "1.0.0", {RQ_TYPE_TRANSCODE}, RQ_ABILITY_PAUSE | RQ_ABILITY_FINISH}) {}

    plugin::Analysis Analyse(std::string_view taskText) override {
        TranscodeTask task;
        task::XmlError error;
        if (ReadTranscodeTask(taskText, task, error)) {
            const SourceFacts facts = LookAtSource(task.source, Services());
            return {0, std::make_unique<TranscodeRecord>(std::move(task), facts)};
        }
        return {task::kAnalysisTaskText, std::make_unique<plugin::TaskRecord>(RQ_TYPE_TRANSCODE, task.id),
                error.Text()};
    }

    plugin::Outcome Perform(plugin::TaskRecord& record, plugin::Run& run) override {
        return TranscodeWork(dynamic_cast<TranscodeRecord&>(record), run, Services()).Do();
    }
};

}  // namespace rq::transcode

RQ_PLUGIN(rq::transcode::TranscodePlugin)
