// File: FileSystem.h
// Files and folders. Every operation reports failure by its result and never throws.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "orvane/Export.h"

namespace orvane {

class ORVANE_API FileSystem {
 public:
  virtual ~FileSystem() = default;
  // The folder where the SDK keeps its files (models); created on demand.
  virtual std::string applicationSupportDirectory() const = 0;
  virtual std::string temporaryDirectory() const = 0;

  virtual bool exists(const std::string& path) const = 0;
  virtual bool isDirectory(const std::string& path) const = 0;
  virtual bool createDirectories(const std::string& path) = 0;
  virtual bool copy(const std::string& from, const std::string& to) = 0;
  virtual bool move(const std::string& from, const std::string& to) = 0;
  // Removes a file or a whole folder.
  virtual bool remove(const std::string& path) = 0;
  // A folder is mirrored: its folders are created anew and its files hard-linked. False when
  // something exists at `link`.
  virtual bool createHardLink(const std::string& existing, const std::string& link) = 0;
  // Seconds since 1970 of the last modification.
  virtual std::optional<double> modificationDate(const std::string& path) const = 0;
  virtual bool setModificationDate(const std::string& path, double secondsSince1970) = 0;
  // Names (not paths) of the entries of a folder.
  virtual std::optional<std::vector<std::string>> list(const std::string& path) const = 0;
  virtual std::optional<std::vector<uint8_t>> readFile(const std::string& path) const = 0;
  // Writes atomically: a temporary file beside the target, then a rename.
  virtual bool writeFile(const std::string& path, const std::vector<uint8_t>& bytes) = 0;
  // Bytes available to the app on the volume that holds `path`.
  virtual std::optional<uint64_t> availableCapacity(const std::string& path) const = 0;
};

// std::filesystem and statvfs, rooted at `dataDirectory` for application support.
ORVANE_API std::shared_ptr<FileSystem> makeLocalFileSystem(std::string dataDirectory);

}  // namespace orvane
