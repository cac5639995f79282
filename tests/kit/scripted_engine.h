// An engine for tests: listens on a port of its own (0 picks one), speaks the engine link's wire protocol and
// does what the test tells it, also what no engine should do. It keeps every frame that arrives.
//
// A HELLO that resumes a session continues that one by default, in the connection's place that it had: what
// came before is known, and orders that the worker has not received are sent again.
//
// All operations are for the test's thread; the sockets run on a thread of the object. Operations that send
// speak to the newest connection. Waits are bounded by kPatience and tell whether the thing happened.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "link/codec.h"
#include "link/frame.h"

namespace rq::kit {

struct ScriptedEngineOptions {
    std::uint16_t port = 0;
    std::string token;                 // what HELLO must carry; anything when empty
    link::Welcome welcome;             // its session ID is not used: see firstSessionId
    std::uint32_t firstSessionId = 1;  // rises by 1 with each connection that resumes none
    bool answerHello = true;
    bool acknowledge = true;  // every numbered frame at once, unless HoldFinals
    bool answerPings = true;
    bool closeOnBye = true;
};

struct ReceivedFrame {
    std::size_t connection = 0;  // 1 for the first
    link::Frame frame;
};

class ScriptedEngine {
  public:
    static constexpr std::chrono::seconds kPatience{20};

    explicit ScriptedEngine(ScriptedEngineOptions options = {});
    ~ScriptedEngine();
    ScriptedEngine(const ScriptedEngine&) = delete;
    ScriptedEngine& operator=(const ScriptedEngine&) = delete;

    std::uint16_t Port() const;

    // ---- what has arrived ----
    std::vector<ReceivedFrame> Frames() const;
    std::vector<link::Frame> Frames(std::uint32_t id) const;
    // Numbered frames, without those that came again after a resumption.
    std::vector<link::Frame> Taken() const;
    // Decoded records under that id, in order; a body that cannot be decoded is left out.
    std::vector<link::WorkerRecord> Records(std::uint32_t id) const;
    link::Hello LastHello() const;
    std::size_t Connections() const;
    // Highest ack seen on the newest connection.
    std::uint64_t AckedByWorker() const;

    bool WaitForFrame(std::uint32_t id, std::size_t count = 1) const;
    bool WaitForConnections(std::size_t count) const;
    // Until that many connections have been closed by the worker or by this side.
    bool WaitForClosed(std::size_t count) const;
    bool WaitForAck(std::uint64_t seq) const;

    // ---- what it does ----
    // Numbered frame; its seq. Where the worker does not get it, it is sent again when the session is
    // resumed.
    std::uint64_t SendOrder(std::uint32_t id, const link::Order& order);
    std::uint64_t SendNumbered(std::uint32_t id, std::string body);
    void SendControl(std::uint32_t id, std::string body = {});
    void SendRaw(std::string bytes);
    // While held, no ack covers a final status.
    void HoldFinals(bool hold);
    // Acknowledges everything received, held or not.
    void AcknowledgeAll();
    void StopReading();
    // Closes in good order, after what was sent and when the worker has closed too; or with a reset.
    void CloseConnection();
    void ResetConnection();
    // While away, connections are reset as soon as they come.
    void BeAway(bool away);
    // Instead of continuing a session: REFUSE with that code, or nothing (0).
    void RefuseToResume(std::uint32_t code);
    void ResumeAgain();
    // In each WELCOME to one that resumes.
    void ChangeSpoolFolder(const std::string& folder);
    // The newest connection ends when so many more bytes have come, or gone.
    void CutAfter(std::size_t come_bytes, std::size_t gone_bytes);

  private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace rq::kit
