// Journal: one timeline of what a test's subject does: its log lines, its console texts, and the calls that
// scripted surroundings note. Any thread may note; the test's thread reads.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "util/capture_hub.h"
#include "util/log_capture.h"

namespace rq::testing {

// How a log line stands in a journal; what is usual is left out.
inline std::string Line(int level, const std::string& text, const std::string& module = "MAIN",
                        const std::string& tag = "ACT") {
    return "log " + std::to_string(level) + (module == "MAIN" ? "" : " " + module) +
           (tag == "ACT" ? "" : " " + tag) + ": " + text;
}

class Journal final : private LogListener, private ConsoleListener {
  public:
    Journal() {
        LogHub().Add(this);
        ConsoleHub().Add(this);
    }
    ~Journal() override {
        ConsoleHub().Remove(this);
        LogHub().Remove(this);
    }

    void Note(std::string entry) {
        const std::scoped_lock lock(m_mutex);
        m_entries.push_back(std::move(entry));
        m_changed.notify_all();
    }

    std::vector<std::string> Entries() const {
        const std::scoped_lock lock(m_mutex);
        return m_entries;
    }
    std::vector<std::string> EntriesThat(const std::function<bool(const std::string&)>& wanted) const {
        std::vector<std::string> chosen;
        for (const auto& entry : Entries())
            if (wanted(entry)) chosen.push_back(entry);
        return chosen;
    }
    std::vector<std::string> LogLines() const {
        return EntriesThat([](const std::string& entry) { return entry.starts_with("log "); });
    }
    std::vector<std::string> Calls() const {
        return EntriesThat([](const std::string& entry) {
            return !entry.starts_with("log ") && !entry.starts_with("console");
        });
    }
    // Everything that was printed, in one text.
    std::string Console() const {
        std::string text;
        for (const auto& entry : Entries())
            if (entry.starts_with(kConsole)) text += entry.substr(kConsole.size());
        return text;
    }
    std::size_t Count(const std::string& entry) const {
        const auto entries = Entries();
        return static_cast<std::size_t>(std::count(entries.begin(), entries.end(), entry));
    }
    // Position of the first such entry; past the end when there is none.
    std::size_t Find(const std::string& entry) const {
        const auto entries = Entries();
        return static_cast<std::size_t>(std::find(entries.begin(), entries.end(), entry) - entries.begin());
    }
    void Clear() {
        const std::scoped_lock lock(m_mutex);
        m_entries.clear();
    }
    // The time only bounds a test that has gone wrong.
    bool WaitFor(const std::string& entry, std::size_t count = 1,
                 std::chrono::seconds bound = std::chrono::seconds(60)) const {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, bound, [&] {
            return static_cast<std::size_t>(std::count(m_entries.begin(), m_entries.end(), entry)) >= count;
        });
    }

  private:
    inline static const std::string kConsole = "console ";

    void Receive(const LogLine& line) override { Note(Line(line.level, line.text, line.module, line.tag)); }
    void Receive(const std::string& utf8) override { Note(kConsole + utf8); }

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<std::string> m_entries;
};

}  // namespace rq::testing
