#include "link/handler_thread.h"

#include <system_error>

namespace rq::link {
namespace {

// The wait ends by its token; the length only bounds one round.
constexpr std::chrono::minutes kIdleWait{60};

}  // namespace

bool HandlerThread::Start(EngineMessageHandler handler, void* context,
                          std::function<void(const Delivery&)> onHanded) {
    if (IsRunning()) return true;
    m_handler = handler;
    m_context = context;
    m_onHanded = std::move(onHanded);
    {
        Signal::Hold hold(m_signal);
        m_waiting.clear();
        m_loss.clear();
        m_refuse = false;
        m_signal.Reset(hold);
    }
    try {
        m_thread = std::thread([this] { Run(); });
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

void HandlerThread::Push(Delivery delivery) {
    Signal::Hold hold(m_signal);
    if (m_refuse) return;
    m_waiting.push_back(std::move(delivery));
    m_signal.Notify(hold);
}

void HandlerThread::ReserveLoss(Delivery loss) {
    std::list<Delivery> reserved;
    reserved.push_back(std::move(loss));
    Signal::Hold hold(m_signal);
    m_loss.swap(reserved);
}

void HandlerThread::ForgetLoss() {
    Signal::Hold hold(m_signal);
    m_loss.clear();
}

bool HandlerThread::HasLoss() {
    Signal::Hold hold(m_signal);
    return !m_loss.empty();
}

void HandlerThread::PushLoss() {
    Signal::Hold hold(m_signal);
    if (m_refuse) return;
    m_waiting.splice(m_waiting.end(), m_loss);
    m_signal.Notify(hold);
}

void HandlerThread::Refuse() {
    Signal::Hold hold(m_signal);
    m_refuse = true;
    m_waiting.clear();
    m_signal.Notify(hold);
}

void HandlerThread::Stop() {
    if (!IsRunning()) return;
    Refuse();
    m_thread.join();
}

bool HandlerThread::Next(Delivery* delivery) {
    Signal::Hold hold(m_signal);
    while (!m_refuse && m_waiting.empty()) m_signal.WaitFor(hold, kIdleWait);
    if (m_refuse) return false;
    *delivery = std::move(m_waiting.front());
    m_waiting.pop_front();
    return true;
}

void HandlerThread::Run() {
    Delivery delivery;
    while (Next(&delivery)) {
        try {
            Call(delivery);
        } catch (...) {
            // The handler is C in form: what it throws ends its call and nothing else.
        }
        m_onHanded(delivery);
    }
}

void HandlerThread::Call(const Delivery& delivery) {
    if (m_handler == nullptr) return;
    const Order* order = std::get_if<Order>(&delivery.content);
    if (order == nullptr) {
        const DisconnectPayload payload{delivery.sessionId};
        m_handler(TCP_SERVER_DISCONNECT_ID, &payload, m_context);
    } else if (const auto* text = std::get_if<TaskTextOrder>(order)) {
        const TaskTextPayload payload{delivery.sessionId, 0, text->text.c_str()};
        m_handler(delivery.id, &payload, m_context);
    } else {
        // 4014 reads no payload; it gets one of the same form without a command.
        const TaskCommandPayload payload{delivery.sessionId, 0, std::get_if<TaskCommand>(order)};
        m_handler(delivery.id, &payload, m_context);
    }
}

}  // namespace rq::link
