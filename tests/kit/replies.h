// Which orders a worker answers, for those who watch it.
#pragma once

#include <cstdint>

#include "records/engine_messages.h"

namespace rq::kit {

// The message that answers the order; 0 for one that gets no answer.
inline std::uint32_t ReplyTo(std::uint32_t order) {
    switch (order) {
        case TCP_TASK_CANCEL_ID:
        case TCP_TASK_SUSPEND_ID:
        case TCP_TASK_RESUME_ID:
        case TCP_TASK_UPDATE_ID:
        case TCP_TASK_FINISH_ID:
            return order + 1;
        default:
            return 0;
    }
}

}  // namespace rq::kit
