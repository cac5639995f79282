// Gate: holds threads until a test opens it. Any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace rq::testing {

class Gate {
  public:
    void Open() {
        const std::scoped_lock lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    // False when it stayed shut; the time only bounds a test that has gone wrong.
    bool Wait(std::chrono::seconds bound = std::chrono::seconds(60)) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, bound, [&] { return m_open; });
    }
    bool IsOpen() {
        const std::scoped_lock lock(m_mutex);
        return m_open;
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
};

}  // namespace rq::testing
