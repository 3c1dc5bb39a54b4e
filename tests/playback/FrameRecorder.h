#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "playback/LogFilePlayer.h"

namespace Korvane::Testing {

// Collects the frames a player delivers, from whichever thread, and lets the test wait for them.
// It must outlive every player that holds its callback.
class FrameRecorder {
public:
    struct Delivery {
        std::int32_t frameNumber;
        Logging::DataEntry entry;
        std::thread::id thread;
    };

    Logging::Playback::FrameCallback callback() {
        return [this](std::int32_t frameNumber, Logging::DataEntry entry) {
            std::lock_guard<std::mutex> lock(mutex);
            delivered.push_back({frameNumber, std::move(entry), std::this_thread::get_id()});
            arrived.notify_all();
        };
    }

    // Waits until `count` frames have arrived in all; false if they don't in a generous time.
    bool waitForCount(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        return arrived.wait_for(lock, std::chrono::seconds(20),
                                [&] { return delivered.size() >= count; });
    }

    std::vector<Delivery> deliveries() const {
        std::lock_guard<std::mutex> lock(mutex);
        return delivered;
    }

    std::vector<std::int32_t> frameNumbers() const {
        std::vector<std::int32_t> numbers;
        for (const auto& delivery : deliveries()) {
            numbers.push_back(delivery.frameNumber);
        }
        return numbers;
    }

private:
    mutable std::mutex mutex;
    std::condition_variable arrived;
    std::vector<Delivery> delivered;
};

}  // namespace Korvane::Testing
