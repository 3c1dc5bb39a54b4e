#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "playback/TimelineSchedule.h"

namespace {

using Korvane::Logging::Playback::TimelineSchedule;

constexpr std::int64_t int64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t ms = 1'000'000;

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
        {-3, 1000, 0.0f, 9500 * ms, std::numeric_limits<std::int64_t>::min() + 9500 * ms},
        {0, 1000, 0.0f, 9600 * ms, std::numeric_limits<std::int64_t>::min() + 9500 * ms},
        {1, 1000, 0.0f, 9700 * ms, int64Max},
        {0, 0, 1.0f, 9800 * ms, 9800 * ms},
        {5, 1000, 1e-30f, 9900 * ms, int64Max},  // saturates instead of overflowing
    };
    TimelineSchedule schedule;
    schedule.restart(origin);
    int index = 0;
    for (const Step& step : steps) {
        EXPECT_EQ(schedule.nextDueNs(step.gapMs, step.capMs, step.multiplier, step.nowNs),
                  step.dueNs)
            << "step " << index;
        ++index;
    }
}

}  // namespace
