#include "copy_stream.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace rq::transfer {
namespace {

using End = StreamResult::End;
constexpr std::chrono::milliseconds kStep{20};
constexpr std::uint64_t kLeastPortion_bytes = 16u << 10;

struct Piece {
    std::uint64_t offset_bytes = 0;
    std::size_t size_bytes = 0;
    bool isHole = false;  // zeros, which are digested and not written
    const unsigned char* bytes = nullptr;
};

// The pieces on their way: one producer, some consumers, each of which sees every piece in order.
class Belt {
  public:
    explicit Belt(std::size_t consumers) : m_next(consumers, 0) {}

    // The producer. A slot that every consumer is done with; false while there is none.
    bool WaitForSlot(std::size_t& slot, std::chrono::milliseconds time) {
        std::unique_lock<std::mutex> lock(m_mutex);
        slot = m_made % kBuffers;
        return m_changed.wait_for(
            lock, time, [&] { return m_made - *std::min_element(m_next.begin(), m_next.end()) < kBuffers; });
    }
    void Put(const Piece& piece) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_pieces[m_made++ % kBuffers] = piece;
        m_changed.notify_all();
    }
    void End() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ended = true;
        m_changed.notify_all();
    }

    // A consumer: the next piece; false at the end.
    bool Take(std::size_t consumer, Piece& piece) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_next[consumer] < m_made || m_ended; });
        if (m_next[consumer] == m_made) return false;
        piece = m_pieces[m_next[consumer] % kBuffers];
        return true;
    }
    void Release(std::size_t consumer) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_next[consumer];
        m_changed.notify_all();
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::array<Piece, kBuffers> m_pieces;
    std::vector<std::size_t> m_next;  // of each consumer
    std::size_t m_made = 0;
    bool m_ended = false;
};

struct EndOf {
    Belt& belt;
    ~EndOf() { belt.End(); }
};

class Stream {
  public:
    explicit Stream(StreamJob& job) : m_job(job), m_size(job.source.Size()) {}

    StreamResult Run() {
        if (m_job.md5 && !m_md5.emplace().Start()) return Ended(End::kDigest);
        if (m_job.sha256 && !m_sha256.emplace().Start()) return Ended(End::kDigest);
        std::uint64_t from = 0;
        if (m_job.target != nullptr && !m_md5 && !m_sha256) {
            const std::optional<StreamResult> result = Offload(from);
            if (result) return *result;
        }
        return Pass(from);
    }

  private:
    static StreamResult Ended(End end, std::uint32_t code = 0) { return {end, code, {}}; }

    // Nothing when the system does not copy from `from` on.
    std::optional<StreamResult> Offload(std::uint64_t& from) {
        while (from < m_size) {
            std::uint64_t begin = 0;
            std::uint64_t end = 0;
            if (const std::uint32_t code = m_job.source.NextData(from, begin, end); code != 0)
                return Ended(End::kRead, code);
            from = begin;
            while (from < end) {
                if (!m_job.goOn(from)) return Ended(End::kStopped);
                const std::uint64_t wanted = m_job.limit->Portion(std::min(end - from, kOffload_bytes));
                std::uint64_t copied = 0;
                const std::uint32_t code = m_job.target->CopyFrom(m_job.source, from, wanted, copied);
                if (code == task::Publication::kNotOffloaded) return std::nullopt;
                if (code != 0) return Ended(End::kWrite, code);
                from += copied;
                if (copied < wanted) return Ended(End::kSize);
                if (!m_job.limit->Pass(copied, [&] { return m_job.goOn(from); })) return Ended(End::kStopped);
            }
        }
        return Ended(End::kDone);
    }

    StreamResult Pass(std::uint64_t from) {
        std::vector<std::function<bool(const Piece&)>> consumers;
        if (m_job.target != nullptr)
            consumers.push_back([this](const Piece& piece) {
                const std::uint32_t code =
                    piece.isHole ? 0
                                 : m_job.target->WriteAt(piece.offset_bytes, piece.bytes, piece.size_bytes);
                if (code != 0) m_writeCode = code;
                return code == 0;
            });
        if (m_md5)
            consumers.push_back(
                [this](const Piece& piece) { return m_md5->Add(piece.bytes, piece.size_bytes); });
        if (m_sha256)
            consumers.push_back(
                [this](const Piece& piece) { return m_sha256->Add(piece.bytes, piece.size_bytes); });
        // A small file is not worth the threads.
        StreamResult result = m_size - std::min(from, m_size) <= kBuffer_bytes
                                  ? PassHere(from, consumers)
                                  : PassSideBySide(from, consumers);
        if (m_writeCode != 0) return Ended(End::kWrite, m_writeCode);
        if (m_digestFailed) return Ended(End::kDigest);
        if (result.end != End::kDone) return result;
        if (m_md5 && !m_md5->Finish(result.digests.md5.emplace())) return Ended(End::kDigest);
        if (m_sha256 && !m_sha256->Finish(result.digests.sha256.emplace())) return Ended(End::kDigest);
        return result;
    }

    using Consumers = std::vector<std::function<bool(const Piece&)>>;

