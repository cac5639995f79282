// Every record header once, so that each compiles as a unit and warnings reach it.
#include "records/engine_messages.h"
#include "records/media_format.h"
#include "records/running_parameter.h"
#include "records/task_progress.h"
#include "records/task_results.h"

namespace rq {

// Records are deleted through their base; copying one through the base is not offered.
static_assert(std::has_virtual_destructor_v<stTaskResultBase>);

}  // namespace rq
