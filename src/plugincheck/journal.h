// The journal between the checking process, which may crash at any moment, and the one that reports: a file
// of JSON lines, each flushed as it is written.
//
// JournalWriter: any thread. A breach of each check is written once; later ones are counted and written with
// Finish. Journal: what a reader finds, also of a process that ended in the middle of a line.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/sync.h"
#include "plugincheck/catalogue.h"

namespace rq::plugincheck {

// The threads of the checking process that call into the plug-in.
enum class Lane : std::uint8_t { Main, Link };

struct PluginFacts {
    std::string name;
    std::string version;
    std::vector<std::int32_t> types;
    std::uint64_t abilities = 0;
    bool isDescribed = false;
};

class JournalWriter {
  public:
    // Null when the file cannot be made.
    static std::unique_ptr<JournalWriter> Create(const std::string& path);
    ~JournalWriter();
    JournalWriter(const JournalWriter&) = delete;
    JournalWriter& operator=(const JournalWriter&) = delete;

    // A breach. `seen` is what was seen, with figures.
    void Tell(Check check, const std::string& seen) RQ_EXCLUDES(m_mutex);
    bool IsTold(Check check) RQ_EXCLUDES(m_mutex);
    // The check had a chance to find something.
    void Exercised(Check check) RQ_EXCLUDES(m_mutex);
    // Something worth knowing that breaks nothing; each text once.
    void Remark(const std::string& text) RQ_EXCLUDES(m_mutex);
    void Plugin(const PluginFacts& facts) RQ_EXCLUDES(m_mutex);
    void Figure(std::string_view name, double value) RQ_EXCLUDES(m_mutex);
    // The checks are through; the process has only to end.
    void Finish() RQ_EXCLUDES(m_mutex);

  private:
    friend class Step;
    explicit JournalWriter(std::FILE* file) : m_file(file) {}
    void Write(const std::string& line) RQ_REQUIRES(m_mutex);
    void SetStep(Lane lane, const std::string& what, Check blame) RQ_EXCLUDES(m_mutex);

    Mutex m_mutex;
    std::FILE* m_file RQ_GUARDED_BY(m_mutex);
    std::map<Check, std::uint64_t> m_told RQ_GUARDED_BY(m_mutex);
    std::set<Check> m_exercised RQ_GUARDED_BY(m_mutex);
    std::set<std::string> m_remarks RQ_GUARDED_BY(m_mutex);
};

// What a thread is doing, for its scope: should the process end meanwhile, this is what it was at, and
// `blame` the check that failed. Steps of one lane do not nest.
class Step {
  public:
    Step(JournalWriter& journal, Lane lane, const std::string& what, Check blame = Check::Crash);
    ~Step();
    Step(const Step&) = delete;
    Step& operator=(const Step&) = delete;

  private:
    JournalWriter& m_journal;
    Lane m_lane;
};

struct OpenStep {
    std::string what;
    Check blame = Check::Crash;
};

struct Finding {
    std::string seen;         // the first time
    std::uint64_t times = 1;  // that it was seen, as far as the journal goes
};

struct Journal {
    PluginFacts plugin;
    std::map<Check, Finding> findings;
    std::set<Check> exercised;
    std::vector<std::string> remarks;
    std::map<std::string, double> figures;
    std::array<std::optional<OpenStep>, 2> steps;  // by lane: what was under way at the end
    bool isFinished = false;
};

Journal ReadJournal(const std::string& bytes);

}  // namespace rq::plugincheck
