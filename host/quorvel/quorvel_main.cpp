// quorvel: text in, text out. Runs quorvel-inference (found beside this program) as a child process
// and speaks its block protocol: `run` completes one prompt, `chat` holds a conversation, `serve`
// answers OpenAI-style HTTP requests, `tokenize` and `detokenize` show what the model's tokenizer
// makes of a text.
#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>

#include "host/quorvel/command_error.h"
#include "host/quorvel/commands.h"
#include "host/quorvel/serve/serve_command.h"
#include "host/text/text_error.h"

namespace {

using namespace quorvel::cli;

constexpr const char* kExitStatuses =
    "Exit status: 0 done, 1 an error (its message says which), 2 a command line that does not parse, "
    "3 the engine ended while it was needed.";

void add_generation_options(CLI::App& command, GenerationOptions& options) {
  command.add_option("MODEL_DIR", options.model_dir, "A converted model directory")->required()->check(
      CLI::ExistingDirectory);
  command.add_option("--system", options.system, "A system prompt");
  command.add_option("--chat-format", options.chat_format,
                     "llama3, bitnet, chatml (or qwen3), completion; default: from the model's chat template");
  command.add_flag_function(
      "--no-think", [&options](std::int64_t) { options.thinking = false; },
      "ChatML: open each reply with an empty think block (thinking off)");
  SamplingOptions& s = options.sampling;
  command.add_option("-n,--max-tokens", s.max_tokens, "Tokens to generate at most (0: until an end token)");
  command.add_option_function<double>(
      "--temp", [&s](const double& v) { s.temperature = v; }, "Temperature, 0 for greedy (default: the model's generation_config.json, else 0.6)");
  command.add_option_function<std::uint64_t>(
      "--top-k", [&s](const std::uint64_t& v) { s.top_k = v; }, "Sample from the K likeliest tokens, 1..256 (default: as for --temp, else 50)");
  command.add_option_function<double>(
      "--top-p", [&s](const double& v) { s.top_p = v; }, "Sample from the smallest set holding probability P (default: as for --temp, else 0.9)");
  command.add_option_function<double>(
      "--repeat-penalty", [&s](const double& v) { s.repeat_penalty = v; },
      "Penalty for tokens among the last 64, 1 for none (default: as for --temp, else 1.1)");
  command.add_option("--stop", options.stop_strings, "Stop the reply where this text begins (repeatable)")
      ->allow_extra_args(false);
  command.add_option("-t,--threads", options.threads, "Engine threads (default: the model's init.txt, else all)")
      ->check(CLI::PositiveNumber);
  command.add_option("--engine", options.engine, "The engine binary (default: quorvel-inference beside quorvel)");
  command.footer(kExitStatuses);
}

void add_tokenizer_options(CLI::App& command, TokenizeOptions& options) {
  auto* dir = command.add_option("MODEL_DIR", options.source, "A model directory with a tokenizer.json");
  auto* file = command.add_option("--tokenizer", options.source, "A tokenizer.json file")->check(CLI::ExistingFile);
  dir->excludes(file);
  command.footer(kExitStatuses);
}

void add_serve_options(CLI::App& command, quorvel::serve::ServeOptions& options) {
  command.add_option("MODEL_DIR", options.model_dir, "A converted model directory")->required()->check(
      CLI::ExistingDirectory);
  command.add_option("--host", options.host, "The address to listen on; anything but 127.0.0.1 lets other machines in")
      ->capture_default_str();
  command.add_option("--port", options.port, "The port; 0 picks a free one")->capture_default_str()->check(
      CLI::Range(0, 65535));
  command.add_option("--parallel", options.parallel, "Slots: engines running at once, each with its own copy of the model")
      ->capture_default_str()->check(CLI::Range(1, 64));
  command.add_option("--max-queue", options.max_queue, "Requests that may wait for a slot; more get 503")
      ->capture_default_str();
  command.add_option("--api-key", options.api_key, "Ask every request but /health for Authorization: Bearer KEY");
  command.add_option("--ctx", options.context, "Positions a request may fill, prompt and reply (default: the model's context)");
  command.add_option("--max-body", options.max_body_bytes, "Largest request body in bytes; larger gets 413")
      ->capture_default_str();
  command.add_option("-t,--threads", options.threads, "Threads per engine (default: the model's init.txt, else all)")
      ->check(CLI::PositiveNumber);
  command.add_option("--chat-format", options.chat_format,
                     "llama3, bitnet, chatml (or qwen3), completion; default: from the model's chat template");
  command.add_flag_function(
      "--no-think", [&options](std::int64_t) { options.thinking = false; },
      "ChatML: open each reply with an empty think block (thinking off)");
  command.add_option("--engine", options.engine, "The engine binary (default: quorvel-inference beside quorvel)");
  command.footer(
      "Endpoints: POST /v1/chat/completions, POST /v1/completions, GET /v1/models, GET /health.\n"
      "Exit status: 0 stopped by SIGINT or SIGTERM, 1 an error (its message says which), 2 a command line that "
      "does not parse, 3 an engine ended while starting.");
}

}  // namespace

