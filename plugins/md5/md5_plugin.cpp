// The plug-in of types 3 (compute) and 4 (verify). The task text tells which of the two it is:
// docs/tasks/md5.md.
#include "md5_record.h"
#include "md5_task.h"
#include "md5_work.h"
#include "plugin_common/codes.h"

namespace rq::md5 {

class Md5Plugin final : public plugin::Plugin {
  public:
    Md5Plugin()
        : Plugin({"md5",
                  "1.1.0",
                  {RQ_TYPE_MD5_COMPUTE, RQ_TYPE_MD5_VERIFY},
                  RQ_ABILITY_PAUSE | RQ_ABILITY_FINISH}) {}

    plugin::Analysis Analyse(std::string_view taskText) override {
        Md5Task task;
        task::XmlError error;
        if (ReadMd5Task(taskText, task, error)) return {0, std::make_unique<Md5Record>(std::move(task))};
        return {task::kAnalysisTaskText, std::make_unique<plugin::TaskRecord>(RQ_TYPE_MD5_COMPUTE, task.id),
                error.Text()};
    }

    plugin::Outcome Perform(plugin::TaskRecord& record, plugin::Run& run) override {
        return Md5Work(dynamic_cast<Md5Record&>(record), run, Services()).Do();
    }
};

}  // namespace rq::md5

RQ_PLUGIN(rq::md5::Md5Plugin)
