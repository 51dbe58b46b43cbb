// quillon cat PKG RELPATH [--password P]
// Prints one file of a package, decrypted: JSON pretty-printed, property
// lists as XML, anything else as it is. Reads only.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <optional>

#include "package.h"
#include "quillon/base/env.h"
#include "quillon/base/json.h"
#include "quillon/base/internal/plist.h"
#include "tool.h"

namespace quillon::tool {
namespace {

struct CatOptions {
  std::string path;
  std::string relativePath;
  std::optional<std::string> password;
};

// The file's absolute path, refusing anything that could leave the package:
// absolute paths, "..", and symbolic links on the way.
std::string fileInside(const std::string& package, const std::string& relative) {
  if (relative.empty() || relative.front() == '/') {
    throw ToolError("the file must be a path inside the package: " + relative);
  }
  Env* env = QuillonStore::defaultEnv();
  std::string path = package;
  size_t start = 0;
  while (start <= relative.size()) {
    size_t end = relative.find('/', start);
    if (end == std::string::npos) end = relative.size();
    std::string component = relative.substr(start, end - start);
    start = end + 1;
    if (component.empty() || component == ".") continue;
    if (component == ".." || component.find('\0') != std::string::npos) {
      throw ToolError("the file must be a path inside the package: " + relative);
    }
    path += "/" + component;
    FileAttributes attributes;
    if (env->attributes(path, &attributes)) {
      throw ToolError("no such file in the package: " + relative);
    }
    if (attributes.type == FileAttributes::Type::Symlink) {
      throw ToolError("refusing to follow a symbolic link: " + relative);
    }
  }
  return path;
}

void runCat(CatOptions options) {
  while (options.path.size() > 1 && options.path.back() == '/') options.path.pop_back();
  std::string path;
  if (!QuillonStore::isCorrectFormat(options.path)) {
    // Let the access check name the reason.
    checkPackageAccess(options.path, options.password);
  }
  path = fileInside(options.path, options.relativePath);
  bool isInfo = path == options.path + "/Info.plist";
  // Info.plist is never encrypted, so it needs no password; every other file does.
  if (!isInfo || options.password) checkPackageAccess(options.path, options.password);
  FileAttributes attributes;
  QuillonStore::defaultEnv()->attributes(path, &attributes);
  if (!attributes.isRegular()) throw ToolError(options.relativePath + " is not a file");
  std::vector<uint8_t> bytes = readWholeFile(path);
  if (options.password && !isInfo) {
    bytes = decryptPackageFile(bytes, options.path, *options.password, options.relativePath);
  }
  Error error;
  Value json = readJSON(std::span<const uint8_t>(bytes), &error);
  if (!error) {
    std::string text = writeJSON(json, JSONStyle::Pretty, &error, JSONSlashes::Plain);
    if (!error) {
      std::printf("%s\n", text.c_str());
      return;
    }
  }
  error = Error();
  Value plist = readPropertyList(bytes, &error);
  if (!error && !plist.isNil()) {
    std::string xml = writePropertyListXML(plist, &error);
    if (!error) {
      std::fwrite(xml.data(), 1, xml.size(), stdout);
      return;
    }
  }
  std::fwrite(bytes.data(), 1, bytes.size(), stdout);
}

}  // namespace

void addCatCommand(CLI::App& app) {
  auto options = std::make_shared<CatOptions>();
  CLI::App* command = app.add_subcommand(
      "cat", "print one package file, decrypted (JSON pretty-printed, property lists as XML)");
  command->add_option("PKG", options->path, "the package")->required();
  command->add_option("RELPATH", options->relativePath,
                      "the file, relative to the package (e.g. Changes/<name>.json)")
      ->required();
  command->add_option("--password", options->password, "the document's password");
  command->callback([options] { runCat(*options); });
}

}  // namespace quillon::tool
