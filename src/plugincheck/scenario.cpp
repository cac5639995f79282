#include "plugincheck/scenario.h"

#include <algorithm>

namespace rq::plugincheck {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kLookEvery(20);
constexpr milliseconds kPlanPoll(1);
constexpr milliseconds kLongestCallWait(200);

std::uint64_t Below(Random& random, std::uint64_t bound) {
    return bound == 0 ? 0 : random() % bound;
}

// At a random progress call, or after a random part of the time.
Action AtRandom(Random& random, const TaskLength& length, Order order) {
    Action action;
    action.order = order;
    if (length.calls > 0 && Below(random, 2) == 0)
        action.call = static_cast<std::uint32_t>(1 + Below(random, length.calls));
    else
        action.after = microseconds(Below(random, static_cast<std::uint64_t>(length.time.count()) + 1));
    return action;
}

Action Soon(Random& random, Order order, milliseconds most) {
    Action action;
    action.order = order;
    action.isSincePrevious = true;
    action.after = microseconds(Below(random, static_cast<std::uint64_t>(most.count()) * 1000));
    return action;
}

constexpr milliseconds kLongestPause(30);

std::string StopText(Order order) {
    return order == Order::Cancel ? "stopped with flag 1 (cancel)" : "stopped with flag 2 (finish)";
}

}  // namespace

bool Scenario::Stops() const {
    return isCancelledBefore || std::any_of(actions.begin(), actions.end(), [](const Action& action) {
               return action.order == Order::Cancel || action.order == Order::Finish;
           });
}

bool Scenario::Updates() const {
    return isUpdatedAfter || std::any_of(actions.begin(), actions.end(),
                                         [](const Action& action) { return action.order == Order::Update; });
}

Scenario SuspendAndResume(Random& random, const TaskLength& length) {
    Scenario scenario{.what = "suspended and resumed"};
    scenario.actions = {AtRandom(random, length, Order::Suspend), Soon(random, Order::Resume, kLongestPause)};
    return scenario;
}

Scenario StopAtRandom(Random& random, const TaskLength& length, Order order) {
    Scenario scenario{.what = StopText(order)};
    scenario.actions = {AtRandom(random, length, order)};
    return scenario;
}

Scenario StopWhileSuspended(Random& random, const TaskLength& length) {
    Scenario scenario{.what = "suspended, then stopped with flag 1 (cancel)"};
    scenario.actions = {AtRandom(random, length, Order::Suspend), Soon(random, Order::Cancel, kLongestPause)};
    return scenario;
}

Scenario UpdateAtRandom(Random& random, const TaskLength& length) {
    Scenario scenario{.what = "updated"};
    scenario.actions = {AtRandom(random, length, Order::Update)};
    return scenario;
}

Scenario AnyScenario(Random& random, const TaskLength& length) {
    switch (Below(random, 7)) {
        case 0:
            return SuspendAndResume(random, length);
        case 1:
            return StopAtRandom(random, length, Order::Cancel);
        case 2:
            return StopAtRandom(random, length, Order::Finish);
        case 3:
            return StopWhileSuspended(random, length);
        case 4:
            return UpdateAtRandom(random, length);
        default:
            break;
    }
    Scenario scenario{.what = "suspended, updated, resumed and stopped"};
    scenario.actions = {AtRandom(random, length, Order::Suspend), Soon(random, Order::Update, kLongestPause),
                        Soon(random, Order::Resume, kLongestPause)};
    const Order stop = Below(random, 2) == 0 ? Order::Cancel : Order::Finish;
    scenario.actions.push_back(Soon(random, stop, kLongestPause));
    return scenario;
}

// ---- the thread ----

LinkThread::LinkThread(Hooks hooks) : m_hooks(std::move(hooks)), m_thread([this] { Run(); }) {}

LinkThread::~LinkThread() {
    {
        Signal::Hold hold(m_wake);
        m_isEnding = true;
        m_wake.Notify(hold);
    }
    m_thread.join();
}

void LinkThread::Begin(const std::vector<Action>& plan) {
    Signal::Hold hold(m_wake);
    m_plan.assign(plan.begin(), plan.end());
    m_begin = m_previous = steady_clock::now();
    m_nextLook = m_begin + kLookEvery;
    m_call = 0;
    m_isActive = true;
    m_wake.Notify(hold);
}

void LinkThread::OnCall(std::uint32_t call) {
    const SteadyTime deadline = steady_clock::now() + kLongestCallWait;
    for (;;) {
        {
            Signal::Hold hold(m_wake);
            m_call = call;
            if (m_plan.empty() || m_plan.front().call != call) return;
            m_wake.Notify(hold);
        }
        if (steady_clock::now() > deadline) return;
        m_idle.WaitFor(kPlanPoll);
    }
}

void LinkThread::End() {
    for (;;) {
        {
            Signal::Hold hold(m_wake);
            m_isActive = false;
            m_plan.clear();
            if (!m_isBusy) return;
        }
        m_idle.WaitFor(kPlanPoll);
    }
}

bool LinkThread::IsDue(const Action& action, SteadyTime now) const {
    if (action.call > 0) return m_call >= action.call;
    return now >= (action.isSincePrevious ? m_previous : m_begin) + action.after;
}

std::optional<LinkThread::Work> LinkThread::NextWork() {
    Signal::Hold hold(m_wake);
    if (m_isBusy) {
        m_isBusy = false;
        m_idle.Notify();
    }
    while (!m_isEnding) {
        const SteadyTime now = steady_clock::now();
        if (m_isActive && !m_plan.empty() && IsDue(m_plan.front(), now)) {
            const Work work{m_plan.front().order};
            m_plan.pop_front();
            m_previous = now;
            m_isBusy = true;
            m_idle.Notify();
            return work;
        }
        if (m_isActive && now >= m_nextLook) {
            m_nextLook = now + kLookEvery;
            m_isBusy = true;
            return Work{};
        }
        m_wake.WaitFor(hold, m_isActive ? kPlanPoll : kLookEvery);
    }
    return std::nullopt;
}

void LinkThread::Run() {
    while (const std::optional<Work> work = NextWork()) {
        if (work->order)
            m_hooks.carryOut(*work->order);
        else
            m_hooks.look();
    }
}

}  // namespace rq::plugincheck
