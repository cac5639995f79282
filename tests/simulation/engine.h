// A small engine: it speaks the engine's side of the link (docs/engine-link.md) over the fake network, keeps
// final statuses on the fake disk, gives the planned orders, and misbehaves as the scenario says. It checks
// every byte that it gets. Everything runs on the agenda's thread.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "link/codec.h"
#include "simulation/disk.h"
#include "simulation/network.h"
#include "simulation/scenario.h"

namespace rq::sim {

struct World;
class EnginePeer;

class Engine {
  public:
    enum class Answer { Accepted, Refused, Hangs };
    static constexpr const char* kToken = "token";
    static constexpr const char* kAttempt = "attempt-1";

    explicit Engine(World& world) : m_world(world) {}

    Answer Accept(const std::shared_ptr<Socket>& socket);
    const Disk& Finals() const { return m_disk; }
    // At the schedule's end.
    void CheckFinals() const;

  private:
    friend class EnginePeer;
    Handshake NextHandshake();
    void Crash();

    World& m_world;
    Disk m_disk;
    std::size_t m_handshakes = 0;
    std::uint32_t m_lastSession = 40;
    std::uint64_t m_life = 0;  // goes up with each crash
    bool m_isDown = false;
    bool m_hasHadTrouble = false;
    int m_lostAcks = 0;
    int m_failedCommits = 0;
    std::vector<std::shared_ptr<EnginePeer>> m_peers;  // in the order in which they came
};

class EnginePeer final : public Peer, public std::enable_shared_from_this<EnginePeer> {
  public:
    EnginePeer(Engine& engine, std::shared_ptr<Socket> socket, Handshake handshake)
        : m_engine(engine), m_world(engine.m_world), m_socket(std::move(socket)), m_handshake(handshake) {}

    void OnBytes(std::string_view bytes) override;
    void OnEnd() override;
    // The engine is gone; what is under way for this peer comes to nothing.
    void Die();

  private:
    void OnFrame(const link::Frame& frame);
    void OnHello(const link::Frame& frame);
    void Welcome();
    void BeginTrouble();
    void TakeAck(std::uint64_t ack);
    void OnControl(const link::Frame& frame);
    void OnNumbered(const link::Frame& frame);
    void OnNotice();
    void OnFinal(std::uint64_t seq, const TaskStatusEntry& entry);
    void EndCommit(std::uint64_t seq, std::size_t place);
    void CheckEntry(const TaskStatusEntry& entry) const;

    void Order(const PlannedOrder& planned);
    void SendOrder(std::uint32_t id, const std::string& task);
    void GiveClosingOrders();
    void SendFrame(std::uint64_t seq, std::uint32_t id, const std::string& body);
    void SendAck();
    void AckSoon();
    std::uint64_t Has() const;
    void Later(std::int64_t delay, void (EnginePeer::*what)());

    Engine& m_engine;
    World& m_world;
    std::shared_ptr<Socket> m_socket;  // null when the peer is dead
    const Handshake m_handshake;
    bool m_isOpen = false;
    bool m_hasNotice = false;
    bool m_saidBye = false;
    bool m_heardBye = false;
    bool m_ackIsPlanned = false;
    link::FrameReader m_reader;
    std::uint32_t m_session = 0;
    std::uint64_t m_sent = 0;
    std::vector<std::uint32_t> m_orders;  // their ids; seqs from 1
    std::uint64_t m_received = 0;
    std::uint64_t m_peerAck = 0;
    std::set<std::uint64_t> m_uncommitted;  // seqs of final statuses that the engine does not have yet
};

}  // namespace rq::sim
