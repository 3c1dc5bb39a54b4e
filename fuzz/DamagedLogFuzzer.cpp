// damaged_log: a genuine log file made by the library, damaged as disks, copies and killed
// writers damage files. The input is a short program of damage: flipped bits, overwritten bytes,
// broken page headers and database header fields, pages zeroed or copied over others, and
// truncation. The damaged file is then opened, read, written, played and sliced.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "sqlite/SqliteLogFile.h"

namespace {

using namespace Korvane::Fuzzing;
using namespace Korvane::Logging;

ByteArray sensorBytes(std::size_t size, std::uint32_t seed) {
    ByteArray bytes(size);
    std::uint32_t state = seed;
    for (std::size_t i = 0; i < size; ++i) {
        state = state * 1103515245u + 12345u;
        bytes[i] = static_cast<std::uint8_t>((i / 32) % 200 + (state >> 28));
    }
    return bytes;
}

// A small file with something in every table: three sources with properties, entries of
// several sizes (one spills over several pages, one is empty), resources with a thumbnail,
// bookmarks with and without payload, and metadata of each kind.
std::vector<std::uint8_t> buildLogFile(std::int8_t compressionLevel) {
    const std::filesystem::path file = scratchDir() / "base.log";
    {
        SqliteLogFile log(file.string(), "Europe/Berlin", "fuzz", "1.0", compressionLevel,
                          1700000000000);
        DataSource sources[] = {
            {-1, KV_LogDataSourceType{1}, "camera"},
            {-1, KV_LogDataSourceType{2}, "lidar"},
            {-1, KV_LogDataSourceType{2}, "radar"},
        };
        for (DataSource& source : sources) {
            log.addDataSource(source);
        }
        log.addDataSourceProperty({sources[0].id, "rate", PropertyValue{std::int64_t{30}}});
        log.addDataSourceProperty({sources[1].id, "range", PropertyValue{120.5}});
        log.addDataSourceProperty({sources[2].id, "model", PropertyValue{std::string("r7")}});
        for (int i = 0; i < 24; ++i) {
            const std::size_t size = i == 5 ? 9000 : i == 7 ? 0 : static_cast<std::size_t>(i) * 37;
            // One timestamp runs backwards, as clocks of recorders do.
            const std::int64_t time = 1700000000000 + (i == 11 ? -5 : i * 10);
            log.logData({0, sources[i % 3].id, i % 2, sensorBytes(size, i + 1u), time});
        }
        log.addResource("calibration", sensorBytes(700, 99));
        log.setThumbnail(sensorBytes(150, 7));
        log.addBookmark({2, "start", "first mark", sensorBytes(20, 3)});
        log.addBookmark({9, "middle", "", {}});
        log.addBookmark({23, "end", "last", sensorBytes(5, 4)});
        log.addMetadata("vehicle", PropertyValue{std::string("test car")});
        log.addMetadata("run", PropertyValue{std::int64_t{42}});
        log.addMetadata("scale", PropertyValue{0.25});
    }
    std::vector<std::uint8_t> bytes = readFile(file);
    clearScratchDir();
    return bytes;
}

std::size_t pageSizeOf(const std::vector<std::uint8_t>& file) {
    if (file.size() < 100) {
        return 4096;
    }
    const std::size_t size = static_cast<std::size_t>(file[16]) << 8 | file[17];
    return size == 1 ? 65536 : std::max<std::size_t>(size, 512);
}

// Applies one step of damage chosen by the input.
void damage(std::vector<std::uint8_t>& file, std::size_t pageSize, FuzzedDataProvider& input) {
    if (file.empty()) {
        return;
    }
    const std::size_t pages = (file.size() + pageSize - 1) / pageSize;
    const auto anywhere = [&] {
        return input.ConsumeIntegralInRange<std::size_t>(0, file.size() - 1);
    };
    const auto pageStart = [&] {
        return input.ConsumeIntegralInRange<std::size_t>(0, pages - 1) * pageSize;
    };
    switch (input.ConsumeIntegralInRange(0, 7)) {
    case 0: {  // one bit flipped
        const std::size_t at = anywhere();
        file[at] ^= static_cast<std::uint8_t>(1u << input.ConsumeIntegralInRange(0, 7));
        break;
    }
    case 1: {  // a few bytes overwritten
        const std::size_t at = anywhere();
        const std::vector<std::uint8_t> bytes =
            input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegralInRange<std::size_t>(1, 16));
        std::copy_n(bytes.begin(), std::min(bytes.size(), file.size() - at), file.begin() + at);
        break;
    }
    case 2:  // cut short
        file.resize(anywhere());
        break;
    case 3: {  // a byte of a b-tree page header, which says what the page holds
        const std::size_t page = pageStart();
        const std::size_t header = page == 0 ? 100 : 0;
        const std::size_t at = page + header + input.ConsumeIntegralInRange<std::size_t>(0, 11);
        if (at < file.size()) {
            file[at] = input.ConsumeIntegral<std::uint8_t>();
        }
        break;
    }
    case 4: {  // a byte of the database header: sizes, counts, free list, schema cookie
        const std::size_t at = input.ConsumeIntegralInRange<std::size_t>(16, 99);
        if (at < file.size()) {
            file[at] = input.ConsumeIntegral<std::uint8_t>();
        }
        break;
    }
    case 5: {  // a page of zeros, as a lost write leaves it
        const std::size_t page = pageStart();
        std::fill(file.begin() + page, file.begin() + std::min(file.size(), page + pageSize), 0);
        break;
    }
    case 6: {  // one page written over another, as a misdirected write leaves it
        const std::size_t from = pageStart();
        const std::size_t to = pageStart();
        const std::size_t count = std::min({pageSize, file.size() - from, file.size() - to});
        std::copy_n(file.begin() + from, count, file.begin() + to);
        break;
    }
    default:  // grown by garbage, as a write past the end leaves it
        file.resize(file.size() + input.ConsumeIntegralInRange<std::size_t>(1, 2 * pageSize),
                    input.ConsumeIntegral<std::uint8_t>());
        break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::vector<std::uint8_t> plain = buildLogFile(0);
    static const std::vector<std::uint8_t> compressed = buildLogFile(-1);

    FuzzedDataProvider input(data, size);
    std::vector<std::uint8_t> file = input.ConsumeBool() ? compressed : plain;
    const std::size_t pageSize = pageSizeOf(file);
    const int steps = input.ConsumeIntegralInRange(1, 8);
    for (int i = 0; i < steps && input.remaining_bytes() > 0; ++i) {
        damage(file, pageSize, input);
    }

    const std::filesystem::path path = scratchDir() / "damaged.log";
    writeFile(path, file.data(), file.size());
    visitLogFile(path, true);
    clearScratchDir();
    return 0;
}
