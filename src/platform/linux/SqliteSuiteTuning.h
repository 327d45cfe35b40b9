// File: SqliteSuiteTuning.h
// How a suite file is laid out and flushed, chosen for what the upload queues do to it: one
// record of a few kilobytes added per transaction, removed in batches, with every commit
// waited for.
//
// Small pages: a commit writes every page it touches whole, to the write-ahead log and once
// more when the log is checkpointed. With 4 KiB pages the B-tree pages a record touches
// besides its own (table leaf, index leaf, free-list trunk, header) cost several times the
// record itself; with 1 KiB pages they cost about one record's worth.
//
// synchronous=NORMAL: in write-ahead-log mode a commit is then an append the kernel holds,
// flushed at checkpoints. Every committed transaction survives the process being killed; only
// power loss can lose the last ones, which is the promise the platform's own store makes.
//
// A bounded log: checkpoints run once the log holds kSuiteCheckpointPages pages, and the log is
// cut back to kSuiteLogSizeLimit when it restarts, so it stays under about that plus the
// largest single transaction.
#pragma once

#include <sqlite3.h>

#include <cstdint>

namespace orvane {

inline constexpr int kSuitePageSize = 1024;
inline constexpr int kSuiteCheckpointPages = 1000;
inline constexpr int64_t kSuiteLogSizeLimit = int64_t{1} << 20;

// Before the file switches to write-ahead logging: a new file then takes the small pages.
void chooseSuitePageSize(sqlite3* db);

// A file made with larger pages is rebuilt with small ones when nothing else has it open.
// Best effort: when it cannot be done now (another connection, a full disk) the file keeps its
// pages, works as before, and the next open tries again. Answers false only when the file is
// left unusable: not back in write-ahead-log mode.
bool shrinkSuitePages(sqlite3* db);

// Flushing and checkpointing for a file in write-ahead-log mode. Answers the first failure.
int tuneSuiteWriting(sqlite3* db);

// The file's page size; 0 when it cannot be read.
int suitePageSize(sqlite3* db);

}  // namespace orvane
