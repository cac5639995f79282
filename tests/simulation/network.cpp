#include "simulation/network.h"

#include <algorithm>
#include <utility>

#include "link/transport.h"
#include "simulation/world.h"

namespace rq::sim {

using Listener = link::Connection::Listener;

std::shared_ptr<Socket> Network::Connect(std::weak_ptr<link::Connection> worker) {
    auto socket = std::make_shared<Socket>(m_world, worker, ++m_connections);
    const std::int64_t delay = m_world.random.Between(0, m_world.scenario.longestDelay);
    m_world.agenda.After(delay, [this, socket, worker] {
        const auto connection = worker.lock();
        if (!connection) return;
        switch (m_world.engine.Accept(socket)) {
            case Engine::Answer::Accepted:
                return connection->Happens([](Listener& listener) { listener.OnConnected(); });
            case Engine::Answer::Refused:
                return connection->Ends("connect: refused");
            case Engine::Answer::Hangs:
                return;
        }
    });
    return socket;
}

std::int64_t Socket::Arrival(std::int64_t& last) {
    const std::int64_t now = m_world.scheduler.Now();
    last = std::max(last, now + m_world.random.Between(0, m_world.scenario.longestDelay));
    return last - now;
}

// ---- from the worker to the engine ----

bool Socket::WriteByWorker(std::string bytes) {
    const auto self = shared_from_this();
    const bool isWritten = m_heldWrite == 0 && m_world.random.OneIn(2);
    if (!isWritten)
        m_world.agenda.After(Arrival(m_lastToEngine) + std::exchange(m_heldWrite, 0), [self] {
            if (const auto worker = self->m_worker.lock(); worker && !self->m_isBroken)
                worker->Happens([](Listener& listener) { listener.OnWritten(); });
        });
    while (!bytes.empty()) {
        const auto size = static_cast<std::size_t>(
            m_world.random.OneIn(2) ? m_world.random.Between(1, static_cast<std::int64_t>(bytes.size()))
                                    : static_cast<std::int64_t>(bytes.size()));
        m_world.agenda.After(Arrival(m_lastToEngine),
                             [self, piece = bytes.substr(0, size)] { self->ArriveAtEngine(piece); });
        bytes.erase(0, size);
    }
    return isWritten;
}

void Socket::ArriveAtEngine(const std::string& bytes) {
    if (m_isBroken || m_isSilent || !m_peer) return;
    const auto peer = m_peer;  // it may let go of the connection meanwhile
    const std::string_view passing = Passing(bytes, m_leftToEngine);
    if (!passing.empty()) peer->OnBytes(passing);
    if (m_leftToEngine == 0) Break();
}

void Socket::ShutdownByWorker() {
    m_world.agenda.After(Arrival(m_lastToEngine), [self = shared_from_this()] {
        if (!self->m_isSilent) self->TellPeerEnd();
    });
}

void Socket::CloseByWorker() {
    ShutdownByWorker();
}

void Socket::TellPeerEnd() {
    if (const auto peer = std::exchange(m_peer, nullptr)) peer->OnEnd();
}

// ---- from the engine to the worker ----

void Socket::Send(std::string bytes) {
    const auto self = shared_from_this();
    while (!bytes.empty()) {
        const auto size = static_cast<std::size_t>(
            m_world.random.OneIn(2) ? m_world.random.Between(1, static_cast<std::int64_t>(bytes.size()))
                                    : static_cast<std::int64_t>(bytes.size()));
        m_world.agenda.After(Arrival(m_lastToWorker),
                             [self, piece = bytes.substr(0, size)] { self->ArriveAtWorker(piece); });
        bytes.erase(0, size);
    }
}

void Socket::ArriveAtWorker(const std::string& bytes) {
    if (m_isBroken || m_isSilent) return;
    const std::string_view passing = Passing(bytes, m_leftToWorker);
    if (const auto worker = m_worker.lock(); worker && !passing.empty())
        worker->Happens([piece = std::string(passing)](Listener& listener) { listener.OnBytes(piece); });
    if (m_leftToWorker == 0) Break();
}

void Socket::CloseByEngine() {
    if (std::exchange(m_isEndedByEngine, true)) return;
    m_peer = nullptr;
    m_world.agenda.After(Arrival(m_lastToWorker), [self = shared_from_this()] {
        if (self->m_isBroken || self->m_isSilent) return;
        if (const auto worker = self->m_worker.lock()) worker->Ends("the engine closed the connection");
    });
}

// ---- trouble ----

std::string_view Socket::Passing(std::string_view bytes, std::int64_t& left) {
    if (left == kNever) return bytes;
    const auto size = std::min(bytes.size(), static_cast<std::size_t>(left));
    left -= static_cast<std::int64_t>(size);
    return bytes.substr(0, size);
}

void Socket::Break() {
    if (std::exchange(m_isBroken, true)) return;
    m_world.scheduler.Note("connection " + std::to_string(m_number) + " breaks");
    m_world.agenda.After(m_world.random.Between(0, m_world.scenario.longestDelay),
                         [self = shared_from_this()] {
                             if (const auto worker = self->m_worker.lock()) worker->Ends("read: reset");
                         });
    m_world.agenda.After(m_world.random.Between(0, m_world.scenario.longestDelay),
                         [self = shared_from_this()] { self->TellPeerEnd(); });
}

}  // namespace rq::sim
