#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "quillon/base/internal/date_format.h"
#include "quillon/base/notification_center.h"
#include "quillon/base/internal/plist.h"
#include "quillon/cache/internal/cache.h"
#include "quillon/coding/internal/string_utils.h"
#include "quillon/graph/managed_object.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/quillon.h"
#include "quillon/store/store.h"
#include "support/log_capture.h"
#include "support/manual_clock.h"
#include "support/store_stack.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    cacheHome_ = std::make_unique<ScopedCacheHome>(dir_.file("caches"));
    stack_ = std::make_unique<StoreStack>(dir_.file("Doc.quillon"));
    ASSERT_TRUE(stack_->waitUntilReady());
    MainQueue::drain();
  }

  QuillonStore& store() { return *stack_->store; }

  // Counts the did-change notices of `key` posted by the store.
  ScopedObserver countNotices(std::string key, int* count) {
    return ScopedObserver(NotificationCenter::defaultCenter(), kQuillonDidChangeValueNotification,
                          stack_->store.get(), [key, count](const Notification& n) {
                            if (n.userInfo.get("key") == Value(key)) ++*count;
                          });
  }

  TempDir dir_;
  std::unique_ptr<ScopedCacheHome> cacheHome_;
  std::unique_ptr<StoreStack> stack_;
};

// The log itself: tests/changes/store_log_test.cc.
TEST_F(LogTest, TheStoresLogNamesTheStoreAndEndsWithIt) {
  int notices = 0;
  ScopedObserver observer = countNotices("errorLevel", &notices);
  std::thread([this] { store().setErrorLevel(kQuillonLogTypeError); }).join();
  MainQueue::drain();
  EXPECT_EQ(store().errorLevel(), kQuillonLogTypeError);
  EXPECT_EQ(notices, 1);

  // Entries and refreshes queued for a store that goes do nothing (the
  // sanitizer build is what catches a use after free here).
  testing::ManualClock clock;
  store().log("queued before the store goes");
  store().setErrorLevel(kQuillonLogTypeWarning);
  stack_.reset();
  MainQueue::drain();  // runs the queued blocks against no store
  clock.advance(2);
  MainQueue::drain();
}

TEST_F(LogTest, ErrorRecordsNewestTwentyAndRecentOnes) {
  const std::string errors = store().errorsURL().path();
  auto record = [](double daysAgo) {
    return Value::dictionary({{"domain", "D"},
                              {"description", "failure"},
                              {"date", Value::date(dateNow() - daysAgo * 86400)}});
  };
  for (int i = 0; i < 24; ++i) {
    dir_.write("Doc.quillon/Errors/" + fmt::format("2026-01-{:02}.plist", i + 1),
               writePropertyListXML(record(i == 23 ? 11 : 1)));
  }
  // Newest names, but no records: skipped, and still counted among the twenty.
  dir_.write("Doc.quillon/Errors/2027-a.plist", writePropertyListXML(Value::array({1})));
  dir_.write("Doc.quillon/Errors/2027-b.plist", "not a property list");
  dir_.write("Doc.quillon/Errors/2027-c.plist/inside", "a folder");
  ASSERT_EQ(errors, dir_.file("Doc.quillon/Errors"));

  Value all = store().errorsArray();
  ASSERT_EQ(all.size(), 17u);  // 20 newest names minus the three that are not records
  EXPECT_EQ(all[0].get("domain"), Value("D"));

  // The 11-day-old record is 2026-01-24, among the newest names.
  Value recent = store().recentErrorsArray();
  EXPECT_EQ(recent.size(), 16u);
  for (const Value& r : recent.elements()) EXPECT_GT(r.get("date").dateValue(), dateNow() - 864000);
}

TEST_F(LogTest, SessionDictionaryWritersAndTheChecksumOfNoHistory) {
  Value session = store().sessionDictionary();
  EXPECT_EQ(session.get("id"), Value(store().session()));
  EXPECT_EQ(session.get("machineName"), Value("test-machine"));
  EXPECT_EQ(session.get("version"), Quillon::applicationInfo().get("CFBundleVersion"));
  EXPECT_EQ(session.find("userInfo"), nullptr);
  store().setUserInfo(Value::dictionary({{"team", "blue"}}));
  EXPECT_EQ(store().sessionDictionary().get("userInfo").get("team"), Value("blue"));

  // An empty history: the MD5 of the empty text.
  EXPECT_EQ(store().checkSum(), "D41D8C");

  // The writers: each once, newest first, from the last hundred changes.
  auto change = [](const char* machine) {
    return Value::dictionary({{"name", "n"},
                              {"session", Value::dictionary({{"machineName", machine},
                                                             {"userName", "u"},
                                                             {"id", Value(dateNow())}})}});
  };
  for (int i = 0; i < 500; ++i) store().cache().addChange(change("old"), true);
  ASSERT_EQ(store().sessionInfo().size(), 1u);
  for (int i = 0; i < 97; ++i) store().cache().addChange(change("middle"), true);
  store().cache().addChange(change("newest"), true);
  store().cache().addChange(Value::dictionary({{"name", "recovery"}}), true);

  Value writers = store().sessionInfo();
  ASSERT_EQ(writers.size(), 3u);
  EXPECT_EQ(writers[0].get("machineName"), Value("newest"));
  EXPECT_EQ(writers[1].get("machineName"), Value("middle"));
  EXPECT_EQ(writers[2].get("machineName"), Value("old"));
  EXPECT_TRUE(writers[0].get("fullUserName").isNull());
  EXPECT_EQ(writers[0].find("id"), nullptr);
  store().cache().addChange(change("newest"), true);
  EXPECT_EQ(store().sessionInfo().size(), 2u);  // "old" left the hundred newest
}

TEST_F(LogTest, DuplicatedEntityFoldersMergeIntoTheirEntity) {
  dir_.write("Doc.quillon/Entities/Note 2/U1/a.json", "{}");
  dir_.write("Doc.quillon/Entities/Unrelated/U2/a.json", "{}");
  dir_.write("Doc.quillon/Entities/Book copy", "a file, not a folder");
  testing::LogCapture capture;
  store().fixSyncConflicts();
  EXPECT_EQ(dir_.read("Doc.quillon/Entities/Note/U1/a.json"), "{}");
  EXPECT_FALSE(Env::Default()->exists(dir_.file("Doc.quillon/Entities/Note 2")));
  EXPECT_TRUE(Env::Default()->exists(dir_.file("Doc.quillon/Entities/Unrelated/U2/a.json")));
  EXPECT_TRUE(Env::Default()->exists(dir_.file("Doc.quillon/Entities/Book copy")));
  EXPECT_NE(std::find(capture.lines().begin(), capture.lines().end(), "Note 2 -> Note"),
            capture.lines().end());
}

}  // namespace
}  // namespace quillon
