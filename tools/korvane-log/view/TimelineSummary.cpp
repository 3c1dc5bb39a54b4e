#include "TimelineSummary.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace KorvaneLog::View {

namespace {

constexpr std::size_t sourceSlots = 256;  // one for each value of a signed 8-bit id

// Timestamps that a request may name; beyond them, cell arithmetic could overflow.
constexpr std::int64_t farthestTime = std::int64_t{1} << 53;

std::int64_t floorDiv(std::int64_t value, std::int64_t divisor) {
    const std::int64_t quotient = value / divisor;
    return (value % divisor != 0 && (value < 0) != (divisor < 0)) ? quotient - 1 : quotient;
}

std::size_t slotOf(std::int8_t source) {
    return static_cast<std::uint8_t>(source);
}

std::int64_t clampTime(std::int64_t time) {
    return std::clamp(time, -farthestTime, farthestTime);
}

}  // namespace

void Cell::add(std::int32_t id, std::int64_t timestamp, std::uint64_t storedBytes) {
    if (count == 0) {
        firstId = lastId = id;
        firstTime = lastTime = timestamp;
    } else {
        firstId = std::min(firstId, id);
        lastId = std::max(lastId, id);
        firstTime = std::min(firstTime, timestamp);
        lastTime = std::max(lastTime, timestamp);
    }
    ++count;
    bytes += storedBytes;
}

void Cell::add(const Cell& other) {
    if (other.count == 0) {
        return;
    }
    if (count == 0) {
        *this = other;
        return;
    }
    count += other.count;
    bytes += other.bytes;
    firstId = std::min(firstId, other.firstId);
    lastId = std::max(lastId, other.lastId);
    firstTime = std::min(firstTime, other.firstTime);
    lastTime = std::max(lastTime, other.lastTime);
}

TimelineSummary::TimelineSummary(std::int64_t widthMs, std::size_t cellBudget, bool fixedWidth)
    : width(std::max<std::int64_t>(widthMs, 1)),
      cellBudget(std::max<std::size_t>(cellBudget, runLength)),
      fixedWidth(fixedWidth),
      bySource(sourceSlots) {}

template <typename Visit>
void TimelineSummary::eachCell(const SourceCells& of, std::int64_t from, std::int64_t to,
                               Visit visit) {
    for (auto run = of.runs.lower_bound(floorDiv(from, runLength)); run != of.runs.end(); ++run) {
        const std::int64_t start = run->first * runLength;
        if (start > to) {
            return;
        }
        // Written so that no difference overflows, whatever the indexes.
        const std::int64_t first = from <= start ? 0 : from - start;
        const std::int64_t last = to >= start + (runLength - 1) ? runLength - 1 : to - start;
        for (std::int64_t i = first; i <= last; ++i) {
            if (run->second.cells[i].count > 0 && !visit(start + i, run->second.cells[i])) {
                return;
            }
        }
    }
}

template <typename Visit>
void TimelineSummary::eachCellBackward(const SourceCells& of, std::int64_t from, std::int64_t to,
                                       Visit visit) {
    for (auto run = of.runs.upper_bound(floorDiv(to, runLength)); run != of.runs.begin();) {
        --run;
        const std::int64_t start = run->first * runLength;
        if (start + (runLength - 1) < from) {
            return;
        }
        const std::int64_t first = from <= start ? 0 : from - start;
        const std::int64_t last = to >= start + (runLength - 1) ? runLength - 1 : to - start;
        for (std::int64_t i = last; i >= first; --i) {
            if (run->second.cells[i].count > 0 && !visit(start + i, run->second.cells[i])) {
                return;
            }
        }
    }
}

TimelineSummary::SourceCells& TimelineSummary::cellsOf(std::int8_t source) {
    std::unique_ptr<SourceCells>& slot = bySource[slotOf(source)];
    if (!slot) {
        slot = std::make_unique<SourceCells>();
        ++sourceCount;
    }
    return *slot;
}

