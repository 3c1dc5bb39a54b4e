// demo: records a synthetic drive and runs the other verbs on it, showing each command line.

#include <stdlib.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "Commands.h"
#include "Format.h"

namespace KorvaneLog {

namespace {

// Source types and data types of the drive; the numbers mean something to the demo only.
constexpr std::int32_t inertialSource = 1;
constexpr std::int32_t positionSource = 2;
constexpr std::int32_t cameraSource = 3;
constexpr std::int32_t inertialSample = 10;
constexpr std::int32_t positionFix = 20;
constexpr std::int32_t cameraFrame = 30;

constexpr std::int64_t driveMs = 6000;
constexpr double cameraPeriodMs = 1000.0 / 30.0;
// The bookmarks: where the car brakes for a crossing and where the road is clear again.
constexpr std::int64_t brakingMs = 2000;
constexpr std::int64_t clearMs = 4500;

// A fast generator: the camera frames need tens of megabytes of noise.
class Noise {
public:
    std::uint32_t next() {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state;
    }
    // Uniform in [-1, 1].
    float unit() { return static_cast<float>(next() % 20001) / 10000.0f - 1.0f; }

private:
    std::uint32_t state = 2463534242u;
};

// Packs values little-endian, the way the sensors of this drive send them.
class Packet {
public:
    template <typename T>
    Packet& put(T value) {
        std::uint8_t raw[sizeof(T)];
        std::memcpy(raw, &value, sizeof(T));
        bytes.insert(bytes.end(), raw, raw + sizeof(T));
        return *this;
    }
    ByteArray bytes;
};

// Speed over the drive in m/s: cruising, braking for the crossing, waiting, driving on.
double speedAt(double ms) {
    if (ms < brakingMs) {
        return 8.0;
    }
    if (ms < brakingMs + 1000) {
        return 8.0 - 6.0 * (ms - brakingMs) / 1000.0;
    }
    if (ms < clearMs) {
        return 2.0;
    }
    return std::min(8.0, 2.0 + 4.0 * (ms - clearMs) / 1000.0);
}

ByteArray inertialPayload(double ms, Noise& noise) {
    const float acceleration = static_cast<float>((speedAt(ms + 5) - speedAt(ms)) / 0.005);
    return Packet()
        .put(acceleration + 0.05f * noise.unit())
        .put(0.3f * noise.unit())
        .put(9.81f + 0.05f * noise.unit())
        .put(0.002f * noise.unit())
        .put(0.002f * noise.unit())
        .put(0.1f + 0.01f * noise.unit())
        .put(21.5f + 0.1f * noise.unit())
        .bytes;
}

ByteArray positionPayload(double ms, Noise& noise, double& travelledM) {
    travelledM += speedAt(ms) * 0.1;
    const double heading = 0.1 * ms / 1000.0;
    return Packet()
        .put(48.137154 + travelledM * std::cos(heading) / 111'320.0)
        .put(11.576124 + travelledM * std::sin(heading) / 74'400.0)
        .put(static_cast<float>(519.0 + 0.3 * noise.unit()))
        .put(static_cast<float>(speedAt(ms)))
        .put(static_cast<std::uint8_t>(11))
        .bytes;
}

// A frame of 100 to 200 KiB: a header and image rows that drift from frame to frame under
// sensor noise, so that it compresses somewhat, as real frames do.
ByteArray cameraPayload(std::uint32_t index, Noise& noise) {
    const std::size_t size = 100 * 1024 + noise.next() % (100 * 1024);
    Packet frame;
    frame.put(std::uint32_t{0x4B564631}).put(index).put(std::uint16_t{640}).put(std::uint16_t{0});
    frame.bytes.resize(size);
    for (std::size_t i = 12; i < size; ++i) {
        const std::uint32_t scene = (i % 640 + index * 3) / 5 + i / 640 / 4;
        frame.bytes[i] = static_cast<std::uint8_t>(scene + noise.next() % 8);
    }
    return frame.bytes;
}

// A small grey image in PGM form: a horizon over a road.
ByteArray thumbnailImage() {
    const int width = 96;
    const int height = 64;
    const std::string header =
        "P5\n" + std::to_string(width) + " " + std::to_string(height) + "\n255\n";
    ByteArray image(header.begin(), header.end());
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const bool road = y > height / 2 && std::abs(x - width / 2) < (y - height / 2) * 2;
            image.push_back(static_cast<std::uint8_t>(road ? 70 : y < height / 2 ? 200 - y : 120));
        }
    }
    return image;
}

struct RecordedDrive {
    std::int64_t entries = 0;
    std::uint64_t payloadBytes = 0;
    std::int32_t brakingEntry = 0;
    std::int32_t clearEntry = 0;
};

// Every write of the drive either works or ends the demo.
void check(bool done, const LogFileInterface& log) {
    requireSuccess(done, log, "record the drive");
}

DataSource addSource(LogFileInterface& log, std::int32_t type, const std::string& name,
                     std::initializer_list<std::pair<const char*, PropertyValue>> properties) {
    DataSource source{-1, static_cast<KV_LogDataSourceType>(type), name};
    check(log.addDataSource(source), log);
    for (const auto& [key, value] : properties) {
        check(log.addDataSourceProperty({source.id, key, value}), log);
    }
    return source;
}

RecordedDrive recordDrive(const fs::path& file) {
    const std::unique_ptr<SqliteLogFile> log =
        createLog(file, {"korvane-log demo", KORVANE_LOG_VERSION, -1});
    const std::int64_t start = integerMetadata(*log, "createdDateTime").value_or(0);
    const DataSource imu = addSource(*log, inertialSource, "imu",
                                     {{"rateHz", std::int64_t{200}},
                                      {"frame", std::string("body")},
                                      {"accelerometerRangeG", std::int64_t{16}}});
    const DataSource gnss =
        addSource(*log, positionSource, "gnss",
                  {{"rateHz", std::int64_t{10}}, {"datum", std::string("WGS84")}});
    const DataSource camera = addSource(*log, cameraSource, "front-camera",
                                        {{"rateHz", std::int64_t{30}},
                                         {"encoding", std::string("raw-gray8")},
                                         {"fieldOfViewDeg", 90.0}});
    check(log->addMetadata("vehicle", std::string("test car 3")), *log);
    check(log->addMetadata("route", std::string("depot loop, crossing at the school")), *log);
    check(log->addMetadata("outsideTemperatureC", 11.5), *log);
    check(log->addMetadata("runNumber", std::int64_t{42}), *log);
    const std::string calibration = R"({"camera": {"fx": 512.0, "fy": 512.0, "cx": 320.0}})";
    check(log->addResource("calibration.json", ByteArray(calibration.begin(), calibration.end())),
          *log);
    check(log->setThumbnail(thumbnailImage()), *log);

    RecordedDrive drive;
    Noise noise;
    double travelledM = 0.0;
    std::uint32_t frames = 0;
    const auto logEntry = [&](const DataSource& source, std::int32_t type, std::int64_t ms,
                              ByteArray data) {
        drive.payloadBytes += data.size();
        ++drive.entries;
        check(log->logData({0, source.id, type, std::move(data), start + ms}), *log);
    };
    // The three streams interleave in time order, as they would arrive from the sensors.
    for (std::int64_t ms = 0; ms <= driveMs; ++ms) {
        if (ms % 5 == 0) {
            logEntry(imu, inertialSample, ms, inertialPayload(ms, noise));
        }
        if (ms % 100 == 0) {
            logEntry(gnss, positionFix, ms, positionPayload(ms, noise, travelledM));
        }
        if (ms >= std::llround(frames * cameraPeriodMs)) {
            logEntry(camera, cameraFrame, ms, cameraPayload(frames++, noise));
            const std::int32_t id = log->getLastEntryId();
            drive.brakingEntry = ms <= brakingMs ? id : drive.brakingEntry;
            drive.clearEntry = ms <= clearMs ? id : drive.clearEntry;
        }
    }
    check(log->addBookmark({drive.brakingEntry, "Crossing ahead", "braking from 29 km/h", {}}),
          *log);
    check(log->addBookmark({drive.clearEntry, "Road clear", "driving on", {}}), *log);
    return drive;
}

fs::path demoFolder(const DemoOptions& options) {
    if (!options.directory.empty()) {
        std::error_code error;
        fs::create_directories(options.directory, error);
        if (error) {
            throw ToolError(options.directory, error.message());
        }
        return options.directory;
    }
    std::string pattern = (fs::temp_directory_path() / "korvane-log-demo-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw ToolError(pattern, std::strerror(errno));
    }
    return pattern;
}

void announce(const std::string& commandLine) {
    std::cout << "\n$ korvane-log " << commandLine << '\n' << std::flush;
}

}  // namespace

int runDemo(const DemoOptions& options) {
    const fs::path folder = demoFolder(options);
    const fs::path drive = folder / "drive.kvlog";
    const fs::path bookmarked = folder / "drive-bookmarked.kvlog";
    requireAbsent(drive);
    requireAbsent(bookmarked);

    std::cout << "Recording a synthetic " << driveMs / 1000 << "-second drive into "
              << drive.string() << ":\n"
              << "  imu           200 Hz inertial samples\n"
              << "  gnss           10 Hz position fixes\n"
              << "  front-camera   30 Hz camera frames of 100-200 KiB\n"
              << "  with source properties, metadata, a calibration resource, a thumbnail and "
                 "two bookmarks.\n";
    const auto started = std::chrono::steady_clock::now();
    const RecordedDrive recorded = recordDrive(drive);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    char took[32];
    std::snprintf(took, sizeof took, "%.2f s", seconds);
    std::cout << "Wrote " << recorded.entries << " entries (" << humanSize(recorded.payloadBytes)
              << " of payload) in " << took << ".\n";

    announce("info " + drive.string());
    runInfo({drive.string(), false});

    const std::string types =
        std::to_string(positionSource) + " --source-type " + std::to_string(cameraSource);
    announce("play " + drive.string() + " --speed 4 --duration 2000 --source-type " + types);
    PlayOptions play;
    play.file = drive.string();
    play.speed = 4.0f;
    play.durationMs = 2000;
    play.sourceTypes = {positionSource, cameraSource};
    runPlay(play);

    const std::string range =
        std::to_string(recorded.brakingEntry) + " " + std::to_string(recorded.clearEntry);
    announce("slice " + drive.string() + " " + range + " -o " + bookmarked.string());
    DeriveOptions slice;
    slice.file = drive.string();
    slice.first = recorded.brakingEntry;
    slice.last = recorded.clearEntry;
    slice.output = bookmarked.string();
    runDerive(slice);

    announce("bookmarks " + bookmarked.string());
    runBookmarks({bookmarked.string(), "", 0, "", ""});

    const std::int32_t sliced = openLog(bookmarked)->getEntryCount();
    std::cout << "\nWhat the demo did:\n"
              << "  recorded " << recorded.entries << " entries of 3 sources into "
              << drive.string() << " (" << humanSize(fs::file_size(drive)) << ")\n"
              << "  played 2 s of it at 4x speed, position and camera frames only\n"
              << "  sliced entries " << recorded.brakingEntry << " to " << recorded.clearEntry
              << ", from bookmark to bookmark, into\n    " << bookmarked.string() << " (" << sliced
              << " entries, renumbered from 1)\n"
              << "Try next:\n"
              << "  korvane-log cat " << drive.string() << " --limit 10\n"
              << "  korvane-log cat " << drive.string() << " --source gnss --format json\n"
              << "  korvane-log play " << drive.string() << " --loop --source-type 2\n";
    return 0;
}

}  // namespace KorvaneLog
