// hello: a whole Quillon program. It opens (or creates) a package, adds one
// note, saves it, lists every note, and with --watch SECONDS stays open and
// prints the notes other computers add while it runs. Run it twice on the
// same package, or on two computers that share the package's folder.
//
//   hello NOTES.quillon [--watch SECONDS]

#include <quillon/quillon.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace quillon;

namespace {

constexpr const char* kModel = R"({"entities": [
  {"name": "Note", "attributes": [{"name": "title", "type": "string"},
                                  {"name": "created", "type": "date"}]}]})";

void printNote(const char* prefix, const Value& object) {
  if (auto* note = object.objectAs<ManagedObject>()) {
    Value title = note->value("title");
    std::printf("%s%s\n", prefix, title.isString() ? std::string(title.str()).c_str() : "?");
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && !(argc == 4 && std::string(argv[2]) == "--watch")) {
    std::fprintf(stderr, "usage: hello NOTES.quillon [--watch SECONDS]\n");
    return 2;
  }
  Quillon::setApplicationInfo(
      Value::dictionary({{"CFBundleIdentifier", "org.example.hello"}, {"CFBundleName", "hello"}}));
  Error error;
  auto model = ManagedObjectModel::fromJSON(kModel, &error);
  auto package = QuillonPackage::open(argv[1], model, {}, &error);
  if (!package || !package->waitUntilReady()) {
    std::fprintf(stderr, "hello: cannot open %s: %s\n", argv[1],
                 error.localizedDescription().c_str());
    return 1;
  }

  // One new note per run, saved and on disk before we go on.
  ManagedObjectPtr note = package->context().insertNewObjectForEntityForName("Note");
  note->setValue("title", Value("Hello from " + package->store().machineName() + " (" +
                                std::to_string(getpid()) + ")"));
  note->setValue("created", Value::date(MainQueue::now()));
  if (Error failed = package->save()) {
    std::fprintf(stderr, "hello: not saved: %s\n", failed.localizedDescription().c_str());
    return 1;
  }

  FetchRequest request("Note");
  request.setSortDescriptors({SortDescriptor("created")});
  auto notes = package->context().executeFetchRequest(request, &error);
  std::printf("%zu notes:\n", notes.size());
  for (const Value& each : notes) printNote("  ", each);
  std::fflush(stdout);

  if (argc == 4) {
    // Other computers' saves arrive through folder watching while the main
    // loop runs.
    ScopedObserver arrivals = package->observeExternalChanges([](const Value& info) {
      for (const Value& inserted : info.get(kQuillonInsertedObjectsKey).elements()) {
        printNote("arrived: ", inserted);
      }
      std::fflush(stdout);
    });
    MainQueue::runFor(std::atof(argv[3]));
  }
  return 0;
}
