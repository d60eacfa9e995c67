#include "utils/safe_exec.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>
#include <vector>

#include "support/refuse_calls.h"
#include "support/temp_dir.h"

namespace varnel::utils {
namespace {

using namespace std::chrono_literals;
using test::CanRefuseCalls;
using test::RefuseCalls;
using test::TempDir;

SafeExec Shell(const std::string& script) {
  SafeExec command("/bin/sh");
  command.AddArg("-c").AddArg(script);
  return command;
}

size_t OpenDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

bool HasChildren() {
  return ::waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD;
}

TEST(SafeExecTest, EachOutcomeIsReportedAndLeavesNothingBehind) {
  const struct {
    const char* program;
    std::vector<std::string> arguments;
    const char* working_dir;
    int exit_code;
    const char* standard_output;
    const char* standard_error;
  } cases[] = {
      {"/bin/sh", {"-c", "echo a; echo b >&2; exit 7"}, nullptr, 7, "a\n", "b\n"},
      {"/no/such/program", {}, nullptr, 127, "", ""},
      {"/etc/passwd", {}, nullptr, 127, "", ""},
      {"/tmp", {}, nullptr, 127, "", ""},
      {"/bin/sh", {"-c", "pwd"}, "/usr", 0, "/usr\n", ""},
      {"/bin/sh", {"-c", "pwd"}, "/no/such", 127, "", ""},
      {"/bin/sh", {"-c", "kill -TERM $$"}, nullptr, 143, "", ""},
      {"/bin/echo", {"$HOME; `id`", "a b"}, nullptr, 0, "$HOME; `id` a b\n", ""},
      {"/usr/bin/readlink", {"/proc/self/fd/0"}, nullptr, 0, "/dev/null\n", ""},
      {"/bin/sh", {"-c", "set -- $(cat /proc/$$/stat); test $1 = $5"}, nullptr, 0, "", ""},
  };
  const size_t descriptors = OpenDescriptors();
  for (const auto& expected : cases) {
    SafeExec command(expected.program);
    for (const std::string& argument : expected.arguments) command.AddArg(argument);
    if (expected.working_dir != nullptr) command.SetWorkingDir(expected.working_dir);
    const SafeExec::Result result = command.Execute();
    EXPECT_EQ(result.exit_code, expected.exit_code) << command.ToString();
    EXPECT_EQ(result.success, expected.exit_code == 0);
    EXPECT_EQ(result.standard_output, expected.standard_output) << command.ToString();
    EXPECT_EQ(result.standard_error, expected.standard_error) << command.ToString();
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_FALSE(HasChildren());
}

TEST(SafeExecTest, EnvironmentIsInheritedUntilAnEntryReplacesIt) {
  EXPECT_THAT(SafeExec("/usr/bin/env").Execute().standard_output, testing::HasSubstr("PATH="));
  const auto result = SafeExec("/usr/bin/env").AddEnv("A", "1=2").AddEnv("B", "").Execute();
  EXPECT_EQ(result.standard_output, "A=1=2\nB=\n");
}

TEST(SafeExecTest, ChildStartsWithDefaultSignals) {
  ::signal(SIGPIPE, SIG_IGN);
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  SafeExec command("/bin/grep");
  const auto result =
      command.AddArg("-E").AddArg("^Sig(Blk|Ign)").AddArg("/proc/self/status").Execute();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  ::signal(SIGPIPE, SIG_DFL);
  // The C library keeps two signals of its own (32 and 33) ignored.
  EXPECT_THAT(result.standard_output,
              testing::MatchesRegex("SigBlk:\t0+\nSigIgn:\t.{8}[08]0000000\n"));
}

TEST(SafeExecTest, ChildInheritsNoDescriptor) {
  const UniqueFd inheritable(::dup(0));
  const auto result = SafeExec("/bin/ls").AddArg("/proc/self/fd").Execute();
  EXPECT_EQ(result.standard_output, "0\n1\n2\n3\n");  // the last one is the listed directory
}

TEST(SafeExecTest, TimeLimitKillsTheWholeGroupAndKeepsTheOutput) {
  const TempDir dir;
  const std::string fifo = dir / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const UniqueFd alive(::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  SafeExec command = Shell("exec 3>'" + fifo + "'; echo early; sleep 60 & wait");
  const auto start = std::chrono::steady_clock::now();
  const auto result = command.SetTimeout(200).Execute();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_EQ(result.exit_code, -1);
  EXPECT_FALSE(result.success);
  EXPECT_EQ(result.standard_output, "early\n");
  // Hung up when no process has the other end any more, the shell's child included.
  pollfd end = {alive.Get(), POLLIN, 0};
  EXPECT_EQ(::poll(&end, 1, 5000), 1);
}

TEST(SafeExecTest, TimeLimitHoldsAgainstAnEndlessWriter) {
  const auto result = SafeExec("/usr/bin/yes").SetTimeout(100).SetOutputLimit(1000).Execute();
  EXPECT_EQ(result.exit_code, -1);
  EXPECT_EQ(result.standard_output.size(), 1000U);
  EXPECT_TRUE(result.output_cut);
}

TEST(SafeExecTest, OnlyAChildThatDoesNoWorkIsEnded) {
  const test::TempDir dir;
  const std::string file = dir / "progress";
  const std::string spin = "i=0; while [ $i -lt 400000 ]; do i=$((i+1)); done";
  const struct {
    std::string work;
    WorkLimits limits;
    int32_t exit_code;
  } cases[] = {
      {"sleep 60", {300, 60'000, {}}, -1},
      {spin, {600, 60'000, {}}, 0},
      {"while :; do :; done", {60'000, 200, {}}, -1},
      {"for i in 1 2 3 4 5 6; do sleep 0.2; echo >>'" + file + "'; done", {1000, 60'000, file}, 0},
      {"exec >'" + file + "'; sleep 60", {300, 60'000, file}, -1}};
  for (const auto& test : cases) {
    EXPECT_EQ(Shell(test.work).SetWorkLimits(test.limits).Execute().exit_code, test.exit_code)
        << test.work;
  }
}

TEST(SafeExecTest, TenMegabytesOnBothPipesArriveWhole) {
  const auto result = Shell("seq 1400000 & seq 1400000 >&2; wait").Execute();
  EXPECT_TRUE(result.success);
  EXPECT_FALSE(result.output_cut);
  std::string numbers;
  for (int i = 1; i <= 1'400'000; ++i) numbers += std::to_string(i) + "\n";
  EXPECT_TRUE(result.standard_output == numbers);
  EXPECT_TRUE(result.standard_error == numbers);
}

TEST(SafeExecTest, ChildThatClosesItsPipesIsWaitedForWithoutSpinning) {
  const std::clock_t before = std::clock();
  const auto result = Shell("echo out; exec >&- 2>&-; sleep 0.5; exit 3").Execute();
  EXPECT_EQ(result.exit_code, 3);
  EXPECT_EQ(result.standard_output, "out\n");
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 5);
}

TEST(SafeExecTest, GrandchildThatKeepsThePipesOpenDelaysNothing) {
  const auto start = std::chrono::steady_clock::now();
  const auto result = Shell("yes & echo $! >&2; exit 0").Execute();
  ::kill(std::stoi(result.standard_error), SIGKILL);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_TRUE(result.success);
}

TEST(SafeExecTest, OutputFileTakesBothOutputsAndIsOnlyAppendedTo) {
  const TempDir dir;
  const std::string file = dir / "out";
  for (const char* script : {"echo a; echo b >&2; exit 3", "echo c"}) {
    const auto result = Shell(script).SetOutputFile(file).Execute();
    EXPECT_EQ(result.exit_code, script[5] == 'a' ? 3 : 0);
    EXPECT_EQ(result.standard_output + result.standard_error, "");
  }
  EXPECT_EQ(test::ReadFile(file), "a\nb\nc\n");
  EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
  EXPECT_EQ(SafeExec("/no/such/program").SetOutputFile(file).Execute().exit_code, 127);

  const std::string link = dir / "link";
  std::filesystem::create_symlink(file, link);
  EXPECT_THROW((void)Shell("echo d").SetOutputFile(link).Execute(), SafeExecException);
  EXPECT_EQ(test::ReadFile(file), "a\nb\nc\n");
}

TEST(SafeExecTest, HundredsInParallelLeaveNothingBehind) {
  const size_t descriptors = OpenDescriptors();
  std::atomic<int> good = 0;
  {
    std::vector<std::jthread> threads;
    threads.reserve(32);
    for (int i = 0; i < 32; ++i) {
      threads.emplace_back([&good, i] {
        for (int round = 0; round < 10; ++round) {
          const std::string text = std::to_string(i * 100 + round);
          good += SafeExec("/bin/echo").AddArg(text).Execute().standard_output == text + "\n";
        }
      });
    }
  }
  EXPECT_EQ(good, 320);
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_FALSE(HasChildren());
}

TEST(SafeExecTest, ToStringQuotesEachArgumentAndAnEmptyProgramIsRefused) {
  EXPECT_THAT([] { SafeExec(""); },
              testing::ThrowsMessage<SafeExecException>("Program path cannot be empty"));
  EXPECT_EQ(SafeExec("/bin/x").AddArg("a b").AddArg("say \"hi\"").AddArg("").ToString(),
            R"(/bin/x "a b" "say \"hi\"" "")");
}

void LimitDescriptors(rlim_t count) {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min(count, limit.rlim_max);
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// Runs the body in a process of its own and returns its status; a SafeExecException's text goes to
/// standard error.
template <class Body>
void RunApart(Body body) {
  int status = 98;
  try {
    status = body();
  } catch (const SafeExecException& e) {
    LimitDescriptors(RLIM_INFINITY);  // the sanitizers need some for their checks
    std::fputs(e.what(), stderr);
    status = 42;
  }
  ::_exit(status);
}

TEST(SafeExecDeathTest, RefusedStartAndMissingDescriptorsThrow) {
  if (!CanRefuseCalls()) GTEST_SKIP() << "no seccomp";
  EXPECT_EXIT(RunApart([] {
                RefuseCalls({SYS_clone, SYS_clone3}, EAGAIN);
                return SafeExec("/bin/true").Execute().exit_code;
              }),
              testing::ExitedWithCode(42), "Failed to fork process");
  EXPECT_EXIT(RunApart([] {
                LimitDescriptors(static_cast<rlim_t>(::dup(0)) + 1);
                return SafeExec("/bin/true").Execute().exit_code;
              }),
              testing::ExitedWithCode(42), "Failed to create pipe");
}

TEST(SafeExecDeathTest, WorksWithoutStandardDescriptorsAndOnOldKernels) {
  if (!CanRefuseCalls()) GTEST_SKIP() << "no seccomp";
  EXPECT_EXIT(RunApart([] {
                ::close(0);
                ::close(1);
                return SafeExec("/bin/echo").AddArg("x").Execute().standard_output == "x\n" ? 0 : 1;
              }),
              testing::ExitedWithCode(0), "");
  EXPECT_EXIT(RunApart([] {
                RefuseCalls({SYS_pidfd_open}, ENOSYS);
                const bool ended =
                    Shell("exec >&- 2>&-; sleep 0.1; exit 9").Execute().exit_code == 9;
                const bool killed = Shell("sleep 9").SetTimeout(50).Execute().exit_code == -1;
                return ended && killed ? 0 : 1;
              }),
              testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace varnel::utils
