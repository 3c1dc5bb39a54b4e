#include <gtest/gtest.h>
#include <zstd.h>

#include "TempDir.h"
#include "components/core/Compression.h"

namespace Korvane {
namespace {

using Compression::ByteArray;
using Compression::compress;
using Compression::uncompress;

TEST(CompressionTest, FramesRecordTheirSizeAndDamagedOnesAreRefused) {
    const ByteArray sample = Testing::sensorBytes(1 << 20);
    for (const ByteArray& original : {ByteArray{}, sample}) {
        for (const auto level : {Compression::Default, Compression::Smallest}) {
            const ByteArray frame = compress(original, level);
            EXPECT_EQ(ZSTD_getFrameContentSize(frame.data(), frame.size()), original.size());
            EXPECT_EQ(uncompress(frame), original);
        }
    }
    EXPECT_LT(compress(sample, Compression::Smallest).size(),
              compress(sample, Compression::Fastest).size());
    EXPECT_EQ(compress(sample, Compression::Default),
              compress(sample, Compression::CompressionLevel{3}));
    EXPECT_TRUE(uncompress(ByteArray{}).empty());

    const ByteArray frame = compress(sample, Compression::Default);
    ZSTD_CCtx* context = ZSTD_createCCtx();
    ZSTD_CCtx_setParameter(context, ZSTD_c_contentSizeFlag, 0);
    ByteArray unsized(ZSTD_compressBound(sample.size()));
    unsized.resize(
        ZSTD_compress2(context, unsized.data(), unsized.size(), sample.data(), sample.size()));
    ZSTD_freeCCtx(context);
    const std::pair<ByteArray, std::string> damaged[] = {
        {{'h', 'i'}, "not a zstd frame"},
        {unsized, "the frame does not record its size"},
        {ByteArray(frame.begin(), frame.end() - 10),
         "the frame is truncated or its recorded size is wrong"},
        // Headers that record 2^40 bytes, then one raw block of one byte: a window descriptor
        // makes the recorded size run into the block, which leaves no block; a single segment
        // leaves a whole frame that lies.
        {{0x28, 0xb5, 0x2f, 0xfd, 0xc0, 0, 0, 0, 0, 0, 1, 0, 0, 9, 0, 0, 'x'},
         "the frame is truncated or its recorded size is wrong"},
        {{0x28, 0xb5, 0x2f, 0xfd, 0xe0, 0, 0, 0, 0, 0, 1, 0, 0, 9, 0, 0, 'x'},
         "the frame is truncated or its recorded size is wrong"},
    };
    for (const auto& [input, reason] : damaged) {
        try {
            uncompress(input);
            ADD_FAILURE() << "accepted " << reason;
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(error.what(), "Compressed payload is damaged: " + reason + ".");
        }
    }
}

}  // namespace
}  // namespace Korvane
