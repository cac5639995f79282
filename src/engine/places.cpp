#include "engine/places.h"

#include <utility>

namespace rq::engine {

std::unique_ptr<Place> Places::Enter() {
    auto place = std::make_unique<Place>(shared_from_this());
    place->m_at = m_strangers.insert(m_strangers.end(), place.get());
    MakeRoom(place.get());
    return place;
}

bool Places::SendOneAway() {
    if (m_strangers.empty()) return false;
    SendAway(*m_strangers.front());
    return true;
}

void Places::SendAway(Place& place) {
    place.Leave();
    ++m_sentAway;
    if (const auto close = std::exchange(place.m_close, nullptr)) close();
}

void Places::MakeRoom(const Place* spared) {
    while (m_strangers.size() > m_limits.strangers) SendAway(*m_strangers.front());
    while (m_guests.size() > m_limits.guests) SendAway(*m_guests.front());
    while (m_memory_bytes > m_limits.memory_bytes) {
        Place* largest = nullptr;
        for (Place* place : m_guests) {
            if (place != spared && place->m_memory_bytes > (largest == nullptr ? 0 : largest->m_memory_bytes))
                largest = place;
        }
        if (largest == nullptr) return;
        SendAway(*largest);
    }
}

Place::~Place() {
    Leave();
}

void Place::Leave() {
    if (m_isGone) return;
    m_isGone = true;
    List().erase(m_at);
    m_places->m_memory_bytes -= std::exchange(m_memory_bytes, 0);
}

bool Place::HasRoom() const {
    const auto& limits = m_places->m_limits;
    return m_isGuest || limits.guestsGiveWay || m_places->m_guests.size() < limits.guests;
}

bool Place::BeGuest() {
    if (m_isGone || !HasRoom()) return false;
    auto& guests = m_places->m_guests;
    guests.splice(guests.end(), List(), m_at);
    m_isGuest = true;
    m_places->MakeRoom(this);
    return true;
}

void Place::Hold(std::uint64_t memory_bytes) {
    if (m_isGone) return;
    m_places->m_memory_bytes += memory_bytes - m_memory_bytes;
    m_memory_bytes = memory_bytes;
    m_places->MakeRoom(this);
}

}  // namespace rq::engine