const TimelineSummary::SourceCells* TimelineSummary::find(std::int8_t source) const {
    return bySource[slotOf(source)].get();
}

std::int64_t TimelineSummary::indexOf(std::int64_t timestamp) const {
    return floorDiv(timestamp, width);
}

void TimelineSummary::addCell(SourceCells& of, std::int64_t index, const Cell& cell) {
    const std::int64_t key = floorDiv(index, runLength);
    // Timestamps nearly always grow with ids, so an entry mostly lands in the run of the one
    // before it: no search.
    if (of.last == nullptr || of.lastKey != key) {
        const auto [run, made] = of.runs.try_emplace(key);
        cells += made ? runLength : 0;
        of.last = &run->second;
        of.lastKey = key;
    }
    of.last->cells[index - key * runLength].add(cell);
}

void TimelineSummary::add(std::int8_t source, std::int32_t id, std::int64_t timestamp,
                          std::uint64_t storedBytes) {
    Cell entry;
    entry.add(id, timestamp, storedBytes);
    SourceCells& of = cellsOf(source);
    addCell(of, indexOf(timestamp), entry);
    of.total.add(entry);
    ++entries;
    keepWithinBudget();
}

void TimelineSummary::keepWithinBudget() {
    // A source takes one run at least, however wide its cells.
    const std::size_t floor = sourceCount * runLength;
    while (!fixedWidth && cells > std::max(cellBudget, floor) && width < farthestTime) {
        widen(width * 2);
    }
}

void TimelineSummary::widen(std::int64_t newWidth) {
    const std::int64_t ratio = newWidth / width;
    cells = 0;
    for (const std::unique_ptr<SourceCells>& of : bySource) {
        if (!of) {
            continue;
        }
        SourceCells wider;
        wider.total = of->total;
        eachCell(*of, std::numeric_limits<std::int64_t>::min(),
                 std::numeric_limits<std::int64_t>::max(),
                 [this, &wider, ratio](std::int64_t index, const Cell& cell) {
                     addCell(wider, floorDiv(index, ratio), cell);
                     return true;
                 });
        *of = std::move(wider);
    }
    width = newWidth;
}

void TimelineSummary::merge(const TimelineSummary& other) {
    if (other.width > width) {
        widen(other.width);
    }
    const std::int64_t ratio = width / other.width;
    for (std::size_t slot = 0; slot < sourceSlots; ++slot) {
        const SourceCells* theirs = other.bySource[slot].get();
        if (theirs == nullptr) {
            continue;
        }
        SourceCells& ours = cellsOf(static_cast<std::int8_t>(slot));
        eachCell(*theirs, std::numeric_limits<std::int64_t>::min(),
                 std::numeric_limits<std::int64_t>::max(),
                 [this, &ours, ratio](std::int64_t index, const Cell& cell) {
                     addCell(ours, floorDiv(index, ratio), cell);
                     return true;
                 });
        ours.total.add(theirs->total);
    }
    entries += other.entries;
    keepWithinBudget();
}

