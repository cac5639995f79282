#include "engine/config_file.h"

#include <toml++/toml.h>
#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <functional>
#include <optional>

#include "engine/config_limits.h"
#include "engine/config_retry.h"
#include "platform/files.h"

namespace rq::engine {

namespace {

constexpr std::uint64_t kFileLimit_bytes = 1024 * 1024;

// Takes a node: what is wrong with it, or nothing.
using Take = std::function<std::optional<std::string>(EngineSettings&, const toml::node&)>;
using Show = std::function<std::string(const EngineSettings&)>;

struct Key {
    std::string_view table, name, meaning;
    Take take;
    Show show;
};

std::string Quoted(const std::string& text) {
    return (std::ostringstream() << toml::value<std::string>(text)).str();
}

template <class Member>
Key Number(std::string_view table, std::string_view name, Member member, std::int64_t least,
           std::int64_t most, std::string_view meaning) {
    return {table, name, meaning,
            [=](EngineSettings& settings, const toml::node& node) -> std::optional<std::string> {
                const auto value = node.is_integer() ? node.value<std::int64_t>() : std::nullopt;
                if (!value || *value < least || *value > most)
                    return "must be a whole number from " + std::to_string(least) + " to " +
                           std::to_string(most);
                auto& field = std::invoke(member, settings);
                field = static_cast<std::remove_reference_t<decltype(field)>>(*value);
                return std::nullopt;
            },
            [=](const EngineSettings& settings) {
                return std::to_string(std::invoke(member, const_cast<EngineSettings&>(settings)));
            }};
}

// A time in whole seconds.
Key Time(std::string_view name, std::chrono::milliseconds EngineSettings::*member, std::string_view meaning) {
    constexpr std::int64_t kLongest_s = 7 * 24 * 3600;
    return {
        "limits", name, meaning,
        [=](EngineSettings& settings, const toml::node& node) -> std::optional<std::string> {
            const auto value = node.is_integer() ? node.value<std::int64_t>() : std::nullopt;
            if (!value || *value < 1 || *value > kLongest_s)
                return "must be a whole number of seconds from 1 to " + std::to_string(kLongest_s);
            settings.*member = std::chrono::seconds(*value);
            return std::nullopt;
        },
        [=](const EngineSettings& settings) {
            return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(settings.*member).count());
        }};
}

// Bounded by what the link's WELCOME may say.
Key ResumeKey(std::string_view meaning) {
    constexpr std::int64_t kLongest_s = 3600;
    return {"limits", "resume_s", meaning,
            [](EngineSettings& settings, const toml::node& node) -> std::optional<std::string> {
                const auto value = node.is_integer() ? node.value<std::int64_t>() : std::nullopt;
                if (!value || *value < 0 || *value > kLongest_s)
                    return "must be a whole number of seconds from 0 to " + std::to_string(kLongest_s);
                settings.resumeWindow = std::chrono::seconds(*value);
                return std::nullopt;
            },
            [](const EngineSettings& settings) {
                return std::to_string(
                    std::chrono::duration_cast<std::chrono::seconds>(settings.resumeWindow).count());
            }};
}

Key Text(std::string_view table, std::string_view name, std::string EngineSettings::*member,
         std::string_view meaning) {
    return {table, name, meaning,
            [=](EngineSettings& settings, const toml::node& node) -> std::optional<std::string> {
                if (!node.is_string()) return "must be a text in quotes";
                settings.*member = *node.value<std::string>();
                return std::nullopt;
            },
            [=](const EngineSettings& settings) { return Quoted(settings.*member); }};
}

Key Address(std::string_view name, std::string EngineSettings::*member, std::string_view meaning) {
    Key key = Text("engine", name, member, meaning);
    key.take = [take = key.take, member](EngineSettings& settings,
                                         const toml::node& node) -> std::optional<std::string> {
        if (auto fault = take(settings, node)) return fault;
        boost::system::error_code error;
        if (!(settings.*member).empty()) boost::asio::ip::make_address(settings.*member, error);
        if (error) return "must be an IPv4 or IPv6 address, not a name, or empty";
        return std::nullopt;
    };
    return key;
}

Key DurabilityKey(std::string_view meaning) {
    return {"store", "durability", meaning,
            [](EngineSettings& settings, const toml::node& node) -> std::optional<std::string> {
                const auto value = node.value<std::string>();
                if (value != "power" && value != "process") return "must be \"power\" or \"process\"";
                settings.durability = *value == "power" ? Durability::Power : Durability::Process;
                return std::nullopt;
            },
            [](const EngineSettings& settings) -> std::string {
                return settings.durability == Durability::Power ? "\"power\"" : "\"process\"";
            }};
}

// An inline table, or [paths.map].
Key PathsKey(std::string_view meaning) {
    return {"paths", "map", meaning,
            [](EngineSettings& settings, const toml::node& node) -> std::optional<std::string> {
                const toml::table* table = node.as_table();
                if (table == nullptr) return "must be a table: { 'Z:\\media' = '/mnt/media' }";
                std::vector<PathRule> rules;
                for (const auto& [given, local] : *table) {
                    if (!local.is_string())
                        return "cannot be used: \"" + std::string(given.str()) +
                               "\" must have a text in quotes";
                    rules.push_back({std::string(given.str()), *local.value<std::string>()});
                }
                auto map = PathMap::Make(std::move(rules));
                if (!map) return "cannot be used: " + map.error().message;
                settings.paths = std::move(*map);
                return std::nullopt;
            },
            [](const EngineSettings& settings) {
                std::string text;
                for (const auto& rule : settings.paths.Rules())
                    text += (text.empty() ? " " : ", ") + Quoted(rule.given) + " = " + Quoted(rule.local);
                return "{" + text + (text.empty() ? "}" : " }");
            }};
}

// One of [retry]: of the standard and of every type that has no table of its own for it.
Key RetryKey(const PolicyKey& key) {
    return {"retry", key.name, key.meaning,
            [&key](EngineSettings& settings, const toml::node& node) -> std::optional<std::string> {
                for (auto& [type, policy] : settings.retry.byType) {
                    if (auto fault = key.take(policy, node)) return fault;
                }
                return key.take(settings.retry.standard, node);
            },
            [&key](const EngineSettings& settings) { return key.show(settings.retry.standard); }};
}

Key Node(std::string_view name, std::uint64_t NodeLimits::*member, std::int64_t most,
         std::string_view meaning) {
    return Number(
        "node", name, [member](EngineSettings & settings) -> auto& { return settings.node.*member; }, 0, most,
        meaning);
}

Key PassKey(std::string_view meaning) {
    constexpr std::int64_t kLongest_s = 7 * 24 * 3600;
    return {"node", "pass_s", meaning,
            [](EngineSettings& settings, const toml::node& node) -> std::optional<std::string> {
                const auto value = node.is_integer() ? node.value<std::int64_t>() : std::nullopt;
                if (!value || *value < 0 || *value > kLongest_s)
                    return "must be a whole number of seconds from 0 to " + std::to_string(kLongest_s);
                settings.node.passFor = std::chrono::seconds(*value);
                return std::nullopt;
            },
            [](const EngineSettings& settings) {
                return std::to_string(
                    std::chrono::duration_cast<std::chrono::seconds>(settings.node.passFor).count());
            }};
}

template <class Member>
Key Kept(std::string_view name, Member member, std::int64_t most, std::string_view meaning) {
    return Number(
        "retention",
        name, [member](EngineSettings & settings) -> auto& { return settings.retention.*member; }, 0, most,
        meaning);
}

std::vector<Key> RetryKeys() {
    std::vector<Key> keys;
    for (const auto& key : PolicyKeys()) {
        if (!key.forTypesOnly) keys.push_back(RetryKey(key));
    }
    return keys;
}

std::vector<Key> MakeKeys() {
    constexpr std::int64_t kDays = 36'500, kMiB = 1'000'000'000;
    using S = EngineSettings;
    return {
        Number("engine", "port", &S::linkPort, 0, 65535,
               "Port for workers on 127.0.0.1; 0 takes a free one."),
        Number("engine", "http_port", &S::httpPort, 0, 65535,
               "Port of the HTTP API on 127.0.0.1; 0 takes a free one."),
        Address(
            "listen", &S::listen,
            "A further address for workers, which opens the port to other machines; empty: 127.0.0.1 alone."),
        Address("http_listen", &S::httpListen, "The same of the HTTP API."),
        Number("engine", "max_workers", &S::maxWorkers, 0, 1000,
               "Workers at a time; 0: one for each processor core."),
        Text("engine", "stage", &S::stageFolder,
             "Folder of RQWorkerU, RQWorkerConfig.xml and the plug-ins; empty: that of rqengine."),
        Text("engine", "log", &S::logFolder,
             "Log root, of the workers too; empty: \"logs\" in the data folder."),
        DurabilityKey("What an acknowledged submission or final status survives: \"power\", a power cut; "
                      "\"process\", the "
                      "end of the engine, not of the machine."),
        Time("connect_s", &S::connectLimit, "From a worker's start to its connection, in seconds."),
        ResumeKey(
            "How long a worker whose connection broke, or whose engine ended, waits for a new one; 0: not at "
            "all."),
        Time("link_grace_s", &S::linkGrace, "From then to the end of its process tree."),
        Time("cancel_s", &S::cancelGrace, "From a cancel order to the end of the process tree."),
        Time("finish_s", &S::finishGrace, "From a finish order to the end of the process tree."),
        Time("destroy_s", &S::destroyGrace, "From a final status to the end of the process tree."),
        Time("package_idle_s", &S::packageIdle,
             "A package worker without a task is kept so long for the next one; 0: not at all."),
        Time("end_s", &S::endGrace, "What an orderly end of the engine gives its workers."),
        Number("limits", "output_mib", &S::outputLimit_MiB, 1, kMiB,
               "What is kept of a worker's standard output and error, in MiB."),
        PathsKey("What paths in task texts are called on this node: { 'Z:\\media' = '/mnt/media' }."),
        Node("memory_mib", &NodeLimits::memory_MiB, std::int64_t{1} << 40,
             "Memory for tasks that declare how much they take, in MiB; 0: what the machine has."),
        Node("cores", &NodeLimits::cores, 1'000'000,
             "The same of processor cores; 0: as many as the machine has."),
        PassKey(
            "A task for which memory or cores are lacking may be passed by later ones for so many seconds."),
        Kept("interval_min", &Retention::interval_min, 1'000'000,
             "Minutes between two removals of what is no longer kept; 0: only by \"rqctl gc\"."),
        Kept("logs_days", &Retention::logs_days, kDays, "Workers' logs are kept so many days; 0: for ever."),
        Kept("logs_mib", &Retention::logs_MiB, kMiB,
             "And at most so many MiB of them, the newest; 0: any size."),
        Kept("output_days", &Retention::output_days, kDays, "The same for captured output."),
        Kept("output_mib", &Retention::output_MiB, kMiB, "And at most so many MiB of it; 0: any size."),
        Kept("dumps_days", &Retention::dumps_days, kDays, "The same for crash reports and dumps."),
        Kept("dumps_mib", &Retention::dumps_MiB, kMiB, "And at most so many MiB of them; 0: any size."),
        Kept(
            "events_days", &Retention::events_days, kDays,
            "Events of tasks that ended so many days ago are removed; the tasks and results stay. 0: never."),
        Kept("events_max", &Retention::events_max, std::int64_t{1} << 40,
             "And the oldest of ended tasks while there are more than so many; 0: any number."),
    };
}

const std::vector<Key>& Keys() {
    static const std::vector<Key> keys = [] {
        auto all = MakeKeys();
        const auto retry = RetryKeys();
        const auto place =
            std::find_if(all.begin(), all.end(), [](const Key& key) { return key.table == "limits"; });
        all.insert(place, retry.begin(), retry.end());
        return all;
    }();
    return keys;
}

std::string Listed(std::string_view table) {
    std::string names;
    for (const auto& key : Keys()) {
        if (key.table == table) names += (names.empty() ? "" : ", ") + std::string(key.name);
    }
    return names;
}

std::string Tables() {
    std::string names;
    for (const auto& key : Keys()) {
        const std::string name = "[" + std::string(key.table) + "]";
        if (names.find(name) == std::string::npos) names += (names.empty() ? "" : ", ") + name;
    }
    return names + ", [types.TYPE], [volumes.NAME]";
}

class Reader {
  public:
    Reader(const std::string& file, EngineSettings& settings) : m_file(file), m_settings(settings) {}