int main(int argc, char** argv) {
  // A write to an engine that has ended reports an error instead of ending quorvel.
  std::signal(SIGPIPE, SIG_IGN);
  CLI::App app("quorvel: run, chat with, serve and tokenize for a converted model");
  app.require_subcommand(1);
  app.footer(kExitStatuses);

  RunOptions run;
  CLI::App* run_app = app.add_subcommand("run", "Complete one prompt, streamed to standard output");
  add_generation_options(*run_app, run.generation);
  run_app->add_option("-p,--prompt", run.prompt, "The prompt")->required();
  run_app->add_flag("--chat", run.chat, "Lay the prompt out as a user turn of the model's chat format");
  run_app->add_flag("--json", run.json, "Print one JSON object: text, token ids, counts, timings");

  GenerationOptions chat;
  CLI::App* chat_app = app.add_subcommand("chat", "Hold a conversation (/reset, /stats, /exit; Ctrl-D ends)");
  add_generation_options(*chat_app, chat);

  TokenizeOptions tokenize;
  CLI::App* tokenize_app = app.add_subcommand("tokenize", "Print the ids of standard input's text, one line");
  add_tokenizer_options(*tokenize_app, tokenize);
  tokenize_app->add_flag_function(
      "--no-special", [&tokenize](std::int64_t) { tokenize.special = false; },
      "Encode special-token text as plain text");
  tokenize_app->add_flag("--json", tokenize.json, "Print a JSON object: ids, token texts, count");

  TokenizeOptions detokenize;
  CLI::App* detokenize_app = app.add_subcommand("detokenize", "Print the text of the ids on standard input");
  add_tokenizer_options(*detokenize_app, detokenize);

  quorvel::serve::ServeOptions serve;
  CLI::App* serve_app = app.add_subcommand("serve", "Answer OpenAI-style HTTP requests (chat and text completions)");
  add_serve_options(*serve_app, serve);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);  // --help
    std::cerr << "Error: " << error.what() << " (quorvel --help lists the commands)" << std::endl;
    return kExitUsage;
  }
  try {
    if (*run_app) return run_command(run);
    if (*chat_app) return chat_command(chat);
    if (*serve_app) return quorvel::serve::serve_command(serve);
    for (auto [command, options] : {std::pair{tokenize_app, &tokenize}, std::pair{detokenize_app, &detokenize}}) {
      if (!*command) continue;
      if (options->source.empty()) throw CommandError("name a model directory or --tokenizer FILE");
      return command == tokenize_app ? tokenize_command(*options) : detokenize_command(*options);
    }
  } catch (const CommandError& error) {
    std::cerr << error.what() << std::endl;
    return error.exit_status();
  } catch (const std::exception& error) {
    const std::string message = error.what();
    std::cerr << (message.starts_with("Error: ") ? "" : "Error: ") << message << std::endl;
    return kExitError;
  }
  return 0;
}
