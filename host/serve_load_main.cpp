// quorvel-serve-load: a load test for an OpenAI-compatible server such as quorvel serve. Several
// clients at once each send a series of chat and completion requests, streamed or not, with mixed
// prompt lengths and reply lengths, some carrying a chat on; at the end it prints how the requests
// came back and how fast. Exit status 0 when every request succeeded.
#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <iostream>
#include <thread>

#include "host/serve_load/load_client.h"
#include "host/serve_load/load_report.h"
#include "host/serve_load/server_check.h"

namespace {

using namespace quorvel::serve_load;

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

void add_range_option(CLI::App& app, const char* name, IntRange& range, const char* what) {
  app.add_option_function<std::pair<int, int>>(
         name,
         [&range](const std::pair<int, int>& value) {
           range = {value.first, value.second};
         },
         what)
      ->type_name("LOW HIGH")
      ->check(CLI::Range(1, 1000000));
}

void add_options(CLI::App& app, LoadOptions& options) {
  app.add_option("--url", options.url, "The server: scheme, host and port")->capture_default_str();
  app.add_option("--clients", options.clients, "Clients sending at once")
      ->check(CLI::Range(1, 256))
      ->capture_default_str();
  app.add_option("--requests", options.requests, "Requests per client")
      ->check(CLI::Range(1, 100000))
      ->capture_default_str();
  app.add_option("--api-key", options.api_key, "Sent as Authorization: Bearer KEY");
  app.add_option("--seed", options.seed, "Seed of the request mix")->capture_default_str();
  add_range_option(app, "--max-tokens-range", options.ranges.max_tokens,
                   "max_tokens between LOW and HIGH (default 4 96)");
  add_range_option(app, "--prompt-words-range", options.ranges.prompt_words,
                   "Prompt words between LOW and HIGH (default 3 300)");
  app.add_option_function<int>(
         "--timeout", [&options](const int& seconds) { options.timeout = std::chrono::seconds(seconds); },
         "Seconds one request may take (default 600)")
      ->check(CLI::Range(1, 86400));
  app.add_flag("--expect-failures", options.expect_failures,
               "Allow requests that fail with 500 (an engine is killed on purpose); other failures still fail");
}

std::vector<RequestResult> run_clients(const LoadOptions& options) {
  std::vector<std::vector<RequestResult>> per_client(options.clients);
  {
    std::vector<std::jthread> threads;
    for (int client = 0; client < options.clients; ++client) {
      threads.emplace_back([&options, &per_client, client] { per_client[client] = run_client(options, client); });
    }
  }
  std::vector<RequestResult> results;
  for (auto& client_results : per_client) results.insert(results.end(), client_results.begin(), client_results.end());
  return results;
}

int run_load(const LoadOptions& options) {
  std::cout << "quorvel-serve-load: " << options.clients << " clients × " << options.requests << " requests to "
            << options.url << " (seed " << options.seed << ")" << std::endl;
  const auto start = std::chrono::steady_clock::now();
  const std::vector<RequestResult> results = run_clients(options);
  const double wall_seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const LoadSummary summary = summarize(results, wall_seconds);
  print_summary(summary, std::cout);
  if (acceptable(summary, options.expect_failures)) return 0;
  std::cerr << "Error: " << summary.failed << " of " << summary.requests << " requests failed"
            << (options.expect_failures ? ", not all of them with 500" : "") << std::endl;
  return kExitFailed;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  CLI::App app("quorvel-serve-load: many clients at once against an OpenAI-compatible server");
  LoadOptions options;
  add_options(app, options);
  app.footer("Exit status: 0 every request succeeded, 1 some failed or the server cannot be reached, 2 bad options.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    std::cerr << "Error: " << error.what() << " (quorvel-serve-load --help lists the options)" << std::endl;
    return kExitUsage;
  }
  if (const std::string problem = options_problem(options); !problem.empty()) {
    std::cerr << "Error: " << problem << std::endl;
    return kExitUsage;
  }
  if (const std::string problem = server_problem(options.url); !problem.empty()) {
    std::cerr << "Error: " << problem << std::endl;
    return kExitFailed;
  }
  return run_load(options);
}
