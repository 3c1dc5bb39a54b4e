// damaged_log: a log file of the open_file seeds, damaged as disks, copies and killed writers
// damage files, then opened, read and played. The input is a short program of damage.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "FuzzSupport.h"

namespace {

std::vector<std::uint8_t> seed(const char* name) {
    std::ifstream in(std::string(KORVANE_FUZZ_CORPUS "/open_file/") + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void damage(std::vector<std::uint8_t>& file, std::size_t pageSize, FuzzedDataProvider& in) {
    const auto upTo = [&](std::size_t n) { return in.ConsumeIntegralInRange<std::size_t>(0, n); };
    const int kind = in.ConsumeIntegralInRange(0, 7);
    const std::size_t at = kind == 7   ? 0
                           : kind == 4 ? 16 + upTo(83)
                           : kind < 3  ? upTo(file.size() - 1)
                                       : upTo((file.size() - 1) / pageSize) * pageSize;
    if (kind == 0) {  // a bit flipped
        file[at] ^= std::uint8_t(1u << in.ConsumeIntegralInRange(0, 7));
    } else if (kind == 1) {  // a few bytes overwritten
        const auto bytes = in.ConsumeBytes<std::uint8_t>(1 + upTo(15));
        std::copy_n(bytes.begin(), std::min(bytes.size(), file.size() - at), file.begin() + at);
    } else if (kind == 2) {  // cut short
        file.resize(at);
    } else if (kind == 3 || kind == 4) {  // a byte of a b-tree page header or the file header
        const std::size_t byte = kind == 4 ? at : at + (at == 0 ? 100 : 0) + upTo(11);
        file[std::min(byte, file.size() - 1)] = in.ConsumeIntegral<std::uint8_t>();
    } else if (kind == 5) {  // a page of zeros, as a lost write leaves it
        std::fill_n(file.begin() + at, std::min(pageSize, file.size() - at), 0);
    } else if (kind == 6) {  // one page over another, as a misdirected write leaves it
        const std::size_t to = upTo((file.size() - 1) / pageSize) * pageSize;
        std::copy_n(file.begin() + at, std::min({pageSize, file.size() - at, file.size() - to}),
                    file.begin() + to);
    } else {  // grown by garbage, as a write past the end leaves it
        file.resize(file.size() + 1 + upTo(2 * pageSize - 1), in.ConsumeIntegral<std::uint8_t>());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::vector<std::uint8_t> plain = seed("log-level0-page512.log"),
                                           compressed = seed("log-level3-page4096.log");
    FuzzedDataProvider in(data, size);
    std::vector<std::uint8_t> file = in.ConsumeBool() ? compressed : plain;
    const std::size_t pageSize = std::size_t(file.at(16) << 8 | file.at(17));
    for (int steps = in.ConsumeIntegralInRange(1, 8);
         steps > 0 && !file.empty() && in.remaining_bytes() > 0; --steps) {
        damage(file, pageSize, in);
    }
    Korvane::Fuzzing::visitLogFile(file);
    return 0;
}
