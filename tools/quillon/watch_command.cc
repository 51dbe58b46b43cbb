// quillon watch PKG --model M [--password P]
// Keeps the package open as an application would: the store watches the
// "Changes" folder and applies other computers' changes as they arrive. Each
// change applied after opening is printed as one JSON line:
//   {"change":"<name>.json","computer":"<machine>","inserted":["Entity/UID",…],
//    "updated":[…],"deleted":[…]}
// On SIGINT or SIGTERM the local cache is saved and the tool exits 0.

#include <glib-unix.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "package.h"
#include "quillon/base/json.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/quillon.h"
#include "tool.h"

namespace quillon::tool {
namespace {

struct WatchOptions {
  std::string package;
  std::string model;
  std::optional<std::string> password;
};

// "Entity/UID" of every object under one member ("insert", …) of a change's
// object lists, in entity and uid order.
Value pathsOf(const Value& lists, std::string_view member) {
  std::set<std::string> paths;
  const Value& byEntity = lists.isDictionary() ? lists.get(member) : Value();
  if (byEntity.isDictionary()) {
    for (const auto& [entity, uids] : byEntity.items()) {
      if (!entity.isString() || !uids.isDictionary()) continue;
      for (const auto& entry : uids.items()) {
        if (entry.first.isString()) {
          paths.insert(std::string(entity.str()) + "/" + std::string(entry.first.str()));
        }
      }
    }
  }
  Value out = Value::mutableArray();
  for (const std::string& path : paths) out.append(Value(path));
  return out;
}

Value lineForChange(const Value& change) {
  const bool recovery = change.get("type").isString() && change.get("type").str() == "recovery";
  const Value& lists = change.get(recovery ? "refreshes" : kQuillonChanges);
  const Value& session = change.get("session");
  Value line = Value::mutableDictionary();
  line.set(Value("change"), change.get("name").isString() ? change.get("name") : Value(""));
  const Value& machine = session.isDictionary() ? session.get("machineName") : Value();
  line.set(Value("computer"), machine.isString() ? machine : Value(""));
  line.set(Value("inserted"), pathsOf(lists, kQuillonInsert));
  line.set(Value("updated"), pathsOf(lists, kQuillonUpdate));
  line.set(Value("deleted"), pathsOf(lists, kQuillonDelete));
  return line;
}

std::string nameOf(const Value& change) {
  const Value& name = change.isDictionary() ? change.get("name") : Value();
  return name.isString() ? std::string(name.str()) : std::string();
}

gboolean onStopSignal(gpointer stop) {
  *static_cast<bool*>(stop) = true;
  MainQueue::wakeUp();
  return G_SOURCE_CONTINUE;
}

void runWatch(const WatchOptions& options) {
  bool stop = false;
  // Installed before opening, so that a signal during a long first update
  // still ends the tool the orderly way.
  guint intSource = g_unix_signal_add(SIGINT, &onStopSignal, &stop);
  guint termSource = g_unix_signal_add(SIGTERM, &onStopSignal, &stop);

  auto package = std::make_unique<OpenPackage>(OpenPackage::Options{
      .path = options.package, .modelPath = options.model, .password = options.password});
  package->waitUntilReady();
  MainQueue::drain();

  // What was applied before the watch began is history, not news. A change
  // log cut and re-applied from an earlier point (a late change of another
  // computer sorted in before others) prints only the late one.
  std::set<std::string> printed;
  for (const Value& change : package->store().cache().changes().elements()) {
    printed.insert(nameOf(change));
  }
  std::fprintf(stderr, "watching %s (%zu change%s applied)\n", options.package.c_str(),
               printed.size(), printed.size() == 1 ? "" : "s");

  int seenReady = package->readyCount();
  while (!stop) {
    MainQueue::runUntil([&] { return stop || package->readyCount() != seenReady; }, 3600);
    if (package->readyCount() == seenReady) continue;
    seenReady = package->readyCount();
    MainQueue::drain();
    for (const Value& change : package->store().cache().changes().elements()) {
      std::string name = nameOf(change);
      if (name.empty() || !printed.insert(name).second) continue;
      std::printf("%s\n",
                  writeJSON(lineForChange(change), JSONStyle::Compact, nullptr, JSONSlashes::Plain)
                      .c_str());
    }
    std::fflush(stdout);
  }
  // Closing writes the local cache and waits for it.
  package.reset();
  g_source_remove(intSource);
  g_source_remove(termSource);
}

}  // namespace

void addWatchCommand(CLI::App& app) {
  auto options = std::make_shared<WatchOptions>();
  CLI::App* command = app.add_subcommand(
      "watch", "stay open like an application; one JSON line per change of another computer");
  command->add_option("PKG", options->package, "the document package")->required();
  command->add_option("--model", options->model, "the model file (JSON)")->required();
  command->add_option("--password", options->password, "the document's password");
  command->callback([options] { runWatch(*options); });
}

}  // namespace quillon::tool
