#include "quillon/changes/internal/change_file_check.h"

#include <fmt/format.h>

#include <vector>

#include "quillon/store/package_files.h"
#include "quillon/store/package_layout.h"
#include "quillon/store/quillon.h"

namespace quillon {
namespace {

// A text that is safe to show in a message.
std::string quoted(std::string_view text) {
  std::string shown;
  for (char c : text.substr(0, 80)) {
    shown += (static_cast<unsigned char>(c) < 0x20) ? '?' : c;
  }
  return "\"" + shown + (text.size() > 80 ? "…\"" : "\"");
}

std::string entryProblem(const Value& entry) {
  if (!entry.isDictionary()) return "an entry is not an object";
  for (const auto& [key, records] : entry.items()) {
    if (!records.isArray())
      return fmt::format("entry member {} is not an array", quoted(key.str()));
    for (const Value& record : records.elements()) {
      if (!record.isDictionary()) return "a data record is not an object";
      const Value& name = record.get("name");
      if (!name.isString() || !isSafePathComponent(name.str())) {
        return "a data record has no usable file name";
      }
      const Value& length = record.get("length");
      if (!length.isNil() && !(length.isNumber() && !length.isBool())) {
        return fmt::format("data record {} has a length that is not a number", quoted(name.str()));
      }
      const Value& hash = record.get("hash");
      if (!hash.isNil() && !hash.isString()) {
        return fmt::format("data record {} has a hash that is not text", quoted(name.str()));
      }
    }
  }
  return {};
}

// entity name → uid → entry.
std::string objectsProblem(const Value& objects) {
  if (!objects.isDictionary()) return "a type is not an object";
  for (const auto& [entity, uids] : objects.items()) {
    if (!isSafePathComponent(entity.str())) {
      return fmt::format("entity name {} is not usable", quoted(entity.str()));
    }
    if (!uids.isDictionary())
      return fmt::format("entity {} is not an object", quoted(entity.str()));
    for (const auto& [uid, entry] : uids.items()) {
      if (!isSafePathComponent(uid.str())) {
        return fmt::format("uid {} of {} is not usable", quoted(uid.str()), entity.str());
      }
      std::string problem = entryProblem(entry);
      if (!problem.empty()) return problem;
    }
  }
  return {};
}

// type ("insert", "update", "delete") → objects.
std::string sectionsProblem(const Value& sections, std::string_view key) {
  if (!sections.isDictionary()) return fmt::format("\"{}\" is not an object", key);
  for (std::string_view type : {kQuillonInsert, kQuillonUpdate, kQuillonDelete}) {
    const Value& objects = sections.get(type);
    if (objects.isNil()) continue;
    std::string problem = objectsProblem(objects);
    if (!problem.empty()) return fmt::format("{}.{}: {}", key, type, problem);
  }
  return {};
}

}  // namespace

std::string changeFileProblem(const Value& change, std::string_view fileName) {
  if (!change.isDictionary()) return "the file is not a JSON object";
  const Value& name = change.get("name");
  if (!name.isString()) return "the change has no name";
  if (name.str() != fileName) {
    return fmt::format("its name {} is not its file name", quoted(name.str()));
  }
  const Value& previous = change.get("previousName");
  if (!previous.isNil() && (!previous.isString() || !isSafePathComponent(previous.str()))) {
    return "its previous name is not a file name";
  }
  for (std::string_view key : {"type", "date"}) {
    const Value& text = change.get(key);
    if (!text.isNil() && !text.isString()) return fmt::format("\"{}\" is not text", key);
  }
  const Value& session = change.get("session");
  if (!session.isNil() && !session.isDictionary()) return "\"session\" is not an object";
  for (std::string_view key : {"changes", "refreshes"}) {
    const Value& sections = change.get(key);
    if (sections.isNil()) continue;
    std::string problem = sectionsProblem(sections, key);
    if (!problem.empty()) return problem;
  }
  // Read back by the cache when a change is removed from its log.
  for (std::string_view key : {"inserts", "updates", "deletes"}) {
    const Value& objects = change.get(key);
    if (objects.isNil()) continue;
    std::string problem = objectsProblem(objects);
    if (!problem.empty()) return fmt::format("{}: {}", key, problem);
  }
  return {};
}

ChangeFileReading readChangeFile(PackageFiles& files, const std::string& path,
                                 std::string_view fileName, Value* change) {
  ChangeFileReading reading;
  *change = Value();
  PackageFileReading read = files.readJSON(path, kChangeFileLimits);
  switch (read.status) {
    case PackageFileReading::kRead:
      break;
    case PackageFileReading::kMissing:
    case PackageFileReading::kEmpty:
      reading.outcome = ChangeFileReading::kMissing;
      return reading;
    case PackageFileReading::kTooLarge:
      reading.outcome = ChangeFileReading::kInvalid;
      reading.problem = fmt::format("{} bytes is more than a change file may have", read.size);
      return reading;
    case PackageFileReading::kUndecryptable:
      reading.outcome = ChangeFileReading::kUndecryptable;
      return reading;
    case PackageFileReading::kUnparsable:
      reading.outcome = ChangeFileReading::kIncomplete;
      return reading;
  }
  reading.problem = changeFileProblem(read.value, fileName);
  if (!reading.problem.empty()) {
    reading.outcome = ChangeFileReading::kInvalid;
    return reading;
  }
  *change = std::move(read.value);
  return reading;
}

}  // namespace quillon
