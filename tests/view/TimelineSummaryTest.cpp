// The counts that the page draws, checked against counting every entry by hand.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "TimelineSummary.h"

namespace {

using KorvaneLog::View::Bins;
using KorvaneLog::View::Cell;
using KorvaneLog::View::TimelineSummary;

struct Entry {
    std::int8_t source;
    std::int32_t id;
    std::int64_t time;
    std::uint64_t bytes;
};

// Entries of a regular source every `periodMs` from `startMs` for `durationMs`, leaving out
// those in [pauseFrom, pauseTo), ids following each other in time order across all sources.
void addSource(std::vector<Entry>& entries, std::int8_t source, std::int64_t startMs,
               std::int64_t periodMs, std::int64_t durationMs, std::int64_t pauseFrom = 0,
               std::int64_t pauseTo = 0) {
    for (std::int64_t t = startMs; t < startMs + durationMs; t += periodMs) {
        if (t < pauseFrom || t >= pauseTo) {
            entries.push_back({source, 0, t, static_cast<std::uint64_t>(10 + source)});
        }
    }
}

void numberInTimeOrder(std::vector<Entry>& entries) {
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry& a, const Entry& b) { return a.time < b.time; });
    for (std::size_t i = 0; i < entries.size(); ++i) {
        entries[i].id = static_cast<std::int32_t>(i + 1);
    }
}

TimelineSummary summaryOf(const std::vector<Entry>& entries, std::size_t budget) {
    TimelineSummary summary(1, budget);
    for (const Entry& entry : entries) {
        summary.add(entry.source, entry.id, entry.time, entry.bytes);
    }
    return summary;
}

struct Recording {
    std::string name;
    std::vector<Entry> entries;
    std::size_t budget;
};