    StreamResult PassHere(std::uint64_t from, const Consumers& consumers) {
        return Read(
            from,
            [&](const Piece& piece) {
                return std::all_of(consumers.begin(), consumers.end(), [&](const auto& consumer) {
                    const bool isGood = consumer(piece);
                    if (!isGood && m_writeCode == 0) m_digestFailed = true;
                    return isGood;
                });
            },
            [](std::size_t& slot) {
                slot = 0;
                return true;
            });
    }

    StreamResult PassSideBySide(std::uint64_t from, const Consumers& consumers) {
        Belt belt(consumers.size());
        std::atomic<bool> failed{false};
        std::vector<std::jthread> threads;
        const EndOf end{belt};  // before the threads are waited for
        for (std::size_t i = 0; i < consumers.size(); ++i)
            threads.emplace_back([&, i] {
                Piece piece;
                while (belt.Take(i, piece)) {
                    if (!failed && !consumers[i](piece)) {
                        // The writer's thread alone sets the code.
                        if (!(i == 0 && m_job.target != nullptr)) m_digestFailed = true;
                        failed = true;
                    }
                    belt.Release(i);
                }
            });
        return Read(
            from,
            [&](const Piece& piece) {
                belt.Put(piece);
                return !failed;
            },
            [&](std::size_t& slot) {
                while (!belt.WaitForSlot(slot, kStep))
                    if (!m_job.goOn(m_position)) return false;
                return true;
            });
    }

    // Reads piece by piece and hands each to `put`; false of it ends the reading, which then failed
    // elsewhere.
    template <class Put, class Slot>
    StreamResult Read(std::uint64_t from, const Put& put, const Slot& slotFor) {
        const std::size_t buffers = m_size <= kBuffer_bytes ? 1 : kBuffers;
        const std::size_t room = static_cast<std::size_t>(std::min<std::uint64_t>(m_size + 1, kBuffer_bytes));
        m_bytes = std::make_unique<unsigned char[]>(buffers * room);
        m_zeros = std::make_unique<unsigned char[]>(room);
        std::uint64_t begin = from;
        std::uint64_t end = from;  // of the present part that is no hole
        for (m_position = from; m_position < m_size;) {
            if (!m_job.goOn(m_position)) return Ended(End::kStopped);
            if (m_position >= end) {
                if (const std::uint32_t code = m_job.source.NextData(m_position, begin, end); code != 0)
                    return Ended(End::kRead, code);
            }
            std::size_t slot = 0;
            if (!slotFor(slot)) return Ended(End::kStopped);
            Piece piece{m_position, 0, m_position < begin, m_zeros.get()};
            const std::uint64_t until = piece.isHole ? begin : end;
            const auto wanted = static_cast<std::size_t>(
                m_job.limit->Portion(std::min<std::uint64_t>(std::min(until, m_size) - m_position, room)));
            piece.size_bytes = wanted;
            if (!piece.isHole) {
                unsigned char* place = m_bytes.get() + slot * room;
                if (const std::uint32_t code =
                        m_job.source.ReadAt(m_position, place, wanted, piece.size_bytes);
                    code != 0)
                    return Ended(End::kRead, code);
                piece.bytes = place;
                if (piece.size_bytes < wanted) return Ended(End::kSize);
            }
            if (!put(piece)) return Ended(End::kDone);
            m_position += piece.size_bytes;
            if (!m_job.limit->Pass(piece.size_bytes, [&] { return m_job.goOn(m_position); }))
                return Ended(End::kStopped);
        }
        return Ended(End::kDone);
    }

    StreamJob& m_job;
    const std::uint64_t m_size;
    std::uint64_t m_position = 0;
    // What the pieces borrow: consumers may still be at it when the reading has ended.
    std::unique_ptr<unsigned char[]> m_bytes;
    std::unique_ptr<unsigned char[]> m_zeros;
    std::optional<task::Md5> m_md5;
    std::optional<task::Sha256> m_sha256;
    std::uint32_t m_writeCode = 0;  // the consumers' findings are read after they have ended
    std::atomic<bool> m_digestFailed{false};
};

}  // namespace

std::uint64_t RateLimit::Portion(std::uint64_t most_bytes) const {
    if (!IsSet()) return most_bytes;
    return std::min(most_bytes, std::max(kLeastPortion_bytes, m_limit_Bps / 20));
}

bool RateLimit::Pass(std::uint64_t bytes, const std::function<bool()>& goOn) {
    using namespace std::chrono;
    if (!IsSet()) return true;
    if (m_due == steady_clock::time_point()) m_due = steady_clock::now();
    m_due = std::max(m_due, steady_clock::now() - seconds(1)) +
            duration_cast<steady_clock::duration>(
                duration<double>(static_cast<double>(bytes) / static_cast<double>(m_limit_Bps)));
    while (steady_clock::now() < m_due) {
        std::this_thread::sleep_for(std::min<steady_clock::duration>(kStep, m_due - steady_clock::now()));
        if (!goOn()) return false;
    }
    return true;
}

StreamResult RunStream(StreamJob job) {
    return Stream(job).Run();
}

}  // namespace rq::transfer
