#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

// What `view` and `report` draw: the entries of a log file counted per source and per stretch
// of time, computed in one pass over the file and kept small whatever the file's size.
namespace KorvaneLog::View {

// The entries of one source whose timestamps fall into one stretch of time: how many, their
// stored bytes, and the lowest and highest of their ids and timestamps.
struct Cell {
    std::uint32_t count = 0;
    std::int32_t firstId = 0;
    std::int32_t lastId = 0;
    std::uint64_t bytes = 0;
    std::int64_t firstTime = 0;
    std::int64_t lastTime = 0;

    void add(std::int32_t id, std::int64_t timestamp, std::uint64_t storedBytes);
    void add(const Cell& other);
};

// Counts of entries and of their bytes per source over `count` equal stretches of time, the
// first starting at `from`; `counts` and `bytes` hold `count` numbers for each source of
// `sources`, in that order.
struct Bins {
    std::int64_t from = 0;
    std::int64_t width = 1;
    std::size_t count = 0;
    std::vector<std::int8_t> sources;
    std::vector<std::vector<std::uint32_t>> counts;
    std::vector<std::vector<std::uint64_t>> bytes;
};

// A stretch in which a source delivered nothing: from the timestamp of one of its entries to
// that of the next.
struct Gap {
    std::int64_t from = 0;
    std::int64_t to = 0;
};

// How regularly a source delivers: the usual time between two of its entries, how long a
// pause must be to count as a gap, and the gaps. `exact` is false when the cells are wider than
// the threshold, so that a gap shorter than a cell may be missing from `gaps`.
struct Rhythm {
    double usualIntervalMs = 0;
    std::int64_t gapThresholdMs = 0;
    std::vector<Gap> gaps;
    bool exact = true;
};

// The entries of a source around a moment: those with timestamps from `from` up to `to`
// (excluded) have ids between `firstId` and `lastId`; `count` of them are there.
struct Stretch {
    std::int64_t from = 0;
    std::int64_t to = 0;
    std::int32_t firstId = 0;
    std::int32_t lastId = -1;
    std::uint64_t count = 0;
};

// Entries counted per source in cells of `widthMs` milliseconds of their timestamps. Cells start
// at multiples of the width; only runs of cells near entries take memory. When more than
// `cellBudget` cells are held, the width doubles and neighbouring cells merge, so memory stays
// bounded however long the recording; a summary made with `fixedWidth` never widens.
//
// Nothing here assumes that timestamps grow with ids: cells are kept by timestamp, and each
// remembers the ids it saw, so that the rows of a stretch of time can be found by id later.
class TimelineSummary {
public:
    static constexpr std::size_t defaultCellBudget = std::size_t{1} << 19;

    explicit TimelineSummary(std::int64_t widthMs = 1, std::size_t cellBudget = defaultCellBudget,
                             bool fixedWidth = false);

    // Counts one entry.
    void add(std::int8_t source, std::int32_t id, std::int64_t timestamp,
             std::uint64_t storedBytes);
    // Counts the entries that `other` counted. Both widths must be the same power of two times
    // the smaller one; the result has the larger.
    void merge(const TimelineSummary& other);

    std::int64_t widthMs() const { return width; }
    std::uint64_t entryCount() const { return entries; }
    // The cells held in memory, with entries or not.
    std::size_t cellCount() const { return cells; }
    // The sources that have entries, in id order.
    std::vector<std::int8_t> sources() const;
    // All entries of `source` as one cell; empty when it has none.
    Cell total(std::int8_t source) const;
    // All entries of all sources as one cell.
    Cell total() const;

    // Counts for at most `maxBins` bins that cover [from, to). Each bin is a whole number of
    // cells, and bins start at multiples of their width, so that panning does not move them.
    Bins bins(std::int64_t from, std::int64_t to, std::size_t maxBins) const;

    // The cells of all sources that overlap [from, to) as one cell: which ids to read to find
    // every entry with a timestamp in that stretch.
    Cell overlapping(std::int64_t from, std::int64_t to) const;

    // The cells of `source` from the one that holds `at`, going back until `before` entries
    // precede `at` and forward until `after` entries follow it (or the source ends).
    Stretch around(std::int8_t source, std::int64_t at, std::uint64_t before,
                   std::uint64_t after) const;

    // The usual interval of `source` and its gaps longer than `factor` times that interval
    // and at least `minimumGapMs`.
    Rhythm rhythm(std::int8_t source, double factor = 4, std::int64_t minimumGapMs = 100) const;

    // Calls `visit` with the start of each cell of `source` that holds entries, in time order.
    void forEachCell(std::int8_t source,
                     const std::function<void(std::int64_t start, const Cell&)>& visit) const;

    // A copy whose width doubles until no source has more than `maxCellsPerSource` cells.
    TimelineSummary coarsened(std::size_t maxCellsPerSource) const;

private:
    // Cells in runs of consecutive indexes (timestamp / width, floored): a run is one allocation,
    // found without a search while entries come in time order, and widened in one pass.
    static constexpr std::int64_t runLength = 64;
    struct Run {
        Cell cells[runLength];
    };
    struct SourceCells {
        std::map<std::int64_t, Run> runs;  // by the first index of the run, / runLength
        Run* last = nullptr;               // the run that the previous entry went into
        std::int64_t lastKey = 0;
        Cell total;
    };

    SourceCells& cellsOf(std::int8_t source);
    const SourceCells* find(std::int8_t source) const;
    std::int64_t indexOf(std::int64_t timestamp) const;
    // Adds `cell` to the cell `index` of `of`, making its run when there is none.
    void addCell(SourceCells& of, std::int64_t index, const Cell& cell);
    void widen(std::int64_t newWidth);
    void keepWithinBudget();

    // Calls `visit(index, cell)` for the cells of `of` with entries from index `from` to `to`, in
    // order, until it returns false; `backward` goes from `to` down to `from` instead.
    template <typename Visit>
    static void eachCell(const SourceCells& of, std::int64_t from, std::int64_t to, Visit visit);
    template <typename Visit>
    static void eachCellBackward(const SourceCells& of, std::int64_t from, std::int64_t to,
                                 Visit visit);

    std::int64_t width;
    std::size_t cellBudget;
    bool fixedWidth;
    std::uint64_t entries = 0;
    std::size_t cells = 0;  // in runs, with entries or not
    std::size_t sourceCount = 0;
    // Indexed by the source id's bits; null for a source without entries.
    std::vector<std::unique_ptr<SourceCells>> bySource;
};

}  // namespace KorvaneLog::View
