#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "quillon/base/value.h"

namespace quillon {

// An independent reader of document packages for tests: it reads Info.plist,
// the change files, the object records and the data files straight from disk,
// decrypting with its own code when the package has a password, and checks
// every member name and type of the on-disk format. It shares no code with
// the store's writers and readers (only the generic JSON and property-list
// parsers), so a writer that drifts from the format shows up as a problem
// here rather than being read back by its own twin.
//
// Made and read on the test's thread.
class PackageReader {
 public:
  struct Change {
    std::string fileName;  // "<date>.<UUID>.json"
    Value content;         // the parsed change file
  };
  struct Record {
    std::string entity;  // entity name
    std::string uid;
    std::string change;  // the file name of the change that wrote it
    Value content;       // the parsed record
  };

  // `entityNames` are the model's entities: with a password their keys are
  // digests, which the reader maps back. Reading happens here.
  PackageReader(std::string packagePath, std::vector<std::string> entityNames,
                std::optional<std::string> password = std::nullopt);

  // Every violation of the format found, one line each; empty when the
  // package is well formed.
  const std::vector<std::string>& problems() const { return problems_; }
  std::string problemsText() const;

  const Value& info() const { return info_; }
  // Change files in name order (the order of history).
  const std::vector<Change>& changes() const { return changes_; }
  // Records named by a change, in change order.
  const std::vector<Record>& records() const { return records_; }
  // Record files that no change names (writes of a save whose change file
  // was not written).
  const std::vector<std::string>& orphanRecords() const { return orphans_; }

  // The record that `change` wrote for the object, or nullptr.
  const Record* record(const std::string& entity, const std::string& uid,
                       const std::string& change) const;
  // Every record of an object, in change order.
  std::vector<const Record*> recordsOf(const std::string& entity, const std::string& uid) const;
  // The decrypted bytes of a package file (relative path), nullopt when it
  // is missing or does not decrypt.
  std::optional<std::vector<uint8_t>> readFile(const std::string& relativePath) const;
  // The folder name under "Entities" of an entity.
  std::string entityKey(const std::string& entity) const;

 private:
  // The plain bytes of an encrypted envelope, nullopt when it does not open.
  std::optional<std::vector<uint8_t>> unseal(const std::vector<uint8_t>& bytes) const;
  void readInfo();
  void readChanges();
  void checkChange(const Change& change);
  void checkRecord(const std::string& entity, const std::string& uid, const std::string& change,
                   const std::string& type, const Value& changeEntry);
  void findOrphans();
  void problem(std::string text) { problems_.push_back(std::move(text)); }

  std::string path_;
  std::vector<std::string> entityNames_;
  std::optional<std::string> password_;
  std::vector<uint8_t> key_, hmacKey_;
  std::map<std::string, std::string> keyToEntity_;
  Value info_;
  std::vector<Change> changes_;
  std::vector<Record> records_;
  std::vector<std::string> orphans_;
  std::vector<std::string> problems_;
};

}  // namespace quillon