    Result<void> Read(const toml::table& document) {
        for (const auto& [name, node] : document) {
            const std::string table(name.str());
            if (IsLimitsTable(table)) {
                if (!node.is_table()) return At(name, table + " must be a table: [" + table + ".NAME]");
                if (const auto fault = ReadLimitsTable(table, *node.as_table(), m_settings.node))
                    return At(fault->key, fault->problem);
                continue;
            }
            if (Listed(table).empty())
                return At(name, "\"" + table + "\" is not known; there are " + Tables());
            if (!node.is_table()) return At(name, table + " must be a table: [" + table + "]");
            if (auto read = ReadTable(table, *node.as_table()); !read) return read;
        }
        return {};
    }

  private:
    Result<void> ReadTable(const std::string& table, const toml::table& content) {
        for (const auto& [name, node] : content) {
            if (table == "retry" && node.is_table()) continue;  // of a type: below
            const auto key = std::find_if(
                Keys().begin(), Keys().end(),
                [&, text = name.str()](const Key& one) { return one.table == table && one.name == text; });
            if (key == Keys().end())
                return At(name, "\"" + std::string(name.str()) + "\" is not a key of [" + table +
                                    "]; there are " + Listed(table));
            if (const auto fault = key->take(m_settings, node))
                return At(name, std::string(key->name) + " " + *fault);
        }
        if (table != "retry") return {};
        for (const auto& [name, node] : content) {
            if (!node.is_table()) continue;
            if (auto read = ReadPolicy(name, *node.as_table()); !read) return read;
        }
        return {};
    }

