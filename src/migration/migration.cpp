#include "migration/migration.h"

#include <cstring>

#include "common/logger.h"
#include "common/regular_expressions.h"

namespace {

constexpr const char *log_category = "migration";
constexpr const char *version_pattern = "^[0-9]{2}\\.[0-9]{2}\\.[0-9]{2}$";

bool is_lower(const char *left, const char *right) {
    return strcmp(left, right) < 0;
}

bool check_row(const migration &row, unsigned int reported_index) {
    if (is_lower(row.from, row.to)) {
        return true;
    }
    LOG_ERROR("Wrong definition of migration at index %d: %s must be lower than %s",
              static_cast<int>(reported_index), row.from, row.to);
    return false;
}

bool check_table(const migration *table, unsigned int count) {
    if (count == 0) {
        return true;
    }
    for (unsigned int i = 0; i + 1 < count; ++i) {
        if (!check_row(table[i], i)) {
            return false;
        }
        if (is_lower(table[i + 1].from, table[i].to)) {
            LOG_ERROR(
                "Wrong definition of migration at index %d or %d: %s must be lower than or equal "
                "%s",
                static_cast<int>(i), static_cast<int>(i + 1), table[i].to, table[i + 1].from);
            return false;
        }
    }
    // kept: the last row is reported one index too high.
    return check_row(table[count - 1], count);
}

bool check_versions(const char *from, const char *to) {
    nimbrelc_regex version;
    if (!nimbrelc_regex_compile(version, version_pattern)) {
        return false;
    }
    if (!nimbrelc_regex_match(version, from)) {
        LOG_ERROR("Wrong from version: %s", from);
        return false;
    }
    if (!nimbrelc_regex_match(version, to)) {
        LOG_ERROR("Wrong to version: %s", to);
        return false;
    }
    return true;
}

bool run_steps(const migration *first, const migration *end, cJSON *document) {
    for (const migration *row = first; row < end; ++row) {
        LOG_INFO("Starting upgrade from %s to %s", row->from, row->to);
        if (!row->step(document)) {
            LOG_ERROR("Upgrade from %s to %s failed", row->from, row->to);
            return false;
        }
        LOG_INFO("Upgrade from %s to %s succeeded", row->from, row->to);
    }
    return true;
}

}  // namespace

bool run_migration(const migration *table, unsigned int count, const char *from, const char *to,
                   cJSON *document) {
    LOG_INFO("Migrating from %s to %s", from, to);
    if (!check_table(table, count) || !check_versions(from, to)) {
        return false;
    }
    if (count == 0) {
        return true;
    }
    const int order = strcmp(from, to);
    if (order == 0) {
        LOG_INFO("Start and target versions are equal: %s, migration is not needed", from);
        LOG_INFO("Migration from %s to %s is not required", from, to);
        return true;
    }
    if (order > 0) {
        LOG_ERROR("Start version cannot be grater than target version (%s > %s)", from, to);
        LOG_ERROR("Migration from %s to %s failed", from, to);
        return false;
    }
    const migration *const table_end = table + count;
    const migration *first = table;
    while (first < table_end && is_lower(first->from, from)) {
        ++first;
    }
    const migration *end = table_end;  // one past the last step to run
    while (end > table && is_lower(to, end[-1].to)) {
        --end;
    }
    if (first == table_end || end == table) {
        LOG_INFO("Upgrade from %s to %s is not required", from, to);
        LOG_INFO("Migration from %s to %s is not required", from, to);
        return true;
    }
    if (!run_steps(first, end, document)) {
        LOG_ERROR("Migration from %s to %s failed", from, to);
        return false;
    }
    // Also reached when the two versions hold no whole step between them.
    LOG_INFO("Migration from %s to %s succeeded", from, to);
    return true;
}
