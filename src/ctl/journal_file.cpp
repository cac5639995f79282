#include "ctl/journal_file.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>
#include <variant>

#include "base/text.h"
#include "link/codec.h"
#include "platform/codepage.h"

namespace rq::ctl {

namespace {

using nlohmann::json;

constexpr std::size_t kShownText_bytes = 160;

std::optional<std::string> FromHex(const std::string& hex) {
    if (hex.size() % 2 != 0) return std::nullopt;
    const auto digit = [](char c) {
        if (c >= '0' && c <= '9') return c - '0';
        return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    };
    std::string bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const int high = digit(hex[i]);
        const int low = digit(hex[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes += static_cast<char>(high * 16 + low);
    }
    return bytes;
}

// Its HELLO asks for an earlier session, and the answer gives that session.
bool Resumes(const JournalConnection& connection) {
    std::uint32_t wanted = 0;
    for (const JournalFrame& line : connection.frames) {
        if (line.frame.id == link::kHelloId) {
            const auto hello = link::DecodeHello(line.frame.body);
            if (hello) wanted = hello->resumeSessionId;
        } else if (line.frame.id == link::kWelcomeId) {
            const auto welcome = link::DecodeWelcome(line.frame.body);
            return welcome && wanted != 0 && welcome->sessionId == wanted;
        }
    }
    // Not answered: it belongs to nobody, and a session that goes on later is not cut by it.
    return wanted != 0;
}

std::uint64_t Number(const json& line, const char* name) {
    const auto found = line.find(name);
    return found != line.end() && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

std::string Text(const json& line, const char* name) {
    const auto found = line.find(name);
    return found != line.end() && found->is_string() ? found->get<std::string>() : std::string();
}

bool TakeEvent(const json& line, Journal* journal) {
    const std::string event = Text(line, "event");
    if (event == "connect") {
        JournalConnection connection;
        connection.time = Text(line, "time");
        connection.processId = static_cast<std::int64_t>(Number(line, "pid"));
        connection.workerVersion = Text(line, "worker");
        journal->connections.push_back(std::move(connection));
        return true;
    }
    if ((event != "close" && event != "bad" && event != "full") || journal->connections.empty()) return false;
    journal->connections.back().endings.push_back(event + ": " + Text(line, "reason"));
    return true;
}

bool TakeFrame(const json& line, Journal* journal) {
    const std::string way = Text(line, "way");
    auto body = FromHex(Text(line, "body"));
    if ((way != "in" && way != "out") || !body || journal->connections.empty()) return false;
    JournalFrame frame;
    frame.time = Text(line, "time");
    frame.fromWorker = way == "out";
    frame.frame = {Number(line, "seq"), Number(line, "ack"), static_cast<std::uint32_t>(Number(line, "id")),
                   std::move(*body)};
    journal->connections.back().frames.push_back(std::move(frame));
    return true;
}

// One line, not too long.
std::string Shown(std::string_view text) {
    std::string line(CutUtf8(RepairUtf8(text), kShownText_bytes));
    if (line.size() < text.size()) line += "...";
    for (char& c : line)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
    return "\"" + line + "\"";
}

// Reply texts are GBK, except ones in ASCII.
std::string Reply(const std::string& text) {
    return Shown(IsValidUtf8(text) ? text : platform::GbkToUtf8(text).value_or(text));
}

std::string Code(std::uint32_t code) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(code));
    return text;
}

const char* StatusName(std::uint32_t status) {
    switch (status) {
        case kTaskFinished:
            return " finished";
        case kTaskRunning:
            return " running";
        case kTaskError:
            return " error";
        case kTaskCancelled:
            return " cancelled";
        case kTaskPaused:
            return " paused";
        default:
            return "";
    }
}

std::string Figure(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", value);
    return text;
}

struct RecordWords {
    std::string operator()(const HeartbeatRecord& record) const {
        return "heartbeat of " + Shown(record.workerGuid);
    }
    std::string operator()(const TaskNotice& record) const {
        return "task " + Shown(record.taskId) + " of worker " + Shown(record.workerGuid);
    }
    std::string operator()(const TaskCommandReply& record) const {
        return "reply " + Reply(record.message) + " for task " + Shown(record.taskId);
    }
    std::string operator()(const EngineProgressMessage& record) const {
        std::string words = "progress";
        for (const ProgressEntry& entry : record.entries)
            words += " " + Figure(entry.percent) + " %, speed " + Figure(entry.speed) + ", task " +
                     Shown(entry.taskId);
        return words;
    }
    std::string operator()(const EngineStateMessage& record) const {
        std::string words = "state";
        for (const TaskStatusEntry& entry : record.entries) {
            words += " " + std::to_string(entry.status) + StatusName(entry.status) + ", task " +
                     Shown(entry.taskId) + ", error " + Code(entry.errorCode) + " " + Shown(entry.errorText) +
                     ", detail " + Code(entry.detailErrorCode) + " " + Shown(entry.detailErrorText);
            if (!entry.furtherText.empty()) words += ", further " + Shown(entry.furtherText);
            if (entry.stalled) words += ", stalled";
            if (entry.result) words += ", with a result";
        }
        return words;
    }
};

struct OrderWords {
    std::string operator()(const link::DestroyOrder&) const { return "order to end"; }
    std::string operator()(const link::TaskTextOrder& order) const {
        return "task text of " + std::to_string(order.text.size()) + " bytes " + Shown(order.text);
    }
    std::string operator()(const TaskCommand& command) const {
        std::string words = "command";
        for (const std::string& id : command.taskIds) words += " " + Shown(id);
        return words;
    }
};

std::string ControlWords(std::uint32_t id, std::string_view body) {
    if (id == link::kHelloId) {
        const auto hello = link::DecodeHello(body);
        if (!hello) return hello.error().message;
        return "version " + std::to_string(hello->protocolVersion) + ", attempt " + Shown(hello->attempt) +
               ", process " + std::to_string(hello->processId) + ", worker " + Shown(hello->workerVersion) +
               (hello->resumeSessionId == 0
                    ? std::string()
                    : ", resumes session " + std::to_string(hello->resumeSessionId) + " after " +
                          std::to_string(hello->resumeReceived) + ", acknowledged " +
                          std::to_string(hello->resumeAcknowledged));
    }
    if (id == link::kWelcomeId) {
        const auto welcome = link::DecodeWelcome(body);
        if (!welcome) return welcome.error().message;
        return "session " + std::to_string(welcome->sessionId) +
               (welcome->resumeWindow_ms == 0
                    ? std::string()
                    : ", resumed within " + std::to_string(welcome->resumeWindow_ms) + " ms");
    }
    if (id == link::kRefuseId) {
        const auto refuse = link::DecodeRefuse(body);
        return refuse ? "code " + std::to_string(refuse->code) + " " + Shown(refuse->text)
                      : refuse.error().message;
    }
    return {};
}

}  // namespace

Result<Journal> ParseJournal(std::string_view text) {
    Journal journal;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (line.empty()) continue;
        const json parsed = json::parse(line, nullptr, false);
        const bool isTaken = parsed.is_object() && (parsed.contains("event") ? TakeEvent(parsed, &journal)
                                                                             : TakeFrame(parsed, &journal));
        if (!isTaken) ++journal.strangeLines;
    }
    if (journal.connections.empty()) return Fail("no connection stands in it; is it a link journal?");
    return journal;
}

