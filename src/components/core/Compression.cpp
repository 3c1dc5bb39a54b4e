#define ZSTD_STATIC_LINKING_ONLY  // ZSTD_getFrameHeader, ZSTD_decompressBound
#include "Compression.h"

#include <zstd.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace Korvane::Compression {

namespace {

struct CompressionContextDeleter {
    void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
};
struct DecompressionContextDeleter {
    void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

// The most that the blocks of one frame can produce, or ZSTD_CONTENTSIZE_ERROR when they do not
// make one whole frame. ZSTD_decompressBound can't tell: it takes a recorded size at its word.
unsigned long long blockBound(const std::uint8_t* data, std::size_t size) {
    ZSTD_frameHeader header;
    if (ZSTD_getFrameHeader(&header, data, size) != 0) {
        return ZSTD_CONTENTSIZE_ERROR;
    }
    if (header.frameType == ZSTD_skippableFrame) {
        return ZSTD_decompressBound(data, size);
    }
    enum : std::uint32_t { raw, rle, compressed };
    constexpr std::size_t blockHeaderSize = 3;
    unsigned long long bound = 0;
    std::size_t at = header.headerSize;
    for (bool last = false; !last;) {
        if (size - at < blockHeaderSize) {
            return ZSTD_CONTENTSIZE_ERROR;
        }
        const std::uint32_t block =
            data[at] | data[at + 1] << 8 | std::uint32_t(data[at + 2]) << 16;
        at += blockHeaderSize;
        last = (block & 1) != 0;
        const std::uint32_t type = (block >> 1) & 3;
        const std::size_t blockSize = block >> 3;
        const std::size_t stored = type == rle ? 1 : blockSize;  // a run stores its byte once
        if (type > compressed || size - at < stored) {
            return ZSTD_CONTENTSIZE_ERROR;
        }
        bound += type == compressed ? header.blockSizeMax : blockSize;
        at += stored;
    }
    return size - at == (header.checksumFlag ? 4u : 0u) ? bound : ZSTD_CONTENTSIZE_ERROR;
}

// One context of each kind per thread: making one costs far more than a small payload, and the
// playback thread decompresses while its owner may compress.
ZSTD_CCtx& compressionContext() {
    thread_local std::unique_ptr<ZSTD_CCtx, CompressionContextDeleter> context(ZSTD_createCCtx());
    if (!context) {
        throw std::bad_alloc();
    }
    return *context;
}

ZSTD_DCtx& decompressionContext() {
    thread_local std::unique_ptr<ZSTD_DCtx, DecompressionContextDeleter> context(ZSTD_createDCtx());
    if (!context) {
        throw std::bad_alloc();
    }
    return *context;
}

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error("Compressed payload is damaged: " + what + ".");
}

}  // namespace

namespace {

void compressInto(const std::uint8_t* data, std::size_t size, CompressionLevel level,
                  ByteArray& compressed) {
    ZSTD_CCtx& context = compressionContext();
    const int zstdLevel = level == Default ? ZSTD_CLEVEL_DEFAULT : static_cast<int>(level);
    // Parameters stay set on the context: only the level changes between calls. The content
    // size is recorded by default.
    ZSTD_CCtx_setParameter(&context, ZSTD_c_compressionLevel, zstdLevel);

    compressed.resize(ZSTD_compressBound(size));
    const std::size_t written =
        ZSTD_compress2(&context, compressed.data(), compressed.size(), data, size);
    if (ZSTD_isError(written)) {
        throw std::runtime_error(std::string("Compression failed: ") + ZSTD_getErrorName(written));
    }
    compressed.resize(written);
}

}  // namespace

ByteArray compress(const std::uint8_t* data, std::size_t size, CompressionLevel level) {
    ByteArray compressed;
    compressInto(data, size, level, compressed);
    return compressed;
}

ByteArray compress(const ByteArray& data, CompressionLevel level) {
    return compress(data.data(), data.size(), level);
}

void compress(const ByteArray& data, CompressionLevel level, ByteArray& into) {
    compressInto(data.data(), data.size(), level, into);
}

std::size_t uncompressedSize(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const unsigned long long contentSize = ZSTD_getFrameContentSize(data, size);
    if (contentSize == ZSTD_CONTENTSIZE_ERROR) {
        fail("not a zstd frame");
    }
    if (contentSize == ZSTD_CONTENTSIZE_UNKNOWN) {
        fail("the frame does not record its size");
    }
    // The blocks present bound what the frame can produce; a larger recorded size is a lie that
    // would otherwise make us allocate it.
    const unsigned long long bound = blockBound(data, size);
    if (bound == ZSTD_CONTENTSIZE_ERROR || contentSize > bound) {
        fail("the frame is truncated or its recorded size is wrong");
    }
    return static_cast<std::size_t>(contentSize);
}

void uncompress(const std::uint8_t* data, std::size_t size, std::uint8_t* into,
                std::size_t intoSize) {
    if (size == 0 && intoSize == 0) {
        return;
    }
    const std::size_t written =
        ZSTD_decompressDCtx(&decompressionContext(), into, intoSize, data, size);
    if (ZSTD_isError(written)) {
        fail(ZSTD_getErrorName(written));
    }
    if (written != intoSize) {
        fail("it decodes to fewer bytes than it records");
    }
}

ByteArray uncompress(const std::uint8_t* data, std::size_t size) {
    ByteArray bytes(uncompressedSize(data, size));
    uncompress(data, size, bytes.data(), bytes.size());
    return bytes;
}

ByteArray uncompress(const ByteArray& data) {
    return uncompress(data.data(), data.size());
}

}  // namespace Korvane::Compression
