#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "model/LogFileInterface.h"

namespace Korvane::Testing {

// An in-memory log file whose entries and timestamps the test chooses, and which counts its
// reads. Everything is set up before a player takes it over; the player only reads from it.
class FakeLogFile final : public Logging::LogFileInterface {
public:
    using ByteArray = Logging::ByteArray;

    ~FakeLogFile() override {
        if (destroyed != nullptr) {
            *destroyed = true;
        }
    }

    std::int8_t addSource(std::int32_t type) {
        sources.push_back({std::int8_t(sources.size() + 1), KV_LogDataSourceType{type}, "s"});
        return sources.back().id;
    }

    // Adds an entry under the next id, with a payload that tells it apart.
    void addEntry(std::int8_t source, std::int64_t timestamp) {
        const auto id = std::int32_t(entries.size() + 1);
        entries.push_back({id, source, 40 + id, {std::uint8_t(id), 0xAB}, timestamp});
    }

    std::vector<Logging::Bookmark> bookmarks;  // stored as given, entry or not
    std::set<std::int32_t> unreadable;         // ids that readEntry yields nothing for
    std::set<std::int32_t> throwing;           // ids that readEntry throws for
    bool* destroyed = nullptr;                 // set when the file is destroyed
    mutable std::atomic<int> reads{0};
    mutable std::atomic<std::int32_t> lastReadId{0};

    std::vector<Logging::DataSource> getDataSources() const override { return sources; }
    std::vector<std::int32_t> getEntryIndex(const Logging::EntryIndexFilter& filter)
        const override {
        std::vector<std::int32_t> ids;
        const auto& wanted = filter.dataSources;
        for (const auto& entry : entries) {
            if (wanted.empty() || std::count(wanted.begin(), wanted.end(), entry.dataSourceId)) {
                ids.push_back(entry.entryId);
            }
        }
        return ids;
    }
    std::optional<Logging::DataEntry> readEntry(std::int32_t entryId) const override {
        ++reads;
        lastReadId = entryId;
        if (throwing.count(entryId)) {
            throw std::runtime_error("damaged entry " + std::to_string(entryId));
        }
        if (entryId < 1 || entryId > std::int32_t(entries.size()) || unreadable.count(entryId)) {
            return std::nullopt;
        }
        return entries[std::size_t(entryId - 1)];
    }
    std::vector<Logging::Bookmark> getBookmarks() const override { return bookmarks; }

    // The player needs none of the rest.
    std::filesystem::path getFilePath() const override { return {}; }
    std::optional<PropertyValue> getDataSourceProperty(std::int32_t, std::string) const override {
        return {};
    }
    std::vector<Logging::DataSourceProperty> getAllDataSourceProperties() const override {
        return {};
    }
    std::int32_t getFirstEntryId() const override { return -1; }
    std::int32_t getLastEntryId() const override { return -1; }
    std::int32_t getEntryCount() const override { return -1; }
    std::optional<PropertyValue> getMetadataValue(const std::string&) const override {
        return {};
    }
    std::vector<LogMetadataEntry> getAllMetadata() const override { return {}; }
    std::optional<ByteArray> getResource(const std::string&) const override { return {}; }
    std::vector<LogResourceEntry> getAllResources() const override { return {}; }
    std::optional<ByteArray> getThumbnail() const override { return {}; }
    bool addDataSource(const Logging::DataSource&) override { return false; }
    bool addDataSource(Logging::DataSource&) override { return false; }
    bool addDataSourceProperty(const Logging::DataSourceProperty&) override { return false; }
    bool logData(const Logging::DataEntry&) override { return false; }
    bool addMetadata(const std::string&, PropertyValue) override { return false; }
    bool addResource(const std::string&, const ByteArray&) override { return false; }
    bool setThumbnail(const ByteArray&) override { return false; }
    bool addBookmark(const Logging::Bookmark&) override { return false; }
    bool updateBookmark(const Logging::Bookmark&) override { return false; }
    bool removeBookmark(const Logging::Bookmark&) override { return false; }
    std::string getLastError() const override { return "No error"; }
    std::vector<Logging::DataEntry> readEntries(std::int32_t, std::int32_t,
                                                const Logging::EntryIndexFilter&,
                                                std::int32_t) const override {
        throw std::logic_error("the player reads entry by entry");
    }

private:
    std::vector<Logging::DataSource> sources;
    std::vector<Logging::DataEntry> entries;
};

}  // namespace Korvane::Testing
