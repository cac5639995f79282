#include "link/journal.h"

#include <boost/date_time/posix_time/posix_time.hpp>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <utility>

#include "base/paths.h"
#include "base/text.h"
#include "link/codec.h"
#include "platform/files.h"
#include "platform/process.h"

namespace rq::link {
namespace {

std::int64_t SystemNow_us() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string TimeText(std::int64_t time_us) {
    using namespace boost::posix_time;
    const ptime time = ptime(boost::gregorian::date(1970, 1, 1)) + microseconds(time_us);
    std::string text = to_iso_extended_string(time);
    // The library leaves a fraction of zero out.
    if (text.find('.') == std::string::npos) text += ".000000";
    return text + "Z";
}

std::string Hex(std::string_view bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::string Quoted(std::string_view text) {
    std::string out = "\"";
    for (const char c : RepairUtf8(text)) {
        if (c == '"' || c == '\\') out += '\\';
        out += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
    }
    return out + "\"";
}

std::string WithProcessId(std::string path) {
    const std::string id = std::to_string(platform::CurrentProcessId());
    for (std::size_t at = path.find("%p"); at != std::string::npos; at = path.find("%p", at + id.size()))
        path.replace(at, 2, id);
    return path;
}

// A process that was killed may have left the last line without its end.
bool EndsInALine(const std::string& name) {
    std::ifstream file(PathFromUtf8(name), std::ios::binary);
    if (!file.seekg(-1, std::ios::end)) return true;  // empty
    return file.get() == '\n';
}

// Nobody who can read the journal is to get the token.
std::string WithoutToken(const std::string& body) {
    Result<Hello> hello = DecodeHello(body);
    if (!hello) return {};
    hello->token.clear();
    return EncodeHello(*hello);
}

}  // namespace

LinkJournal::LinkJournal(Clock clock, std::uint64_t limit_bytes)
    : m_clock(clock ? std::move(clock) : Clock(&SystemNow_us)), m_limit_bytes(limit_bytes) {}

std::string LinkJournal::Open(const std::string& path, std::function<void(const std::string&)> onProblem) {
    const std::string name = WithProcessId(path);
    platform::CreatePrivateFile(name, "");  // one that is there is continued
    std::error_code ignored;
    const auto kind = std::filesystem::status(PathFromUtf8(name), ignored).type();
    if (kind != std::filesystem::file_type::regular && kind != std::filesystem::file_type::not_found)
        return "no link journal: " + name + " is no plain file";
    m_name = name;
    m_onProblem = std::move(onProblem);
    platform::OsError error;
    m_file = platform::AppendFile::Open(name, &error);
    if (!m_file) return "no link journal: " + error.message;
    if (!EndsInALine(name)) m_file->Append("\n");
    if (m_file->Size() < m_limit_bytes) return {};
    m_file.reset();
    return "no link journal: " + name + " is full";
}

void LinkJournal::Connected(const std::string& workerVersion) {
    if (!m_file) return;
    m_out = {"out", FrameReader()};
    m_in = {"in", FrameReader()};
    m_isConnected = true;
    WriteEvent("connect", ", \"pid\": " + std::to_string(platform::CurrentProcessId()) +
                              ", \"worker\": " + Quoted(workerVersion));
}

void LinkJournal::Sent(std::string_view bytes) {
    Feed(m_out, bytes);
}

void LinkJournal::Received(std::string_view bytes) {
    Feed(m_in, bytes);
}

void LinkJournal::Closed(const std::string& reason) {
    if (!m_file || !m_isConnected) return;
    m_isConnected = false;
    WriteEvent("close", ", \"reason\": " + Quoted(reason));
}

void LinkJournal::Interrupted(std::uint32_t sessionId, std::size_t kept, std::chrono::milliseconds window) {
    WriteEvent("interrupted", ", \"session\": " + std::to_string(sessionId) +
                                  ", \"kept\": " + std::to_string(kept) +
                                  ", \"window_ms\": " + std::to_string(window.count()));
}

void LinkJournal::Failed(std::size_t attempt, const std::string& reason) {
    WriteEvent("failed", ", \"attempt\": " + std::to_string(attempt) + ", \"reason\": " + Quoted(reason));
}

void LinkJournal::Resumed(std::uint32_t sessionId, std::size_t again, std::chrono::milliseconds away) {
    WriteEvent("resumed", ", \"session\": " + std::to_string(sessionId) + ", \"again\": " +
                              std::to_string(again) + ", \"away_ms\": " + std::to_string(away.count()));
}

void LinkJournal::Feed(Direction& direction, std::string_view bytes) {
    if (!m_file || direction.isBad) return;
    direction.reader.Feed(bytes);
    Frame frame;
    while (m_file) {
        switch (direction.reader.Next(&frame)) {
            case FrameReader::Status::Ready:
                WriteFrame(direction.way, frame);
                break;
            case FrameReader::Status::NeedMore:
                return;
            case FrameReader::Status::Bad:
                direction.isBad = true;
                WriteEvent("bad", ", \"reason\": " + Quoted(direction.reader.Problem()));
                return;
        }
    }
}

void LinkJournal::WriteFrame(const char* way, const Frame& frame) {
    const bool isHello = frame.id == kHelloId;
    WriteLine("\"way\": \"" + std::string(way) + "\", \"id\": " + std::to_string(frame.id) +
              ", \"seq\": " + std::to_string(frame.seq) + ", \"ack\": " + std::to_string(frame.ack) +
              ", \"body\": \"" + Hex(isHello ? WithoutToken(frame.body) : frame.body) + "\"");
}

void LinkJournal::WriteEvent(const std::string& event, const std::string& more) {
    WriteLine("\"event\": \"" + event + "\"" + more);
}

void LinkJournal::WriteLine(const std::string& rest) {
    if (!m_file) return;
    const std::string line = LineOf(rest);
    if (m_file->Size() + line.size() <= m_limit_bytes) {
        Append(line);
        return;
    }
    Append(LineOf("\"event\": \"full\", \"reason\": \"the next line would pass " +
                  std::to_string(m_limit_bytes) + " bytes\""));
    m_file.reset();
}

void LinkJournal::Append(const std::string& line) {
    if (m_file->Append(line)) return;
    m_file.reset();
    if (m_onProblem)
        m_onProblem("the link journal " + m_name + " cannot be written (is the disk full?) and ends here");
}

std::string LinkJournal::LineOf(const std::string& rest) const {
    return "{\"time\": \"" + TimeText(m_clock()) + "\", " + rest + "}\n";
}

}  // namespace rq::link
