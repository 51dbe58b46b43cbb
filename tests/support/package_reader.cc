#include "support/package_reader.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "quillon/base/json.h"
#include "quillon/base/internal/plist.h"

namespace quillon {
namespace {

namespace fs = std::filesystem;

std::optional<std::vector<uint8_t>> slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::string hex(const uint8_t* bytes, size_t size) {
  static const char* digits = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < size; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

std::string sha256Hex(const std::vector<uint8_t>& bytes) {
  uint8_t digest[SHA256_DIGEST_LENGTH];
  SHA256(bytes.data(), bytes.size(), digest);
  return hex(digest, sizeof digest);
}

bool isStringArrayOfPaths(const Value& value) {
  if (!value.isArray()) return false;
  for (const Value& element : value.elements()) {
    if (!element.isString()) return false;
    std::string_view path = element.str();
    size_t slash = path.find('/');
    if (slash == 0 || slash == std::string_view::npos || slash + 1 == path.size() ||
        path.find('/', slash + 1) != std::string_view::npos) {
      return false;
    }
  }
  return true;
}

// Characters of `text` match `shape`: '9' a digit, 'X' an upper-case
// hexadecimal digit, anything else itself.
bool hasShape(std::string_view text, std::string_view shape) {
  if (text.size() != shape.size()) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (shape[i] == '9' ? !(c >= '0' && c <= '9')
        : shape[i] == 'X' ? !((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))
                          : c != shape[i]) {
      return false;
    }
  }
  return true;
}

constexpr std::string_view kChangeNameShape =
    "9999-99-99-99-99-99.999.XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX.json";
constexpr std::string_view kDateShape = "9999-99-99T99:99:99.999+0000";

bool onlyKeys(const Value& dictionary, std::initializer_list<std::string_view> allowed) {
  for (const auto& [key, value] : dictionary.items()) {
    if (std::find(allowed.begin(), allowed.end(), key.str()) == allowed.end()) return false;
  }
  return true;
}

}  // namespace

PackageReader::PackageReader(std::string packagePath, std::vector<std::string> entityNames,
                             std::optional<std::string> password)
    : path_(std::move(packagePath)),
      entityNames_(std::move(entityNames)),
      password_(std::move(password)) {
  for (const auto& name : entityNames_) keyToEntity_[entityKey(name)] = name;
  readInfo();
  readChanges();
  findOrphans();
}

std::string PackageReader::problemsText() const {
  std::string text;
  for (const auto& p : problems_) text += p + "\n";
  return text;
}

std::string PackageReader::entityKey(const std::string& entity) const {
  if (!password_) return entity;
  // The key of an encrypted package hides the name behind a digest that
  // every package shares.
  std::string text = "(null)." + entity + ".org.quillon.Quillon";
  return sha256Hex(std::vector<uint8_t>(text.begin(), text.end()));
}

std::optional<std::vector<uint8_t>> PackageReader::readFile(const std::string& relative) const {
  auto bytes = slurp(fs::path(path_) / relative);
  if (!bytes || !password_) return bytes;
  return unseal(*bytes);
}

std::optional<std::vector<uint8_t>> PackageReader::unseal(const std::vector<uint8_t>& sealed) const {
  const std::vector<uint8_t>* bytes = &sealed;
  // 16-byte IV, AES-256-CBC ciphertext, HMAC-SHA512 over both.
  if (key_.empty() || bytes->size() < 96 || (bytes->size() - 80) % 16 != 0) return std::nullopt;
  size_t macAt = bytes->size() - 64;
  uint8_t mac[64];
  unsigned macLength = 0;
  HMAC(EVP_sha512(), hmacKey_.data(), static_cast<int>(hmacKey_.size()), bytes->data(), macAt, mac,
       &macLength);
  if (macLength != 64 || CRYPTO_memcmp(mac, bytes->data() + macAt, 64) != 0) return std::nullopt;
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  std::vector<uint8_t> plain(macAt);
  int a = 0, b = 0;
  bool ok = EVP_DecryptInit_ex(ctx, EVP_aes_256_cbc(), nullptr, key_.data(), bytes->data()) == 1 &&
            EVP_DecryptUpdate(ctx, plain.data(), &a, bytes->data() + 16,
                              static_cast<int>(macAt - 16)) == 1 &&
            EVP_DecryptFinal_ex(ctx, plain.data() + a, &b) == 1;
  EVP_CIPHER_CTX_free(ctx);
  if (!ok) return std::nullopt;
  plain.resize(static_cast<size_t>(a + b));
  return plain;
}

void PackageReader::readInfo() {
  auto bytes = slurp(fs::path(path_) / "Info.plist");
  if (!bytes) return problem("Info.plist is missing");
  info_ = readPropertyList(*bytes);
  if (!info_.isDictionary()) return problem("Info.plist is not a dictionary");
  if (!info_.get("DocumentIdentifier").isString()) problem("Info.plist: no DocumentIdentifier");
  if (!info_.get("DateCreation").isDate()) problem("Info.plist: DateCreation is not a date");
  for (const char* bundle : {"Application", "Quillon"}) {
    const Value& dictionary = info_.get(bundle);
    if (!dictionary.isDictionary() ||
        !onlyKeys(dictionary, {"CFBundleIdentifier", "CFBundleVersion",
                               "CFBundleShortVersionString"})) {
      problem(std::string("Info.plist: ") + bundle + " is not a bundle dictionary");
    }
  }
  if (!info_.get("Quillon").get("CFBundleIdentifier").isString()) {
    problem("Info.plist: Quillon.CFBundleIdentifier missing");
  }
  const Value& encryption = info_.get("Encryption");
  if (password_.has_value() != !encryption.isNil()) {
    return problem("Info.plist: Encryption present without a password or missing with one");
  }
  if (!password_) return;
  const Value& salt = encryption.get("Salt");
  const Value& rounds = encryption.get("Rounds");
  if (!salt.isData() || salt.bytes().size() != 64 || !rounds.isInteger() || rounds.intValue() < 1 ||
      !encryption.get("Info").isData()) {
    return problem("Info.plist: malformed Encryption");
  }
  uint8_t derived[64];
  PKCS5_PBKDF2_HMAC(password_->data(), static_cast<int>(password_->size()), salt.bytes().data(), 64,
                    static_cast<int>(rounds.intValue()), EVP_sha512(), 64, derived);
  key_.assign(derived, derived + 32);
  hmacKey_.assign(derived + 32, derived + 64);
  // The password check value is an envelope of the password itself.
  auto info = encryption.get("Info").bytes();
  auto check = unseal(std::vector<uint8_t>(info.begin(), info.end()));
  if (!check || std::string(check->begin(), check->end()) != *password_) {
    problem("Info.plist: the password check value does not open with the password");
  }
}

void PackageReader::readChanges() {
  fs::path folder = fs::path(path_) / "Changes";
  if (!fs::exists(folder)) return;
  std::vector<std::string> names;
  for (const auto& item : fs::directory_iterator(folder)) {
    std::string name = item.path().filename().string();
    if (name.starts_with(".")) {
      problem("Changes/" + name + ": a hidden file is left over");
      continue;
    }
    if (item.path().extension() == ".json") names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  for (const auto& name : names) {
    auto bytes = readFile("Changes/" + name);
    if (!bytes) {
      problem("Changes/" + name + ": unreadable");
      continue;
    }
    Value content = readJSON(*bytes);
    if (!content.isDictionary()) {
      problem("Changes/" + name + ": not a JSON object");
      continue;
    }
    changes_.push_back(Change{name, content});
  }
  for (const auto& change : changes_) checkChange(change);
}

void PackageReader::checkChange(const Change& change) {
  const std::string where = "Changes/" + change.fileName + ": ";
  const Value& c = change.content;
  const bool wellNamed = hasShape(change.fileName, kChangeNameShape);
  if (!wellNamed) problem(where + "the file name is not <date>.<UUID>.json");
  if (c.get("name") != Value::string(change.fileName)) problem(where + "\"name\" is not the file name");
  if (c.get("type") == Value::string("recovery")) {
    if (!onlyKeys(c, {"name", "type", "refreshes"})) problem(where + "unexpected recovery keys");
    return;
  }
  if (!onlyKeys(c, {"name", "date", "changes", "session", "previousName"})) {
    problem(where + "unexpected keys");
  }
  // "yyyy-MM-ddTHH:mm:ss.SSS+0000", the same instant as the name's date.
  const Value& date = c.get("date");
  std::string dateText = date.isString() ? std::string(date.str()) : "";
  if (!hasShape(dateText, kDateShape)) {
    problem(where + "\"date\" is not a GMT date text");
  } else if (wellNamed) {
    // "yyyy-MM-dd-HH-mm-ss.SSS" and "yyyy-MM-ddTHH:mm:ss.SSS" name one instant.
    std::string fromName = change.fileName.substr(0, 23);
    fromName[10] = 'T';
    fromName[13] = ':';
    fromName[16] = ':';
    if (dateText.substr(0, 23) != fromName) problem(where + "\"date\" and the name's date differ");
  }
  const Value& session = c.get("session");
  if (!session.isDictionary() ||
      !onlyKeys(session, {"userName", "fullUserName", "machineName", "id", "version", "osVersion",
                          "userInfo"})) {
    problem(where + "malformed \"session\"");
  } else {
    for (const char* key : {"userName", "fullUserName", "machineName", "id", "version", "osVersion"}) {
      if (!session.get(key).isString()) problem(where + "session has no string " + key);
    }
  }
  const Value& previousName = c.get("previousName");
  // The previous change may be one this package no longer holds (discarded
  // or not yet synchronised), but it is always an earlier one.
  std::string previousText = previousName.isString() ? std::string(previousName.str()) : "";
  if (!previousName.isNil() && (!hasShape(previousText, kChangeNameShape) ||
                                previousText >= change.fileName)) {
    problem(where + "\"previousName\" names no earlier change");
  }
  const Value& changes = c.get("changes");
  if (changes.isNil()) return;
  if (!changes.isDictionary() || changes.empty() || !onlyKeys(changes, {"insert", "update", "delete"})) {
    return problem(where + "malformed \"changes\"");
  }
  for (const auto& [type, byEntity] : changes.items()) {
    if (!byEntity.isDictionary() || byEntity.empty()) {
      problem(where + "empty or malformed \"" + std::string(type.str()) + "\"");
      continue;
    }
    for (const auto& [entity, byUID] : byEntity.items()) {
      if (!keyToEntity_.count(entityKey(std::string(entity.str())))) {
        problem(where + "unknown entity " + std::string(entity.str()));
        continue;
      }
      if (!byUID.isDictionary() || byUID.empty()) {
        problem(where + "malformed uids of " + std::string(entity.str()));
        continue;
      }
      for (const auto& [uid, entry] : byUID.items()) {
        if (!entry.isDictionary() || !onlyKeys(entry, {"data"})) {
          problem(where + "malformed entry of " + std::string(uid.str()));
          continue;
        }
        checkRecord(std::string(entity.str()), std::string(uid.str()), change.fileName,
                    std::string(type.str()), entry);
      }
    }
  }
}

void PackageReader::checkRecord(const std::string& entity, const std::string& uid,
                                const std::string& change, const std::string& type,
                                const Value& changeEntry) {
  const std::string folder = "Entities/" + entityKey(entity) + "/" + uid + "/";
  const std::string where = folder + change + ": ";
  auto bytes = readFile(folder + change);
  if (!bytes) return problem(where + "record missing or unreadable");
  Value record = readJSON(*bytes);
  if (!record.isDictionary() || !onlyKeys(record, {"version", "type", "payload"})) {
    return problem(where + "malformed record");
  }
  if (record.get("version") != Value::string("3")) problem(where + "\"version\" is not \"3\"");
  if (record.get("type") != Value::string(type)) problem(where + "\"type\" differs from the change");
  const Value& payload = record.get("payload");
  if (type == "delete" && !payload.isNil()) problem(where + "a delete record has a payload");
  if (!payload.isNil() && (!payload.isDictionary() || payload.empty())) {
    problem(where + "malformed payload");
  }
  std::set<std::string> dataNames;
  for (const auto& [key, entry] : payload.isDictionary() ? payload.items()
                                                         : std::span<const Value::Entry>()) {
    const std::string property = where + std::string(key.str()) + ": ";
    if (!entry.isDictionary() ||
        !onlyKeys(entry, {"value", "length", "hash", "addedValues", "removedValues", "orderedValues"})) {
      problem(property + "malformed entry");
      continue;
    }
    for (const char* list : {"addedValues", "removedValues", "orderedValues"}) {
      const Value& paths = entry.get(list);
      if (!paths.isNil() && (!isStringArrayOfPaths(paths) || paths.empty())) {
        problem(property + list + " is not a non-empty array of Entity/UID paths");
      }
    }
    const Value& length = entry.get("length");
    const Value& hash = entry.get("hash");
    if (length.isNil() && hash.isNil()) continue;
    const Value& name = entry.get("value");
    if (!length.isInteger() || !hash.isString() || !name.isString()) {
      problem(property + "malformed data entry");
      continue;
    }
    auto stored = slurp(fs::path(path_) / (folder + "Data/" + std::string(name.str())));
    if (!stored) {
      problem(property + "data file missing");
      continue;
    }
    if (static_cast<int64_t>(stored->size()) != length.intValue() || sha256Hex(*stored) != hash.str()) {
      problem(property + "data file length or hash differs");
    }
    dataNames.insert(std::string(name.str()));
    bool listed = false;
    for (const Value& data : changeEntry.get("data").isArray() ? changeEntry.get("data").elements()
                                                               : std::span<const Value>()) {
      if (data.get("name") == name && data.get("length") == length && data.get("hash") == hash) {
        listed = true;
      }
    }
    if (!listed) problem(property + "data file not listed in the change entry");
  }
  const Value& data = changeEntry.get("data");
  if (!data.isNil() && (!data.isArray() || data.size() != dataNames.size())) {
    problem(where + "the change lists other data files than the record");
  }
  records_.push_back(Record{entity, uid, change, record});
}

void PackageReader::findOrphans() {
  std::set<std::string> known;
  for (const auto& change : changes_) known.insert(change.fileName);
  fs::path entities = fs::path(path_) / "Entities";
  if (!fs::exists(entities)) return;
  for (const auto& entityFolder : fs::directory_iterator(entities)) {
    std::string key = entityFolder.path().filename().string();
    if (!keyToEntity_.count(key)) {
      problem("Entities/" + key + ": not the key of a model entity");
      continue;
    }
    for (const auto& objectFolder : fs::directory_iterator(entityFolder.path())) {
      for (const auto& file : fs::directory_iterator(objectFolder.path())) {
        std::string name = file.path().filename().string();
        if (name == "Data") continue;
        std::string relative = "Entities/" + key + "/" +
                               objectFolder.path().filename().string() + "/" + name;
        if (name.starts_with(".")) {
          problem(relative + ": a hidden file is left over");
        } else if (!known.count(name)) {
          orphans_.push_back(relative);
        }
      }
    }
  }
}

const PackageReader::Record* PackageReader::record(const std::string& entity,
                                                   const std::string& uid,
                                                   const std::string& change) const {
  for (const auto& r : records_) {
    if (r.entity == entity && r.uid == uid && r.change == change) return &r;
  }
  return nullptr;
}

std::vector<const PackageReader::Record*> PackageReader::recordsOf(const std::string& entity,
                                                                   const std::string& uid) const {
  std::vector<const Record*> found;
  for (const auto& r : records_) {
    if (r.entity == entity && r.uid == uid) found.push_back(&r);
  }
  return found;
}

}  // namespace quillon
