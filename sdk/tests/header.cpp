// The contract's header and its C++ wrapper as a C++ plug-in author's compiler sees them.
#include <type_traits>

#include "layout.h"
#include "rqworker/plugin.hpp"

static_assert(std::is_standard_layout<TaskInfo>::value && std::is_trivial<TaskInfo>::value,
              "the record is plain in C++ too");
static_assert(std::is_standard_layout<RQRunningParameter>::value &&
                  std::is_trivial<RQRunningParameter>::value,
              "the record is plain in C++ too");

namespace {

class Smallest final : public rq::plugin::Plugin {
  public:
    Smallest() : Plugin({"smallest", "0.0.1", {RQ_TYPE_MD5_COMPUTE}, 0}) {}
    rq::plugin::Analysis Analyse(std::string_view) override { return {}; }
    rq::plugin::Outcome Perform(rq::plugin::TaskRecord&, rq::plugin::Run&) override {
        return rq::plugin::Outcome::kFinished;
    }
};

}  // namespace

RQ_PLUGIN(Smallest)

static_assert(std::is_same<decltype(&RQWorkerDescribe), RQWorkerDescribeFunc>::value,
              "as the header declares it");
static_assert(std::is_same<decltype(&RQWorkerInit), RQWorkerInitFunc>::value, "as the header declares it");
static_assert(std::is_same<decltype(&RQWorkerAnalyseTask), RQWorkerAnalyseTaskFunc>::value,
              "as the header declares it");
static_assert(std::is_same<decltype(&RQWorkerPerformTask), RQWorkerPerformTaskFunc>::value,
              "as the header declares it");
static_assert(std::is_same<decltype(&RQWorkerRelease), RQWorkerReleaseFunc>::value,
              "as the header declares it");
