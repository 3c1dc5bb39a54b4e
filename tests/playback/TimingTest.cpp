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
const float nan = std::nanf("");

// The cap limits the recorded gap and is neither scaled nor carried; halves round away from
// zero; 0 / 0 and NaN mean no delay.
TEST(FrameTimingTest, DelayCapsScalesRoundsAndSubtractsCarry) {
    struct Row {
        std::int64_t gap;
        std::int32_t cap;
        float multiplier;
        std::int64_t carry, expected;
    };
    const Row rows[] = {{400, 1000, 2, 30, 170},
                        {999, 1000, 2, 30, 470},
                        {1000, 1000, 2, 30, 1000},
                        {600, 1000, 0.5f, 30, 1170},
                        {-5, 1000, 2, 0, -3},
                        {-10, 1000, 1, 0, -10},
                        {0, 0, 3, 50, 0},
                        {16777217, 2147483647, 1, 0, 16777216},
                        {1, 1000, 1e-30f, 0, int64Max},
                        {-1, 1000, 1e-30f, 5, int64Min},
                        {5, 1000, 0, 0, int64Max},
                        {0, 1000, 0, 4, -4},
                        {5, 1000, nan, 0, 0}};
    for (const Row& row : rows) {
        EXPECT_EQ(FrameTiming::frameDelayMs(row.gap, row.cap, row.multiplier, row.carry),
                  row.expected)
            << row.gap << " " << row.cap << " " << row.multiplier << " " << row.carry;
    }
}

// Deadlines add whole delays; they and the carries saturate instead of overflowing.
TEST(FrameTimingTest, DeadlinesCarriesAndGapsSaturate) {
    const std::int64_t deadlines[][3] = {{1000, -7, 1000},
                                         {1000, 1, 1'001'000},
                                         {0, int64Max / ms, int64Max / ms * ms},
                                         {int64Max - 999'999, 1, int64Max},
                                         {1, int64Max / ms + 1, int64Max}};
    for (const auto& [now, delay, expected] : deadlines) {
        EXPECT_EQ(FrameTiming::deadlineNs(now, delay), expected) << now << " " << delay;
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
    }
    EXPECT_EQ(due, 7 + 333'333'333);
}

// Frames are due counted from the origin at 1 s; a new rate counts from the previous due time
// or from now; a cap, a negative or NaN multiplier and 0 restart the schedule.
TEST(TimelineScheduleTest, CapsRatesAndOddMultipliersStartTheScheduleAfresh) {
    struct Step {
        std::int64_t gapMs;
        std::int32_t capMs;
        float multiplier;
        std::int64_t nowMs, dueNs;
    };
    const Step steps[] = {{10, 1000, 1, 1003, 1010 * ms},
                          {5, 1000, 1, 1004, 1015 * ms},
                          {-4, 1000, 1, 1005, 1011 * ms},
                          {10, 1000, 2, 1009, 1016 * ms},
                          {10, 1000, 4, 1030, 1'032'500'000},
                          {1000, 1000, 4, 5000, 6000 * ms},
                          {2, 1000, 4, 7000, 6000 * ms + 500'000},
                          {999, 1000, 4, 7000, 6000 * ms + 250'250'000},
                          {0, 0, 4, 8000, 8000 * ms},
                          {0, -1, 1, 9000, 9000 * ms},
                          {10, 1000, -1, 9100, 8990 * ms},
                          {10, 1000, -1, 9100, 8980 * ms},
                          {10, 1000, nan, 9200, 9200 * ms},
                          {10, 1000, nan, 9300, 9300 * ms},
                          {10, 1000, 1, 9400, 9410 * ms},
                          {-3, 1000, 0, 9500, int64Min + 9500 * ms},
                          {0, 1000, 0, 9600, int64Min + 9500 * ms},
                          {1, 1000, 0, 9700, int64Max},
                          {0, 0, 1, 9800, 9800 * ms},
                          {5, 1000, 1e-30f, 9900, int64Max}};
    TimelineSchedule schedule;
    schedule.restart(1000 * ms);
    for (std::size_t i = 0; i < std::size(steps); ++i) {
        const Step& step = steps[i];
        EXPECT_EQ(schedule.nextDueNs(step.gapMs, step.capMs, step.multiplier, step.nowMs * ms),
                  step.dueNs)
            << "step " << i;
    }
}

}  // namespace
}  // namespace Korvane::Logging::Playback
