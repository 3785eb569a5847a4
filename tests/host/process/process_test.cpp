// Child processes as the hosts start them: the tests start this same program
// again (found through this_program()) as the child, which then acts on its
// arguments instead of running tests; see main() below.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "host/child_process.h"
#include "host/engine_process.h"
#include "host/scratch_directory.h"
#include "host/this_process.h"
#include "host/windows_command_line.h"

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif

namespace quorvel::host {
namespace {

namespace fs = std::filesystem;

constexpr const char* kChild = "--process-test-child";

std::vector<std::string> child(std::vector<std::string> arguments, const fs::path& program = this_program()) {
  arguments.insert(arguments.begin(), {program.string(), kChild});
  return arguments;
}

// Arguments that the Windows command line must quote or escape, and text that
// a code page would lose.
const std::vector<std::string> kAwkwardArguments = {
    "plain", "two words", "", "say \"hi\"", "tab\there", "C:\\dir\\", "C:\\my dir\\", "a\\\"b",
    "back\\\\slashes\\\\ in the middle", "\"", "modèle-ü 日本語 🦙"};

TEST(ChildProcessTest, TalksOverPipesAndReportsTheExitStatus) {
  const fs::path error_file = fs::temp_directory_path() / "quorvel-process-test-errors";
  {
    EngineSession echo(child({"echo"}), error_file.string());
    ASSERT_TRUE(echo.send("first line\nsecond\r\nthird "));
    EXPECT_EQ(echo.read_line(), "first line");
    EXPECT_EQ(echo.read_line(), "second\r");  // bytes pass unchanged, both ways
    ASSERT_TRUE(echo.send("line\n"));
    EXPECT_EQ(echo.read_line(), "third line");
    EXPECT_EQ(echo.finish(), 0);
    EXPECT_EQ(echo.how_it_ended(), "exited with status 0");
  }
  std::ifstream errors(error_file, std::ios::binary);
  std::string error_line;
  EXPECT_TRUE(std::getline(errors, error_line));
  EXPECT_EQ(error_line, "echo: 30 bytes");
  errors.close();
  fs::remove(error_file);

  EngineSession failing(child({"exit", "7"}));
  EXPECT_EQ(failing.read_line(), std::nullopt);
  EXPECT_EQ(failing.finish(), 7);
  EXPECT_EQ(failing.how_it_ended(), "exited with status 7");
}

TEST(ChildProcessTest, RunProcessFeedsInputAndCollectsBothStreams) {
  const ProcessResult echoed = run_process(child({"echo"}), "line one\r\nline two\n");
  EXPECT_EQ(echoed.out, "line one\r\nline two\n");
  EXPECT_EQ(echoed.err, "echo: 19 bytes\n");
  EXPECT_EQ(echoed.exit_status, 0);
  EXPECT_EQ(echoed.signal, 0);

  const ProcessResult failed = run_process(child({"exit", "3"}), "");
  EXPECT_EQ(failed.exit_status, 3);
}

TEST(ChildProcessTest, ArgumentsArriveUnchanged) {
  std::vector<std::string> arguments{"arguments"};
  std::string printed;
  for (const auto& argument : kAwkwardArguments) {
    arguments.push_back(argument);
    printed += argument + "\n";
  }
  const ProcessResult result = run_process(child(arguments), "");
  ASSERT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, printed);
}

// The program itself in a directory whose name needs quoting and is not ASCII.
TEST(ChildProcessTest, StartsAProgramWhosePathHasSpacesAndNonAsciiCharacters) {
  const ScratchDirectory dir("quorvel process test é 日本 ");
  const fs::path copy = dir.path() / this_program().filename();
  fs::copy_file(this_program(), copy);
  const ProcessResult result = run_process(child({"arguments", "modèle-ü"}, copy), "");
  ASSERT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "modèle-ü\n");
}

TEST(ChildProcessTest, KillEndsARunningChild) {
  EngineSession waiting(child({"echo"}));
  ASSERT_TRUE(waiting.send("still here\n"));
  ASSERT_EQ(waiting.read_line(), "still here");
  waiting.kill();
  EXPECT_EQ(waiting.finish(), kKilledStatus);
}

TEST(ChildProcessTest, WritingToAChildThatHasEndedFailsWithoutEndingUs) {
  EngineSession gone(child({"exit", "5"}));
  EXPECT_EQ(gone.read_line(), std::nullopt);  // it has closed its output: it has ended
  const std::string more_than_a_pipe_holds(1 << 20, 'x');
  EXPECT_FALSE(gone.send(more_than_a_pipe_holds));
  EXPECT_EQ(gone.finish(), 5);
}

// A second child must not hold the first one's input pipe open: the first
// sees the end of its input (and ends) while the second still runs.
TEST(ChildProcessTest, AChildInheritsNoOtherChildsPipes) {
  EngineSession first(child({"echo"}));
  EngineSession second(child({"echo"}));
  ASSERT_TRUE(second.send("alive\n"));
  ASSERT_EQ(second.read_line(), "alive");
  EXPECT_EQ(first.finish(), 0);
  ASSERT_TRUE(second.send("still alive\n"));
  EXPECT_EQ(second.read_line(), "still alive");
  EXPECT_EQ(second.finish(), 0);
}

TEST(ChildProcessTest, AProgramThatCannotStartIsAnError) {
  EXPECT_THROW(run_process({(fs::temp_directory_path() / "quorvel-no-such-program").string()}, ""), std::runtime_error);
}

TEST(WindowsCommandLineTest, QuotesAndEscapesByTheCRuntimeRules) {
  EXPECT_EQ(windows_command_line(kAwkwardArguments),
            "plain \"two words\" \"\" \"say \\\"hi\\\"\" \"tab\there\" C:\\dir\\ \"C:\\my dir\\\\\" \"a\\\\\\\"b\" "
            "\"back\\\\slashes\\\\ in the middle\" \"\\\"\" \"modèle-ü 日本語 🦙\"");
}

// The child's side. Standard streams in binary mode, so that Windows turns
// no "\n" into "\r\n" on the way.
int run_as_child(const std::vector<std::string>& arguments) {
#ifdef _WIN32
  _setmode(_fileno(stdin), _O_BINARY);
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stderr), _O_BINARY);
#endif
  const std::string& what = arguments.at(2);
  if (what == "exit") return std::atoi(arguments.at(3).c_str());
  if (what == "arguments") {
    for (std::size_t i = 3; i < arguments.size(); ++i) std::printf("%s\n", arguments[i].c_str());
    return 0;
  }
  // echo: standard input to standard output, as it arrives.
  std::size_t bytes = 0;
  for (int c; (c = std::getchar()) != EOF; ++bytes) {
    std::putchar(c);
    if (c == '\n') std::fflush(stdout);
  }
  std::fprintf(stderr, "echo: %zu bytes\n", bytes);
  return 0;
}

}  // namespace
}  // namespace quorvel::host

int main(int argc, char** argv) {
  const std::vector<std::string> arguments = quorvel::host::program_arguments(argc, argv);
  if (arguments.size() > 2 && arguments[1] == quorvel::host::kChild) return quorvel::host::run_as_child(arguments);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
