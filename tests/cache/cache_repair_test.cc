#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "quillon/cache/internal/cache.h"
#include "quillon/graph/fetch_request.h"
#include "quillon/graph/managed_object.h"
#include "quillon/store/store.h"
#include "support/fault_env.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

namespace fs = std::filesystem;
using Op = FaultInjectingEnv::Op;

// The local cache's change log says which changes its other files reflect,
// so it may never reach the disk ahead of them.
class CacheRepairTest : public ::testing::Test {
 protected:
  void SetUp() override { QuillonStore::setDefaultEnv(&env_); }
  void TearDown() override { QuillonStore::setDefaultEnv(nullptr); }

  std::unique_ptr<StoreStack> open() {
    auto stack = std::make_unique<StoreStack>(dir_.file("Doc.quillon"));
    EXPECT_TRUE(stack->waitUntilReady());
    return stack;
  }
  void insertNotes(StoreStack& stack, int count) {
    for (int i = 0; i < count; ++i) {
      ManagedObjectPtr note = stack.context->insertNewObjectForEntityForName("Note");
      note->setValue("title", Value::string("note " + std::to_string(i)));
    }
    Error error;
    ASSERT_TRUE(stack.saveAndWait(&error)) << error.localizedDescription();
  }
  static bool isCacheFile(const std::string& path) {
    return path.find("/LocalDatabaseCache/") != std::string::npos && path.ends_with(".fast");
  }
  static bool isLog(const std::string& path) { return path.ends_with("/Changes.fast"); }

  TempDir dir_{"quillon-cache-repair"};
  ScopedCacheHome home_{dir_.file("caches")};
  FaultInjectingEnv env_;
};

TEST_F(CacheRepairTest, TheLogIsWrittenLastAfterTheFilesItDescribesAreFlushed) {
  auto stack = open();
  insertNotes(*stack, 20);
  stack->close();
  stack.reset();
  stack = open();  // now there is a log on disk
  insertNotes(*stack, 20);
  env_.resetCounts();
  stack->close();

  std::vector<FaultInjectingEnv::Operation> ops = env_.operations();
  auto logWrite = std::find_if(ops.begin(), ops.end(), [](const auto& op) {
    return op.op == Op::Write && isLog(op.path);
  });
  ASSERT_NE(logWrite, ops.end());
  // The old log is gone before any other file changes.
  auto oldLogRemoved = std::find_if(ops.begin(), ops.end(), [](const auto& op) {
    return op.op == Op::Remove && isLog(op.path);
  });
  ASSERT_LT(oldLogRemoved, logWrite);
  std::set<std::string> flushed;
  size_t others = 0;
  for (auto it = ops.begin(); it != ops.end(); ++it) {
    if (it->op == Op::Sync && it < logWrite) flushed.insert(it->path);
    if (it->op != Op::Write || !isCacheFile(it->path) || isLog(it->path)) continue;
    ++others;
    EXPECT_LT(oldLogRemoved, it) << it->path;
    EXPECT_LT(it, logWrite) << it->path << " written after the log";
  }
  EXPECT_GE(others, 2u);  // a shard and the uid set at least
  for (auto it = ops.begin(); it != logWrite; ++it) {
    if (it->op == Op::Write && isCacheFile(it->path)) {
      EXPECT_TRUE(flushed.count(it->path)) << it->path << " not flushed before the log";
    }
  }
}

// A uid set that could not be written is removed; a log kept beside it
// would say its changes are applied, and the objects would be gone for good.
TEST_F(CacheRepairTest, AFailedCacheWriteLeavesNoLogAndTheNextOpenRebuilds) {
  for (const char* failing : {"_uids.fast", "Note_", "/LocalDatabaseCache/"}) {
    SCOPED_TRACE(failing);
    fs::remove_all(dir_.file("Doc.quillon"));
    fs::remove_all(dir_.file("caches"));
    env_.clearFaults();
    auto stack = open();
    insertNotes(*stack, 12);
    const std::string cacheFolder = stack->store->cache().URL().path();
    env_.failAfter(Op::Write, failing, 0, FaultInjectingEnv::Fault::IoError);
    stack->close();
    stack.reset();
    EXPECT_FALSE(fs::exists(cacheFolder + "/Changes.fast"));

    env_.clearFaults();
    stack = open();
    EXPECT_EQ(stack->context->fetchObjects(FetchRequest("Note")).size(), 12u);
    insertNotes(*stack, 1);
    stack->close();
    stack.reset();
    // Written whole this time, the cache is trusted as it is.
    EXPECT_TRUE(fs::exists(cacheFolder + "/Changes.fast"));
    stack = open();
    EXPECT_EQ(stack->context->fetchObjects(FetchRequest("Note")).size(), 13u);
  }
}

}  // namespace
}  // namespace quillon
