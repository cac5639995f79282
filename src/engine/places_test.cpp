#include "engine/places.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace rq::engine {
namespace {

// Connections that note when they have to go.
class PlacesTest : public testing::Test {
  protected:
    void Open(const Places::Limits& limits) { m_places = std::make_shared<Places>(limits); }
    Place& Enter(const std::string& name) {
        m_all.push_back(m_places->Enter());
        m_all.back()->SetClose([this, name] { m_gone += name; });
        return *m_all.back();
    }
    Place& Guest(const std::string& name) {
        Place& place = Enter(name);
        EXPECT_TRUE(place.BeGuest());
        return place;
    }

    std::shared_ptr<Places> m_places;
    std::vector<std::unique_ptr<Place>> m_all;
    std::string m_gone;
};

TEST_F(PlacesTest, OfStrangersTheOneThatHasWaitedLongestGoes) {
    Open({.strangers = 2, .guests = 1});
    Enter("a");
    Enter("b");
    EXPECT_EQ(m_gone, "");
    Enter("c");
    Enter("d");
    EXPECT_EQ(m_gone, "ab");
    EXPECT_EQ(m_places->Strangers(), 2u);
    EXPECT_EQ(m_places->SentAway(), 2u);
}

TEST_F(PlacesTest, StrangersTakeNoPlaceOfAGuest) {
    Open({.strangers = 2, .guests = 1});
    Guest("g");
    for (int i = 0; i < 10; ++i) Enter("s");
    EXPECT_EQ(m_gone, "ssssssss");
    EXPECT_EQ(m_places->Guests(), 1u);
}

TEST_F(PlacesTest, GuestsThatStayKeepOthersOut) {
    Open({.strangers = 2, .guests = 1});
    Guest("g");
    Place& late = Enter("l");
    EXPECT_FALSE(late.HasRoom());
    EXPECT_FALSE(late.BeGuest());
    EXPECT_EQ(m_gone, "");
    m_all.erase(m_all.begin());
    EXPECT_TRUE(late.BeGuest());
}

TEST_F(PlacesTest, OfGuestsThatGiveWayTheOneLongestIdleGoes) {
    Open({.strangers = 2, .guests = 2, .guestsGiveWay = true});
    Place& a = Guest("a");
    Guest("b");
    EXPECT_TRUE(a.BeGuest());  // it did something
    Guest("c");
    EXPECT_EQ(m_gone, "b");
    EXPECT_FALSE(m_all[1]->BeGuest());  // it is gone
    EXPECT_EQ(m_places->Guests(), 2u);
}

TEST_F(PlacesTest, MemoryGoesToWhoAsksLastFromWhoHoldsMost) {
    Open({.strangers = 2, .guests = 9, .memory_bytes = 100, .guestsGiveWay = true});
    Guest("a").Hold(60);
    Guest("b");
    Guest("c").Hold(40);
    EXPECT_EQ(m_gone, "");
    Place& d = Guest("d");
    d.Hold(50);
    EXPECT_EQ(m_gone, "a");  // b held nothing
    d.Hold(0);
    Guest("e").Hold(60);
    EXPECT_EQ(m_gone, "a");
    Guest("f").Hold(1000);  // more than there is, for itself alone
    EXPECT_EQ(m_gone, "aec");
}

TEST_F(PlacesTest, OneStrangerIsSentAwayWhenAsked) {
    Open({.strangers = 9, .guests = 9});
    Guest("g");
    EXPECT_FALSE(m_places->SendOneAway());
    Enter("s");
    EXPECT_TRUE(m_places->SendOneAway());
    EXPECT_EQ(m_gone, "s");
}

}  // namespace
}  // namespace rq::engine
