// Places: who of those that connect may stay. A connection is a stranger until it has shown the token, a
// guest from then on, and the numbers of both are bounded apart: however many strangers come and say nothing,
// they take no guest's place. One stranger too many, and the one that has waited longest goes, so that who
// speaks up at once always gets a hearing. Of guests the one longest idle goes, or no more are taken. I/O
// thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>

#include "engine/sparing.h"

namespace rq::engine {

class Place;

class Places : public std::enable_shared_from_this<Places> {
  public:
    struct Limits {
        std::size_t strangers = 256;
        std::size_t guests = 512;
        // What guests may hold in memory together, in bytes. Who asks last gets it: those that hold most have
        // to go, of equal ones the one longest idle.
        std::uint64_t memory_bytes = UINT64_MAX;
        bool guestsGiveWay = false;
    };
    explicit Places(const Limits& limits) : m_limits(limits) {}

    // A stranger's place.
    std::unique_ptr<Place> Enter();
    // The stranger that has waited longest goes; false when there is none.
    bool SendOneAway();

    std::size_t Strangers() const { return m_strangers.size(); }
    std::size_t Guests() const { return m_guests.size(); }
    // How many had to go so far.
    std::uint64_t SentAway() const { return m_sentAway; }
    // Of lines in the log about strangers.
    Sparing& Lines() { return m_lines; }

  private:
    friend class Place;
    void SendAway(Place& place);
    void MakeRoom(const Place* spared);

    const Limits m_limits;
    std::list<Place*> m_strangers, m_guests;  // the next to go first
    std::uint64_t m_memory_bytes = 0;
    std::uint64_t m_sentAway = 0;
    Sparing m_lines;
};

// Free again with the object.
class Place {
  public:
    explicit Place(std::shared_ptr<Places> places) : m_places(std::move(places)) {}
    ~Place();
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    // `close` is called once when this connection has to go; nothing else here does anything after that.
    void SetClose(std::function<void()> close) { m_close = std::move(close); }
    // Whether a stranger could become a guest now.
    bool HasRoom() const;
    // It has shown the token, and is the last now that has to go. False: there is no room.
    bool BeGuest();
    // What it holds in memory from now on, in place of what it held.
    void Hold(std::uint64_t memory_bytes);
    Sparing& Lines() { return m_places->Lines(); }

  private:
    friend class Places;
    std::list<Place*>& List() { return m_isGuest ? m_places->m_guests : m_places->m_strangers; }
    void Leave();

    const std::shared_ptr<Places> m_places;
    std::function<void()> m_close;
    std::list<Place*>::iterator m_at;
    std::uint64_t m_memory_bytes = 0;
    bool m_isGuest = false;
    bool m_isGone = false;
};

}  // namespace rq::engine
