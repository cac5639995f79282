// The engine link as the worker sees it: create, Initialize, Connect, SendMessage from any thread, orders
// through the handler, Disconnect, Uninitialize, delete. What goes over the wire stands in
// docs/engine-link.md.
//
// The five operations keep their slots (0 Initialize ... 4 SendMessage): nothing virtual, in particular no
// destructor, may stand before them. A client is destroyed by DeleteEngineClient only.
#pragma once

#include <cstdint>
#include <string>

namespace rq {

// Called on a thread of the client's own, one message at a time. `payload` is one of the incoming payloads of
// records/engine_messages.h and is valid during the call only. TCP_SERVER_DISCONNECT_ID comes exactly once,
// last.
using EngineMessageHandler = void (*)(std::uint32_t id, const void* payload, void* context);

struct EngineClientSetup {
    void* context = nullptr;
    EngineMessageHandler handler = nullptr;
    std::wstring logFile = L"RQCommunicate.log";  // where connects, losses and refused frames are logged
};

struct EngineEndpoint {
    const char* address = nullptr;  // zero-terminated
    std::uint16_t port = 0;
};

class IEngineCommunicate {
  public:
    virtual void Initialize(const EngineClientSetup* setup) = 0;
    // The session ID, or kNoSession. Blocks for at most the connect time-out.
    virtual std::uint32_t Connect(const EngineEndpoint* endpoint) = 0;
    // After it has returned no handler runs and none will. Not from the handler itself.
    virtual void Disconnect() = 0;
    virtual void Uninitialize() = 0;
    // `record` points to the record that goes with `id`; it is serialised before the call returns. True when
    // handed to the transport; for a final status (0, 4 or 5 in a 4009) only when the engine has acknowledged
    // that it has it. False at once with kNoSession.
    virtual bool SendMessage(std::uint32_t sessionId, std::uint32_t id, const void* record) = 0;

  protected:
    ~IEngineCommunicate() = default;
};

IEngineCommunicate* CreateEngineClient();
// Destroys the client and clears the pointer; null is allowed at both levels.
void DeleteEngineClient(IEngineCommunicate** client);

}  // namespace rq
