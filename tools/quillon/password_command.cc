// quillon password remember PKG [--password P]
// quillon password forget PKG
// Keeps a package's password in the keychain, or removes it: a generic
// password item whose service is the tool's application identifier and whose
// account is the document identifier, as applications keep them. Commands
// that open an encrypted package without --password then use it.

#include <CLI/CLI.hpp>

#include <memory>
#include <optional>
#include <string>

#include "package.h"
#include "quillon/base/env.h"
#include "quillon/coding/keychain_item.h"
#include "quillon/platform/secret_store.h"
#include "tool.h"

namespace quillon::tool {
namespace {

struct PasswordOptions {
  std::string package;
  std::optional<std::string> password;
};

std::string documentIdentifierOf(const std::string& path) {
  Value identifier = QuillonStore::documentIdentifierForURL(Url::fileURL(path, true));
  if (!identifier.isString() || identifier.str().empty()) {
    throw ToolError(path + " has no document identifier");
  }
  return std::string(identifier.str());
}

std::string keychainFailure(const Error& error) {
  return error.localizedDescription() + " (status " + std::to_string(error.code()) + ")";
}

void runRemember(PasswordOptions options) {
  if (!options.password) throw ToolError("give the password to remember with --password");
  checkPackageAccess(options.package, options.password);
  const std::string account = documentIdentifierOf(options.package);
  // Items are added, never changed: a password remembered before goes first.
  Error error;
  if (auto old = OrdoStoreGenericKeychainItem::genericKeychainItemForService(
          kToolApplicationIdentifier, account, Value(), &error)) {
    if (old->password() == *options.password) return;
    if (!old->removeFromKeychainWithError(&error)) {
      throw ToolError("cannot replace the remembered password: " + keychainFailure(error));
    }
  } else if (error.code() != kSecretStoreItemNotFound) {
    throw ToolError("cannot reach the keychain: " + keychainFailure(error));
  }
  if (!OrdoStoreGenericKeychainItem::genericKeychainItemWithService(
          kToolApplicationIdentifier, account, Value(), *options.password, &error)) {
    throw ToolError("cannot remember the password: " + keychainFailure(error));
  }
}

void runForget(const PasswordOptions& options) {
  // A remembered password that no longer opens the package can be forgotten
  // too: only the package's identity matters here.
  Env* env = QuillonStore::defaultEnv();
  if (!env->exists(options.package)) throw ToolError(options.package + " does not exist");
  if (!env->isDirectory(options.package) || !QuillonStore::isCorrectFormat(options.package)) {
    throw ToolError(options.package + " is not a Quillon package");
  }
  const std::string account = documentIdentifierOf(options.package);
  Error error;
  auto item = OrdoStoreGenericKeychainItem::genericKeychainItemForService(
      kToolApplicationIdentifier, account, Value(), &error);
  if (!item) {
    if (error.code() == kSecretStoreItemNotFound) {
      throw ToolError("no password is remembered for " + options.package);
    }
    throw ToolError("cannot reach the keychain: " + keychainFailure(error));
  }
  if (!item->removeFromKeychainWithError(&error)) {
    throw ToolError("cannot forget the password: " + keychainFailure(error));
  }
}

}  // namespace

void addPasswordCommand(CLI::App& app) {
  CLI::App* command =
      app.add_subcommand("password", "keep a package's password in the keychain, or remove it");
  command->require_subcommand(1);

  auto remember = std::make_shared<PasswordOptions>();
  CLI::App* rememberCommand =
      command->add_subcommand("remember", "keep the package's password in the keychain");
  rememberCommand->add_option("PKG", remember->package, "the document package")->required();
  rememberCommand->add_option("--password", remember->password, "the document's password");
  rememberCommand->callback([remember] { runRemember(*remember); });

  auto forget = std::make_shared<PasswordOptions>();
  CLI::App* forgetCommand =
      command->add_subcommand("forget", "remove the package's password from the keychain");
  forgetCommand->add_option("PKG", forget->package, "the document package")->required();
  forgetCommand->callback([forget] { runForget(*forget); });
}

}  // namespace quillon::tool
