// Where LogCapture and ConsoleCapture hang in: a list of listeners that is empty outside tests. Any thread.
#pragma once

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "base/sync.h"

namespace rq {

// Listener has void Receive(const Item&). A listener receives nothing any more once Remove has returned.
template <class Listener>
class CaptureHub {
  public:
    bool IsHeard() const { return m_count.load(std::memory_order_relaxed) != 0; }

    void Add(Listener* listener) RQ_EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        m_listeners.push_back(listener);
        m_count.store(m_listeners.size());
    }

    void Remove(Listener* listener) RQ_EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        m_listeners.erase(std::remove(m_listeners.begin(), m_listeners.end(), listener), m_listeners.end());
        m_count.store(m_listeners.size());
    }

    // True when somebody heard it.
    template <class Item>
    bool Tell(const Item& item) RQ_EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        for (Listener* listener : m_listeners) listener->Receive(item);
        return !m_listeners.empty();
    }

  private:
    std::atomic<std::size_t> m_count{0};
    Mutex m_mutex;
    std::vector<Listener*> m_listeners RQ_GUARDED_BY(m_mutex);
};

struct LogLine;
class LogListener {
  public:
    virtual ~LogListener() = default;
    virtual void Receive(const LogLine& line) = 0;
};
CaptureHub<LogListener>& LogHub();

class ConsoleListener {
  public:
    virtual ~ConsoleListener() = default;
    virtual void Receive(const std::string& utf8) = 0;
};
CaptureHub<ConsoleListener>& ConsoleHub();

}  // namespace rq
