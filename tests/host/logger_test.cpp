// The logger's file: progress lines are buffered, failures are not, and no
// line is lost, duplicated, reordered or written into another root's file.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "CSLogger.h"
#include "HostFiles.h"
#include "HostRoot.h"
#include "HostRootTest.h"

namespace {

class LoggerFileTest : public QenTest::HostRootTest {
 protected:
  std::string LogText(const std::string& root) const {
    std::string text;
    QenPlatform::ReadWholeFile(root + CSLogger::kLogFile, text);
    return text;
  }
  // Positions of the lines' texts in the file, in order; npos for a missing one.
  static std::vector<size_t> Where(const std::string& text, std::initializer_list<const char*> lines) {
    std::vector<size_t> at;
    for (const char* line : lines) at.push_back(text.find(line));
    return at;
  }
  static size_t Count(const std::string& text, const std::string& line) {
    size_t n = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) ++n;
    return n;
  }
};

TEST_F(LoggerFileTest, ProgressWaitsFailuresDoNotAndOrderHolds) {
  CSLogger::SetFileVerbosity(3);
  CSLogger::Log(2, "progress %d", 1);
  CSLogger::Log(3, "detail %s", "x");
  EXPECT_EQ(LogText(Root()).find("progress 1"), std::string::npos);
  CSLogger::Log(0, "failure");
  auto at = Where(LogText(Root()), {"<2> progress 1\n", "<3> detail x\n", "<0> failure\n"});
  ASSERT_NE(at[0], std::string::npos);
  EXPECT_LT(at[0], at[1]);
  EXPECT_LT(at[1], at[2]);

  CSLogger::Log(2, "later");
  EXPECT_EQ(LogText(Root()).find("later"), std::string::npos);
  CSLogger::Flush();
  EXPECT_EQ(Count(LogText(Root()), "<2> later\n"), 1u);
  CSLogger::SetFileVerbosity(CSLogger::kDefaultFileLevel);
}

TEST_F(LoggerFileTest, DetailStaysOutOfTheFileByDefaultButReachesCaptures) {
  CSLogger::Log(3, "per-key detail");
  CSLogger::Log(2, "decision");
  CSLogger::Flush();
  const std::string text = LogText(Root());
  EXPECT_EQ(Count(text, "per-key detail"), 0u);
  EXPECT_EQ(Count(text, "<2> decision\n"), 1u);
  EXPECT_TRUE(log_.Contains(3, "per-key detail"));
}

// The file never grows past the limit by more than one write; old files
// move up, the oldest beyond the kept number goes, and all stay owner-only.
TEST_F(LoggerFileTest, FullLogIsRotatedKeepingABoundedNumberOfOldFiles) {
  CSLogger::SetRotateBytes(4096);
  const std::string line(100, 'x');
  for (int i = 0; i < 400; ++i) CSLogger::Log(0, "%04d %s", i, line.c_str());
  CSLogger::SetRotateBytes(CSLogger::kRotateBytes);
  const std::string log = CSLogger::kLogFile;
  for (const std::string& name : {log, log + ".1", log + ".2", log + ".3"}) {
    EXPECT_EQ(Mode(name), 0600) << name;
    EXPECT_LT(ReadFile(name).size(), 4096u + 200u) << name;
  }
  EXPECT_FALSE(Exists(log + ".4"));
  // The newest lines are in the log, the ones before them in ".1".
  EXPECT_EQ(Count(LogText(Root()), "<0> 0399 "), 1u);
  const std::string previous = ReadFile(log + ".1");
  const size_t last = previous.rfind("<0> ");
  ASSERT_NE(last, std::string::npos);
  const int lastInPrevious = std::stoi(previous.substr(last + 4, 4));
  char next[32];
  snprintf(next, sizeof next, "<0> %04d ", lastInPrevious + 1);
  EXPECT_EQ(Count(LogText(Root()), next), 1u);
}

// Log lines may name configuration: the log and the directories made for it
// are the owner's, also under umask 000.
TEST_F(LoggerFileTest, LogAndItsDirectoriesAreOwnerOnlyWhateverTheUmask) {
  const mode_t saved = ::umask(0);
  CSLogger::Log(0, "first line");
  ::umask(saved);
  EXPECT_EQ(Mode("/var"), 0700);
  EXPECT_EQ(Mode("/var/log/corvane"), 0700);
  EXPECT_EQ(Mode(CSLogger::kLogFile), 0600);
  EXPECT_EQ(Count(LogText(Root()), "<0> first line\n"), 1u);
}

TEST_F(LoggerFileTest, PendingLinesGoToTheRootTheyWereLoggedFor) {
  CSLogger::Log(2, "first root");
  const std::string first = Root();
  char other[] = "/tmp/qen-logger-XXXXXX";
  ASSERT_NE(mkdtemp(other), nullptr);
  QenPlatform::SetHostRoot(other);
  CSLogger::Log(1, "second root");
  CSLogger::Flush();
  QenPlatform::SetHostRoot("");  // back to the fixture's root
  EXPECT_EQ(Count(LogText(first), "first root"), 1u);
  EXPECT_EQ(Count(LogText(first), "second root"), 0u);
  EXPECT_EQ(Count(LogText(other), "second root"), 1u);
  EXPECT_EQ(Count(LogText(other), "first root"), 0u);
  std::system((std::string("rm -rf ") + other).c_str());
}

TEST_F(LoggerFileTest, AForkedChildThatExitsDoesNotRepeatTheParentsLines) {
  CSLogger::Log(2, "before the fork");
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    CSLogger::Log(2, "in the child");
    std::exit(0);  // flushes whatever this process holds
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  CSLogger::Flush();
  const std::string text = LogText(Root());
  EXPECT_EQ(Count(text, "before the fork"), 1u);
  EXPECT_EQ(Count(text, "in the child"), 1u);
}

}  // namespace
