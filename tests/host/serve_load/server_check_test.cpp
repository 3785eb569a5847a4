// The checks before a load run: options that cannot work, and a server that is not there.
#include "host/serve_load/server_check.h"

#include <gtest/gtest.h>

#include "fake_chat_server.h"

namespace quorvel::serve_load {
namespace {

LoadOptions with_url(const std::string& url) {
  LoadOptions options;
  options.url = url;
  return options;
}

TEST(OptionsProblem, UsableOptionsHaveNone) {
  EXPECT_EQ(options_problem(with_url("http://127.0.0.1:8080")), "");
  EXPECT_EQ(options_problem(with_url("http://localhost:9")), "");
  EXPECT_EQ(options_problem(with_url("https://[::1]:8443/")), "");
}

TEST(OptionsProblem, ARangeUpsideDownIsNamed) {
  LoadOptions options;
  options.ranges.max_tokens = {9, 3};
  EXPECT_EQ(options_problem(options), "--max-tokens-range: LOW is above HIGH");
  options.ranges.max_tokens = {3, 3};
  options.ranges.prompt_words = {40, 39};
  EXPECT_EQ(options_problem(options), "--prompt-words-range: LOW is above HIGH");
}

TEST(OptionsProblem, AUrlThatNamesNoServerIsRefused) {
  for (const char* url :
       {"ftp://127.0.0.1:21", "not a url", "", "127.0.0.1:8080", "http://127.0.0.1:8080/v1", "http://:80"}) {
    EXPECT_EQ(options_problem(with_url(url)),
              std::string("--url ") + url + " is not a server address like http://127.0.0.1:8080");
  }
}

TEST(ServerProblem, AnyHttpAnswerWillDo) {
  FakeChatServer server;
  EXPECT_EQ(server_problem(server.url()), "");  // a 404 for GET / is an answer
}

TEST(ServerProblem, NoServerIsSaidSo) {
  std::string url;
  { url = FakeChatServer().url(); }
  EXPECT_EQ(server_problem(url), "no server answers at " + url + " (Connection)");
}

}  // namespace
}  // namespace quorvel::serve_load
