#include "simulation/trace.h"

#include <unistd.h>

#include <cstdio>

namespace rq::sim {
namespace {

// Of a failed schedule's trace; --trace prints all of it.
constexpr std::size_t kTail_bytes = 24 * 1024;

std::string g_program;
bool g_wholeTrace = false;

}  // namespace

void Trace::Begin(std::uint64_t seed) {
    m_seed = seed;
    m_text.clear();
}

void Trace::Line(std::int64_t now_ns, std::string_view thread, std::string_view text) {
    char head[48];
    const int size = std::snprintf(head, sizeof head, "%12.6f %-10.*s ", static_cast<double>(now_ns) / 1e9,
                                   static_cast<int>(thread.size()), thread.data());
    m_text.append(head, static_cast<std::size_t>(size));
    // A log line of several lines stays one.
    for (const char byte : text) m_text.push_back(byte == '\n' ? '|' : byte);
    m_text.push_back('\n');
}

void Trace::Switch(std::string_view to) {
    m_text.append("  -> ").append(to).push_back('\n');
}

std::uint64_t Trace::Digest() const {
    std::uint64_t digest = 0xCBF29CE484222325ull;
    for (const char byte : m_text) {
        digest = (digest ^ static_cast<unsigned char>(byte)) * 0x100000001B3ull;
    }
    return digest;
}

void SetFailureReport(std::string program, bool wholeTrace) {
    g_program = std::move(program);
    g_wholeTrace = wholeTrace;
}

void FailSchedule(const Trace& trace, const std::string& what) {
    const std::string& text = trace.Text();
    std::size_t from = 0;
    if (!g_wholeTrace && text.size() > kTail_bytes) from = text.find('\n', text.size() - kTail_bytes) + 1;
    std::fwrite(text.data() + from, 1, text.size() - from, stderr);
    std::fprintf(stderr, "\nFAILED: %s\nseed %llu; repeat it with:\n  %s --seed %llu --trace\n", what.c_str(),
                 static_cast<unsigned long long>(trace.Seed()), g_program.c_str(),
                 static_cast<unsigned long long>(trace.Seed()));
    std::fflush(stderr);
    _exit(1);
}

}  // namespace rq::sim
