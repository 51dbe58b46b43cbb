// examples/hello, run as a person would run it: on its own, and as two
// computers sharing one package, one of them watching.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "support/temp_dir.h"

namespace quillon {
namespace {

// A shell command line for one run of the example as a computer of its own:
// its own cache and settings folders inside the test's folder.
std::string hello(const TempDir& dir, const std::string& computer, const std::string& arguments) {
  return "cd '" + dir.path() + "' && XDG_CACHE_HOME='" + dir.file(computer + "/cache") +
         "' XDG_CONFIG_HOME='" + dir.file(computer + "/config") +
         "' exec '" QUILLON_HELLO_PATH "' " + arguments;
}

// What a file holds so far; empty while it does not exist.
std::string contents(const TempDir& dir, const std::string& file) {
  std::ifstream in(dir.file(file));
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool waitFor(const TempDir& dir, const std::string& file, const std::string& text, double seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < end) {
    if (contents(dir, file).find(text) != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

TEST(HelloExampleTest, EachRunAddsANoteAndListsThemAll) {
  TempDir dir("quillon-hello");
  ASSERT_EQ(std::system(hello(dir, "a", "Notes.quillon > first.out 2>&1").c_str()), 0)
      << dir.read("first.out");
  ASSERT_EQ(std::system(hello(dir, "a", "Notes.quillon > second.out 2>&1").c_str()), 0)
      << dir.read("second.out");
  EXPECT_TRUE(dir.read("first.out").starts_with("1 notes:\n  Hello from "))
      << dir.read("first.out");
  EXPECT_TRUE(dir.read("second.out").starts_with("2 notes:\n")) << dir.read("second.out");

  EXPECT_NE(std::system(hello(dir, "a", "> usage.out 2>&1").c_str()), 0);
  EXPECT_NE(dir.read("usage.out").find("usage: hello"), std::string::npos);
}

TEST(HelloExampleTest, AWatchingComputerPrintsAnotherComputersNoteAsItArrives) {
  TempDir dir("quillon-hello");
  ASSERT_EQ(std::system(hello(dir, "a", "Notes.quillon > made.out 2>&1").c_str()), 0);
  // Computer "b" watches for half a minute at most; the test ends it early.
  ASSERT_EQ(std::system(("(" + hello(dir, "b", "Notes.quillon --watch 30 > watch.out 2>&1") +
                         ") & echo $! > '" + dir.file("watch.pid") + "'")
                            .c_str()),
            0);
  const bool listed = waitFor(dir, "watch.out", "2 notes:", 20);
  if (listed) {
    EXPECT_EQ(std::system(hello(dir, "a", "Notes.quillon > third.out 2>&1").c_str()), 0);
  }
  const bool arrived = listed && waitFor(dir, "watch.out", "arrived: Hello from ", 20);
  const pid_t watcher = std::atoi(dir.read("watch.pid").c_str());
  if (watcher > 0) kill(watcher, SIGTERM);
  ASSERT_TRUE(listed) << contents(dir, "watch.out");
  EXPECT_TRUE(arrived) << contents(dir, "watch.out");
  EXPECT_TRUE(dir.read("third.out").starts_with("3 notes:\n")) << dir.read("third.out");
}

}  // namespace
}  // namespace quillon
