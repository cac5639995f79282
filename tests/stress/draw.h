// What a seed decides of one worker's life: its type and parameters, what its plug-in does with each task, by
// which link it hears its orders, and the orders with the times between them. Which thread goes on next is
// the machine's. All times are real ones.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace rq::stress {

struct TaskPlan {
    std::string id;  // empty: a task without an ID
    bool isRefused = false;
    int reports = 0;   // of progress, one each 100 us
    int quietAt = -1;  // before that report it waits, for a stop or this long
    std::chrono::milliseconds quiet{0};
    bool hasHelper = false;  // a thread of the plug-in's own that calls the host's services
    bool throws = false;
    std::uint32_t endStatus = 0;  // unless it is stopped
};

struct PlannedOrder {
    std::chrono::microseconds delay{0};
    std::uint32_t id = 0;  // 4002 to 4020, or 12306
    int task = 0;          // of the texts: an index of `tasks`, beyond them a text that is no task's
    bool isBare = false;   // without text or record
    int manner = 0;        // of a loss
};

// What comes when the orders are used up, again and again until the worker is gone.
enum class Ending { Stop, Finish, Loss, LeftAlone };

struct Draw {
    std::uint64_t seed = 0;
    std::int32_t type = 0;
    bool isBySocket = false;
    std::int32_t heartbeat_s = 0;
    std::int32_t report_s = 0;
    std::int32_t patrol_s = 0;
    bool failsInit = false;
    int failingConnects = 0;
    std::chrono::microseconds connectDelay{0};
    std::uint32_t refusesEach = 0;  // that many sends are accepted between two that are not; 0: all
    bool holdsFinals = false;       // the engine acknowledges no final status before the ending
    std::vector<TaskPlan> tasks;
    std::vector<PlannedOrder> orders;
    std::chrono::milliseconds endingDelay{0};
    Ending ending = Ending::Stop;

    std::string Text(int task) const;
    // Null for a text that is no task's.
    const TaskPlan* Find(const std::string& text) const;
};

Draw MakeDraw(std::uint64_t seed);
std::string Describe(const Draw& draw);

}  // namespace rq::stress
