#include "quillon/changes/change_validator.h"

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quillon/base/env.h"
#include "quillon/base/error.h"
#include "quillon/base/json.h"
#include "quillon/cache/internal/cache_item.h"
#include "quillon/changes/store_log.h"
#include "quillon/coding/internal/data_utils.h"
#include "quillon/coding/internal/url_utils.h"
#include "quillon/store/package_files.h"
#include "quillon/store/internal/package_format.h"
#include "quillon/store/quillon.h"

namespace quillon {
namespace {

// Texts taken from another computer's files go into log messages; a hostile
// file must not turn one message into megabytes.
constexpr size_t kMaximumQuotedLength = 512;

std::string clip(std::string text) {
  if (text.size() <= kMaximumQuotedLength) return text;
  size_t cut = kMaximumQuotedLength;
  // Never split a UTF-8 sequence.
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  text.resize(cut);
  return text + "…";
}

// A name from a change file as the log shows it: in double quotes, with
// quotes, backslashes and control characters (NUL included) escaped, so that
// nothing in it is hidden or breaks the line.
std::string quoted(const Value& name) {
  if (!name.isString()) return clip(name.description());
  std::string text = "\"";
  for (char c : name.str()) {
    if (c == '"' || c == '\\') {
      text += '\\';
      text += c;
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      text += fmt::format("\\u{:04x}", static_cast<unsigned char>(c));
    } else {
      text += c;
    }
  }
  text += '"';
  return clip(std::move(text));
}

bool isLength(const Value& v) { return v.isNumber() && !v.isBool(); }

// Keeps the cache item an inserted object's record makes, as loading the
// object from its records would: its insert record is the first it has.
void keepLoadedItem(const QuillonValidationHost& host, const std::string& entity, const Value& uid,
                    const Value& record, Value* loadedItems) {
  const EntityDescription* description = host.entityNamed(entity);
  const Value& payload = record.get("payload");
  if (!description || !record.isDictionary() || !payload.isDictionary()) return;
  auto item = std::make_shared<QuillonCacheItem>();
  try {
    item->updateValues(payload, *description, Url(), record.get("version"));
  } catch (const Exception&) {
    return;  // loading the object reports what is wrong with it
  }
  Value items = loadedItems->get(entity);
  if (items.isNil()) {
    items = Value::mutableDictionary();
    loadedItems->set(Value::string(entity), items);
  }
  items.set(uid, Value::object(std::move(item)));
}

}  // namespace

QuillonChangeValidator::QuillonChangeValidator(QuillonValidationHost& host,
                                               std::shared_ptr<PackageFiles> files)
    : host_(host), files_(std::move(files)) {}

Value QuillonChangeValidator::combineChangeDictionary(const Value& first, const Value& second) {
  Value result = first.isDictionary() ? first.mutableCopy() : Value::mutableDictionary();
  if (!second.isDictionary()) return result;
  for (const auto& [entity, objects] : second.items()) {
    // An entity that `first` already lists keeps only first's objects: its
    // objects from `second` are not added. Validation relies on this (it
    // checks the updated objects of such an entity, not its inserted ones),
    // so it stays.
    if (result.find(entity)) continue;
    Value added = Value::mutableDictionary();
    for (const auto& [uid, entry] : objects.items()) added.set(uid, entry);
    result.set(entity, std::move(added));
  }
  return result;
}

Value QuillonChangeValidator::validate(const Value& change, bool lightWeight, Value* loadedItems,
                                       bool recovering) {
  const PackageLayout layout = host_.layout();
  Env* env = files_->env();
  auto log = [this](const std::string& message, std::string_view type,
                    const Value& menu = Value()) { host_.log(message, type, menu); };
  auto setErrorLevel = [this](std::string_view type) { host_.setErrorLevel(type); };
  auto shortURL = [&layout](const Url& url) { return layout.shortText(url); };
  const std::string_view error = kQuillonLogTypeError;
  const std::string_view warning = kQuillonLogTypeWarning;
  const std::string_view success = kQuillonLogTypeSuccess;

  const Value& nameValue = change.get("name");
  if (!nameValue.isString()) {
    log(fmt::format("Change incomplete {}", clip(change.description())), error);
    return Value();
  }
  const std::string name(nameValue.str());
  if (!isSafePathComponent(name)) {
    // Without a usable name there is no file to point at, nor records to find.
    log(fmt::format("Invalid name in change file: {}", quoted(nameValue)), error);
    setErrorLevel(error);
    return Value();
  }

  const Url changeURL = layout.changes().appending(name);
  const std::string changeText = shortURL(changeURL);
  log(fmt::format("Begin validation {}", changeText), success);

  const Value ignoreMenu = Value::array({QuillonStoreLog::ignoreItem(changeURL)});
  bool failed = false;
  // Records a failed check; answers whether validation ends here.
  auto fail = [&](const std::string& message, std::string_view type, const Value& menu) {
    log(message, type, menu);
    setErrorLevel(warning);
    failed = true;
    return !recovering;
  };
  auto invalidContent = [&](std::string_view where) {
    return fail(fmt::format("Invalid content in change file: {}", clip(std::string(where))), error,
                ignoreMenu);
  };
  auto invalidName = [&](const Value& bad) {
    return fail(fmt::format("Invalid name in change file: {}", quoted(bad)), error, ignoreMenu);
  };

  // The shape of the file first: every section a dictionary and every uid
  // usable as a folder name, for each entity of our model. Other entities
  // are not ours to judge; they are skipped below.
  const Value& changes = change.get(kQuillonChanges);
  Value sections[3];  // update, insert, delete
  const std::string_view types[3] = {kQuillonUpdate, kQuillonInsert, kQuillonDelete};
  if (!changes.isNil() && !changes.isDictionary()) {
    if (invalidContent(kQuillonChanges)) return Value();
  }
  for (int t = 0; t < 3 && changes.isDictionary(); ++t) {
    const Value& section = changes.get(types[t]);
    if (section.isNil()) continue;
    if (!section.isDictionary()) {
      if (invalidContent(fmt::format("{}/{}", kQuillonChanges, types[t]))) return Value();
      continue;
    }
    sections[t] = section;
    for (const auto& [entity, objects] : section.items()) {
      if (!host_.fileNameForEntityName(entity.str())) continue;
      if (!objects.isDictionary()) {
        if (invalidContent(fmt::format("{}/{}/{}", kQuillonChanges, types[t], entity.str()))) {
          return Value();
        }
        continue;
      }
      for (const auto& [uid, entry] : objects.items()) {
        if (!isSafePathComponent(uid.str()) && invalidName(uid)) return Value();
      }
    }
  }

  Value combined = combineChangeDictionary(sections[0], sections[1]);
  for (const auto& [entityValue, objects] : combined.items()) {
    const std::string entity(entityValue.str());
    log(fmt::format("Begin validation of {}", clip(entity)), success);
    const std::optional<std::string> fileName = host_.fileNameForEntityName(entity);
    if (!fileName || !objects.isDictionary()) continue;
    // Paths are put together as text: this loop runs once per object.
    const std::string entityPath = layout.entities().path() + "/" + *fileName;

    for (const auto& [uidValue, entry] : objects.items()) {
      const std::string uid(uidValue.str());
      if (!isSafePathComponent(uid)) continue;  // reported with the file's shape
      const std::string folderPath = entityPath + "/" + uid;
      const std::string recordPath = folderPath + "/" + name;
      auto record = [&] { return Url::fileURL(recordPath); };
      auto recordText = [&] { return shortURL(record()); };

      if (!lightWeight) {
        // One read answers whether the record arrived, whether its bytes
        // are here, and what it holds.
        PackageFileReading read = files_->readJSON(recordPath, kRecordFileLimits);
        if (read.status == PackageFileReading::kMissing && !env->exists(recordPath)) {
          Value menu = Value::array({QuillonStoreLog::ignoreItem(changeURL),
                                     QuillonStoreLog::showInFinderItem(record())});
          if (fail(fmt::format("Missing file: {}", recordText()), warning, menu)) return Value();
        } else if (!read.onDisk) {
          if (fail(fmt::format("File not on disk: {}", recordText()), error, ignoreMenu)) {
            return Value();
          }
        }
        switch (read.status) {
          case PackageFileReading::kMissing:
          case PackageFileReading::kEmpty:
            if (fail(fmt::format("Empty file: {}", recordText()), warning, ignoreMenu)) {
              return Value();
            }
            break;
          case PackageFileReading::kUndecryptable:
            // Decrypting may fail for a reason of this computer (a changed
            // password), so it never ends validation by itself.
            fail(fmt::format("Decryption error on file: {} {}", clip(entity), recordText()),
                 warning, Value());
            break;
          case PackageFileReading::kTooLarge:
          case PackageFileReading::kUnparsable:
            if (fail(fmt::format("Incomplete file: {}", recordText()), warning, ignoreMenu)) {
              return Value();
            }
            break;
          case PackageFileReading::kRead:
            if (loadedItems && sections[1].get(entity).find(uidValue)) {
              keepLoadedItem(host_, entity, uidValue, read.value, loadedItems);
            }
            break;
        }
      }

      if (!entry.isDictionary()) {
        if (invalidContent(fmt::format("{}/{}", entity, uid))) return Value();
        continue;
      }
      for (const auto& [key, dataRecords] : entry.items()) {
        const std::string where = fmt::format("{}/{}/{}", entity, uid, key.str());
        if (!dataRecords.isArray()) {
          if (invalidContent(where)) return Value();
          continue;
        }
        size_t index = 0;
        for (const Value& dataRecord : dataRecords.elements()) {
          const std::string at = fmt::format("{}/{}", where, index++);
          const Value& dataName = dataRecord.get("name");
          const Value& length = dataRecord.get("length");
          if (!dataRecord.isDictionary() || !isLength(length)) {
            if (invalidContent(at)) return Value();
            continue;
          }
          if (!dataName.isString() || !isSafePathComponent(dataName.str())) {
            if (invalidName(dataName)) return Value();
            continue;
          }
          const Url dataURL = correctedDataURL(
              env, Url::fileURL(folderPath + "/Data/" + std::string(dataName.str())));
          const std::string dataPath = dataURL.path();
          const std::string dataText = shortURL(dataURL);
          if (length.intValue() > 0 && !QuillonIsOnDisk(dataPath, env)) {
            if (fail(fmt::format("Data file is not on disk: {}", dataText), error, Value())) {
              return Value();
            }
          }

          // A file that is missing has neither size nor digest and so never matches.
          const Value* hash = dataRecord.find("hash");
          bool matches = false;
          if (lightWeight || !hash) {
            FileAttributes attributes;
            if (!env->attributes(dataPath, &attributes) && attributes.isRegular()) {
              matches = Value(attributes.size) == length;
            }
          } else {
            std::vector<uint8_t> bytes;
            if (!env->readFile(dataPath, &bytes)) {
              matches = Value(quillonSHA256HexDigest(bytes)) == *hash;
            }
          }
          if (!matches) {
            if (fail(fmt::format("Missing or incomplete data file: {}", dataText), warning,
                     ignoreMenu)) {
              return Value();
            }
          }
        }
      }
    }
  }

  if (failed) {
    log(fmt::format("Failed validation {}", changeText), error);
    setErrorLevel(error);
    return recovering ? combined : Value();
  }
  log(fmt::format("Completed validation {}", changeText), success);
  setErrorLevel(success);
  return combined;
}

}  // namespace quillon
