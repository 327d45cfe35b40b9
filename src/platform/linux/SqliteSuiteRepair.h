// File: SqliteSuiteRepair.h
// What becomes of a damaged suite file: every row that can still be read and decoded goes into
// a fresh file, the damaged file is kept beside it as "<file>.damaged" (its log as
// "<file>.damaged-wal"; only the newest damaged copy is kept), and the fresh file takes its
// place. The shared-memory index ("-shm") is removed: it is rebuilt from the log.
#pragma once

#include <filesystem>
#include <string>

namespace orvane {

struct SuiteRepair {
  // False when the damaged file is still in place; `report` then says why.
  bool replaced = false;
  // One line for the sink: what was damaged, where it was kept, what was saved.
  std::string report;
};

SuiteRepair repairDamagedSuite(const std::filesystem::path& file, const std::string& reportPrefix,
                               const std::string& damage, const char* vfs);

// Where the damaged copy of `file` is kept.
std::filesystem::path damagedCopyPath(const std::filesystem::path& file);

}  // namespace orvane
