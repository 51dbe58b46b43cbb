#include "quillon/base/internal/user_defaults.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "quillon/base/env.h"
#include "quillon/base/internal/plist.h"
#include "support/log_capture.h"
#include "support/private_home.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

class UserDefaultsTest : public ::testing::Test {
 protected:
  std::string fileContents(const std::string& path) {
    std::vector<uint8_t> bytes;
    Error error = Env::Default()->readFile(path, &bytes);
    return error ? std::string() : std::string(bytes.begin(), bytes.end());
  }

  TempDir dir_;
  const std::string folder_ = dir_.path();
  testing::LogCapture log_;
  const std::vector<std::string>& logged_ = log_.lines();
};

TEST_F(UserDefaultsTest, StoresEveryKindAndPersistsInOrder) {
  std::string nested = folder_ + "/config/deeper";
  UserDefaults defaults("org.example.app", nested);
  EXPECT_EQ(defaults.path(), nested + "/org.example.app.plist");
  EXPECT_TRUE(defaults.objectForKey("missing").isNil());

  Value recent = Value::mutableArray();
  recent.append("/home/jane/Notes.quillon");
  defaults.setObject("QuillonRecentFiles", recent);
  defaults.setObject("flag", true);
  defaults.setObject("count", 42);
  defaults.setObject("when", Value::date(816929039));
  recent.append("/changed/after/setting");  // stored values are copies
  EXPECT_EQ(defaults.objectForKey("QuillonRecentFiles").size(), 1u);

  UserDefaults other("org.example.app", nested);
  EXPECT_EQ(other.objectForKey("QuillonRecentFiles"), Value::array({"/home/jane/Notes.quillon"}));
  EXPECT_TRUE(other.boolForKey("flag"));
  EXPECT_EQ(other.integerForKey("count"), 42);
  EXPECT_EQ(other.objectForKey("when"), Value::date(816929039));

  std::string xml = fileContents(defaults.path());
  Value onDisk = readPropertyList(
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(xml.data()), xml.size()));
  ASSERT_TRUE(onDisk.isDictionary());
  EXPECT_EQ(onDisk.items()[0].first.str(), "QuillonRecentFiles");
  EXPECT_EQ(onDisk.items()[3].first.str(), "when");

  defaults.setObject("flag", Value());
  defaults.removeObject("count");
  other.reload();
  EXPECT_TRUE(other.objectForKey("flag").isNil());
  EXPECT_TRUE(other.objectForKey("count").isNil());
  EXPECT_EQ(other.objectForKey("QuillonRecentFiles").size(), 1u);
}

TEST_F(UserDefaultsTest, DamagedFileReadsEmptyAndSurvivesUntilASet) {
  UserDefaults defaults("app", folder_);
  const std::string garbage = "<plist><dict><key>a</key>\x01 truncated";
  ASSERT_FALSE(Env::Default()->writeFileAtomically(defaults.path(), garbage));
  EXPECT_TRUE(defaults.objectForKey("a").isNil());
  EXPECT_FALSE(logged_.empty());
  defaults.removeObject("a");  // removing what is absent writes nothing
  EXPECT_EQ(fileContents(defaults.path()), garbage);

  defaults.setObject("b", "fresh");
  UserDefaults reread("app", folder_);
  EXPECT_EQ(reread.objectForKey("b").str(), "fresh");
  EXPECT_EQ(reread.objectForKey("a"), Value());
}

TEST_F(UserDefaultsTest, RefusesValuesAPropertyListCannotHold) {
  UserDefaults defaults("app", folder_);
  defaults.setObject("kept", 1);
  std::string before = fileContents(defaults.path());
  defaults.setObject("kept", Value::null());
  defaults.setObject("other", Value::array({Value::url(Url::fileURL("/tmp"))}));
  EXPECT_EQ(defaults.integerForKey("kept"), 1);
  EXPECT_TRUE(defaults.objectForKey("other").isNil());
  EXPECT_EQ(fileContents(defaults.path()), before);
  EXPECT_EQ(logged_.size(), 2u);
}

TEST_F(UserDefaultsTest, ConcurrentSettersLoseNothing) {
  UserDefaults defaults("app", folder_);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&defaults, t] {
      for (int i = 0; i < 20; ++i) {
        defaults.setObject("t" + std::to_string(t) + "-" + std::to_string(i), i);
        defaults.objectForKey("t0-0");
      }
    });
  }
  for (auto& thread : threads) thread.join();
  UserDefaults reread("app", folder_);
  for (int t = 0; t < 4; ++t) {
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(reread.integerForKey("t" + std::to_string(t) + "-" + std::to_string(i)), i);
    }
  }
}

TEST_F(UserDefaultsTest, DefaultFolderAndStandardInstance) {
  const std::string config = testing::privateHome() + "/.config";
  EXPECT_EQ(UserDefaults("org.example.app").path(), config + "/org.example.app.plist");
  UserDefaults::setStandardApplicationIdentifier("org.example.standard-test");
  UserDefaults& standard = UserDefaults::standard();
  EXPECT_EQ(standard.path(), config + "/org.example.standard-test.plist");
  EXPECT_EQ(&UserDefaults::standard(), &standard);
  UserDefaults::setStandardApplicationIdentifier("org.quillon.cli");
  EXPECT_NE(&UserDefaults::standard(), &standard);
}

}  // namespace
}  // namespace quillon
