#include "unit/tarnctl/check/check_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using WordPlaces = CheckFixture;

TEST_F(WordPlaces, NamesAnIdThatIsCutTo32Bits) {
    Events(GoodEntry(1) + "se.4294967298.msg = Name\n");
    (void)Run();
    EXPECT_THAT(FoundIn("tarn_event.conf"), testing::Contains(FoundPlace("id-bent", 6, 4)));
}

TEST_F(WordPlaces, TakesAWordWithinALongerOneForRight) {
    Events("se.7.severity = high\nse.7.msg = Worm\nse.7.user.response = DISPLAY:WithRawX\n");
    (void)Run();
    EXPECT_THAT(FoundIn("tarn_event.conf"), testing::IsEmpty());
}

TEST_F(WordPlaces, PointsAtTheFirstWordOfScope) {
    Events(
        "se.7.severity = high\nse.7.msg = Worm\n"
        "se.7.user.response = LOGEVIDENCE Connection Interface\n");
    (void)Run();
    EXPECT_THAT(FoundIn("tarn_event.conf"),
                testing::ElementsAre(FoundPlace("evidence-scope", 3, 34)));
}

}  // namespace
