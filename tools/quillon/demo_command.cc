// `quillon demo [DIR]`: the built-in sample. Two computers — two stores, each
// with its own local cache and machine name — share one package in DIR (a
// fresh temporary folder by default). They save edits in turn; each prints
// what arrives from the other as it arrives, through the same folder watching
// and update a desktop application gets. At the end both logs' last lines and
// both checksums are printed; the command succeeds when the checksums agree.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "quillon/base/env.h"
#include "quillon/base/error.h"
#include "quillon/base/notification_center.h"
#include "quillon/base/internal/operation_queue.h"
#include "quillon/base/url.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/graph/managed_object_id.h"
#include "quillon/graph/managed_object_model.h"
#include "quillon/platform/main_queue.h"
#include "quillon/platform/standard_paths.h"
#include "quillon/store/managed_object_context.h"
#include "quillon/store/persistent_store_coordinator.h"
#include "quillon/store/quillon.h"
#include "quillon/store/quillon_package.h"
#include "quillon/store/store.h"
#include "tool.h"

namespace quillon::tool {
namespace {

// The sample's data: notes in folders.
constexpr std::string_view kDemoModelJSON = R"json({"entities": [
  {"name": "Folder",
   "attributes": [{"name": "name", "type": "string"}],
   "relationships": [{"name": "notes", "destination": "Note", "toMany": true,
                      "inverse": "folder", "deleteRule": "nullify"}]},
  {"name": "Note",
   "attributes": [{"name": "title", "type": "string"}, {"name": "body", "type": "string"}],
   "relationships": [{"name": "folder", "destination": "Folder", "inverse": "notes",
                      "deleteRule": "nullify"}]}]})json";

constexpr double kArrivalTimeoutSeconds = 20.0;

std::string describe(const ManagedObjectPtr& object) {
  std::string text = storeSavePath(*object->objectID());
  for (std::string_view key : {"title", "name"}) {
    if (!object->entity()->attributesByName().contains(key)) continue;
    Value value = object->value(key);
    if (value.isString()) text += fmt::format(" \"{}\"", value.str());
  }
  return text;
}

// One computer: its coordinator, store and main-queue context, and what it
// has received from the other so far.
class Computer {
 public:
  Computer(std::string name, const std::string& cacheFolder, const Url& packageURL,
           const std::shared_ptr<const ManagedObjectModel>& model)
      : name_(std::move(name)) {
    // Each computer keeps its own local cache and names itself in its saves.
    QuillonPackage::Options options;
    options.cacheDirectory = cacheFolder;
    options.machineName = name_;
    Error error;
    package_ = QuillonPackage::open(packageURL.path(), model, options, &error);
    if (!package_) {
      throw ToolError(name_ + " cannot open the package: " + error.localizedDescription());
    }
    changedObserver_ =
        package_->observeExternalChanges([this](const Value& userInfo) { received(userInfo); });
  }

  const std::string& name() const { return name_; }
  QuillonStore& store() { return package_->store(); }
  QuillonManagedObjectContext& context() { return package_->context(); }
  int arrivals() const { return arrivals_; }

  void waitUntilReady() {
    if (!package_->waitUntilReady(kArrivalTimeoutSeconds)) {
      throw ToolError(name_ + " did not finish opening the package");
    }
  }

  std::vector<ManagedObjectPtr> notes() {
    FetchRequest request("Note");
    Error error;
    std::vector<ManagedObjectPtr> objects;
    for (const Value& value : context().executeFetchRequest(request, &error)) {
      if (auto object = std::dynamic_pointer_cast<ManagedObject>(value.objectValue())) {
        objects.push_back(object);
      }
    }
    return objects;
  }

  ManagedObjectPtr insertNote(const std::string& title, const std::string& body) {
    ManagedObjectPtr note = context().insertNewObjectForEntityForName("Note");
    note->setValue("title", Value(title));
    note->setValue("body", Value(body));
    return note;
  }

  void save(const std::string& what) {
    std::printf("%s saves: %s\n", name_.c_str(), what.c_str());
    std::fflush(stdout);
    if (Error error = package_->save()) {
      throw ToolError(name_ + " could not save: " + error.localizedDescription());
    }
  }

  // The last `count` entries of the store's log, oldest first.
  std::vector<std::string> lastLogLines(size_t count) {
    MainQueue::drain();
    Value entries = store().logEntries();  // newest first
    std::vector<std::string> lines;
    for (size_t i = std::min(count, entries.size()); i-- > 0;) {
      const Value& message = entries[i].get("message");
      if (message.isString()) lines.emplace_back(message.str());
    }
    return lines;
  }

