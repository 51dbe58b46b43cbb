#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "quillon/base/env.h"
#include "quillon/base/value.h"

namespace quillon {

// Operations on texts used throughout the framework: object-identifier paths,
// digests, localisation, anonymising and backup lookup. Stateless and
// thread-safe, except setBackupProvider() (see there).

// The uid of an object path ("Entity/p12", "x-quillon://Doc/Entity/p12",
// "t1A2B"): the text after the last "/" (all of it when there is none),
// without a leading "p" or "t" (the permanent and temporary prefixes).
std::string storeUID(std::string_view path);
// The same as storeUID(); an older name that callers still use.
std::string storeUIDOff(std::string_view path);
// The first non-empty "/"-separated component ("/Entity/p12" -> "Entity").
std::string storeEntityName(std::string_view path);

// SHA-256 of the UTF-8 bytes, 64 upper-case hexadecimal digits.
std::string storeSHA256String(std::string_view text);
// MD5 of the UTF-8 bytes, 32 upper-case hexadecimal digits.
std::string storeMD5String(std::string_view text);

// The localised text for `key` (the key itself when there is none).
std::string QuillonLocalizedString(std::string_view key);

// A shortened form for exported documents: the first character, "…" (U+2026)
// and the last character for texts of three or more characters; "…" alone
// for shorter ones. Characters are Unicode code points of the UTF-8 text; a
// byte that is not valid UTF-8 counts as one character.
std::string anonymize(std::string_view text);
inline std::string anonymize(const char* text) { return anonymize(std::string_view(text)); }
inline std::string anonymize(const std::string& text) { return anonymize(std::string_view(text)); }
// anonymize() of a string value; nil for every other kind.
Value anonymize(const Value& value);

// Where earlier copies of files are kept: answers the backup databases
// ("…/Backups.backupdb" folders) reachable on this machine. Each database
// holds machine folders, each holding dated snapshot folders, each holding
// volumes by name.
using BackupProvider = std::function<std::vector<std::string>()>;

// Installs the provider for timeMachineBackupPath(); an empty function
// removes it. The host installs it once at start-up, before other threads
// ask for backups.
void setBackupProvider(BackupProvider provider);

// A provider that looks on every mounted volume for a "Backups.backupdb"
// folder at its root, or takes the volume itself when its mount point lies
// inside such a folder.
std::vector<std::string> mountedBackupDatabases(Env* env = Env::Default());

// The existing earlier copies of the file at `path` in the provider's backup
// databases, newest snapshot first. Empty when no provider is installed.
std::vector<std::string> timeMachineBackupPath(std::string_view path, Env* env = Env::Default());

}  // namespace quillon
