#include "engine/upkeep.h"

#include <boost/asio/post.hpp>
#include <filesystem>

#include "base/paths.h"
#include "engine/spool.h"

namespace rq::engine {

namespace {

constexpr std::int64_t kDay_us = std::int64_t{24} * 3600 * 1'000'000;
// What a step may do: some milliseconds of work.
constexpr std::int64_t kEventsAtOnce = 2000;
constexpr int kPagesAtOnce = 256;

std::string Words(const GarbageReport& report) {
    std::string text = std::to_string(report.events) + " events";
    for (const auto& [kind, removed] : report.files)
        text += ", " + std::to_string(removed.files) + " files of " + kind + " (" +
                std::to_string(removed.bytes) + " bytes)";
    return text;
}

bool IsEmpty(const GarbageReport& report) {
    for (const auto& [kind, removed] : report.files) {
        if (removed.files != 0) return false;
    }
    return report.events == 0;
}

}  // namespace

Upkeep::Upkeep(boost::asio::io_context& io, Store& store, EngineLog& log, const EngineSettings& settings,
               std::string logRoot, NamesInUse inUse)
    : m_io(io),
      m_store(store),
      m_log(log),
      m_kept(settings.retention),
      m_logRoot(std::move(logRoot)),
      m_dataFolder(settings.dataFolder),
      m_inUse(std::move(inUse)),
      m_timer(io) {}

void Upkeep::Start() {
    Arm();
}

void Upkeep::Arm() {
    if (m_kept.interval_min == 0 || m_stopped) return;
    m_timer.expires_after(std::chrono::minutes(m_kept.interval_min));
    m_timer.async_wait([this](const boost::system::error_code& error) {
        if (error) return;
        Collect([](const Result<GarbageReport>&) {});
        Arm();
    });
}

void Upkeep::Stop() {
    m_stopped = true;
    m_timer.cancel();
    if (!m_collecting.empty()) Conclude(Fail("the engine is ending"));
    if (m_copy) EndCopy(Fail("the engine is ending"));
}

// ---- removal ----

void Upkeep::Collect(OnCollected done) {
    m_collecting.push_back(std::move(done));
    if (m_collecting.size() > 1) return;
    m_report = {};
    m_report.files = RemoveOldFiles(m_logRoot, m_kept, m_inUse(), Store::SystemNow()());
    const Removed spooled = RemoveOldSpool(m_dataFolder, m_kept);
    m_report.files["dumps"].files += spooled.files;
    m_report.files["dumps"].bytes += spooled.bytes;
    boost::asio::post(m_io, [this] { DropEvents(); });
}

void Upkeep::DropEvents() {
    if (m_collecting.empty()) return;
    const std::int64_t before_us =
        m_kept.events_days == 0 ? INT64_MIN : Store::SystemNow()() - m_kept.events_days * kDay_us;
    const auto dropped =
        m_store.DropEvents(before_us, static_cast<std::int64_t>(m_kept.events_max), kEventsAtOnce);
    if (!dropped) {
        Conclude(dropped.error());
        return;
    }
    m_report.events += *dropped;
    if (*dropped == 0)
        Conclude(m_report);
    else
        boost::asio::post(m_io, [this] { DropEvents(); });
}

void Upkeep::Conclude(const Result<GarbageReport>& report) {
    if (!report)
        m_log.Warn("old events could not be removed: " + report.error().message);
    else if (!IsEmpty(*report))
        m_log.Info("no longer kept and removed: " + Words(*report));
    for (const auto& done : std::exchange(m_collecting, {})) done(report);
}

// ---- copying ----

void Upkeep::Copy(const std::string& path, OnCopied done) {
    if (m_copy) {
        done(Fail("another backup is being made: " + m_copyPath));
        return;
    }
    auto copy = m_store.BeginCopy(path);
    if (!copy) {
        done(copy.error());
        return;
    }
    m_copy = std::move(*copy);
    m_copyPath = path;
    m_copied = std::move(done);
    StepCopy();
}

void Upkeep::StepCopy() {
    if (!m_copy) return;
    const auto stepped = m_copy->Step(kPagesAtOnce);
    if (!stepped) {
        EndCopy(stepped.error());
        return;
    }
    if (!*stepped) {
        boost::asio::post(m_io, [this] { StepCopy(); });
        return;
    }
    std::error_code unknown;
    const auto bytes = std::filesystem::file_size(PathFromUtf8(m_copyPath), unknown);
    m_log.Info("the store is copied to " + m_copyPath);
    EndCopy(std::uint64_t{unknown ? 0 : bytes});
}

void Upkeep::EndCopy(const Result<std::uint64_t>& result) {
    m_copy.reset();
    if (!result) m_log.Warn("a backup was not made: " + result.error().message);
    std::exchange(m_copied, nullptr)(result);
}

}  // namespace rq::engine
