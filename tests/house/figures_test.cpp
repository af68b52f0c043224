#include "bench/support/figures.h"

#include <gtest/gtest.h>

namespace zel::bench {
namespace {

Figure figure(Kind kind, double ours, double peer, double bar, double stretch = noBar) {
    return {"row \"a\"", "ns", kind, ours, peer, "peer", bar, stretch};
}

TEST(Figures, MedianIsTheMiddleOrTheMeanOfTheTwoInTheMiddle) {
    EXPECT_EQ(median({}), 0);
    EXPECT_EQ(median({9, 1, 2}), 2);
    EXPECT_EQ(median({8, 1, 2, 100}), 5);
}

TEST(Figures, TimesAndSizesMeetABarFromBelowAndRatesFromAbove) {
    EXPECT_STREQ(verdict(figure(Kind::time, 20, 10, 2.0)), "met");
    EXPECT_STREQ(verdict(figure(Kind::time, 21, 10, 2.0)), "short");
    EXPECT_STREQ(verdict(figure(Kind::time, 9, 10, 2.0, 1.0)), "stretch");
    EXPECT_STREQ(verdict(figure(Kind::rate, 20, 10, 2.0, 3.0)), "met");
    EXPECT_STREQ(verdict(figure(Kind::rate, 19, 10, 2.0)), "short");
    EXPECT_STREQ(verdict(figure(Kind::rate, 1, 10, noBar)), "-");
    EXPECT_STREQ(verdict(figure(Kind::size, 2, 10, 0.2)), "met");
    EXPECT_STREQ(verdict(figure(Kind::size, 3, 10, 0.2)), "short");
}

TEST(Figures, JsonHasTheFieldsOfAReportAndEscapesNames) {
    EXPECT_EQ(jsonLine(figure(Kind::time, 15, 10, 2.0)),
              R"({"name": "row \"a\"", "unit": "ns", "ours": 15, "peer": 10, "peer_name": "peer", "ratio": 1.5000, )"
              R"("better": "lower", "bar": 2})");
}

}  // namespace
}  // namespace zel::bench
