// quillon decode-cache FILE [--package PKG --password P]
// Prints a local-cache file (DenseCoding, sealed when the package has a
// password) as JSON. Reads only; never writes anything.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

#include "decoded_json.h"
#include "quillon/base/error.h"
#include "quillon/base/internal/system_log.h"
#include "quillon/coding/internal/dense_coder.h"
#include "quillon/coding/internal/dense_format.h"
#include "tool.h"

namespace quillon::tool {
namespace {

struct DecodeCacheOptions {
  std::string file;
  std::string package;
  std::string password;
};

void runDecodeCache(const DecodeCacheOptions& options) {
  std::vector<uint8_t> bytes = readWholeFile(options.file);
  if (!options.package.empty()) {
    bytes = decryptPackageFile(bytes, options.package, options.password, options.file);
  }
  if (bytes.size() < 8 || dense::load<uint32_t>(bytes.data()) != dense::kIdentifier) {
    throw ToolError(options.file + " is not a DenseCoding file");
  }
  // The reader's failures are reported once, on the error line.
  SystemLogSink previous = setSystemLogSink([](std::string_view) {});
  struct RestoreSink {
    SystemLogSink& sink;
    ~RestoreSink() { setSystemLogSink(std::move(sink)); }
  } restore{previous};

  Value root = DenseCoder::objectWithData(bytes, DenseCoder::Objects::kStoredForm);
  std::string reason = DenseCoder::lastLoggedReason();
  if (root.isNil() && !reason.empty()) throw ToolError(reason);
  std::string text;
  try {
    text = decodedValueAsJSON(root);
  } catch (...) {
    DenseCoder::breakCycles(root);
    throw;
  }
  DenseCoder::breakCycles(root);
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
}

}  // namespace

void addDecodeCacheCommand(CLI::App& app) {
  auto options = std::make_shared<DecodeCacheOptions>();
  CLI::App* command = app.add_subcommand("decode-cache", "print a local cache file as JSON");
  command->add_option("FILE", options->file, "the cache file (.fast)")->required();
  CLI::Option* package =
      command->add_option("--package", options->package, "the document package, for its key salt");
  CLI::Option* password =
      command->add_option("--password", options->password, "the document's password");
  package->needs(password);
  password->needs(package);
  command->callback([options] { runDecodeCache(*options); });
}

}  // namespace quillon::tool
