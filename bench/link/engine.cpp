#include "engine.h"

namespace bench {

void Engine::TakeWorker() {
    m_worker = Accept(m_listener);
    Frame frame;
    while (!m_input.Next(&frame)) Check(m_input.Feed(m_worker), "the worker closed before it said HELLO");
    Check(frame.id == kHello, "the worker's first frame is not HELLO");
    std::string body;
    AddNumber(&body, 1, 1);  // version
    AddNumber(&body, 2, 7);  // session
    AddFrame(&m_output, {0, 0, kWelcome, body});
    WriteAll(m_worker, m_output);
    m_output.clear();
    fcntl(m_worker, F_SETFL, O_NONBLOCK);
}

void Engine::Add(std::string_view text) {
    std::string body;
    AddBytes(&body, 1, text);
    AddFrame(&m_output, {++m_seq, m_received, kAddTask, body});
}

void Engine::Flush() {
    if (m_output.empty()) return;
    const ssize_t written = send(m_worker, m_output.data(), m_output.size(), MSG_NOSIGNAL);
    if (written < 0 && errno != EAGAIN) DieOfErrno("write to the worker");
    if (written > 0) m_output.erase(0, static_cast<std::size_t>(written));
}

bool Engine::Step(int other) {
    Flush();
    pollfd polled[2] = {{m_worker, POLLIN, 0}, {other, POLLIN, 0}};
    if (!m_output.empty()) polled[0].events |= POLLOUT;
    if (poll(polled, 2, 30'000) <= 0) Die("nothing happened for 30 s");
    if ((polled[0].revents & ~POLLOUT) != 0) {
        Check(m_input.Feed(m_worker), "the worker closed the connection");
        ++m_reads;
        Frame frame;
        while (m_input.Next(&frame)) Take(frame);
        if (m_ackDue) AddFrame(&m_output, {0, m_received, kAck, {}});
        m_ackDue = false;
        Flush();
    }
    return polled[1].revents != 0;
}

void Engine::Take(const Frame& frame) {
    ++m_frames;
    Check(frame.ack >= m_acknowledged && frame.ack <= m_seq, "the worker acknowledged what it has not got");
    m_acknowledged = frame.ack;
    if (frame.id == kPing) m_ackDue = true;
    Check(frame.id != kBye, "the worker ended");
    if (frame.seq == 0) return;
    Check(frame.seq == m_received + 1, "the worker's numbers have a gap");
    m_received = frame.seq;
    if (frame.id == kNotice) m_notified = true;
    if (frame.id == kState) TakeState(frame.body);
}

void Engine::TakeState(std::string_view body) {
    std::string_view id;
    std::uint64_t status = 0;
    ForEachField(body, [&](unsigned field, std::uint64_t, std::string_view entry) {
        if (field != 5) return;
        ForEachField(entry, [&](unsigned part, std::uint64_t number, std::string_view bytes) {
            if (part == 1) id = bytes;
            if (part == 5) status = number;
        });
    });
    if (status == 3) return;
    Check(status == 0, "a task did not end well");
    Check(id == TaskId(m_finals), "a task ended out of turn");
    m_lastFinalId = id;
    ++m_finals;
    m_ackDue = true;
}

void Engine::End() {
    close(m_worker);
    m_worker = -1;
}

}  // namespace bench
