#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <set>
#include <optional>
#include <string>
#include <vector>

#include "quillon/base/internal/base64.h"
#include "quillon/base/json.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/store/store.h"
#include "support/document_state.h"
#include "support/fault_env.h"
#include "support/package_reader.h"
#include "support/power_cut_env.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

// Every variant of every step with QUILLON_CRASH_ROUNDS set; one variant per
// step, taking turns, otherwise (CI time).
bool everyVariant() { return std::getenv("QUILLON_CRASH_ROUNDS") != nullptr; }

const std::vector<std::string> kEntities{"Folder", "Note", "Tag",  "Person",
                                         "Pet",    "Item", "Book", "Album"};

// The figures of one kind of round, printed at the end of a test.
struct Figures {
  int rounds = 0, interrupted = 0, completed = 0, lost = 0, unopenable = 0, missingRecords = 0,
      divergences = 0;
  std::string text(const std::string& what) const {
    return "[ figures  ] " + what + ": " + std::to_string(rounds) +
           " rounds, interrupted mid-save: " + std::to_string(interrupted) +
           ", completed saves: " + std::to_string(completed) + ", lost objects: " +
           std::to_string(lost) + ", unopenable packages: " + std::to_string(unopenable) +
           ", change files naming missing records: " + std::to_string(missingRecords) +
           ", writer/fresh-cache divergences: " + std::to_string(divergences) + "\n";
  }
};

// One package per round: a first save that completes, then a second one
// (inserts with binary data, an update, a delete) that a power cut or a
// failing write interrupts, then the checks.
class InterruptedSaves : public ::testing::Test {
 protected:
  void TearDown() override { QuillonStore::setDefaultEnv(nullptr); }

  std::string package(int round) const { return dir_.file("Doc" + std::to_string(round) + ".quillon"); }
  std::string home(int round, const std::string& who) const {
    return dir_.file("homes/" + who + std::to_string(round));
  }
  ManagedObjectPtr insertNote(StoreStack& stack, const std::string& title, const ManagedObjectPtr& folder) {
    ManagedObjectPtr note = stack.context->insertNewObjectForEntityForName("Note");
    note->setValue("title", Value::string(title));
    note->setValue("data", Value::data(std::string(50, title[0]) + title));
    note->setValue("folder", Value::object(folder));
    return note;
  }

  // What a state says without its uids: each note's title, data and
  // folder, each folder's name and the titles of its notes.
  static std::multiset<std::string> signature(const Value& state) {
    std::multiset<std::string> lines;
    for (const auto& [path, values] : state.items()) {
      if (path.str().starts_with("Note/")) {
        const Value& folder = state.get(values.get("folder"));
        lines.insert("note " + std::string(values.get("title").str()) + " " +
                     std::string(values.get("data").str()) + " in " +
                     std::string(folder.get("name").str()));
      } else {
        std::set<std::string> titles;
        for (const Value& note : values.get("notes").elements())
          titles.insert(std::string(state.get(note).get("title").str()));
        std::string line = "folder " + std::string(values.get("name").str()) + " holds";
        for (const std::string& title : titles) line += " " + title + ",";
        lines.insert(line);
      }
    }
    return lines;
  }
  static std::string dataOf(const std::string& title) {
    return base64Encode(std::string(50, title[0]) + title);
  }
  static std::multiset<std::string> signatureAfterSecondSave() {
    return {"note alpha, edited " + dataOf("alpha") + " in Inbox",
            "note gamma " + dataOf("gamma") + " in Inbox",
            "note delta " + dataOf("delta") + " in Inbox",
            "note epsilon " + dataOf("epsilon") + " in Inbox",
            "folder Inbox holds alpha, edited, delta, epsilon, gamma,"};
  }

  // The first, completed save; answers the state it left.
  Value firstSave(int round) {
    ScopedCacheHome writer(home(round, "w"));
    StoreStack stack(package(round));
    EXPECT_TRUE(stack.waitUntilReady());
    ManagedObjectPtr folder = stack.context->insertNewObjectForEntityForName("Folder");
    folder->setValue("name", Value::string("Inbox"));
    for (const char* title : {"alpha", "beta", "gamma"}) insertNote(stack, title, folder);
    Error error;
    EXPECT_TRUE(stack.saveAndWait(&error)) << error.localizedDescription();
    return testing::stateFromContext(*stack.context);
  }

  // The second save, run with `env` in place until the store is closed.
  // Answers whether the save reported success, and the state it meant.
  bool secondSave(int round, Value* meant) {
    ScopedCacheHome writer(home(round, "w"));
    StoreStack stack(package(round));
    EXPECT_TRUE(stack.waitUntilReady());
    std::vector<ManagedObjectPtr> notes = stack.context->fetchObjects(FetchRequest("Note"));
    std::vector<ManagedObjectPtr> folders = stack.context->fetchObjects(FetchRequest("Folder"));
    if (notes.size() != 3 || folders.size() != 1) {
      ADD_FAILURE() << "the first save is not all there";
      return false;
    }
    std::sort(notes.begin(), notes.end(), [](const auto& a, const auto& b) {
      return a->value("title").str() < b->value("title").str();
    });
    notes[0]->setValue("title", Value::string("alpha, edited"));
    stack.context->deleteObject(notes[1]);
    insertNote(stack, "delta", folders[0]);
    insertNote(stack, "epsilon", folders[0]);
    Error error;
    bool saved = stack.saveAndWait(&error);
    *meant = testing::stateFromContext(*stack.context);
    stack.close();
    return saved;
  }

