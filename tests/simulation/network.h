// The fake network: connections of bytes between the worker's link and the engine, each direction in order,
// in pieces of any size, late by chance; connections that are refused, hang, are cut in the middle of a
// frame, or fall silent. Everything happens on the agenda's thread, except what the worker calls.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "simulation/agenda.h"
#include "simulation/scenario.h"

namespace rq::link {
class Connection;
}

namespace rq::sim {

// The engine's end of a connection.
class Peer {
  public:
    virtual ~Peer() = default;
    virtual void OnBytes(std::string_view bytes) = 0;
    // The worker closed its sending direction, or the connection broke.
    virtual void OnEnd() = 0;
};

struct World;

class Socket : public std::enable_shared_from_this<Socket> {
  public:
    Socket(World& world, std::weak_ptr<link::Connection> worker, int number)
        : m_world(world), m_worker(std::move(worker)), m_number(number) {}

    void SetPeer(std::shared_ptr<Peer> peer) { m_peer = std::move(peer); }
    int Number() const { return m_number; }

    // ---- the worker's end ----
    // True when it is written at once; else the worker is told when it is.
    bool WriteByWorker(std::string bytes);
    void ShutdownByWorker();
    void CloseByWorker();

    // ---- the engine's end ----
    void Send(std::string bytes);
    void CloseByEngine();

    // ---- what goes wrong ----
    // Both ends see a reset.
    void Break();
    // Nothing arrives any more, and nobody is told.
    void FallSilent() { m_isSilent = true; }
    void CutToWorkerAfter(std::int64_t size_bytes) { m_leftToWorker = size_bytes; }
    void CutToEngineAfter(std::int64_t size_bytes) { m_leftToEngine = size_bytes; }
    void HoldNextWrite(std::int64_t duration) { m_heldWrite = duration; }

  private:
    // When the next bytes of a direction arrive: never before those before them.
    std::int64_t Arrival(std::int64_t& last);
    void ArriveAtEngine(const std::string& bytes);
    void ArriveAtWorker(const std::string& bytes);
    // How much of it passes before the cut; breaks the connection there.
    std::string_view Passing(std::string_view bytes, std::int64_t& left);
    void TellPeerEnd();

    World& m_world;
    std::weak_ptr<link::Connection> m_worker;
    std::shared_ptr<Peer> m_peer;
    const int m_number;
    std::int64_t m_lastToEngine = 0;
    std::int64_t m_lastToWorker = 0;
    std::int64_t m_leftToEngine = kNever;
    std::int64_t m_leftToWorker = kNever;
    std::int64_t m_heldWrite = 0;
    bool m_isBroken = false;
    bool m_isSilent = false;
    bool m_isEndedByEngine = false;
};

class Network {
  public:
    explicit Network(World& world) : m_world(world) {}
    std::shared_ptr<Socket> Connect(std::weak_ptr<link::Connection> worker);

  private:
    World& m_world;
    int m_connections = 0;
};

}  // namespace rq::sim
