#include "quillon/coding/internal/file_manager_utils.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "support/fault_env.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

using testing::LogCapture;

std::vector<std::string> tree(const std::string& path) {
  std::vector<std::string> paths;
  EXPECT_FALSE(Env::Default()->listRecursively(path, &paths));
  return paths;
}

TEST(CreateDirectoryIfNeededTest, CreatesOnlyWhereNothingStands) {
  TempDir dir;
  Env* env = Env::Default();
  EXPECT_TRUE(createDirectoryAtPathIfNeeded(dir.file("Package/Entities/Note")));
  EXPECT_TRUE(env->isDirectory(dir.file("Package/Entities/Note")));
  EXPECT_TRUE(createDirectoryAtPathIfNeeded(dir.file("Package")));  // already a folder

  dir.write("file", "keep me");
  EXPECT_FALSE(createDirectoryAtPathIfNeeded(dir.file("file")));
  EXPECT_EQ(dir.read("file"), "keep me");

  FaultInjectingEnv full;
  full.failAfter(FaultInjectingEnv::Op::CreateDirectories, "", 0,
                 FaultInjectingEnv::Fault::NoSpace);
  EXPECT_FALSE(createDirectoryAtPathIfNeeded(dir.file("new"), &full));
  EXPECT_FALSE(env->exists(dir.file("new")));
}

class MergeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_.write("src/a.json", "new a");
    dir_.write("src/sub/b.json", "new b");
    dir_.write("src/sub/deeper/c.json", "c");
    dir_.write("dst/a.json", "old a");
    dir_.write("dst/sub/kept.json", "kept");
  }
  void expectMerged() {
    EXPECT_FALSE(Env::Default()->exists(source()));
    EXPECT_EQ(tree(destination()),
              (std::vector<std::string>{"a.json", "sub", "sub/b.json", "sub/deeper",
                                        "sub/deeper/c.json", "sub/kept.json"}));
    EXPECT_EQ(dir_.read("dst/a.json"), "new a");
    EXPECT_EQ(dir_.read("dst/sub/b.json"), "new b");
    EXPECT_EQ(dir_.read("dst/sub/kept.json"), "kept");
  }
  std::string source() const { return dir_.file("src"); }
  std::string destination() const { return dir_.file("dst"); }

  TempDir dir_;
};

TEST_F(MergeTest, MovesEverythingReplacingSameNamedFilesAndLogsEachStep) {
  LogCapture log;
  Error error;
  EXPECT_TRUE(quillonMergeContentsOfPath(source(), destination(), &error));
  EXPECT_FALSE(error);
  expectMerged();
  EXPECT_EQ(log.lines(), (std::vector<std::string>{
                             "- mergeContentsOfPath: " + source() + "\n intoPath: " + destination(),
                             " subPath: a.json",
                             "   removeItemAtPath",
                             "   moveItemAtPath",
                             " subPath: sub",
                             "   create directory",
                             " subPath: sub/b.json",
                             "   moveItemAtPath",
                             " subPath: sub/deeper",
                             "   create directory",
                             " subPath: sub/deeper/c.json",
                             "   moveItemAtPath",
                         }));
}

TEST_F(MergeTest, WithoutAnErrorParameterTheReplacementMovesToo) {
  LogCapture log;
  EXPECT_TRUE(quillonMergeContentsOfPath(source(), destination()));
  expectMerged();
}

TEST_F(MergeTest, EmptyOrMissingSource) {
  ASSERT_FALSE(Env::Default()->createDirectories(dir_.file("empty")));
  LogCapture log;
  EXPECT_TRUE(quillonMergeContentsOfPath(dir_.file("empty"), destination()));
  EXPECT_FALSE(Env::Default()->exists(dir_.file("empty")));
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(quillonMergeContentsOfPath(dir_.file("never"), destination()));
  EXPECT_EQ(tree(destination()), (std::vector<std::string>{"a.json", "sub", "sub/kept.json"}));
}

TEST_F(MergeTest, AFailedMoveStopsAndLeavesTheRestInTheSource) {
  FaultInjectingEnv env;
  // a.json moves; the next move (sub/b.json) fails.
  env.failAfter(FaultInjectingEnv::Op::Move, "", 1, FaultInjectingEnv::Fault::IoError);
  LogCapture log;
  Error error;
  EXPECT_FALSE(quillonMergeContentsOfPath(source(), destination(), &error, &env));
  ASSERT_TRUE(error);
  EXPECT_EQ(error.domain(), kPosixErrorDomain);
  EXPECT_EQ(error.code(), EIO);
  EXPECT_EQ(log.lines().back(), "ERROR: " + error.description());
  EXPECT_EQ(log.lines()[log.lines().size() - 2], "   moveItemAtPath");

  EXPECT_EQ(tree(source()),
            (std::vector<std::string>{"sub", "sub/b.json", "sub/deeper", "sub/deeper/c.json"}));
  EXPECT_EQ(dir_.read("src/sub/b.json"), "new b");
  EXPECT_EQ(dir_.read("dst/a.json"), "new a");  // what moved stays moved
  EXPECT_FALSE(Env::Default()->exists(dir_.file("dst/sub/b.json")));

  // Once the disk is healthy again, a second merge finishes the job.
  env.clearFaults();
  EXPECT_TRUE(quillonMergeContentsOfPath(source(), destination(), &error, &env));
  expectMerged();
}

TEST_F(MergeTest, AFailedRemovalOfTheReplacedFileStops) {
  FaultInjectingEnv env;
  env.failAfter(FaultInjectingEnv::Op::Remove, "dst/a.json", 0, FaultInjectingEnv::Fault::IoError);
  {
    LogCapture log;
    Error error;
    EXPECT_FALSE(quillonMergeContentsOfPath(source(), destination(), &error, &env));
    EXPECT_EQ(error.code(), EIO);
    // With an error parameter the failed removal is reported before any move.
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{log.lines()[0], " subPath: a.json", "   removeItemAtPath",
                                        "ERROR: " + error.description()}));
  }
  {
    // Without one, the move is tried at once; it cannot replace the file
    // still standing there, and the merge stops all the same.
    LogCapture log;
    EXPECT_FALSE(quillonMergeContentsOfPath(source(), destination(), nullptr, &env));
    ASSERT_EQ(log.lines().size(), 5u);
    EXPECT_EQ(log.lines()[3], "   moveItemAtPath");
    EXPECT_EQ(log.lines()[4].rfind("ERROR: Error Domain=NSPOSIXErrorDomain Code=5 ", 0), 0u);
  }
  EXPECT_EQ(dir_.read("dst/a.json"), "old a");
  EXPECT_EQ(dir_.read("src/a.json"), "new a");
}

TEST_F(MergeTest, UnreadableSourceIsNotRemoved) {
  FaultInjectingEnv env;
  env.failAfter(FaultInjectingEnv::Op::List, "src", 0, FaultInjectingEnv::Fault::IoError);
  LogCapture log;
  Error error;
  EXPECT_FALSE(quillonMergeContentsOfPath(source(), destination(), &error, &env));
  EXPECT_EQ(error.code(), EIO);
  EXPECT_EQ(tree(source()).size(), 5u);
}

}  // namespace
}  // namespace quillon
