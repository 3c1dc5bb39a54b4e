#include "EntryFilterSql.h"

#include "Statements.h"
#include "components/database/SqliteQuery.h"

namespace Korvane::Logging {

bool appendInClause(std::string& text, const char* column, std::size_t count, const char* prefix) {
    if (count == 0) {
        return false;
    }
    text += column;
    text += " IN (";
    text += prefix;
    text += '0';
    for (std::size_t i = 1; i < count; ++i) {
        text += ", ";
        text += prefix;
        text += std::to_string(i);
    }
    text += ')';
    return true;
}

std::string buildFilterClause(const EntryIndexFilter& filter) {
    if (filter.dataTypes.empty() && filter.dataSources.empty() && filter.dataSourceTypes.empty()) {
        return {};
    }
    std::string clause = Statements::filterLead;
    const bool byType = appendInClause(clause, "data.type", filter.dataTypes.size(), ":type");
    const bool bySource =
        appendInClause(clause, byType ? " AND data.dataSourceId" : " data.dataSourceId",
                       filter.dataSources.size(), ":source");
    appendInClause(
        clause,
        byType || bySource ? " AND dataSources.dataSourceType" : " dataSources.dataSourceType",
        filter.dataSourceTypes.size(), ":sourceType");
    return clause;
}

namespace {

template <typename List>
void bindList(Database::SqliteQuery& query, const List& list, const char* prefix) {
    std::string name;
    for (std::size_t i = 0; i < list.size(); ++i) {
        name.assign(prefix).append(std::to_string(i));
        query.bindParameter(name, static_cast<std::int32_t>(list[i]));
    }
}

}  // namespace

void bindFilterParameters(const EntryIndexFilter& filter, Database::SqliteQuery& query) {
    bindList(query, filter.dataTypes, ":type");
    bindList(query, filter.dataSources, ":source");
    bindList(query, filter.dataSourceTypes, ":sourceType");
}

}  // namespace Korvane::Logging
