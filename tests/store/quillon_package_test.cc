#include "quillon/store/quillon_package.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <memory>
#include <string>

#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/quillon.h"
#include "support/fault_env.h"
#include "support/sample_models.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

namespace fs = std::filesystem;

class QuillonPackageTest : public testing::Test {
 protected:
  // One computer: a package opened with its own cache folder and name.
  std::unique_ptr<QuillonPackage> open(const std::string& package, const std::string& computer,
                                       Env* env = nullptr) {
    QuillonPackage::Options options;
    options.cacheDirectory = dir.file("cache-" + computer);
    options.machineName = computer;
    options.env = env;
    Error error;
    auto opened = QuillonPackage::open(dir.file(package), notesModel(), options, &error);
    EXPECT_TRUE(opened) << error.localizedDescription();
    if (opened) {
      EXPECT_TRUE(opened->waitUntilReady(10));
    }
    return opened;
  }

  static void insertNote(QuillonPackage& package, const std::string& title) {
    ManagedObjectPtr note = package.context().insertNewObjectForEntityForName("Note");
    note->setValue("title", Value(title));
  }

  static size_t countNotes(QuillonPackage& package) {
    FetchRequest request("Note");
    Error error;
    return package.context().executeFetchRequest(request, &error).size();
  }

  TempDir dir;
};

// Two documents open in one process, one of them by two "computers": each
// hears only its own readiness and the changes made to its own package, and
// each computer's local cache lives where its options put it.
TEST_F(QuillonPackageTest, DocumentsOpenTogetherHearOnlyTheirOwnReadinessAndChanges) {
  auto a1 = open("A.quillon", "one");
  auto a2 = open("A.quillon", "two");
  auto b = open("B.quillon", "one");
  ASSERT_TRUE(a1 && a2 && b);

  int a1Heard = 0, bHeard = 0;
  Value a1Info;
  ScopedObserver a1Changes = a1->observeExternalChanges([&](const Value& info) {
    ++a1Heard;
    a1Info = info;
  });
  ScopedObserver bChanges = b->observeExternalChanges([&](const Value&) { ++bHeard; });
  const int bReady = b->readyCount();
  // The store tells the contexts that have read from it.
  EXPECT_EQ(countNotes(*a1), 0u);
  EXPECT_EQ(countNotes(*b), 0u);

  insertNote(*a2, "from two");
  ASSERT_FALSE(a2->save());
  a1->store().updateChanges();
  ASSERT_TRUE(a1->waitUntilReady(10));
  MainQueue::drain();

  EXPECT_EQ(a1Heard, 1);
  EXPECT_EQ(a1Info.get(kQuillonInsertedObjectsKey).size(), 1u);
  EXPECT_EQ(a1Info.get(kQuillonStoreURLKey), Value(a1->store().url().absoluteString()));
  EXPECT_EQ(countNotes(*a1), 1u);
  EXPECT_EQ(bHeard, 0);
  EXPECT_EQ(b->readyCount(), bReady);
  EXPECT_EQ(countNotes(*b), 0u);

  EXPECT_EQ(a1->store().machineName(), "one");
  EXPECT_EQ(a2->store().machineName(), "two");
  for (const char* computer : {"one", "two"}) {
    const std::string caches = dir.file(std::string("cache-") + computer + "/" +
                                        Quillon::applicationIdentifier() + "/LocalDatabaseCache");
    EXPECT_TRUE(fs::is_directory(caches)) << caches;
  }
}

// A document's Env is its own: a disk that fails under one document does
// not touch another, and the failing save is an error for whoever saves,
// with nothing published.
TEST_F(QuillonPackageTest, EachDocumentWritesThroughItsOwnEnvAndSaveReportsItsFailures) {
  FaultInjectingEnv failing;
  auto broken = open("Broken.quillon", "one", &failing);
  auto fine = open("Fine.quillon", "one");
  ASSERT_TRUE(broken && fine);
  failing.failAfter(FaultInjectingEnv::Op::Write, "/Entities/", 0,
                    FaultInjectingEnv::Fault::NoSpace);

  insertNote(*broken, "lost");
  bool refused = true;
  Error error = broken->save(&refused);
  EXPECT_TRUE(error);
  EXPECT_FALSE(refused) << "the context accepted the save; its writes failed";
  EXPECT_TRUE(fs::is_empty(dir.file("Broken.quillon/Changes")));

  insertNote(*fine, "kept");
  EXPECT_FALSE(fine->save());
  EXPECT_EQ(failing.count(FaultInjectingEnv::Op::Write, "Fine.quillon"), 0u);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.file("Fine.quillon/Changes")),
                          fs::directory_iterator()),
            1);
}

TEST_F(QuillonPackageTest, AWrongPasswordOpensNothingAndSaysWhy) {
  {
    QuillonPackage::Options options;
    options.password = "right";
    options.cacheDirectory = dir.file("cache");
    Error error;
    auto made = QuillonPackage::open(dir.file("Secret.quillon"), notesModel(), options, &error);
    ASSERT_TRUE(made);
  }
  QuillonPackage::Options options;
  options.password = "wrong";
  options.cacheDirectory = dir.file("cache");
  Error error;
  EXPECT_EQ(QuillonPackage::open(dir.file("Secret.quillon"), notesModel(), options, &error),
            nullptr);
  EXPECT_EQ(error.code(), kCocoaFileReadCorruptFileError);
  EXPECT_NE(error.localizedDescription().find("password is wrong"), std::string::npos)
      << error.localizedDescription();
}

}  // namespace
}  // namespace quillon
