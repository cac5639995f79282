// plain_worker PORT: the least that a worker of the engine link could be. It exchanges the messages and
// acknowledgements that RQWorkerU exchanges for a no-op task, in as many writes, and starts one thread for
// each task, which waits until the task ends. No log, no plug-in, no queue: one thread reads and writes.
#include <condition_variable>
#include <mutex>
#include <thread>

#include "wire.h"

namespace {

using namespace bench;

// The body of a status message for a task of that ID.
std::string StateBody(std::string_view id, unsigned status) {
    std::string entry;
    AddBytes(&entry, 1, id);
    AddNumber(&entry, 4, 14);
    AddNumber(&entry, 5, status);
    AddBytes(&entry, 9, "KWR_OVL_ERROR_0");
    std::string body;
    AddNumber(&body, 1, kState);
    AddBytes(&body, 2, "state");
    AddBytes(&body, 3, "Worker");
    AddBytes(&body, 4, "Lite/Agent");
    AddBytes(&body, 5, entry);
    return body;
}

// What runs beside a task until it ends.
class Companion {
  public:
    Companion() : m_thread([this] { Run(); }) {}
    ~Companion() {
        {
            const std::lock_guard lock(m_mutex);
            m_over = true;
        }
        m_condition.notify_one();
        m_thread.join();
    }
    Companion(const Companion&) = delete;
    Companion& operator=(const Companion&) = delete;

  private:
    void Run() {
        std::unique_lock lock(m_mutex);
        m_condition.wait_for(lock, std::chrono::seconds(5), [this] { return m_over; });
    }

    std::mutex m_mutex;
    std::condition_variable m_condition;
    bool m_over = false;
    std::thread m_thread;
};

class PlainWorker {
  public:
    explicit PlainWorker(std::uint16_t port) : m_socket(Connect(port)) {}

    int Run() {
        std::string body;
        AddNumber(&body, 1, 1);  // version
        Frame frame;
        AddFrame(&m_output, {0, 0, kHello, body});
        Send();
        if (!Read(&frame)) Die("the engine closed");
        Check(frame.id == kWelcome, "the engine did not welcome the worker");
        body.clear();
        AddBytes(&body, 1, "1.0");
        AddBytes(&body, 3, TaskId(0));
        AddFrame(&m_output, {++m_seq, 0, kNotice, body});
        m_texts.push_back(TaskText(0));
        for (;;) {
            while (m_begin == m_texts.size()) {
                m_texts.clear();
                m_begin = 0;
                if (!Take()) return 0;
            }
            if (!Task(m_texts[m_begin++])) return 0;
        }
    }

  private:
    bool Read(Frame* frame) {
        while (!m_input.Next(frame))
            if (!m_input.Feed(m_socket)) return false;
        return true;
    }
    // One frame; false at the end of the connection.
    bool Take() {
        Frame frame;
        if (!Read(&frame)) return false;
        m_peerAck = frame.ack;
        if (frame.id != kAddTask) return true;
        m_received = frame.seq;
        ForEachField(frame.body,
                     [this](unsigned, std::uint64_t, std::string_view text) { m_texts.emplace_back(text); });
        // An order that finds the worker idle is acknowledged before its task begins.
        if (m_texts.size() > 1) return true;
        AddFrame(&m_output, {0, m_received, kAck, {}});
        Send();
        return true;
    }
    bool Task(const std::string& text) {
        const Companion companion;
        const std::string_view id = std::string_view(text).substr(10, text.size() - 10 - 12);
        AddFrame(&m_output, {++m_seq, m_received, kState, StateBody(id, 3)});
        AddFrame(&m_output, {++m_seq, m_received, kState, StateBody(id, 0)});
        Send();
        while (m_peerAck < m_seq)
            if (!Take()) return false;
        return true;
    }
    void Send() {
        WriteAll(m_socket, m_output);
        m_output.clear();
    }

    const int m_socket;
    Input m_input;
    std::string m_output;
    std::uint64_t m_seq = 0;
    std::uint64_t m_received = 0;
    std::uint64_t m_peerAck = 0;
    std::vector<std::string> m_texts;
    std::size_t m_begin = 0;
};

}  // namespace

int main(int argc, char** argv) {
    Check(argc == 2, "usage: plain_worker PORT");
    return PlainWorker(static_cast<std::uint16_t>(std::strtoul(argv[1], nullptr, 10))).Run();
}