std::vector<std::int8_t> TimelineSummary::sources() const {
    std::vector<std::int8_t> ids;
    for (std::size_t slot = 0; slot < sourceSlots; ++slot) {
        if (bySource[slot]) {
            ids.push_back(static_cast<std::int8_t>(slot));
        }
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

Cell TimelineSummary::total(std::int8_t source) const {
    const SourceCells* of = find(source);
    return of != nullptr ? of->total : Cell{};
}

Cell TimelineSummary::total() const {
    Cell all;
    for (const std::unique_ptr<SourceCells>& of : bySource) {
        if (of) {
            all.add(of->total);
        }
    }
    return all;
}

Bins TimelineSummary::bins(std::int64_t from, std::int64_t to, std::size_t maxBins) const {
    Bins result;
    from = clampTime(from);
    to = clampTime(to);
    result.sources = sources();
    result.counts.resize(result.sources.size());
    result.bytes.resize(result.sources.size());
    if (to <= from || maxBins == 0) {
        result.from = from;
        result.width = width;
        return result;
    }
    const std::int64_t firstIndex = indexOf(from);
    const std::int64_t lastIndex = indexOf(to - 1);
    const std::int64_t spanCells = lastIndex - firstIndex + 1;
    const auto bins = static_cast<std::int64_t>(maxBins);
    std::int64_t cellsPerBin = std::max<std::int64_t>(1, (spanCells + bins - 1) / bins);
    std::int64_t startIndex = floorDiv(firstIndex, cellsPerBin) * cellsPerBin;
    std::int64_t binCount = (lastIndex - startIndex) / cellsPerBin + 1;
    // Starting at a multiple of the bin's width can take one bin more than asked for.
    while (binCount > bins) {
        ++cellsPerBin;
        startIndex = floorDiv(firstIndex, cellsPerBin) * cellsPerBin;
        binCount = (lastIndex - startIndex) / cellsPerBin + 1;
    }
    result.from = startIndex * width;
    result.width = cellsPerBin * width;
    result.count = static_cast<std::size_t>(binCount);
    for (std::size_t i = 0; i < result.sources.size(); ++i) {
        std::vector<std::uint32_t>& counts = result.counts[i];
        std::vector<std::uint64_t>& bytes = result.bytes[i];
        counts.assign(result.count, 0);
        bytes.assign(result.count, 0);
        eachCell(*find(result.sources[i]), startIndex, startIndex + binCount * cellsPerBin - 1,
                 [&](std::int64_t index, const Cell& cell) {
                     const auto bin = static_cast<std::size_t>((index - startIndex) / cellsPerBin);
                     counts[bin] += cell.count;
                     bytes[bin] += cell.bytes;
                     return true;
                 });
    }
    return result;
}

Cell TimelineSummary::overlapping(std::int64_t from, std::int64_t to) const {
    Cell all;
    from = clampTime(from);
    to = clampTime(to);
    if (to <= from) {
        return all;
    }
    for (const std::unique_ptr<SourceCells>& of : bySource) {
        if (of) {
            eachCell(*of, indexOf(from), indexOf(to - 1), [&all](std::int64_t, const Cell& cell) {
                all.add(cell);
                return true;
            });
        }
    }
    return all;
}

Stretch TimelineSummary::around(std::int8_t source, std::int64_t at, std::uint64_t before,
                                std::uint64_t after) const {
    Stretch stretch;
    const SourceCells* of = find(source);
    if (of == nullptr) {
        return stretch;
    }
    const std::int64_t index = indexOf(clampTime(at));
    // The cell of `at` may hold entries on either side of it; whole cells beyond it on each
    // side then make up the number asked for.
    Cell combined;
    std::int64_t firstIndex = index;
    std::int64_t lastIndex = index;
    eachCell(*of, index, index, [&combined](std::int64_t, const Cell& cell) {
        combined.add(cell);
        return false;
    });
    std::uint64_t seen = 0;
    eachCell(*of, index + 1, std::numeric_limits<std::int64_t>::max(),
             [&](std::int64_t cellIndex, const Cell& cell) {
                 if (seen >= after) {
                     return false;
                 }
                 combined.add(cell);
                 seen += cell.count;
                 lastIndex = cellIndex;
                 return true;
             });
    seen = 0;
    eachCellBackward(*of, std::numeric_limits<std::int64_t>::min(), index - 1,
                     [&](std::int64_t cellIndex, const Cell& cell) {
                         if (seen >= before) {
                             return false;
                         }
                         combined.add(cell);
                         seen += cell.count;
                         firstIndex = cellIndex;
                         return true;
                     });
    stretch.from = firstIndex * width;
    stretch.to = (lastIndex + 1) * width;
    stretch.firstId = combined.firstId;
    stretch.lastId = combined.count > 0 ? combined.lastId : -1;
    stretch.count = combined.count;
    return stretch;
}

Rhythm TimelineSummary::rhythm(std::int8_t source, double factor, std::int64_t minimumGapMs) const {
    Rhythm rhythm;
    const SourceCells* of = find(source);
    if (of == nullptr) {
        return rhythm;
    }
    constexpr std::int64_t lowest = std::numeric_limits<std::int64_t>::min();
    constexpr std::int64_t highest = std::numeric_limits<std::int64_t>::max();
    std::vector<std::pair<double, std::uint64_t>> intervals;  // an interval and how often
    bool started = false;
    std::int64_t previousEnd = 0;  // the last timestamp of the cell before
    eachCell(*of, lowest, highest, [&](std::int64_t, const Cell& cell) {
        if (cell.count > 1) {
            intervals.emplace_back(
                static_cast<double>(cell.lastTime - cell.firstTime) / (cell.count - 1),
                cell.count - 1);
        }
        if (started) {
            intervals.emplace_back(static_cast<double>(cell.firstTime - previousEnd), 1);
        }
        started = true;
        previousEnd = cell.lastTime;
        return true;
    });
    std::sort(intervals.begin(), intervals.end());
    std::uint64_t weight = 0;
    for (const auto& interval : intervals) {
        weight += interval.second;
    }
    std::uint64_t passed = 0;
    for (const auto& [interval, times] : intervals) {
        passed += times;
        if (2 * passed >= weight) {
            rhythm.usualIntervalMs = interval;
            break;
        }
    }
    rhythm.gapThresholdMs = std::max<std::int64_t>(
        minimumGapMs, static_cast<std::int64_t>(std::ceil(factor * rhythm.usualIntervalMs)));
    // Two entries in one cell lie less than a cell's width apart: the gaps between cells are
    // all the gaps when the width is at most one above the threshold.
    rhythm.exact = width - 1 <= rhythm.gapThresholdMs;
    started = false;
    eachCell(*of, lowest, highest, [&](std::int64_t, const Cell& cell) {
        if (started && cell.firstTime - previousEnd > rhythm.gapThresholdMs) {
            rhythm.gaps.push_back({previousEnd, cell.firstTime});
        }
        started = true;
        previousEnd = cell.lastTime;
        return true;
    });
    return rhythm;
}

void TimelineSummary::forEachCell(
    std::int8_t source, const std::function<void(std::int64_t, const Cell&)>& visit) const {
    if (const SourceCells* of = find(source)) {
        eachCell(*of, std::numeric_limits<std::int64_t>::min(),
                 std::numeric_limits<std::int64_t>::max(),
                 [this, &visit](std::int64_t index, const Cell& cell) {
                     visit(index * width, cell);
                     return true;
                 });
    }
}

TimelineSummary TimelineSummary::coarsened(std::size_t maxCellsPerSource) const {
    maxCellsPerSource = std::max<std::size_t>(maxCellsPerSource, 1);
    const auto fits = [this, maxCellsPerSource](std::int64_t ratio) {
        for (const std::unique_ptr<SourceCells>& of : bySource) {
            if (!of) {
                continue;
            }
            std::size_t distinct = 0;
            std::int64_t last = 0;
            eachCell(*of, std::numeric_limits<std::int64_t>::min(),
                     std::numeric_limits<std::int64_t>::max(),
                     [&](std::int64_t index, const Cell&) {
                         const std::int64_t coarse = floorDiv(index, ratio);
                         if (distinct == 0 || coarse != last) {
                             ++distinct;
                             last = coarse;
                         }
                         return distinct <= maxCellsPerSource;
                     });
            if (distinct > maxCellsPerSource) {
                return false;
            }
        }
        return true;
    };
    std::int64_t ratio = 1;
    while (!fits(ratio)) {
        ratio *= 2;
    }
    TimelineSummary coarse(width * ratio, cellBudget, true);
    coarse.merge(*this);
    return coarse;
}

}  // namespace KorvaneLog::View
