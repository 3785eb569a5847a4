#include "host/bench_session.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "host/bench_models.h"

namespace quorvel::host {
namespace {

double seconds(std::chrono::steady_clock::duration d) { return std::chrono::duration<double>(d).count(); }

// The model's init block with no end-of-sequence id and the thread count.
std::string init_block(const std::filesystem::path& model, unsigned threads) {
  const std::string init = read_init_text(model);
  return std::to_string(std::stoi(init) + 2) + init.substr(init.find('\n')) + "eos_tokens=\nnum_threads=" +
         std::to_string(threads) + "\n";
}

}  // namespace

BenchSession::BenchSession(const std::string& engine, const std::filesystem::path& model, unsigned threads)
    : config_(read_model_config(model)), session_({engine, model.string()}) {
  session_.send(init_block(model, threads));
  if (!wait_until_loaded(session_)) throw std::runtime_error("the engine ended while loading " + model.string());
}

BenchSession::~BenchSession() { session_.finish(); }

BenchSession::Answer BenchSession::ask(std::uint64_t depth, std::uint64_t prompt, std::uint64_t tokens) {
  std::string ids;
  for (std::uint64_t i = 0; i < prompt; ++i) {
    if (i) ids += ',';
    ids += std::to_string(random_() % config_.vocab_size);
  }
  const std::string request = "4\nkv_position=" + std::to_string(depth) + "\ntokens=" + ids +
                              "\nmax_tokens=" + std::to_string(tokens) + "\ntemperature=0\n";
  // The tokens, one end-of-sequence id, the position line.
  TimedAnswer timed = ask_lines(session_, request, tokens + 2);
  if (timed.lines.size() != tokens + 2) throw std::runtime_error("the engine stopped early");
  const std::uint64_t filled = std::stoull(timed.lines.back());
  // The end-of-sequence id enters the cache after the tokens.
  if (filled != depth + prompt + tokens + 1) throw std::runtime_error("the engine ended the answer early");
  filled_ = std::max(filled_, filled);
  return {std::move(timed), filled};
}

double BenchSession::prefill_tokens_per_second(std::uint64_t prompt) {
  const Answer answer = ask(0, prompt, 1);
  return static_cast<double>(prompt) / seconds(answer.timed.arrivals.front() - answer.timed.sent);
}

void BenchSession::fill_cache(std::uint64_t positions) {
  if (filled_ < positions) ask(filled_, positions - filled_, 1);
}

double BenchSession::decode_tokens_per_second(std::uint64_t depth, std::uint64_t prompt, std::uint64_t decoded) {
  const Answer answer = ask(depth, prompt, decoded + 1);
  const auto& arrivals = answer.timed.arrivals;
  return static_cast<double>(decoded) / seconds(arrivals[decoded] - arrivals.front());
}

}  // namespace quorvel::host
