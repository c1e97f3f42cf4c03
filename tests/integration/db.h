// The test run's MariaDB (CLOUD_DB_* from scripts/test.sh), for preparing
// tables and reading back what the daemon wrote.
#pragma once

#include <optional>
#include <string>
#include <vector>

using db_row = std::vector<std::optional<std::string>>;

// Runs a statement; throws on error.
void db_exec(const std::string& sql);
// Runs a query and returns every row.
std::vector<db_row> db_rows(const std::string& sql);
// The first column of the first row, or "" when there is none.
std::string db_value(const std::string& sql);
// COLS of the cloud_device row of ID joined by '|' ("<none>" without a row).
std::string device_row(const std::string& id, const std::string& cols);
// Empties what the daemon keeps in vtlog so a test starts from nothing.
void db_reset();
