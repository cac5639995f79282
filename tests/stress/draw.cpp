#include "stress/draw.h"

#include <cstdlib>
#include <initializer_list>
#include <random>

#include "records/engine_messages.h"
#include "records/task_codes.h"

namespace rq::stress {
namespace {

class Dice {
  public:
    explicit Dice(std::uint64_t seed) : m_random(seed) {}

    int Below(int limit) { return static_cast<int>(m_random() % static_cast<std::uint64_t>(limit)); }
    bool OneIn(int chances) { return Below(chances) == 0; }
    template <class T>
    T Of(std::initializer_list<T> values) {
        return values.begin()[Below(static_cast<int>(values.size()))];
    }

  private:
    std::mt19937_64 m_random;
};

TaskPlan MakeTask(Dice& dice, int number) {
    TaskPlan plan;
    if (!dice.OneIn(15)) plan.id = "T" + std::to_string(number);
    plan.isRefused = dice.OneIn(15);
    plan.reports = dice.OneIn(12) ? 0 : dice.Below(dice.Of({200, 1'000, 4'000}));
    if (plan.reports > 0 && dice.OneIn(5)) {
        plan.quietAt = dice.Below(plan.reports);
        plan.quiet = std::chrono::milliseconds(dice.Below(200));
    }
    plan.hasHelper = dice.OneIn(3);
    plan.throws = dice.OneIn(12);
    plan.endStatus = dice.Of<std::uint32_t>({kTaskFinished, kTaskFinished, kTaskError, kTaskCancelled});
    return plan;
}

PlannedOrder MakeOrder(Dice& dice, int tasks) {
    PlannedOrder order;
    order.delay = std::chrono::microseconds(dice.OneIn(3) ? 0 : dice.Below(dice.Of({100, 2'000, 20'000})));
    // Those that end a life come less often than those that leave it going.
    order.id = dice.OneIn(3) ? dice.Of<std::uint32_t>({TCP_TASK_SUSPEND_ID, TCP_TASK_RESUME_ID,
                                                       TCP_TASK_UPDATE_ID, TCP_TASK_ADD_ID})
                             : static_cast<std::uint32_t>(TCP_TASK_CANCEL_ID + dice.Below(19));
    const bool ends = order.id == TCP_TASK_CANCEL_ID || order.id == TCP_TASK_FINISH_ID;
    if (ends && !dice.OneIn(3)) order.id = TCP_TASK_RESUME_ID;
    if (dice.OneIn(60)) order.id = TCP_SERVER_DISCONNECT_ID;
    order.task = dice.Below(tasks + 1);
    order.isBare = dice.OneIn(15);
    order.manner = dice.Below(4);
    return order;
}

}  // namespace

Draw MakeDraw(std::uint64_t seed) {
    Dice dice(seed);
    Draw draw;
    draw.seed = seed;
    draw.type = dice.Of<std::int32_t>({RQ_TASK_TRANSFER, RQ_TASK_TRANSCODE, RQ_TASK_MD5_COMPUTE,
                                       RQ_TASK_PACKAGE, RQ_TASK_PACKAGE, RQ_TASK_PACKAGE_PARAMETER_FILE});
    draw.isBySocket = dice.OneIn(2);
    draw.heartbeat_s = dice.Of({0, 1, 1, 1, 3, 3, 60, 60});
    draw.report_s = dice.Of({0, 1, 1, 2});
    draw.patrol_s = dice.Of({0, 4, 10, 60});
    draw.failsInit = dice.OneIn(40);
    draw.failingConnects = dice.OneIn(8) ? 1 + dice.Below(3) : 0;
    draw.connectDelay = std::chrono::microseconds(dice.OneIn(2) ? 0 : dice.Below(3'000));
    draw.refusesEach = dice.OneIn(3) ? static_cast<std::uint32_t>(1 + dice.Below(20)) : 0;
    draw.holdsFinals = dice.OneIn(6);
    const bool isPackage = IsPackageType(draw.type);
    const int tasks = isPackage ? 1 + dice.Below(8) : 1 + dice.Below(2);
    for (int i = 0; i < tasks; ++i) draw.tasks.push_back(MakeTask(dice, i));
    const int orders = dice.OneIn(10) ? 0 : dice.Below(dice.Of({5, 20, 60}));
    for (int i = 0; i < orders; ++i) draw.orders.push_back(MakeOrder(dice, tasks));
    draw.endingDelay = std::chrono::milliseconds(dice.OneIn(4) ? 0 : dice.Below(400));
    draw.ending = dice.OneIn(10) ? Ending::LeftAlone : dice.Of({Ending::Stop, Ending::Finish, Ending::Loss});
    if (isPackage && draw.ending == Ending::LeftAlone) draw.ending = Ending::Loss;  // it would go on for ever
    return draw;
}

std::string Draw::Text(int task) const {
    return "<task>" + std::to_string(task) + "</task>";
}

const TaskPlan* Draw::Find(const std::string& text) const {
    const std::size_t from = text.find('>');
    if (from == std::string::npos) return nullptr;
    const auto number = static_cast<std::size_t>(std::strtoul(text.c_str() + from + 1, nullptr, 10));
    return number < tasks.size() ? &tasks[number] : nullptr;
}

std::string Describe(const Draw& draw) {
    return "RQ_STRESS_SEED=" + std::to_string(draw.seed) + " (type " + std::to_string(draw.type) +
           (draw.isBySocket ? ", by socket" : ", direct") + ", heartbeat " +
           std::to_string(draw.heartbeat_s) + ", report " + std::to_string(draw.report_s) + ", patrol " +
           std::to_string(draw.patrol_s) + ", " + std::to_string(draw.tasks.size()) + " tasks, " +
           std::to_string(draw.orders.size()) + " orders, ending " +
           std::to_string(static_cast<int>(draw.ending)) + ")";
}

}  // namespace rq::stress
