// Creates a log file in a temporary folder, records a little, and prints what the file holds.

#include <korvane/logging/sqlite/SqliteLogFile.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <type_traits>
#include <variant>

namespace {

std::string describe(const PropertyValue& value) {
    return std::visit(
        [](const auto& held) -> std::string {
            if constexpr (std::is_same_v<std::decay_t<decltype(held)>, std::string>) {
                return "\"" + held + "\"";
            } else {
                return std::to_string(held);
            }
        },
        value);
}

}  // namespace

int main() {
    using namespace Korvane::Logging;
    namespace fs = std::filesystem;

    const fs::path folder = fs::temp_directory_path() / "korvane-demo";
    fs::create_directories(folder);
    const fs::path file = folder / "session.kvlog";
    fs::remove(file);

    const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    SqliteLogFile log(file.string(), "Europe/Berlin", "korvane-demo", "1.0", -1, now);

    DataSource imu{-1, KV_LogDataSourceType{1}, "imu"};
    log.addDataSource(imu);
    for (int i = 0; i < 100; ++i) {
        DataEntry entry;
        entry.dataSourceId = imu.id;
        entry.type = 7;
        entry.timestamp = now + i * 5;
        entry.data.assign(64, static_cast<std::uint8_t>(i));
        log.logData(entry);
    }

    std::printf("Log file: %s\n", file.string().c_str());
    std::printf("Metadata:\n");
    for (const LogMetadataEntry& entry : log.getAllMetadata()) {
        std::printf("  %-20s %s\n", entry.key.c_str(), describe(entry.value).c_str());
    }
    std::printf("Entries: %d (ids %d to %d)\n", log.getEntryCount(), log.getFirstEntryId(),
                log.getLastEntryId());
    return 0;
}
