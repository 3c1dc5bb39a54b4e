#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "playback/FrameTiming.h"

namespace {

namespace FrameTiming = Korvane::Logging::Playback::FrameTiming;

constexpr std::int64_t int64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t int64Min = std::numeric_limits<std::int64_t>::min();

TEST(FrameTimingTest, DelayCapsScalesRoundsAndSubtractsCarry) {
    struct Row {
        std::int64_t gap;
        std::int32_t cap;
        float multiplier;
        std::int64_t carry;
        std::int64_t expected;
    };
    const Row rows[] = {
        {400, 1000, 2.0f, 30, 170},
        {999, 1000, 2.0f, 30, 470},       // 499.5 rounds up
        {1000, 1000, 2.0f, 30, 1000},     // at the cap: neither scaled nor carried
        {60000, 1000, 2.0f, 30, 1000},
        {600, 1000, 0.5f, 30, 1170},      // the cap limits the recorded gap, not the scaled one
        {5, 1000, 2.0f, 0, 3},
        {-5, 1000, 2.0f, 0, -3},          // negative halves round away from zero too
        {-10, 1000, 1.0f, 0, -10},        // running backwards means no wait
        {0, 0, 3.0f, 50, 0},              // a cap of 0 takes every non-negative gap
        {7, 1000, 1.0f, 20, -13},
        {16777217, 2147483647, 1.0f, 0, 16777216},  // the gap passes through single precision
        {1, 1000, 1e-30f, 0, int64Max},
        {-1, 1000, 1e-30f, 5, int64Min},
        {5, 1000, 0.0f, 0, int64Max},
        {0, 1000, 0.0f, 4, -4},           // 0 / 0 is no number and counts as no delay
        {5, 1000, std::nanf(""), 0, 0},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(FrameTiming::frameDelayMs(row.gap, row.cap, row.multiplier, row.carry),
                  row.expected)
            << "gap " << row.gap << ", cap " << row.cap << ", multiplier " << row.multiplier
            << ", carry " << row.carry;
    }
}

TEST(FrameTimingTest, DeadlineAddsWholeDelaysAndSaturates) {
    struct Row {
        std::int64_t now;
        std::int64_t delay;
        std::int64_t expected;
    };
    const Row rows[] = {
        {1000, 0, 1000},
        {1000, -7, 1000},
        {1000, 1, 1'001'000},
        {0, int64Max / 1'000'000, int64Max / 1'000'000 * 1'000'000},
        {int64Max - 999'999, 1, int64Max},
        {int64Max - 1'000'000, 1, int64Max},
        {1, int64Max / 1'000'000 + 1, int64Max},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(FrameTiming::deadlineNs(row.now, row.delay), row.expected)
            << "now " << row.now << ", delay " << row.delay;
    }
}

TEST(FrameTimingTest, PlayTimeSpanUsesLow32BitsWithWrapAround) {
    struct Row {
        std::int64_t first;
        std::int64_t last;
        std::int32_t expected;
    };
    const Row rows[] = {
        {1000, 1000, 0},
        {1000, 3500, 2500},
        {5000, 1000, -4000},
        {0x1FFFFFFF0, 0x200000010, 0x20},
        {0, 2147483648, std::numeric_limits<std::int32_t>::min()},
        {1'700'000'000'000, 1'700'000'000'000 + 3'000'000'000, -1294967296},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(FrameTiming::playTimeSpanMs(row.first, row.last), row.expected)
            << row.first << " to " << row.last;
    }
}

TEST(FrameTimingTest, CarryAndGapSaturateInsteadOfOverflowing) {
    EXPECT_EQ(FrameTiming::overrunMs(12, 10, 3), 5);
    EXPECT_EQ(FrameTiming::overrunMs(1, int64Min, 0), int64Max);
    EXPECT_EQ(FrameTiming::nextTimingCarryMs(2, -40), -38);
    EXPECT_EQ(FrameTiming::nextTimingCarryMs(2, int64Max), int64Max);
    EXPECT_EQ(FrameTiming::gapMs(int64Min, 1), int64Min);
}

}  // namespace
