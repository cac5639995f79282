#include "engine/metrics.h"

#include <cmath>
#include <cstdio>

#include "records/task_codes.h"

namespace rq::engine {

namespace {

using Labels = std::vector<std::pair<std::string, std::string>>;

std::string TypeLabel(std::int32_t type) {
    if (type == kUnknownType) return "unknown";
    const auto code = CodeOfTaskType(type);
    return code.empty() ? std::to_string(type) : std::string(code);
}

std::string Escaped(const std::string& value) {
    std::string text;
    for (const char c : value) {
        if (c == '\\' || c == '"') text += '\\';
        text += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return text;
}

std::string NumberText(double value) {
    char text[64];
    if (value == std::floor(value) && std::abs(value) < 1e15)
        std::snprintf(text, sizeof text, "%.0f", value);
    else
        std::snprintf(text, sizeof text, "%.6f", value);
    return text;
}

class Writer {
  public:
    void Family(const std::string& name, const char* kind, const char* help) {
        m_name = name;
        m_text += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + kind + "\n";
    }
    void Value(double value, const Labels& labels = {}) {
        m_text += m_name;
        const char* before = "{";
        for (const auto& [name, label] : labels) {
            m_text += before + name + "=\"" + Escaped(label) + "\"";
            before = ",";
        }
        m_text += (labels.empty() ? " " : "} ") + NumberText(value) + "\n";
    }
    void Line(const std::string& line) { m_text += line + "\n"; }
    std::string Text() && { return std::move(m_text); }

  private:
    std::string m_text, m_name;
};

double Seconds(std::int64_t time_us) {
    return static_cast<double>(time_us) / 1e6;
}

void WriteTypes(Writer& out, const MetricsFacts& facts) {
    const auto& types = facts.census.types;
    const auto each = [&](const auto& value) {
        for (const auto& [type, of] : types) out.Value(value(of), {{"type", TypeLabel(type)}});
    };
    out.Family("rq_tasks", "gauge", "Tasks in the store by state and type.");
    for (const auto& [type, of] : types) {
        for (const auto& [state, count] : of.tasks)
            out.Value(static_cast<double>(count), {{"state", state}, {"type", TypeLabel(type)}});
    }
    out.Family("rq_attempts_total", "counter", "Attempts that were made.");
    each([](const auto& of) { return static_cast<double>(of.attempts); });
    out.Family("rq_attempts_lost_total", "counter", "Attempts that ended without a final status.");
    each([](const auto& of) { return static_cast<double>(of.attemptsLost); });
    out.Family("rq_task_duration_seconds", "summary", "From the start to the end of tasks that ran.");
    for (const auto& [type, of] : types) {
        const std::string labels = "{type=\"" + TypeLabel(type) + "\"} ";
        out.Line("rq_task_duration_seconds_sum" + labels + NumberText(Seconds(of.ended_us)));
        out.Line("rq_task_duration_seconds_count" + labels + std::to_string(of.ended));
    }
    out.Family("rq_queue_age_seconds", "gauge",
               "How long the oldest queued task has waited; 0 when none is queued.");
    each([&](const auto& of) {
        return of.oldestQueued_us == 0 ? 0.0 : Seconds(facts.now_us - of.oldestQueued_us);
    });
    out.Family("rq_type_held", "gauge", "1 for a type whose tasks wait because the stage lacks something.");
    for (const auto& [type, reason] : facts.held) out.Value(1, {{"type", TypeLabel(type)}});
}

void WriteNode(Writer& out, const MetricsFacts& facts) {
    out.Family("rq_tasks_queued", "gauge",
               "Queued tasks by the first rule that holds them; turn: only theirs.");
    for (const auto& [what, count] : facts.queued)
        out.Value(static_cast<double>(count), {{"rule", what.first}, {"type", TypeLabel(what.second)}});
    out.Family("rq_type_workers", "gauge", "Workers that run, by type.");
    for (const auto& [type, count] : facts.node.taken.workers) out.Value(count, {{"type", TypeLabel(type)}});
    constexpr double kMiB = 1024.0 * 1024.0;
    out.Family("rq_node_memory_bytes", "gauge", "Memory for tasks that declare what they take.");
    out.Value(static_cast<double>(facts.node.memory_MiB) * kMiB);
    out.Family("rq_node_memory_declared_bytes", "gauge", "What tasks that run declare of it.");
    out.Value(static_cast<double>(facts.node.taken.memory_MiB) * kMiB);
    out.Family("rq_node_cores", "gauge", "Processor cores for tasks that declare what they take.");
    out.Value(static_cast<double>(facts.node.cores));
    out.Family("rq_node_cores_declared", "gauge", "What tasks that run declare of them.");
    out.Value(static_cast<double>(facts.node.taken.cores));
    const auto each = [&](const auto& value) {
        for (const auto& [name, volume] : facts.node.volumes)
            out.Value(static_cast<double>(value(volume)), {{"volume", name}});
    };
    out.Family("rq_volume_up", "gauge", "0 for a volume that is away.");
    each([](const VolumeState& volume) { return volume.away ? 0 : 1; });
    out.Family("rq_volume_size_bytes", "gauge", "Size of a volume; 0 while it is away.");
    each([](const VolumeState& volume) { return volume.size_bytes; });
    out.Family("rq_volume_free_bytes", "gauge", "What is free on it; 0 while it is away.");
    each([](const VolumeState& volume) { return volume.free_bytes; });
    out.Family("rq_volume_floor_bytes", "gauge", "With less free space its tasks wait.");
    each([](const VolumeState& volume) { return volume.floor_bytes; });
}

void WriteRunning(Writer& out, const StoreCensus& census) {
    out.Family("rq_task_percent", "gauge", "Progress of tasks that run.");
    for (const auto& task : census.running)
        out.Value(task.percent, {{"task", task.task}, {"type", TypeLabel(task.type)}});
    out.Family("rq_task_speed", "gauge", "Speed of tasks that run, in the unit of the type.");
    for (const auto& task : census.running)
        out.Value(task.speed, {{"task", task.task}, {"type", TypeLabel(task.type)}});
}

}  // namespace

std::string MetricsText(const MetricsFacts& facts) {
    Writer out;
    out.Family("rq_build_info", "gauge", "1, with the engine's version.");
    out.Value(1, {{"version", facts.version}});
    out.Family("rq_start_time_seconds", "gauge", "When the engine started, since 1970-01-01 UTC.");
    out.Value(Seconds(facts.started_us));
    out.Family("rq_workers", "gauge", "Workers that run.");
    out.Value(static_cast<double>(facts.workers));
    out.Family("rq_workers_max", "gauge", "Workers that may run at a time.");
    out.Value(facts.maxWorkers);
    WriteTypes(out, facts);
    WriteNode(out, facts);
    WriteRunning(out, facts.census);
    out.Family("rq_events_total", "counter", "Events that were added to the store.");
    out.Value(static_cast<double>(facts.census.events));
    out.Family("rq_store_bytes", "gauge", "Size of the store's file.");
    out.Value(static_cast<double>(facts.store_bytes));
    out.Family("rq_disk_size_bytes", "gauge", "Size of the disk of a folder.");
    for (const auto& disk : facts.disks)
        out.Value(static_cast<double>(disk.size_bytes), {{"folder", disk.use}});
    out.Family("rq_disk_free_bytes", "gauge", "What the engine's user may still write on it.");
    for (const auto& disk : facts.disks)
        out.Value(static_cast<double>(disk.free_bytes), {{"folder", disk.use}});
    return std::move(out).Text();
}

}  // namespace rq::engine