  // The checks after the interruption, on the real files: the package
  // opens, holds the first save and either all of the second or none of it
  // (all of it when it reported success), names no missing file, and the
  // writer and a fresh cache answer what the records say; the next save works.
  void check(int round, const Value& before, const Value& meant, bool saved, Figures& figures) {
    PackageReader reader(package(round), kEntities);
    for (const std::string& problem : reader.problems()) {
      if (problem.find("hidden file is left over") != std::string::npos) continue;
      ++figures.missingRecords;
      ADD_FAILURE() << problem;
    }
    const Value records = testing::stateFromRecords(reader);
    if (saved) ++figures.completed;
    // A save that reported success is there exactly. One that did not may
    // still have landed (the power went after its change file reached the
    // disk): then it is there whole, or else not at all.
    const std::multiset<std::string> found = signature(records);
    const bool whole = saved ? testing::stateDifferences(meant, records).empty()
                             : found == signatureAfterSecondSave();
    if (!whole && (saved || found != signature(before))) {
      ++figures.lost;
      std::string text;
      for (const std::string& line : found) text += line + "; ";
      ADD_FAILURE() << "the records hold neither the second save whole nor the first alone: " << text;
    }
    for (const char* who : {"w", "fresh"}) {
      ScopedCacheHome cacheHome(home(round, who));
      StoreStack stack(package(round));
      if (!stack.store || !stack.waitUntilReady()) {
        ++figures.unopenable;
        ADD_FAILURE() << who << " could not open the package";
        continue;
      }
      std::vector<std::string> d =
          testing::stateDifferences(records, testing::stateFromContext(*stack.context));
      if (!d.empty()) {
        ++figures.divergences;
        ADD_FAILURE() << who << ": " << d[0];
      }
      if (std::string(who) == "w") {
        ManagedObjectPtr tag = stack.context->insertNewObjectForEntityForName("Tag");
        tag->setValue("name", Value::string("next"));
        Error error;
        EXPECT_TRUE(stack.saveAndWait(&error)) << "the next save: " << error.localizedDescription();
      }
    }
  }

  TempDir dir_{"quillon-cuts"};
};

// The power goes at every step of a save and of the cache's writes that
// follow it, in turn: once losing what was not flushed, once tearing it, and
// once keeping every name made before the cut but no unflushed contents.
TEST_F(InterruptedSaves, APowerCutAtAnyStepLosesNothingThatWasSaved) {
  Figures figures;
  int round = 0;
  bool reachedTheEnd = false;
  for (size_t step = 0; !reachedTheEnd; ++step) {
    const PowerCutEnv::Loss losses[] = {PowerCutEnv::Loss::Unflushed, PowerCutEnv::Loss::Torn,
                                        PowerCutEnv::Loss::NamesKept};
    for (size_t variant = 0; variant < 3; ++variant) {
      if (!everyVariant() && variant != step % 3) continue;
      const PowerCutEnv::Loss loss = losses[variant];
      SCOPED_TRACE("cut at step " + std::to_string(step) + ", loss mode " +
                   std::to_string(static_cast<int>(loss)));
      PowerCutEnv env;
      QuillonStore::setDefaultEnv(&env);
      const Value before = firstSave(round);
      env.cutAfter(step);
      Value meant;
      const bool saved = secondSave(round, &meant);
      const bool cut = env.isCut();
      env.restart(loss);
      QuillonStore::setDefaultEnv(nullptr);
      if (!cut) reachedTheEnd = true;
      ++figures.rounds;
      if (cut) ++figures.interrupted;
      check(round, before, meant, saved, figures);
      ++round;
    }
    ASSERT_LT(step, 400u) << "the save never ends";
  }
  std::cout << figures.text("power cuts");
  EXPECT_GT(figures.interrupted, 10);
}

// Every write, flush and folder creation of a save fails in turn, with a
// full disk and with an I/O error: the save reports it or succeeded, and
// nothing else is lost.
TEST_F(InterruptedSaves, EveryFailingWriteOfASaveIsReportedAndLosesNothingElse) {
  using Op = FaultInjectingEnv::Op;
  using Fault = FaultInjectingEnv::Fault;
  Figures figures;
  int round = 0;
  for (Op op : {Op::Write, Op::Sync, Op::CreateDirectories}) {
    for (int index = 0;; ++index) {
      bool failedOne = false;
      for (Fault fault : {Fault::NoSpace, Fault::IoError}) {
        if (!everyVariant() && (fault == Fault::NoSpace) != (index % 2 == 0)) continue;
        SCOPED_TRACE("operation kind " + std::to_string(static_cast<int>(op)) + " #" +
                     std::to_string(index) + (fault == Fault::NoSpace ? " ENOSPC" : " EIO"));
        FaultInjectingEnv env;
        QuillonStore::setDefaultEnv(&env);
        const Value before = firstSave(round);
        env.failAfter(op, "", index, fault, 1);
        Value meant;
        const bool saved = secondSave(round, &meant);
        failedOne = env.injectedFailures() > 0;
        QuillonStore::setDefaultEnv(nullptr);
        ++figures.rounds;
        if (failedOne) ++figures.interrupted;
        // A failure of the package's files must be reported; one of the
        // local cache's files only costs a rebuild.
        check(round, before, meant, saved, figures);
        ++round;
      }
      if (!failedOne) break;
    }
  }
  std::cout << figures.text("failing writes (ENOSPC, EIO)");
  EXPECT_GT(figures.interrupted, 10);
}

}  // namespace
}  // namespace quillon
