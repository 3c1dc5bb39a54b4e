#include <gtest/gtest.h>
#include <zstd.h>

#include <cstdio>
#include <thread>

#include <unistd.h>

#include "TempDir.h"
#include "components/core/Compression.h"

namespace Korvane::Compression {
namespace {

TEST(CompressionTest, RoundTripsEveryLevelAndSize) {
    const std::size_t sizes[] = {0, 1, 4096, 8u << 20};
    for (int level = -1; level <= 9; ++level) {
        if (level == 0) {
            continue;
        }
        for (std::size_t size : sizes) {
            SCOPED_TRACE("level " + std::to_string(level) + ", size " + std::to_string(size));
            const ByteArray original = Testing::sensorBytes(size, static_cast<std::uint32_t>(size));
            const ByteArray compressed = compress(original, static_cast<CompressionLevel>(level));
            ASSERT_FALSE(compressed.empty()) << "even nothing makes a frame";
            if (size >= 4096) {
                EXPECT_LT(compressed.size(), original.size());
            }
            EXPECT_EQ(ZSTD_getFrameContentSize(compressed.data(), compressed.size()), size);
            EXPECT_EQ(uncompress(compressed), original);
        }
    }
    EXPECT_TRUE(uncompress(ByteArray{}).empty());
}

TEST(CompressionTest, HigherLevelsCompressSmaller) {
    const ByteArray original = Testing::sensorBytes(1 << 20);
    EXPECT_LE(compress(original, Smallest).size(), compress(original, Fastest).size());
}

TEST(CompressionTest, DamagedInputIsRefusedWithAClearError) {
    const ByteArray original = Testing::sensorBytes(100000);
    const ByteArray frame = compress(original, Default);

    ByteArray truncated(frame.begin(), frame.end() - 10);
    ByteArray twoFrames = frame;
    twoFrames.insert(twoFrames.end(), frame.begin(), frame.end());
    ByteArray flipped = frame;
    flipped[flipped.size() / 2] ^= 0xff;
    flipped[flipped.size() / 2 + 1] ^= 0x5a;

    ZSTD_CCtx* context = ZSTD_createCCtx();
    ZSTD_CCtx_setParameter(context, ZSTD_c_contentSizeFlag, 0);
    ByteArray unsized(ZSTD_compressBound(original.size()));
    // The streaming end call leaves the content size out of the frame.
    ZSTD_outBuffer out{unsized.data(), unsized.size(), 0};
    ZSTD_inBuffer in{original.data(), original.size(), 0};
    ZSTD_compressStream2(context, &out, &in, ZSTD_e_end);
    unsized.resize(out.pos);
    ZSTD_freeCCtx(context);

    const std::vector<std::pair<const char*, ByteArray>> cases = {
        {"plain text", ByteArray{'h', 'e', 'l', 'l', 'o'}},
        {"truncated frame", truncated},
        {"two frames", twoFrames},
        {"flipped bytes", flipped},
        {"no recorded size", unsized},
    };
    for (const auto& [name, input] : cases) {
        SCOPED_TRACE(name);
        try {
            const ByteArray result = uncompress(input);
            // Flipped bytes inside a literal section can decode; they must not change the size.
            EXPECT_STREQ(name, "flipped bytes");
            EXPECT_EQ(result.size(), original.size());
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find("Compressed payload is damaged"),
                      std::string::npos);
        }
    }
}

TEST(CompressionTest, ALyingContentSizeAllocatesNothing) {
    // A minimal frame header that claims 2^40 bytes, followed by one tiny raw block.
    ByteArray frame = {0x28, 0xb5, 0x2f, 0xfd, 0xc0};  // magic; 8-byte size, single segment
    for (int i = 0; i < 8; ++i) {
        frame.push_back(i == 5 ? 0x01 : 0x00);
    }
    frame.insert(frame.end(), {0x09, 0x00, 0x00, 'x'});  // last raw block of one byte
    EXPECT_THROW(uncompress(frame), std::runtime_error);
}

TEST(CompressionTest, FramesDecodeWithTheCommandLineTool) {
    const auto file = std::filesystem::temp_directory_path() /
                      ("korvane-frame-" + std::to_string(::getpid()) + ".zst");
    const ByteArray original = Testing::sensorBytes(70000);
    Testing::writeFileBytes(file, compress(original, Default));
    const std::string command = "zstd -q -d -c " + file.string();
    FILE* pipe = ::popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    ByteArray decoded;
    int c;
    while ((c = std::fgetc(pipe)) != EOF) {
        decoded.push_back(static_cast<std::uint8_t>(c));
    }
    ASSERT_EQ(::pclose(pipe), 0) << "is the zstd tool installed?";
    std::filesystem::remove(file);
    EXPECT_EQ(decoded, original);
}

TEST(CompressionTest, ThreadsCompressAndUncompressAtOnce) {
    auto work = [](std::uint32_t seed, CompressionLevel level, bool& ok) {
        ok = true;
        for (int i = 0; i < 50 && ok; ++i) {
            const ByteArray original = Testing::sensorBytes(20000 + i, seed + i);
            ok = uncompress(compress(original, level)) == original;
        }
    };
    bool firstOk = false;
    bool secondOk = false;
    std::thread first(work, 1, Fastest, std::ref(firstOk));
    std::thread second(work, 1000, Smallest, std::ref(secondOk));
    first.join();
    second.join();
    EXPECT_TRUE(firstOk);
    EXPECT_TRUE(secondOk);
}

}  // namespace
}  // namespace Korvane::Compression
