// What happens to one task while it is performed, and the thread that makes it happen.
//
// LinkThread stands for the thread on which a worker's engine delivers orders: suspend, resume, stop and
// update come from it, at moments that the plan says. While a perform call runs it also looks at the task now
// and then, as a worker's progress report does. Begin and End by the main thread; OnCall by the perform
// call's (the same).
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/sync.h"

namespace rq::plugincheck {

enum class Order : std::uint8_t { Suspend, Resume, Cancel, Finish, Update };

struct Action {
    Order order = Order::Cancel;
    std::uint32_t call = 0;              // at this progress call, counted from 1; 0: by time
    std::chrono::microseconds after{0};  // by time: since the perform call began
    bool isSincePrevious = false;        // ... or since the action before
};

struct Scenario {
    std::string what;  // "suspended and resumed"
    std::vector<Action> actions = {};
    bool isCancelledBefore = false;  // the stop flag is set before the perform call begins
    bool isTextKept = false;         // the task text stays readable, with a zero behind it
    bool isFirstLent = false;        // the first task whose text is neither
    bool isUpdatedAfter = false;     // an update lands just after the perform call has returned
    bool areTextsWritten = false;    // the worker puts texts of its own into the record afterwards

    bool Stops() const;
    bool Updates() const;
};

// How long an undisturbed task takes: where random moments are taken from.
struct TaskLength {
    std::uint32_t calls = 0;
    std::chrono::microseconds time{0};
};

using Random = std::mt19937_64;

Scenario SuspendAndResume(Random& random, const TaskLength& length);
Scenario StopAtRandom(Random& random, const TaskLength& length, Order order);
Scenario StopWhileSuspended(Random& random, const TaskLength& length);
Scenario UpdateAtRandom(Random& random, const TaskLength& length);
// One of the above, or several orders in one task.
Scenario AnyScenario(Random& random, const TaskLength& length);

class LinkThread {
  public:
    struct Hooks {
        std::function<void(Order)> carryOut;
        std::function<void()> look;
    };

    explicit LinkThread(Hooks hooks);
    ~LinkThread();
    LinkThread(const LinkThread&) = delete;
    LinkThread& operator=(const LinkThread&) = delete;

    void Begin(const std::vector<Action>& plan);
    // Gives a plan's action of this call time to begin.
    void OnCall(std::uint32_t call);
    // Returns when the thread is idle; what is left of the plan is dropped.
    void End();

  private:
    struct Work {
        std::optional<Order> order;  // nothing: look
    };

    void Run();
    std::optional<Work> NextWork();  // nothing: the thread is to end
    bool IsDue(const Action& action, SteadyTime now) const RQ_REQUIRES(m_wake);

    Hooks m_hooks;
    Signal m_wake;
    Signal m_idle;
    std::deque<Action> m_plan RQ_GUARDED_BY(m_wake);
    SteadyTime m_begin RQ_GUARDED_BY(m_wake);
    SteadyTime m_previous RQ_GUARDED_BY(m_wake);
    SteadyTime m_nextLook RQ_GUARDED_BY(m_wake);
    std::uint32_t m_call RQ_GUARDED_BY(m_wake) = 0;
    bool m_isActive RQ_GUARDED_BY(m_wake) = false;
    bool m_isBusy RQ_GUARDED_BY(m_wake) = false;
    bool m_isEnding RQ_GUARDED_BY(m_wake) = false;
    std::thread m_thread;
};

}  // namespace rq::plugincheck
