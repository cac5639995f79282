// The replaced transport (replaced/link/transport.h).
#include "link/transport.h"

#include "simulation/network.h"
#include "simulation/scheduler.h"
#include "simulation/world.h"

namespace rq::link {

// The queue has no lock: the baton is one, and the network must be able to post without giving it away.

bool IoThread::Start(std::function<void(std::string)>) {
    if (IsRunning()) return true;
    m_isStopped = false;
    m_thread = std::thread([this] { Run(); });
    return true;
}

void IoThread::Take(std::function<void()> work) {
    m_work.push_back(std::move(work));
    sim::ActiveWorld().scheduler.WakeAll(this);
}

void IoThread::Stop() {
    if (!IsRunning()) return;
    Take([this] { m_isStopped = true; });
    m_thread.join();
    m_work.clear();
    m_timer.reset();
}

bool IoThread::TimerIsDue() const {
    return m_timer && SystemClock().Steady() >= *m_timer;
}

void IoThread::Run() {
    sim::Scheduler& scheduler = sim::ActiveWorld().scheduler;
    while (!m_isStopped) {
        const bool timer = TimerIsDue();
        if (timer && (m_work.empty() || scheduler.Chance().OneIn(2))) {
            m_timer.reset();
            if (const auto connection = m_timed.lock()) connection->OnTimerDue();
        } else if (!m_work.empty()) {
            const std::function<void()> work = std::move(m_work.front());
            m_work.pop_front();
            work();
        } else {
            std::int64_t deadline = sim::kNever;
            if (m_timer)
                deadline =
                    scheduler.Now() + std::chrono::nanoseconds(*m_timer - SystemClock().Steady()).count();
            scheduler.Block(this, "bytes, work or a timer", deadline);
        }
    }
}

void IoThread::SetTimer(std::weak_ptr<Connection> connection, std::optional<SteadyTime> time) {
    m_timed = std::move(connection);
    m_timer = time;
}

void Connection::Open(const std::string&, std::uint16_t) {
    m_socket = sim::ActiveWorld().network.Connect(weak_from_this());
}

bool Connection::Write(std::string bytes) {
    return m_socket->WriteByWorker(std::move(bytes));
}

void Connection::ShutdownSend() {
    m_socket->ShutdownByWorker();
}

void Connection::Close() {
    if (m_listener == nullptr) return;
    m_listener = nullptr;
    m_io.SetTimer({}, std::nullopt);
    if (m_socket) m_socket->CloseByWorker();
}

// The clocks are one here: `now` is not needed.
void Connection::SetTimer(std::optional<SteadyTime> time, SteadyTime) {
    if (m_listener == nullptr || !time || (m_timerAt && *m_timerAt <= *time)) return;
    m_timerAt = time;
    m_io.SetTimer(weak_from_this(), time);
}

void Connection::OnTimerDue() {
    m_timerAt.reset();
    if (m_listener != nullptr) m_listener->OnTimer();
}

void Connection::Happens(std::function<void(Listener&)> what) {
    if (m_listener == nullptr) return;
    m_io.Post([self = shared_from_this(), what = std::move(what)] {
        if (self->m_listener != nullptr) what(*self->m_listener);
    });
}

void Connection::Ends(std::string reason) {
    if (m_listener == nullptr) return;
    m_io.Post([self = shared_from_this(), reason = std::move(reason)] {
        Listener* listener = self->m_listener;
        if (listener == nullptr) return;
        self->Close();
        listener->OnDisconnected(reason);
    });
}

}  // namespace rq::link
