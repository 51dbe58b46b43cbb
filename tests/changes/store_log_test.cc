#include "quillon/changes/store_log.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "quillon/base/notification_center.h"
#include "quillon/platform/main_queue.h"
#include "quillon/store/quillon.h"
#include "support/manual_clock.h"

namespace quillon {
namespace {

class QuillonStoreLogTest : public ::testing::Test {
 protected:
  // Counts the did-change notices of `key` that name the sender.
  ScopedObserver countNotices(std::string key, int* count) {
    return ScopedObserver(NotificationCenter::defaultCenter(), kQuillonDidChangeValueNotification,
                          &sender_, [key, count](const Notification& n) {
                            if (n.userInfo.get("key") == Value(key)) ++*count;
                          });
  }

  int sender_ = 0;
  testing::ManualClock clock_;
};

TEST_F(QuillonStoreLogTest, ABurstOfEntriesGivesOneNoticeASecondAfterTheLast) {
  QuillonStoreLog log(&sender_);
  int notices = 0;
  ScopedObserver observer = countNotices("log", &notices);

  Value menu = Value::array({Value::dictionary(
      {{"title", "Ignore"}, {"action", "discardChangeFromMenu:"}, {"URL", "file:///x"}})});
  log.log("first", kQuillonLogTypeSuccess);
  std::thread([&] { log.log("second", kQuillonLogTypeWarning); }).join();
  MainQueue::drain();
  clock_.advance(0.6);
  MainQueue::drain();
  log.log("third", kQuillonLogTypeError, menu);
  MainQueue::drain();
  clock_.advance(0.6);
  MainQueue::drain();
  EXPECT_EQ(notices, 0);  // the third entry pushed the refresh back
  clock_.advance(0.5);
  MainQueue::drain();
  EXPECT_EQ(notices, 1);
  clock_.advance(5);
  MainQueue::drain();
  EXPECT_EQ(notices, 1);

  Value entries = log.entries();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].get("message"), Value("third"));
  EXPECT_EQ(entries[0].get(kQuillonLogType), Value(kQuillonLogTypeError));
  EXPECT_EQ(entries[0].get("menu"), menu);
  EXPECT_EQ(entries[1].get("message"), Value("second"));
  EXPECT_EQ(entries[1].find("menu"), nullptr);
  EXPECT_EQ(entries[2].get(kQuillonLogType), Value(kQuillonLogTypeSuccess));
  EXPECT_TRUE(entries[2].get("date").isDate());
  // A handed-out answer stays as it was while the log grows.
  log.log("fourth", kQuillonLogTypeSuccess);
  MainQueue::drain();
  EXPECT_EQ(entries.size(), 3u);
  EXPECT_EQ(log.entries().size(), 4u);
}

TEST_F(QuillonStoreLogTest, WorkQueuedForAGoneLogDoesNothing) {
  auto log = std::make_unique<QuillonStoreLog>(&sender_);
  int levels = 0, logs = 0;
  ScopedObserver levelObserver = countNotices("errorLevel", &levels);
  ScopedObserver logObserver = countNotices("log", &logs);
  std::thread([&] { log->setErrorLevel(kQuillonLogTypeError); }).join();
  MainQueue::drain();
  EXPECT_EQ(log->errorLevel(), kQuillonLogTypeError);
  EXPECT_EQ(levels, 1);

  log->log("queued before the log goes", kQuillonLogTypeWarning);
  log->setErrorLevel(kQuillonLogTypeWarning);
  log.reset();
  MainQueue::drain();
  clock_.advance(2);
  MainQueue::drain();
  EXPECT_EQ(levels, 1);
  EXPECT_EQ(logs, 0);
}

TEST_F(QuillonStoreLogTest, TheChecksumFollowsTheNamesInOrder) {
  auto changes = [](std::initializer_list<const char*> names) {
    Value array = Value::mutableArray();
    for (const char* name : names) array.append(Value::dictionary({{"name", name}}));
    return array;
  };
  EXPECT_EQ(QuillonStoreLog::checkSum(Value::array()), "D41D8C");  // MD5 of no text
  std::string ab = QuillonStoreLog::checkSum(changes({"a.json", "b.json"}));
  EXPECT_EQ(ab.size(), 6u);
  EXPECT_EQ(ab, QuillonStoreLog::checkSum(changes({"a.json", "b.json"})));
  EXPECT_NE(ab, QuillonStoreLog::checkSum(changes({"b.json", "a.json"})));
  EXPECT_NE(ab, QuillonStoreLog::checkSum(changes({"a.jsonb.json"})));
}

}  // namespace
}  // namespace quillon