// Recordings that a summary must count right: regular sources of very different rates with a
// pause, timestamps that do not follow the ids, times before 1970, and a budget so small that
// the cells widen many times while entries come in.
std::vector<Recording> recordings() {
    std::vector<Recording> all;
    std::vector<Entry> drive;
    addSource(drive, 1, 1'700'000'000'000, 1, 20'000, 1'700'000'005'000, 1'700'000'005'700);
    addSource(drive, 2, 1'700'000'000'000, 1000, 20'000);
    addSource(drive, -3, 1'700'000'000'017, 33, 20'000, 1'700'000'012'000, 1'700'000'015'000);
    numberInTimeOrder(drive);
    all.push_back({"regular", drive, TimelineSummary::defaultCellBudget});
    all.push_back({"narrow budget", drive, 300});

    std::vector<Entry> shuffled = drive;
    std::mt19937 random(11);
    std::shuffle(shuffled.begin(), shuffled.end(), random);
    for (std::size_t i = 0; i < shuffled.size(); ++i) {
        shuffled[i].id = static_cast<std::int32_t>(i + 1);  // ids that do not follow the times
    }
    all.push_back({"times out of id order", shuffled, 4096});

    // Pauses of 90 ms every second, just short of a gap, in cells of 64 ms: no gap may be
    // found where the next cell ends more than the threshold after the last entry.
    std::vector<Entry> pausing;
    for (std::int64_t t = 0; t < 20'000; t += 10) {
        if (t % 1000 < 900 || t % 1000 >= 980) {
            pausing.push_back({7, 0, 1'700'000'000'000 + t, 1});
        }
    }
    numberInTimeOrder(pausing);
    all.push_back({"pauses short of a gap", pausing, 384});

    std::vector<Entry> early;
    addSource(early, 5, -86'400'007, 7, 50'000);
    addSource(early, 6, -86'400'000, 250, 50'000, -86'380'000, -86'370'000);
    numberInTimeOrder(early);
    all.push_back({"before 1970", early, 1000});
    return all;
}

// What a bin of `bins` holds, counted entry by entry.
void expectBinsCountEveryEntry(const Bins& bins, const std::vector<Entry>& entries,
                               const std::string& context) {
    for (std::size_t s = 0; s < bins.sources.size(); ++s) {
        std::vector<std::uint32_t> counts(bins.count);
        std::vector<std::uint64_t> bytes(bins.count);
        for (const Entry& entry : entries) {
            const std::int64_t offset = entry.time - bins.from;
            if (entry.source == bins.sources[s] && offset >= 0 &&
                offset < bins.width * static_cast<std::int64_t>(bins.count)) {
                ++counts[offset / bins.width];
                bytes[offset / bins.width] += entry.bytes;
            }
        }
        ASSERT_EQ(bins.counts[s], counts) << context << ", source " << int(bins.sources[s]);
        ASSERT_EQ(bins.bytes[s], bytes) << context << ", source " << int(bins.sources[s]);
    }
}

TEST(TimelineSummaryTest, BinsCountEveryEntryOfEveryViewAskedFor) {
    for (const Recording& recording : recordings()) {
        const TimelineSummary summary = summaryOf(recording.entries, recording.budget);
        ASSERT_EQ(summary.entryCount(), recording.entries.size());
        ASSERT_LE(summary.cellCount(), recording.budget) << recording.name;
        const Cell total = summary.total();
        std::mt19937 random(3);
        for (int view = 0; view < 40; ++view) {
            const std::int64_t span = total.lastTime - total.firstTime + 1;
            std::uniform_int_distribution<std::int64_t> at(total.firstTime - span / 10,
                                                           total.lastTime + span / 10);
            std::int64_t from = at(random);
            std::int64_t to = at(random);
            if (from > to) {
                std::swap(from, to);
            }
            to += 1;
            const std::size_t maxBins = 1 + random() % 700;
            const Bins bins = summary.bins(from, to, maxBins);
            const std::string context = recording.name + " [" + std::to_string(from) + ", " +
                                        std::to_string(to) + ") in " + std::to_string(maxBins);
            ASSERT_LE(bins.count, maxBins) << context;
            ASSERT_LE(bins.from, from) << context;
            ASSERT_GE(bins.from + bins.width * static_cast<std::int64_t>(bins.count), to)
                << context;
            ASSERT_EQ(bins.width % summary.widthMs(), 0) << context;
            ASSERT_EQ(bins.from % bins.width, 0) << context;
            expectBinsCountEveryEntry(bins, recording.entries, context);
        }
    }
}

TEST(TimelineSummaryTest, MergedHalvesCountAsTheWhole) {
    for (const Recording& recording : recordings()) {
        const auto middle = recording.entries.begin() + recording.entries.size() / 3;
        // Halves of different widths: the merge must bring them to one.
        TimelineSummary first = summaryOf({recording.entries.begin(), middle}, recording.budget);
        first.merge(summaryOf({middle, recording.entries.end()}, recording.budget / 3));
        ASSERT_EQ(first.entryCount(), recording.entries.size()) << recording.name;
        ASSERT_LE(first.cellCount(), recording.budget) << recording.name;
        for (const std::int8_t source : first.sources()) {
            std::uint32_t count = 0;
            std::int32_t lastId = 0;
            for (const Entry& entry : recording.entries) {
                if (entry.source == source) {
                    ++count;
                    lastId = std::max(lastId, entry.id);
                }
            }
            EXPECT_EQ(first.total(source).count, count) << recording.name;
            EXPECT_EQ(first.total(source).lastId, lastId) << recording.name;
        }
        const Cell total = first.total();
        expectBinsCountEveryEntry(first.bins(total.firstTime, total.lastTime + 1, 97),
                                  recording.entries, recording.name + ", merged");
    }
}

TEST(TimelineSummaryTest, GapsAreThePausesLongerThanTheThreshold) {
    for (const Recording& recording : recordings()) {
        const TimelineSummary summary = summaryOf(recording.entries, recording.budget);
        for (const std::int8_t source : summary.sources()) {
            std::vector<std::int64_t> times;
            for (const Entry& entry : recording.entries) {
                if (entry.source == source) {
                    times.push_back(entry.time);
                }
            }
            std::sort(times.begin(), times.end());
            const auto rhythm = summary.rhythm(source);
            // Every source here is regular: its usual interval is its period.
            EXPECT_EQ(rhythm.usualIntervalMs, static_cast<double>(times[1] - times[0]))
                << recording.name << ", source " << int(source);
            EXPECT_EQ(
                rhythm.gapThresholdMs,
                std::max<std::int64_t>(100, 4 * static_cast<std::int64_t>(rhythm.usualIntervalMs)));
            std::vector<std::pair<std::int64_t, std::int64_t>> expected;
            for (std::size_t i = 1; i < times.size(); ++i) {
                if (times[i] - times[i - 1] > rhythm.gapThresholdMs) {
                    expected.emplace_back(times[i - 1], times[i]);
                }
            }
            std::vector<std::pair<std::int64_t, std::int64_t>> found;
            for (const auto& gap : rhythm.gaps) {
                found.emplace_back(gap.from, gap.to);
            }
            ASSERT_EQ(rhythm.exact, summary.widthMs() - 1 <= rhythm.gapThresholdMs);
            if (recording.name == "pauses short of a gap") {
                ASSERT_EQ(summary.widthMs(), 64);
                ASSERT_TRUE(rhythm.exact);
            }
            if (rhythm.exact) {
                EXPECT_EQ(found, expected) << recording.name << ", source " << int(source);
            } else {
                // Cells wider than the threshold still find every pause longer than a cell.
                for (const auto& gap : expected) {
                    if (gap.second - gap.first >= 2 * summary.widthMs()) {
                        EXPECT_NE(std::find(found.begin(), found.end(), gap), found.end());
                    }
                }
            }
        }
        if (recording.name == "regular") {
            // The pauses put into the recording, and nothing else.
            EXPECT_EQ(summary.rhythm(1).gaps.size(), 1u);
            EXPECT_EQ(summary.rhythm(2).gaps.size(), 0u);
            EXPECT_EQ(summary.rhythm(-3).gaps.size(), 1u);
        }
    }
}

TEST(TimelineSummaryTest, AroundAndOverlappingReachTheEntriesOfTheirStretch) {
    for (const Recording& recording : recordings()) {
        const TimelineSummary summary = summaryOf(recording.entries, recording.budget);
        std::mt19937 random(5);
        const Cell total = summary.total();
        for (int probe = 0; probe < 15; ++probe) {
            const std::int64_t at = std::uniform_int_distribution<std::int64_t>(
                total.firstTime - 50, total.lastTime + 50)(random);
            for (const std::int8_t source : summary.sources()) {
                std::vector<Entry> of;
                for (const Entry& entry : recording.entries) {
                    if (entry.source == source) {
                        of.push_back(entry);
                    }
                }
                std::stable_sort(of.begin(), of.end(),
                                 [](const Entry& a, const Entry& b) { return a.time < b.time; });
                const auto stretch = summary.around(source, at, 5, 7);
                const auto after = std::partition_point(
                    of.begin(), of.end(), [at](const Entry& e) { return e.time < at; });
                const auto first = after - std::min<std::ptrdiff_t>(5, after - of.begin());
                const auto last = after + std::min<std::ptrdiff_t>(7, of.end() - after);
                for (auto entry = first; entry != last; ++entry) {
                    ASSERT_GE(entry->time, stretch.from) << recording.name << " at " << at;
                    ASSERT_LT(entry->time, stretch.to) << recording.name << " at " << at;
                    ASSERT_GE(entry->id, stretch.firstId) << recording.name << " at " << at;
                    ASSERT_LE(entry->id, stretch.lastId) << recording.name << " at " << at;
                }
            }
            const Cell overlap = summary.overlapping(at, at + 300);
            for (const Entry& entry : recording.entries) {
                if (entry.time >= at && entry.time < at + 300) {
                    ASSERT_GE(entry.id, overlap.firstId) << recording.name << " at " << at;
                    ASSERT_LE(entry.id, overlap.lastId) << recording.name << " at " << at;
                }
            }
        }
    }
}

TEST(TimelineSummaryTest, CoarsenedCopyKeepsTheCountsInFewerCells) {
    const Recording recording = recordings()[0];
    const TimelineSummary summary = summaryOf(recording.entries, recording.budget);
    const TimelineSummary coarse = summary.coarsened(64);
    for (const std::int8_t source : summary.sources()) {
        std::size_t cells = 0;
        std::uint64_t counted = 0;
        coarse.forEachCell(source, [&](std::int64_t start, const Cell& cell) {
            ++cells;
            counted += cell.count;
            EXPECT_EQ(start % coarse.widthMs(), 0);
            EXPECT_GE(cell.firstTime, start);
            EXPECT_LT(cell.lastTime, start + coarse.widthMs());
        });
        EXPECT_LE(cells, 64u);
        EXPECT_EQ(counted, summary.total(source).count);
    }
    EXPECT_GT(coarse.widthMs(), summary.widthMs());
}

}  // namespace