 private:
  void received(const Value& userInfo) {
    std::vector<std::string> lines;
    for (auto [key, verb] : {std::pair{kQuillonInsertedObjectsKey, "inserted"},
                             std::pair{kQuillonUpdatedObjectsKey, "updated"},
                             std::pair{kQuillonDeletedObjectsKey, "deleted"}}) {
      const Value& objects = userInfo.get(key);
      if (!objects.isContainer()) continue;
      for (const Value& member : objects.elements()) {
        auto object = std::dynamic_pointer_cast<ManagedObject>(member.objectValue());
        if (!object) continue;
        // A deleted object's values are gone; its path says which it was.
        std::string text = key == kQuillonDeletedObjectsKey ? storeSavePath(*object->objectID())
                                                            : describe(object);
        lines.push_back(fmt::format("  {} {}", verb, text));
      }
    }
    if (lines.empty()) return;
    ++arrivals_;
    std::printf("%s receives from the other computer:\n", name_.c_str());
    for (const std::string& line : lines) std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }

  std::string name_;
  std::unique_ptr<QuillonPackage> package_;
  ScopedObserver changedObserver_;
  int arrivals_ = 0;
};

// Runs the main loop until `receiver` has announced one more arrival.
void awaitArrival(Computer& receiver, int before) {
  if (!MainQueue::runUntil([&] { return receiver.arrivals() > before; }, kArrivalTimeoutSeconds)) {
    throw ToolError(receiver.name() + " received nothing from the other computer");
  }
}

std::string makeTemporaryFolder() {
  std::string pattern = StandardPaths::temporaryDirectory() + "/quillon-demo-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) throw ToolError("cannot make a temporary folder");
  return buffer.data();
}

int runDemo(const std::string& requestedFolder) {
  MainQueue::setMainThreadToCurrent();
  Quillon::registerStore();
  const bool temporary = requestedFolder.empty();
  const std::string folder = temporary ? makeTemporaryFolder() : requestedFolder;
  Env* env = Env::Default();
  if (Error error = env->createDirectories(folder)) {
    throw ToolError("cannot use " + folder + ": " + error.localizedDescription());
  }
  const std::string packagePath = folder + "/Notes.quillon";
  if (env->exists(packagePath)) {
    throw ToolError(packagePath + " already exists; give the demo an empty folder");
  }
  Error modelError;
  auto model = ManagedObjectModel::fromJSON(kDemoModelJSON, &modelError);
  if (!model)
    throw ToolError("the sample model does not load: " + modelError.localizedDescription());
  const Url packageURL = Url::fileURL(packagePath, true);
  std::printf("Two computers share %s\n", packagePath.c_str());

  bool agree = false;
  {
    Computer first("computer-A", folder + "/cache-A", packageURL, model);
    first.waitUntilReady();
    first.insertNote("Shopping", "milk, bread");
    first.insertNote("Ideas", "a demo that shows itself");
    first.save("two new notes");

    Computer second("computer-B", folder + "/cache-B", packageURL, model);
    second.waitUntilReady();
    std::vector<ManagedObjectPtr> seen = second.notes();
    std::printf("computer-B opens the document and finds %zu notes\n", seen.size());
    first.notes();  // both contexts now take part in external updates

    int before = first.arrivals();
    for (const ManagedObjectPtr& note : seen) {
      if (note->value("title") == Value("Shopping"))
        note->setValue("body", Value("milk, bread, tea"));
    }
    second.insertNote("Holidays", "book the train");
    second.save("one edited note and one new note");
    awaitArrival(first, before);

    before = second.arrivals();
    for (const ManagedObjectPtr& note : first.notes()) {
      if (note->value("title") == Value("Ideas")) first.context().deleteObject(note);
    }
    first.save("one deleted note");
    awaitArrival(second, before);

    before = first.arrivals();
    for (const ManagedObjectPtr& note : second.notes()) {
      if (note->value("title") == Value("Holidays"))
        note->setValue("title", Value("Summer holidays"));
    }
    second.save("one renamed note");
    awaitArrival(first, before);
    MainQueue::drain();

    for (Computer* computer : {&first, &second}) {
      std::printf("%s log, last lines:\n", computer->name().c_str());
      for (const std::string& line : computer->lastLogLines(4)) std::printf("  %s\n", line.c_str());
    }
    const std::string firstSum = first.store().checkSum();
    const std::string secondSum = second.store().checkSum();
    std::printf("computer-A checksum: %s\ncomputer-B checksum: %s\n", firstSum.c_str(),
                secondSum.c_str());
    agree = !firstSum.empty() && firstSum == secondSum;
    std::printf("%s\n", agree ? "The two computers agree." : "The two computers DISAGREE.");
    std::fflush(stdout);
  }
  if (temporary) env->removeItem(folder);
  return agree ? 0 : 1;
}

}  // namespace

void addDemoCommand(CLI::App& app) {
  auto folder = std::make_shared<std::string>();
  auto* command =
      app.add_subcommand("demo", "the built-in sample: two computers share one package");
  command->add_option("DIR", *folder, "where to put the package (a temporary folder by default)");
  command->callback([folder] {
    if (runDemo(*folder) != 0) throw ToolError("the two computers' checksums differ");
  });
}

}  // namespace quillon::tool
