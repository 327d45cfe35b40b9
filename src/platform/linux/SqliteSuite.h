// File: SqliteSuite.h
// Opening one SQLite suite file as a store, for the provider.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/SqliteKeyValueStore.h"

namespace orvane {

// Opens the suite kept in `file`, creating it when missing. A damaged file is replaced by what
// can be saved from it (SqliteSuiteRepair.h), reported once in `problems`; every other failure
// leaves no store and a line in `problems`.
std::shared_ptr<KeyValueStore> openSqliteSuite(const std::filesystem::path& file,
                                               const std::string& suiteName,
                                               const KeyValueStoreErrorSink& sink,
                                               const SqliteStoreOptions& options,
                                               std::vector<std::string>& problems);

}  // namespace orvane
