#include "plugincheck/journal.h"

#include <nlohmann/json.hpp>

#include "platform/files.h"

namespace rq::plugincheck {
namespace {

using nlohmann::json;

std::string Dump(const json& line) {
    return line.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string Name(Check check) {
    return std::string(EntryOf(check).name);
}

}  // namespace

std::unique_ptr<JournalWriter> JournalWriter::Create(const std::string& path) {
    std::FILE* file = platform::OpenFile(path, "wb");
    if (file == nullptr) return nullptr;
    return std::unique_ptr<JournalWriter>(new JournalWriter(file));
}

JournalWriter::~JournalWriter() {
    MutexLock lock(m_mutex);
    std::fclose(m_file);
}

void JournalWriter::Write(const std::string& line) {
    std::fwrite(line.data(), 1, line.size(), m_file);
    std::fflush(m_file);
}

void JournalWriter::Tell(Check check, const std::string& seen) {
    MutexLock lock(m_mutex);
    m_exercised.insert(check);
    if (++m_told[check] > 1) return;
    Write(Dump({{"finding", Name(check)}, {"seen", seen}}));
}

bool JournalWriter::IsTold(Check check) {
    MutexLock lock(m_mutex);
    return m_told.count(check) > 0;
}

void JournalWriter::Exercised(Check check) {
    MutexLock lock(m_mutex);
    if (m_exercised.insert(check).second) Write(Dump({{"exercised", Name(check)}}));
}

void JournalWriter::Remark(const std::string& text) {
    MutexLock lock(m_mutex);
    if (m_remarks.insert(text).second) Write(Dump({{"remark", text}}));
}

void JournalWriter::Plugin(const PluginFacts& facts) {
    MutexLock lock(m_mutex);
    Write(Dump({{"plugin", facts.name},
                {"version", facts.version},
                {"types", facts.types},
                {"abilities", facts.abilities},
                {"isDescribed", facts.isDescribed}}));
}

void JournalWriter::Figure(std::string_view name, double value) {
    MutexLock lock(m_mutex);
    Write(Dump({{"figure", std::string(name)}, {"value", value}}));
}

void JournalWriter::Finish() {
    MutexLock lock(m_mutex);
    for (const auto& [check, times] : m_told) Write(Dump({{"times", times}, {"of", Name(check)}}));
    Write(Dump({{"finished", true}}));
}

void JournalWriter::SetStep(Lane lane, const std::string& what, Check blame) {
    MutexLock lock(m_mutex);
    json line = {{"lane", static_cast<int>(lane)}, {"step", what}};
    if (!what.empty()) line["blame"] = Name(blame);
    Write(Dump(line));
}

Step::Step(JournalWriter& journal, Lane lane, const std::string& what, Check blame)
    : m_journal(journal), m_lane(lane) {
    m_journal.SetStep(m_lane, what, blame);
}

Step::~Step() {
    m_journal.SetStep(m_lane, "", Check::Crash);
}

// ---- reading ----

namespace {

void ReadStep(const json& line, Journal& journal) {
    auto& step = journal.steps.at(line.at("lane").get<std::size_t>());
    const auto what = line.at("step").get<std::string>();
    if (what.empty()) {
        step.reset();
        return;
    }
    step = OpenStep{what, CheckByName(line.at("blame").get<std::string>()).value_or(Check::Crash)};
}

void ReadPlugin(const json& line, PluginFacts& facts) {
    facts.name = line.at("plugin").get<std::string>();
    facts.version = line.at("version").get<std::string>();
    facts.types = line.at("types").get<std::vector<std::int32_t>>();
    facts.abilities = line.at("abilities").get<std::uint64_t>();
    facts.isDescribed = line.at("isDescribed").get<bool>();
}

std::optional<Check> CheckOf(const json& line, const char* member) {
    return CheckByName(line.at(member).get<std::string>());
}

void ReadLine(const json& line, Journal& journal) {
    if (line.contains("step")) {
        ReadStep(line, journal);
    } else if (line.contains("finding")) {
        if (const auto check = CheckOf(line, "finding"))
            journal.findings.emplace(*check, Finding{line.at("seen").get<std::string>(), 1});
    } else if (line.contains("exercised")) {
        if (const auto check = CheckOf(line, "exercised")) journal.exercised.insert(*check);
    } else if (line.contains("remark")) {
        journal.remarks.push_back(line.at("remark").get<std::string>());
    } else if (line.contains("plugin")) {
        ReadPlugin(line, journal.plugin);
    } else if (line.contains("figure")) {
        journal.figures[line.at("figure").get<std::string>()] = line.at("value").get<double>();
    } else if (line.contains("times")) {
        if (const auto check = CheckOf(line, "of"))
            journal.findings[*check].times = line.at("times").get<std::uint64_t>();
    } else if (line.contains("finished")) {
        journal.isFinished = true;
    }
}

}  // namespace

Journal ReadJournal(const std::string& bytes) {
    Journal journal;
    std::size_t begin = 0;
    for (std::size_t end; (end = bytes.find('\n', begin)) != std::string::npos; begin = end + 1) {
        try {
            ReadLine(json::parse(bytes.begin() + static_cast<std::ptrdiff_t>(begin),
                                 bytes.begin() + static_cast<std::ptrdiff_t>(end)),
                     journal);
        } catch (const std::exception&) {
            // A line that the ending process did not finish, or that something else wrote into.
        }
    }
    for (const auto& [check, finding] : journal.findings) journal.exercised.insert(check);
    return journal;
}

}  // namespace rq::plugincheck
