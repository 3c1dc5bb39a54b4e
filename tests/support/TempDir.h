#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace Korvane::Testing {

// Gives every test a fresh directory of its own, removed when the test ends.
class TempDirTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::random_device seed;
        dir = std::filesystem::temp_directory_path() /
              ("korvane-test-" + std::to_string(seed()) + "-" + std::to_string(seed()));
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
    std::string path(const std::string& name) const { return (dir / name).string(); }

    std::filesystem::path dir;
};

inline std::vector<std::uint8_t> readFileBytes(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeFileBytes(const std::filesystem::path& file,
                           const std::vector<std::uint8_t>& bytes) {
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

// Bytes that look like a sensor frame: a slow signal with noise, compressible but not trivially.
inline std::vector<std::uint8_t> sensorBytes(std::size_t size, std::uint32_t seed = 1) {
    std::vector<std::uint8_t> bytes(size);
    std::minstd_rand random(seed);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>((i / 64) % 200 + random() % 4);
    }
    return bytes;
}

}  // namespace Korvane::Testing
