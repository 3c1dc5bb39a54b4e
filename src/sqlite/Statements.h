#pragma once

// Every SQL text of the log file format, in one place. Values never enter these texts: they are
// bound to the named parameters.

namespace Korvane::Logging::Statements {

// The nine objects of a new log file, created in this order.
constexpr const char* schema[] = {
    "CREATE TABLE dataSources(dataSourceId INTEGER PRIMARY KEY,dataSourceType INT NOT NULL,"
    "dataSourceName TEXT NOT NULL);",
    "CREATE TABLE dataSourceProperties(dataSourceId INT NOT NULL REFERENCES "
    "dataSources(dataSourceId),key TEXT NOT NULL,value NOT NULL);",
    "CREATE INDEX dataSourcePropertiesIndex ON dataSourceProperties(dataSourceId);",
    "CREATE TABLE data(entryId INTEGER PRIMARY KEY,timestamp INT NOT NULL,type INT NOT NULL,"
    "dataSourceId INT NOT NULL REFERENCES dataSources(dataSourceId),length INT NOT NULL,"
    "payload BLOB NOT NULL);",
    "CREATE INDEX dataDataSourceIndex ON data(dataSourceId);",
    "CREATE TABLE metadata(key TEXT NOT NULL, value NOT NULL);",
    "CREATE TABLE resources(name TEXT NOT NULL, payload NOT NULL);",
    "CREATE TABLE bookmarks(entryId INT NOT NULL REFERENCES data(entryId), title TEXT NOT NULL, "
    "comments TEXT, payload BLOB);",
    "CREATE INDEX bookmarkIndex ON bookmarks(entryId);",
};
constexpr const char* createBookmarksTable = schema[7];

// The six tables that make a database a log file.
constexpr const char* requiredTables[] = {
    "dataSources", "dataSourceProperties", "data", "metadata", "resources", "bookmarks",
};

// Opening.
constexpr const char* enableForeignKeys = "PRAGMA foreign_keys = on;";
constexpr const char* countTables = "SELECT COUNT(*) FROM sqlite_master WHERE type='table';";
constexpr const char* findTable =
    "SELECT name FROM sqlite_master WHERE type='table' AND name=:tableName;";
constexpr const char* checkBookmarks = "PRAGMA foreign_key_check(bookmarks);";
constexpr const char* dropBookmarks = "DROP TABLE bookmarks;";
constexpr const char* synchronousOff = "PRAGMA synchronous = OFF;";
constexpr const char* journalInMemory = "PRAGMA journal_mode = MEMORY;";

// Metadata.
constexpr const char* findMetadata = "SELECT * FROM metadata WHERE key = :key;";
constexpr const char* insertMetadata = "INSERT INTO metadata (key, value) VALUES (:key, :value);";
constexpr const char* selectMetadataValue = "SELECT value FROM metadata WHERE key = :key;";
constexpr const char* selectAllMetadata = "SELECT key, value FROM metadata;";

// Data sources and entries.
constexpr const char* insertDataSource =
    "INSERT INTO dataSources (dataSourceType, dataSourceName) "
    "VALUES (:dataSourceType, :dataSourceName);";
constexpr const char* insertDataSourceWithId =
    "INSERT INTO dataSources (dataSourceId, dataSourceType, dataSourceName) "
    "VALUES (:dataSourceId, :dataSourceType, :dataSourceName);";
constexpr const char* insertDataSourceProperty =
    "INSERT INTO dataSourceProperties (dataSourceId, key, value) "
    "VALUES (:dataSourceId, :key, :value);";
constexpr const char* insertData =
    "INSERT INTO data (timestamp, type, dataSourceId, length, payload) "
    "VALUES (:timestamp, :type, :dataSourceId, :length, :payload);";

// A batch of entries, and a new file's schema with its first rows, are each written in one
// transaction. IMMEDIATE takes the write lock at the start.
constexpr const char* beginImmediate = "BEGIN IMMEDIATE;";
constexpr const char* commit = "COMMIT;";
constexpr const char* rollback = "ROLLBACK;";

// Reading entries. The filtered reads are put together from these fragments.
constexpr const char* countHead =
    "SELECT COUNT(*) FROM data INNER JOIN dataSources ON data.dataSourceId = "
    "dataSources.dataSourceId ";
constexpr const char* entryHead =
    "SELECT data.entryId, data.timestamp, data.type, data.dataSourceId, data.payload FROM data "
    "INNER JOIN dataSources ON data.dataSourceId = dataSources.dataSourceId ";
// The entry head without the payload, and with its size in place of it: `length` of a blob
// reads the size that the row records, without the blob's pages.
constexpr const char* entryFieldsHead =
    "SELECT data.entryId, data.timestamp, data.type, data.dataSourceId FROM data "
    "INNER JOIN dataSources ON data.dataSourceId = dataSources.dataSourceId ";
constexpr const char* entrySizeHead =
    "SELECT data.entryId, data.timestamp, data.type, data.dataSourceId, length(data.payload) "
    "FROM data INNER JOIN dataSources ON data.dataSourceId = dataSources.dataSourceId ";
// The number of entries and the sizes of their stored payloads, for the same joins.
constexpr const char* countAndSizeHead =
    "SELECT COUNT(*), SUM(length(data.payload)) FROM data INNER JOIN dataSources ON "
    "data.dataSourceId = dataSources.dataSourceId ";
constexpr const char* idHead =
    "SELECT entryId FROM data INNER JOIN dataSources ON data.dataSourceId = "
    "dataSources.dataSourceId ";
constexpr const char* filterLead = "WHERE ";
constexpr const char* bareLead = "WHERE";
constexpr const char* joiner = " AND";
constexpr const char* rangeCondition =
    " (data.entryId BETWEEN :minimumEntryId AND :maximumEntryId)";
constexpr const char* limitClause = "LIMIT :limit";
constexpr const char* orderForEntries = " ORDER BY entryId ";
constexpr const char* orderForIds = " ORDER BY entryId;";
constexpr const char* selectEntry =
    "SELECT timestamp, type, dataSourceId, payload FROM data WHERE entryId = :entryId;";
constexpr const char* countEntries = "SELECT COUNT(*) FROM data;";
constexpr const char* firstEntryId = "SELECT MIN(entryId) FROM data;";
constexpr const char* lastEntryId = "SELECT MAX(entryId) FROM data;";

// Resources and the thumbnail.
constexpr const char* findResource = "SELECT * FROM resources WHERE name = :name;";
constexpr const char* insertResource =
    "INSERT INTO resources (name, payload) VALUES (:name, :payload);";
constexpr const char* selectResource = "SELECT payload FROM resources WHERE name = :name;";
constexpr const char* selectAllResources = "SELECT name, payload FROM resources;";
constexpr const char* countThumbnails = "SELECT COUNT(*) FROM resources WHERE name = 'thumbnail';";
constexpr const char* replaceThumbnail =
    "UPDATE resources SET payload = :payload WHERE name = 'thumbnail';";

// Bookmarks: one form for files whose bookmarks carry a payload, one for older files.
constexpr const char* insertBookmarkWithPayload =
    "INSERT INTO bookmarks (entryId, title, comments, payload) "
    "VALUES (:entryId, :title, :comments, :payload);";
constexpr const char* insertBookmark =
    "INSERT INTO bookmarks (entryId, title, comments) VALUES (:entryId, :title, :comments);";
constexpr const char* updateBookmarkWithPayload =
    "UPDATE bookmarks SET title = :title, comments = :comments, payload = :payload "
    "WHERE entryId = :entryId;";
constexpr const char* updateBookmark =
    "UPDATE bookmarks SET title = :title, comments = :comments WHERE entryId = :entryId;";
constexpr const char* selectBookmarksWithPayload =
    "SELECT entryId, title, comments, payload FROM bookmarks;";
constexpr const char* selectBookmarks = "SELECT entryId, title, comments FROM bookmarks;";
constexpr const char* deleteBookmark = "DELETE FROM bookmarks WHERE entryId = :entryId;";

// The source catalogue.
constexpr const char* selectDataSources =
    "SELECT dataSourceId, dataSourceType, dataSourceName FROM dataSources;";
constexpr const char* selectDataSourceProperty =
    "SELECT value FROM dataSourceProperties WHERE dataSourceId = :id AND key = :key;";
constexpr const char* countDataSourceProperties = "SELECT COUNT(*) FROM dataSourceProperties;";
constexpr const char* selectAllDataSourceProperties =
    "SELECT dataSourceId, key, value FROM dataSourceProperties;";

}  // namespace Korvane::Logging::Statements
