// quillon changes PKG [--password P]
// Lists the change files of a package, newest first. Reads only.

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <memory>
#include <optional>

#include "package.h"
#include "quillon/base/env.h"
#include "quillon/base/json.h"
#include "quillon/coding/sea_crypto.h"
#include "tool.h"

namespace quillon::tool {
namespace {

constexpr const char* kFormatHelp =
    "One line per change file of PKG/Changes, newest first, four fields separated by tabs:\n"
    "  NAME  DATE  MACHINE/USER  +INSERTED ~UPDATED -DELETED\n"
    "NAME is the file name, DATE the save's date as recorded in the file, MACHINE/USER the\n"
    "computer and login name of the writer, and the counts the objects the save touched.\n"
    "A recovery change shows \"recovery\" as writer and counts the objects it refreshes;\n"
    "a file that cannot be read shows \"-\" as date and the reason as writer.";

struct ChangesOptions {
  std::string path;
  std::optional<std::string> password;
};

bool hasJSONExtension(const std::string& name) {
  size_t dot = name.rfind('.');
  if (dot == std::string::npos) return false;
  std::string extension = name.substr(dot + 1);
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return extension == "json";
}

size_t countObjects(const Value& byEntity) {
  size_t count = 0;
  if (!byEntity.isDictionary()) return 0;
  for (const auto& entry : byEntity.items()) {
    if (entry.second.isDictionary()) count += entry.second.size();
  }
  return count;
}

std::string textOr(const Value& value, const char* fallback) {
  return value.isString() ? std::string(value.str()) : std::string(fallback);
}

// Control characters in names written by another computer would break the
// one-line-per-change layout.
std::string printable(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return text;
}

std::string describe(const std::string& name, const Value& change) {
  bool recovery = change.get("type").isString() && change.get("type").str() == "recovery";
  const Value& objects = recovery ? change.get("refreshes") : change.get("changes");
  std::string writer = "recovery";
  if (!recovery) {
    const Value& session = change.get("session");
    writer = textOr(session.get("machineName"), "-") + "/" + textOr(session.get("userName"), "-");
  }
  return fmt::format("{}\t{}\t{}\t+{} ~{} -{}", printable(name),
                     printable(textOr(change.get("date"), "-")), printable(writer),
                     countObjects(objects.get("insert")), countObjects(objects.get("update")),
                     countObjects(objects.get("delete")));
}

void runChanges(ChangesOptions options) {
  while (options.path.size() > 1 && options.path.back() == '/') options.path.pop_back();
  checkPackageAccess(options.path, options.password);
  Env* env = QuillonStore::defaultEnv();
  std::string folder = options.path + "/Changes";
  std::vector<std::string> names;
  if (env->exists(folder)) {
    if (Error error = env->listDirectory(folder, &names)) {
      throw ToolError("cannot list " + folder + ": " + error.localizedDescription());
    }
  }
  std::erase_if(names, [](const std::string& name) {
    return name.empty() || name.front() == '.' || !hasJSONExtension(name);
  });
  // Names begin with the save's date, so their byte order is the order of history.
  std::sort(names.begin(), names.end(), std::greater<>());
  // One key derivation for all files: it is deliberately slow.
  std::optional<SeaCrypto> crypto;
  if (options.password) {
    Value encryption = QuillonStore::infoDictionaryForURL(
                                  Url::fileURL(options.path, true))
                                  .get(kSeaCryptoEncryptionKey);
    crypto.emplace();
    crypto->setSalt(encryption.get(kSeaCryptoSaltKey));
    crypto->setRounds(encryption.get(kSeaCryptoRoundsKey));
    if (!crypto->setPassword(Value(*options.password))) {
      throw ToolError("the \"Encryption\" entry of " + options.path + "/Info.plist is unusable");
    }
  }
  for (const std::string& name : names) {
    std::string line;
    std::vector<uint8_t> bytes;
    if (env->readFile(folder + "/" + name, &bytes)) {
      line = printable(name) + "\t-\tunreadable\t-";
    } else {
      bool readable = true;
      if (crypto) {
        std::vector<uint8_t> plain;
        readable = crypto->decryptBytes(bytes, &plain);
        bytes = std::move(plain);
      }
      Error error;
      Value change = readable ? readJSON(std::span<const uint8_t>(bytes), &error) : Value();
      if (!readable) {
        line = printable(name) + "\t-\tcannot decrypt\t-";
      } else if (error || !change.isDictionary()) {
        line = printable(name) + "\t-\tnot a change file\t-";
      } else {
        line = describe(name, change);
      }
    }
    std::printf("%s\n", line.c_str());
  }
}

}  // namespace

void addChangesCommand(CLI::App& app) {
  auto options = std::make_shared<ChangesOptions>();
  CLI::App* command = app.add_subcommand("changes", "list the change files, newest first");
  command->footer(kFormatHelp);
  command->add_option("PKG", options->path, "the package")->required();
  command->add_option("--password", options->password, "the document's password");
  command->callback([options] { runChanges(*options); });
}

}  // namespace quillon::tool
