// What the engine answers when somebody asks about a task: why it waits, why it is slow, why it ended as it
// did, and what happened to it, from what the store has. Pure; any thread.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "engine/store_types.h"

namespace rq::engine {

struct ExplainFacts {
    std::int64_t now_us = 0;
    TaskDetails details;
    std::vector<EventRow> milestones;  // events but those of progress, oldest first
    std::vector<EventRow> progress;    // of the latest attempt
    std::vector<WaitReason> waits;     // of a queued task
    std::int64_t ahead = 0;            // queued tasks whose turn comes before
    TypePace pace;                     // of finished tasks of its type
    std::size_t workers = 0;           // that run
    std::int64_t cores = 0;            // of the node
    bool isCut = false;                // there were more milestones
};

// The document of docs/api.md.
nlohmann::json ExplainJson(const ExplainFacts& facts);

// An event as a sentence; empty for one that says nothing to people.
std::string SentenceOf(const EventRow& event);

}  // namespace rq::engine
