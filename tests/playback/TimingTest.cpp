#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "playback/FrameTiming.h"
#include "playback/TimelineSchedule.h"

namespace Korvane::Logging::Playback {
namespace {

constexpr std::int64_t int64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t int64Min = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t ms = 1'000'000;

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
        {999, 1000, 2.0f, 30, 470},    // 499.5 rounds up
        {1000, 1000, 2.0f, 30, 1000},  // at the cap: neither scaled nor carried
        {600, 1000, 0.5f, 30, 1170},   // the cap limits the recorded gap, not the scaled one
        {-5, 1000, 2.0f, 0, -3},       // negative halves round away from zero too
        {-10, 1000, 1.0f, 0, -10},     // running backwards means no wait
        {0, 0, 3.0f, 50, 0},           // a cap of 0 takes every non-negative gap
        {16777217, 2147483647, 1.0f, 0, 16777216},  // the gap passes through single precision
        {1, 1000, 1e-30f, 0, int64Max},
        {-1, 1000, 1e-30f, 5, int64Min},
        {5, 1000, 0.0f, 0, int64Max},
        {0, 1000, 0.0f, 4, -4},  // 0 / 0 is no number and counts as no delay
        {5, 1000, std::nanf(""), 0, 0},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(FrameTiming::frameDelayMs(row.gap, row.cap, row.multiplier, row.carry),
                  row.expected)
            << row.gap << " " << row.cap << " " << row.multiplier << " " << row.carry;
    }
}

TEST(FrameTimingTest, DeadlinesSpansCarriesAndGapsSaturate) {
    const std::int64_t deadlines[][3] = {
        {1000, -7, 1000},
        {1000, 1, 1'001'000},
        {0, int64Max / ms, int64Max / ms * ms},
        {int64Max - 999'999, 1, int64Max},
        {1, int64Max / ms + 1, int64Max},
    };
    for (const auto& [now, delay, expected] : deadlines) {
        EXPECT_EQ(FrameTiming::deadlineNs(now, delay), expected) << now << " " << delay;
    }
    // Play time spans the low 32 bits of the difference, wrapping around.
    const std::int64_t spans[][3] = {
        {1000, 3500, 2500},
        {5000, 1000, -4000},
        {0x1FFFFFFF0, 0x200000010, 0x20},
        {0, 2147483648, std::numeric_limits<std::int32_t>::min()},
        {1'700'000'000'000, 1'700'000'000'000 + 3'000'000'000, -1294967296},
    };
    for (const auto& [first, last, expected] : spans) {
        EXPECT_EQ(FrameTiming::playTimeSpanMs(first, last), expected) << first << " " << last;
    }
    EXPECT_EQ(FrameTiming::overrunMs(12, 10, 3), 5);
    EXPECT_EQ(FrameTiming::overrunMs(1, int64Min, 0), int64Max);
    EXPECT_EQ(FrameTiming::nextTimingCarryMs(2, -40), -38);
    EXPECT_EQ(FrameTiming::nextTimingCarryMs(2, int64Max), int64Max);
    EXPECT_EQ(FrameTiming::gapMs(int64Min, 1), int64Min);
}

TEST(TimelineScheduleTest, DueTimesAccumulateWithoutRounding) {
    TimelineSchedule schedule;
    schedule.restart(7);
    std::int64_t due = 0;
    for (int frame = 1; frame <= 1000; ++frame) {
        due = schedule.nextDueNs(1, 1000, 3.0f, 0);
        if (frame == 3) {
            EXPECT_EQ(due, 7 + ms);  // not three times 333,333
        }
    }
    EXPECT_EQ(due, 7 + 333'333'333);
}

TEST(TimelineScheduleTest, CapsRatesAndOddMultipliersStartTheScheduleAfresh) {
    struct Step {
        std::int64_t gapMs;
        std::int32_t capMs;
        float multiplier;
        std::int64_t nowNs;
        std::int64_t dueNs;
    };
    const std::int64_t origin = 1000 * ms;
    const Step steps[] = {
        // Counted from the origin, though the frame is ready later: reading comes off the wait.
        {10, 1000, 1.0f, origin + 3 * ms, origin + 10 * ms},
        {5, 1000, 1.0f, origin + 4 * ms, origin + 15 * ms},
        {-4, 1000, 1.0f, origin + 5 * ms, origin + 11 * ms},  // backwards in time: due earlier
        // A new rate counts from the previous due time, or from now when that has passed.
        {10, 1000, 2.0f, origin + 9 * ms, origin + 16 * ms},
        {10, 1000, 4.0f, origin + 30 * ms, origin + 32'500'000},
        // At the cap: exactly the cap from now, unscaled, and the next frames count from there,
        // also when they are late.
        {1000, 1000, 4.0f, 5000 * ms, 6000 * ms},
        {2, 1000, 4.0f, 7000 * ms, 6000 * ms + 500'000},
        {999, 1000, 4.0f, 7000 * ms, 6000 * ms + 250'250'000},
        {0, 0, 4.0f, 8000 * ms, 8000 * ms},   // a cap of 0 takes every gap that is not negative
        {0, -1, 1.0f, 9000 * ms, 9000 * ms},  // nor does a negative cap wait
        // No waits below 0 or under NaN, and no rush to make up afterwards.
        {10, 1000, -1.0f, 9100 * ms, 8990 * ms},
        {10, 1000, -1.0f, 9100 * ms, 8980 * ms},
        {10, 1000, std::nanf(""), 9200 * ms, 9200 * ms},
        {10, 1000, std::nanf(""), 9300 * ms, 9300 * ms},
        {10, 1000, 1.0f, 9400 * ms, 9410 * ms},
        // At 0, frames that go back in time come at once and the next later one waits forever.
        {-3, 1000, 0.0f, 9500 * ms, int64Min + 9500 * ms},
        {0, 1000, 0.0f, 9600 * ms, int64Min + 9500 * ms},
        {1, 1000, 0.0f, 9700 * ms, int64Max},
        {0, 0, 1.0f, 9800 * ms, 9800 * ms},
        {5, 1000, 1e-30f, 9900 * ms, int64Max},  // saturates instead of overflowing
    };
    TimelineSchedule schedule;
    schedule.restart(origin);
    for (std::size_t i = 0; i < std::size(steps); ++i) {
        const Step& step = steps[i];
        EXPECT_EQ(schedule.nextDueNs(step.gapMs, step.capMs, step.multiplier, step.nowNs),
                  step.dueNs)
            << "step " << i;
    }
}

}  // namespace
}  // namespace Korvane::Logging::Playback