    Result<void> ReadPolicy(const toml::key& table, const toml::table& content) {
        const auto type = TypeOfPolicy(table.str());
        if (!type)
            return At(table, "\"" + std::string(table.str()) +
                                 "\" is neither a key of [retry] nor a type's code or number");
        RetryPolicy& policy =
            m_settings.retry.byType.try_emplace(*type, m_settings.retry.standard).first->second;
        for (const auto& [name, node] : content) {
            const auto key =
                std::find_if(PolicyKeys().begin(), PolicyKeys().end(),
                             [text = name.str()](const PolicyKey& one) { return one.name == text; });
            if (key == PolicyKeys().end())
                return At(name, "\"" + std::string(name.str()) + "\" is not a key of a type's retry policy");
            if (const auto fault = key->take(policy, node))
                return At(name, std::string(key->name) + " " + *fault);
        }
        return {};
    }

    Error At(const toml::key& key, const std::string& problem) const {
        return Fail(m_file + ":" + std::to_string(key.source().begin.line) + ": " + problem);
    }

    const std::string& m_file;
    EngineSettings& m_settings;
};

}  // namespace

Result<void> ApplyConfig(std::string_view text, const std::string& file, EngineSettings& settings) {
    const toml::parse_result parsed = toml::parse(text, std::string_view(file));
    if (!parsed)
        return Fail(file + ":" + std::to_string(parsed.error().source().begin.line) + ": " +
                    std::string(parsed.error().description()));
    return Reader(file, settings).Read(parsed.table());
}

Result<void> ReadConfig(const std::string& file, EngineSettings& settings) {
    platform::OsError error;
    const auto text = platform::ReadWholeFile(file, &error, kFileLimit_bytes);
    if (!text) return Fail("the configuration cannot be read: " + error.message);
    return ApplyConfig(*text, file, settings);
}

std::string ConfigText(const EngineSettings& settings) {
    std::string text =
        "# rqengine's configuration. Options and variables of the command line count before it.\n";
    std::string_view table;
    for (const auto& key : Keys()) {
        if (key.table != table) {
            if (table == "retry") text += PolicyTables(settings.retry);
            text += "\n[" + std::string(key.table) + "]\n";
        }
        table = key.table;
        if (!key.meaning.empty()) text += "# " + std::string(key.meaning) + "\n";
        text += std::string(key.name) + " = " + key.show(settings) + "\n";
    }
    text += LimitsTables(settings.node);
    return text;
}

std::vector<std::string> ConfigKeys() {
    std::vector<std::string> names;
    for (const auto& key : Keys()) names.push_back(std::string(key.table) + "." + std::string(key.name));
    return names;
}

}  // namespace rq::engine
