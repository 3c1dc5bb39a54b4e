#define ZSTD_STATIC_LINKING_ONLY  // ZSTD_decompressBound
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

ByteArray uncompress(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return {};
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
    const unsigned long long bound = ZSTD_decompressBound(data, size);
    if (bound == ZSTD_CONTENTSIZE_ERROR || contentSize > bound) {
        fail("the frame is truncated or its recorded size is wrong");
    }

    ByteArray bytes(static_cast<std::size_t>(contentSize));
    const std::size_t written =
        ZSTD_decompressDCtx(&decompressionContext(), bytes.data(), bytes.size(), data, size);
    if (ZSTD_isError(written)) {
        fail(ZSTD_getErrorName(written));
    }
    if (written != contentSize) {
        fail("it decodes to fewer bytes than it records");
    }
    return bytes;
}

ByteArray uncompress(const ByteArray& data) {
    return uncompress(data.data(), data.size());
}

}  // namespace Korvane::Compression
