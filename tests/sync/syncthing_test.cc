// Computers sharing one package through real Syncthing instances on
// loopback. Each computer is a store with its own cache and machine name,
// kept open for the whole test as an application would; every round they
// edit concurrently (inserts with binary data, the same object updated on
// two computers, an object deleted on one while another edits it, a folder
// renamed), Syncthing carries the files in whatever order it likes, and
// every computer must end with the same objects, values and checksum, and
// nothing in any log that says something went wrong.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "quillon/cache/internal/cache.h"
#include "quillon/coding/internal/data_utils.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/object_uid.h"
#include "quillon/store/package_layout.h"
#include "quillon/store/quillon.h"
#include "quillon/store/quillon_package.h"
#include "quillon/base/env.h"
#include "support/sample_models.h"
#include "support/syncthing.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

using testing::SyncthingMesh;

constexpr double kSyncSeconds = 60;    // Syncthing to carry one round's files
constexpr double kApplySeconds = 30;   // the stores to apply them afterwards

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

struct Computer {
  std::string name;
  std::unique_ptr<QuillonPackage> package;
};

class SyncthingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!SyncthingMesh::available()) GTEST_SKIP() << "syncthing is not installed";
    QuillonStore::setObservationLatency(0.5);
  }
  void TearDown() override {
    computers_.clear();  // stores close (their caches are written) before Syncthing stops
    if (mesh_) mesh_->stop();
    QuillonStore::setObservationLatency(2.0);
  }

  std::string packagePath(int i) const { return mesh_->folder(i) + "/Doc.quillon"; }

  std::unique_ptr<QuillonPackage> open(const std::string& path, const std::string& machine,
                                       const std::string& cache) {
    QuillonPackage::Options options;
    options.cacheDirectory = dir_.file(cache);
    options.machineName = machine;
    Error error;
    auto package = QuillonPackage::open(path, notesModel(), options, &error);
    EXPECT_TRUE(package) << machine << ": " << error.localizedDescription();
    if (package) {
      EXPECT_TRUE(package->waitUntilReady(30)) << machine;
    }
    return package;
  }

  void startComputers(int count, const testing::SyncthingOptions& options) {
    mesh_ = std::make_unique<SyncthingMesh>(dir_.path(), count, options);
    double t0 = now();
    ASSERT_TRUE(mesh_->start()) << mesh_->lastError();
    std::printf("[ syncthing ] %d instances connected in %.1f s\n", count, now() - t0);
    // The first computer makes the package; the others open it once it is there.
    computers_.push_back({"computer-0", open(packagePath(0), "computer-0", "cache-0")});
    ASSERT_TRUE(computers_[0].package);
    insertFolder("Inbox", 0);
    ASSERT_FALSE(computers_[0].package->save());
    t0 = now();
    ASSERT_TRUE(mesh_->waitUntilInSync(kSyncSeconds)) << mesh_->lastError();
    std::printf("[ syncthing ] the new package reached every computer in %.1f s\n", now() - t0);
    for (int i = 1; i < count; ++i) {
      const std::string name = "computer-" + std::to_string(i);
      computers_.push_back({name, open(packagePath(i), name, "cache-" + std::to_string(i))});
      ASSERT_TRUE(computers_.back().package);
    }
  }

  ManagedObjectPtr insertFolder(const std::string& name, int computer) {
    auto folder = context(computer).insertNewObjectForEntityForName("Folder");
    folder->setValue("name", Value(name));
    return folder;
  }
  QuillonManagedObjectContext& context(int i) { return computers_[i].package->context(); }

  std::vector<ManagedObjectPtr> fetch(int i, const std::string& entity) {
    FetchRequest request(entity);
    Error error;
    std::vector<ManagedObjectPtr> objects;
    for (const Value& v : context(i).executeFetchRequest(request, &error)) {
      if (auto object = std::dynamic_pointer_cast<ManagedObject>(v.objectValue())) {
        objects.push_back(object);
      }
    }
    EXPECT_FALSE(error) << error.localizedDescription();
    std::sort(objects.begin(), objects.end(),
              [](const auto& a, const auto& b) { return storeUID(*a) < storeUID(*b); });
    return objects;
  }
  ManagedObjectPtr byUID(int i, const std::string& entity, const std::string& uid) {
    for (const auto& object : fetch(i, entity)) {
      if (storeUID(*object) == uid) return object;
    }
    return nullptr;
  }

  // Every object and value a computer answers, as text: notes with their
  // title, score, a digest of their data and their folder; folders with
  // their name and their notes.
  std::string snapshot(QuillonManagedObjectContext& context) {
    auto uidOf = [](const Value& v) {
      auto object = std::dynamic_pointer_cast<ManagedObject>(v.objectValue());
      return object ? storeUID(*object) : std::string("-");
    };
    std::string text;
    Error error;
    FetchRequest folders("Folder"), notes("Note");
    std::vector<std::string> lines;
    for (const Value& v : context.executeFetchRequest(folders, &error)) {
      auto folder = std::dynamic_pointer_cast<ManagedObject>(v.objectValue());
      std::vector<std::string> members;
      Value set = folder->value("notes");
      if (set.isContainer()) {
        for (const Value& member : set.elements()) members.push_back(uidOf(member));
      }
      std::sort(members.begin(), members.end());
      std::string line = "Folder " + storeUID(*folder) + " " + folder->value("name").description() + " [";
      for (const std::string& m : members) line += m + " ";
      lines.push_back(line + "]");
    }
    for (const Value& v : context.executeFetchRequest(notes, &error)) {
      auto note = std::dynamic_pointer_cast<ManagedObject>(v.objectValue());
      Value data = note->value("data");
      lines.push_back("Note " + storeUID(*note) + " " + note->value("title").description() + " " +
                      note->value("score").description() + " " +
                      (data.isData() ? quillonSHA256HexDigest(data.bytes()) : "no-data") + " " +
                      uidOf(note->value("folder")));
    }
    std::sort(lines.begin(), lines.end());
    for (const std::string& line : lines) text += line + "\n";
    if (error) text += "error: " + error.localizedDescription();
    return text;
  }

  // Every computer applied every change file it has, and they agree.
  bool storesAgree() {
    std::string sum;
    for (size_t i = 0; i < computers_.size(); ++i) {
      QuillonStore& store = computers_[i].package->store();
      std::vector<std::string> names;
      if (listChangeFiles(Env::Default(), store.changesURL(), &names)) return false;
      if (store.updating() || store.cache().changes().size() != names.size()) return false;
      std::string mine = store.checkSum();
      if (i == 0) sum = mine;
      if (mine != sum) return false;
    }
    return true;
  }

  // What the logs say went wrong. A change that arrived before the files it
  // names fails validation (an error entry) and is applied on a later pass;
  // that wait is no problem once everything agrees, anything else is. The
  // error level ends at success, and no computer wrote an error record.
  std::vector<std::string> logProblems(int* waits) {
    std::vector<std::string> problems;
    for (auto& computer : computers_) {
      QuillonStore& store = computer.package->store();
      Value entries = store.logEntries();
      for (const Value& entry : entries.elements()) {
        const Value& type = entry.get(kQuillonLogType);
        const std::string message = entry.get("message").isString()
                                        ? std::string(entry.get("message").str())
                                        : entry.get("message").description();
        if (message.starts_with("Missing or incomplete data file") ||
            message.starts_with("Missing file:")) {
          ++*waits;
        }
        if (type.isString() && type.str() == kQuillonLogTypeError &&
            !message.starts_with("Failed validation ")) {
          problems.push_back(computer.name + ": " + message);
        }
      }
      if (store.errorLevel() != kQuillonLogTypeSuccess) {
        problems.push_back(computer.name + ": error level " + store.errorLevel());
      }
      Value records = store.errorsArray();
      if (records.isArray() && !records.empty()) {
        problems.push_back(computer.name + ": error records " + records.description());
      }
    }
    return problems;
  }

  std::string randomBytes(size_t size) {
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(random_() & 0xff);
    return bytes;
  }

  // One round: concurrent edits on every computer, then Syncthing and the
  // stores settle. Answers the seconds from the last save to agreement.
  double round(int r, std::vector<std::string>* notesAlive, std::string* folderUID,
               size_t largeData) {
    const int n = static_cast<int>(computers_.size());
    if (largeData > 0) {
      // A data file that takes a while to arrive after the change naming it.
      auto note = context(0).insertNewObjectForEntityForName("Note");
      note->setValue("title", Value("large in r" + std::to_string(r)));
      note->setValue("data", Value::data(randomBytes(largeData)));
    }
    for (int c = 0; c < n; ++c) {
      auto folder = byUID(c, "Folder", *folderUID);
      for (int k = 0; k < 2; ++k) {
        auto note = context(c).insertNewObjectForEntityForName("Note");
        note->setValue("title", Value("r" + std::to_string(r) + " c" + std::to_string(c) + " n" +
                                      std::to_string(k)));
        note->setValue("data", Value::data(randomBytes(1000 + random_() % 60000)));
        if (folder) note->setValue("folder", Value::object(folder));
      }
    }
    if (!notesAlive->empty()) {
      // The same note edited on two computers.
      const std::string shared = notesAlive->front();
      for (int c = 0; c < std::min(n, 2); ++c) {
        if (auto note = byUID(c, "Note", shared)) {
          note->setValue("title", Value("edited in r" + std::to_string(r) + " by c" + std::to_string(c)));
        }
      }
      // A note deleted on one computer while the next one edits it.
      if (notesAlive->size() > 1) {
        const std::string doomed = notesAlive->back();
        const int deleter = r % n, editor = (r + 1) % n;
        if (auto note = byUID(deleter, "Note", doomed)) context(deleter).deleteObject(note);
        if (auto note = byUID(editor, "Note", doomed)) note->setValue("score", Value(double(r)));
      }
    }
    // The folder renamed on the last computer.
    if (auto folder = byUID(n - 1, "Folder", *folderUID)) {
      folder->setValue("name", Value("Inbox " + std::to_string(r)));
    }
    if (r == 1) {
      // The conflict copy a sync service makes of a change file it met twice
      // travels to every computer, which must pass over it.
      std::vector<std::string> names;
      EXPECT_FALSE(
          listChangeFiles(Env::Default(), computers_[0].package->store().changesURL(), &names));
      const std::string changes = packagePath(0) + "/Changes/";
      if (!names.empty()) std::filesystem::copy_file(changes + names.front(),
                                 changes + names.front().substr(0, names.front().size() - 5) +
                                     ".sync-conflict-20261123-084814-DXILLWC.json");
    }
    for (int c = 0; c < n; ++c) {
      Error failed = computers_[c].package->save();
      EXPECT_FALSE(failed) << computers_[c].name << ": " << failed.localizedDescription();
    }
    const double saved = now();
    EXPECT_TRUE(mesh_->waitUntilInSync(kSyncSeconds)) << "round " << r << ": " << mesh_->lastError();
    EXPECT_TRUE(MainQueue::runUntil([&] { return storesAgree(); }, kApplySeconds))
        << "round " << r << ": the stores do not agree";
    MainQueue::drain();
    const double seconds = now() - saved;

    const std::string first = snapshot(context(0));
    for (int c = 1; c < n; ++c) {
      EXPECT_EQ(snapshot(context(c)), first) << "round " << r << ", " << computers_[c].name;
    }
    notesAlive->clear();
    for (const auto& note : fetch(0, "Note")) notesAlive->push_back(storeUID(*note));
    return seconds;
  }

  // `largeData`: the last round also saves a note with that many bytes of data.
  void runRounds(int computers, int rounds, testing::SyncthingOptions options = {},
                 size_t largeData = 0) {
    startComputers(computers, options);
    if (HasFatalFailure()) return;
    auto folders = fetch(0, "Folder");
    ASSERT_EQ(folders.size(), 1u);
    std::string folderUID = storeUID(*folders[0]);
    std::vector<std::string> notesAlive;
    double slowest = 0, total = 0;
    for (int r = 0; r < rounds && !HasFailure(); ++r) {
      double seconds = round(r, &notesAlive, &folderUID, r == rounds - 1 ? largeData : 0);
      slowest = std::max(slowest, seconds);
      total += seconds;
    }
    std::printf("[ syncthing ] %d computers, %d rounds, %zu notes, %.1f s per round on average, "
                "%.1f s at most\n",
                computers, rounds, notesAlive.size(), total / rounds, slowest);

    int waits = 0;
    EXPECT_EQ(logProblems(&waits), std::vector<std::string>{});
    std::printf("[ syncthing ] %d waits for files still in transit\n", waits);
    EXPECT_EQ(mesh_->folderErrors(), std::vector<std::string>{});
    // Syncthing never met one of our temporary files (its logs are there to read).
    EXPECT_EQ(mesh_->logLinesContaining("My ID: ").size(), static_cast<size_t>(computers));
    EXPECT_EQ(mesh_->logLinesContaining(std::string(kTemporaryFilePrefix)),
              std::vector<std::string>{});

    // A computer that opens the package afresh, without a cache, answers the same.
    const std::string expected = snapshot(context(0));
    const std::string sum = computers_[0].package->store().checkSum();
    auto fresh = open(packagePath(computers - 1), "fresh", "cache-fresh");
    ASSERT_TRUE(fresh);
    EXPECT_EQ(snapshot(fresh->context()), expected);
    EXPECT_EQ(fresh->store().checkSum(), sum);
  }

  TempDir dir_{"quillon-syncthing"};
  std::unique_ptr<SyncthingMesh> mesh_;
  std::vector<Computer> computers_;
  std::mt19937 random_{17};
};

TEST_F(SyncthingTest, TwoComputersConvergeOverRounds) { runRounds(2, 5); }

// Change files first (newest first) and a slow line: the last round's large
// data file is still on its way when the change that names it has arrived.
TEST_F(SyncthingTest, ThreeComputersConvergeWhenChangesArriveBeforeTheirFiles) {
  runRounds(3, 4, {.pullOrder = "newestFirst", .maxRecvKbps = 2048}, 6 << 20);
}

}  // namespace
}  // namespace quillon
