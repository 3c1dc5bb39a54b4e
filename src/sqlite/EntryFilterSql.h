#pragma once

#include <cstddef>
#include <string>

#include "../model/Records.h"

namespace Korvane::Database {
class SqliteQuery;
}

namespace Korvane::Logging {

// Appends "column IN (prefix0, prefix1, ...)" for `count` elements to `text`; false, and `text`
// unchanged, when `count` is 0.
bool appendInClause(std::string& text, const char* column, std::size_t count, const char* prefix);

// The WHERE clause that selects what `filter` selects, with one named parameter per list
// element (":type0", ":source0", ":sourceType0", ...); empty when the filter selects everything.
std::string buildFilterClause(const EntryIndexFilter& filter);

// Binds every element of `filter` to its parameter of `buildFilterClause`.
void bindFilterParameters(const EntryIndexFilter& filter, Database::SqliteQuery& query);

}  // namespace Korvane::Logging
