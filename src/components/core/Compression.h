#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Korvane::Compression {

using ByteArray = std::vector<std::uint8_t>;

// A compression level: -1 is the codec's default, 1 to 9 trade speed for size. 0 means "store
// uncompressed" to the callers and is never passed here.
enum CompressionLevel : int {
    Default = -1,
    None = 0,
    Fastest = 1,
    Smallest = 9,
};

// Compresses `size` bytes at `data` into one self-describing zstd frame that records its content
// size. Each thread reuses one compression context.
ByteArray compress(const std::uint8_t* data, std::size_t size, CompressionLevel level);
ByteArray compress(const ByteArray& data, CompressionLevel level);
// The same frame, written over `into`, whose memory is reused: for callers that compress many
// payloads one after the other.
void compress(const ByteArray& data, CompressionLevel level, ByteArray& into);

// Restores the bytes that `compress` was given. An empty input gives an empty result. Throws
// `std::runtime_error` for input that is no single complete frame, whose content size is not
// recorded or is more than the frame can hold, or that does not decode to its recorded size.
ByteArray uncompress(const std::uint8_t* data, std::size_t size);
ByteArray uncompress(const ByteArray& data);

// The number of bytes that `uncompress` gives for the same input, read from the frame's header
// without decoding it. Throws as `uncompress` does for a frame whose size is not recorded or is
// more than its blocks can hold.
std::size_t uncompressedSize(const std::uint8_t* data, std::size_t size);
// Writes what `uncompress` gives into `into`, which holds exactly `intoSize` bytes, the
// `uncompressedSize` of the input. Throws as `uncompress` does; a frame that decodes to another
// size throws too, with `into` partly written.
void uncompress(const std::uint8_t* data, std::size_t size, std::uint8_t* into,
                std::size_t intoSize);

}  // namespace Korvane::Compression
