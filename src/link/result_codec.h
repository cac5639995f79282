// Task results to and from their wire form; a part of the codec.
#pragma once

#include <memory>

#include "records/task_results.h"

namespace rqworker::link::v1 {
class StatusEntry;
}

namespace rq::link {

// Sets the entry's result. A record of a class that the wire does not know leaves the entry without a result.
void ResultToWire(const stTaskResultBase& result, rqworker::link::v1::StatusEntry* entry);
// Null when the entry has none.
std::shared_ptr<const stTaskResultBase> ResultFromWire(const rqworker::link::v1::StatusEntry& entry);

}  // namespace rq::link
