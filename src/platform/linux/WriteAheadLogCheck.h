// File: WriteAheadLogCheck.h
// Finds damage in a suite's write-ahead log before SQLite opens it. SQLite replays a log up to
// its first frame that fails the checksum and silently drops the rest, which is right for a
// commit torn by a crash (only the end of the log is bad) and wrong for damage in the middle:
// the transactions committed after it vanish without a word. A log is damaged when a frame of
// the current generation fails its checksum and a later commit frame of that generation is
// sound, or when its header is unreadable but frames follow it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>

namespace orvane {

// False for a missing, empty or sound log, and for one whose only bad frames are at its end.
bool isWriteAheadLogDamaged(const std::filesystem::path& walFile);

// The same check over the log's bytes.
bool isWriteAheadLogDamaged(std::span<const uint8_t> log);

}  // namespace orvane