std::string FrameWords(std::uint32_t id, std::string_view body) {
    std::string words;
    if (link::IsWorkerRecordId(id)) {
        const auto record = link::DecodeWorkerRecord(id, body);
        words = record ? std::visit(RecordWords{}, *record) : record.error().message;
    } else if (link::IsOrderId(id)) {
        const auto order = link::DecodeOrder(id, body);
        words = order ? std::visit(OrderWords{}, *order) : order.error().message;
    } else if (id < TCP_WORKER_HEARTBEAT_ID) {
        words = ControlWords(id, body);
    } else {
        words = std::to_string(body.size()) + " bytes that this program does not know";
    }
    return link::IdText(id) + (words.empty() ? "" : " " + words);
}

std::vector<JournalConnection> JournalSessions(const Journal& journal) {
    std::vector<JournalConnection> sessions;
    std::uint64_t sent = 0;      // highest of the worker's numbers in the session
    std::uint64_t received = 0;  // and of the engine's
    for (const JournalConnection& connection : journal.connections) {
        const bool isJoined = !sessions.empty() && Resumes(connection);
        if (!isJoined) {
            sessions.push_back(connection);
            sessions.back().frames.clear();
            sent = received = 0;
        }
        JournalConnection& session = sessions.back();
        for (const JournalFrame& line : connection.frames) {
            const std::uint32_t id = line.frame.id;
            if (isJoined && id >= link::kHelloId && id <= link::kRefuseId) continue;
            std::uint64_t& highest = line.fromWorker ? sent : received;
            if (line.frame.seq != 0 && line.frame.seq <= highest) continue;
            highest = std::max(highest, line.frame.seq);
            session.frames.push_back(line);
        }
        if (isJoined) session.endings = connection.endings;
    }
    return sessions;
}

std::string PrintJournal(const Journal& journal) {
    std::string text;
    for (const JournalConnection& connection : journal.connections) {
        text += connection.time + "  connection of process " + std::to_string(connection.processId) +
                ", worker " + connection.workerVersion + "\n";
        for (const JournalFrame& line : connection.frames)
            text += line.time + "  " + (line.fromWorker ? "->" : "<-") + " " +
                    std::to_string(line.frame.seq) + "/" + std::to_string(line.frame.ack) + "  " +
                    FrameWords(line.frame.id, line.frame.body) + "\n";
        for (const std::string& ending : connection.endings) text += "  " + ending + "\n";
    }
    if (journal.strangeLines > 0)
        text += std::to_string(journal.strangeLines) + " line(s) were not understood\n";
    return text;
}

}  // namespace rq::ctl
