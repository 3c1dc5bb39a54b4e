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
      cellBudget(std::max<std::size_t>(cellBudget, 1)),
      fixedWidth(fixedWidth),
      bySource(sourceSlots) {}

TimelineSummary::SourceCells& TimelineSummary::cellsOf(std::int8_t source) {
    std::unique_ptr<SourceCells>& slot = bySource[slotOf(source)];
    if (!slot) {
        slot = std::make_unique<SourceCells>();
        slot->last = slot->cells.end();
    }
    return *slot;
}

const TimelineSummary::SourceCells* TimelineSummary::find(std::int8_t source) const {
    return bySource[slotOf(source)].get();
}

std::int64_t TimelineSummary::indexOf(std::int64_t timestamp) const {
    return floorDiv(timestamp, width);
}

void TimelineSummary::add(std::int8_t source, std::int32_t id, std::int64_t timestamp,
                          std::uint64_t storedBytes) {
    SourceCells& of = cellsOf(source);
    const std::int64_t index = indexOf(timestamp);
    // Timestamps nearly always grow with ids, so an entry mostly lands in the cell of the one
    // before it, or in the next one: both without a search.
    if (of.last == of.cells.end() || of.last->first != index) {
        const auto hint = of.last != of.cells.end() && of.last->first < index ? std::next(of.last)
                                                                              : of.cells.end();
        const std::size_t before = of.cells.size();
        of.last = of.cells.try_emplace(hint, index);
        cells += of.cells.size() - before;
    }
    of.last->second.add(id, timestamp, storedBytes);
    of.total.add(id, timestamp, storedBytes);
    ++entries;
    if (!fixedWidth && cells > cellBudget) {
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
        Cells wider;
        for (const auto& [index, cell] : of->cells) {
            wider[floorDiv(index, ratio)].add(cell);
        }
        of->cells = std::move(wider);
        of->last = of->cells.end();
        cells += of->cells.size();
    }
    width = newWidth;
    if (!fixedWidth && cells > cellBudget) {
        widen(width * 2);
    }
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
        for (const auto& [index, cell] : theirs->cells) {
            const std::size_t before = ours.cells.size();
            ours.cells[floorDiv(index, ratio)].add(cell);
            cells += ours.cells.size() - before;
        }
        ours.last = ours.cells.end();
        ours.total.add(theirs->total);
    }
    entries += other.entries;
    if (!fixedWidth && cells > cellBudget) {
        widen(width * 2);
    }
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
    const std::int64_t endIndex = startIndex + binCount * cellsPerBin;
    result.from = startIndex * width;
    result.width = cellsPerBin * width;
    result.count = static_cast<std::size_t>(binCount);
    for (std::size_t i = 0; i < result.sources.size(); ++i) {
        std::vector<std::uint32_t>& counts = result.counts[i];
        std::vector<std::uint64_t>& bytes = result.bytes[i];
        counts.assign(result.count, 0);
        bytes.assign(result.count, 0);
        const Cells& of = find(result.sources[i])->cells;
        for (auto cell = of.lower_bound(startIndex); cell != of.end() && cell->first < endIndex;
             ++cell) {
            const auto bin = static_cast<std::size_t>((cell->first - startIndex) / cellsPerBin);
            counts[bin] += cell->second.count;
            bytes[bin] += cell->second.bytes;
        }
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
    const std::int64_t firstIndex = indexOf(from);
    const std::int64_t lastIndex = indexOf(to - 1);
    for (const std::unique_ptr<SourceCells>& of : bySource) {
        if (!of) {
            continue;
        }
        for (auto cell = of->cells.lower_bound(firstIndex);
             cell != of->cells.end() && cell->first <= lastIndex; ++cell) {
            all.add(cell->second);
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
    auto next = of->cells.lower_bound(index);
    if (next != of->cells.end() && next->first == index) {
        combined.add(next->second);
        ++next;
    }
    for (std::uint64_t seen = 0; next != of->cells.end() && seen < after; ++next) {
        combined.add(next->second);
        seen += next->second.count;
        lastIndex = next->first;
    }
    auto previous = of->cells.lower_bound(index);
    for (std::uint64_t seen = 0; previous != of->cells.begin() && seen < before;) {
        --previous;
        combined.add(previous->second);
        seen += previous->second.count;
        firstIndex = previous->first;
    }
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
    std::vector<std::pair<double, std::uint64_t>> intervals;  // an interval and how often
    const Cell* previous = nullptr;
    if (of != nullptr) {
        for (const auto& [index, cell] : of->cells) {
            if (cell.count > 1) {
                intervals.emplace_back(
                    static_cast<double>(cell.lastTime - cell.firstTime) / (cell.count - 1),
                    cell.count - 1);
            }
            if (previous != nullptr) {
                intervals.emplace_back(static_cast<double>(cell.firstTime - previous->lastTime), 1);
            }
            previous = &cell;
        }
    }
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
    previous = nullptr;
    if (of != nullptr) {
        for (const auto& [index, cell] : of->cells) {
            if (previous != nullptr &&
                cell.firstTime - previous->lastTime > rhythm.gapThresholdMs) {
                rhythm.gaps.push_back({previous->lastTime, cell.firstTime});
            }
            previous = &cell;
        }
    }
    return rhythm;
}

void TimelineSummary::forEachCell(
    std::int8_t source, const std::function<void(std::int64_t, const Cell&)>& visit) const {
    if (const SourceCells* of = find(source)) {
        for (const auto& [index, cell] : of->cells) {
            visit(index * width, cell);
        }
    }
}

TimelineSummary TimelineSummary::coarsened(std::size_t maxCellsPerSource) const {
    std::int64_t ratio = 1;
    const auto fits = [this, maxCellsPerSource](std::int64_t ratio) {
        for (const std::unique_ptr<SourceCells>& of : bySource) {
            if (!of) {
                continue;
            }
            std::size_t distinct = 0;
            std::int64_t last = std::numeric_limits<std::int64_t>::min();
            for (const auto& entry : of->cells) {
                const std::int64_t index = floorDiv(entry.first, ratio);
                if (distinct == 0 || index != last) {
                    ++distinct;
                    last = index;
                }
            }
            if (distinct > maxCellsPerSource) {
                return false;
            }
        }
        return true;
    };
    while (!fits(ratio)) {
        ratio *= 2;
    }
    TimelineSummary coarse(width * ratio, cellBudget, true);
    coarse.merge(*this);
    return coarse;
}

}  // namespace KorvaneLog::View
