#include "host/quorvel/engine.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <sstream>

#include "host/quorvel/command_error.h"
#include "host/quorvel/id_list.h"
#include "tools/lib/init_text_writer.h"

namespace quorvel::cli {
namespace {

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

std::optional<std::uint64_t> parse_number(const std::string& line) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), value);
  if (error != std::errc() || end != line.data() + line.size() || line.empty()) return std::nullopt;
  return value;
}

std::string request_block(const Request& request) {
  const std::string lines = "kv_position=" + std::to_string(request.kv_position) + "\ntokens=" +
                            id_list(request.tokens, ',') + "\n" + request.sampling.request_lines();
  return std::to_string(std::count(lines.begin(), lines.end(), '\n')) + "\n" + lines;
}

}  // namespace

Engine::Engine(std::filesystem::path binary, std::filesystem::path model_dir, const InitConfig& config)
    : binary_(std::move(binary)), model_dir_(std::move(model_dir)), config_(config) {
  start();
}

void Engine::start() {
  const Clock::time_point begin = Clock::now();
  session_ = std::make_unique<host::EngineSession>(std::vector<std::string>{binary_.string(), model_dir_.string()});
  if (!session_->send(tools::format_init_text(config_)) || !host::wait_until_loaded(*session_)) {
    stopped_unexpectedly();
  }
  load_seconds_ = seconds(Clock::now() - begin);
}

void Engine::stopped_unexpectedly() {
  session_->finish();
  throw CommandError("the engine (" + binary_.string() + ") " + session_->how_it_ended(), kExitEngineStopped);
}

// An engine that prints something else than numbers is not one we can talk to: it is ended.
std::uint64_t Engine::number(const std::string& line) {
  const std::optional<std::uint64_t> value = parse_number(line);
  if (value) return *value;
  session_->kill();
  throw CommandError("the engine (" + binary_.string() + ") printed '" + line + "' where a number belongs",
                     kExitEngineStopped);
}

bool Engine::is_end(text::TokenId id) const {
  const auto* eos = config_.eos_tokens.data();
  return std::find(eos, eos + config_.num_eos_tokens, static_cast<std::int64_t>(id)) != eos + config_.num_eos_tokens;
}

Answer Engine::ask(const Request& request, const std::function<bool(text::TokenId)>& on_token, Rest rest) {
  Answer answer;
  answer.sent = Clock::now();
  if (!session_->send(request_block(request))) stopped_unexpectedly();
  bool wanted = true;
  while (true) {
    const std::optional<std::string> line = session_->read_line();
    if (!line) stopped_unexpectedly();
    const auto id = static_cast<text::TokenId>(number(*line));
    answer.last_token = Clock::now();
    if (answer.ids.empty()) answer.first_token = answer.last_token;
    answer.ids.push_back(id);
    if (wanted) wanted = on_token(id);
    if (is_end(id)) break;
    if (!wanted && (rest == Rest::end_engine || !drain_is_quicker(request, answer))) {
      session_->kill();
      if (rest == Rest::drop) start();
      answer.complete = false;
      return answer;
    }
  }
  const std::optional<std::string> position = session_->read_line();
  if (!position) stopped_unexpectedly();
  answer.position = number(*position);
  return answer;
}

// Reading the rest of the answer takes the tokens still to come at the decode speed seen so far;
// a restart takes the load time and then re-reading what the cache held, at the prefill speed. A few
// tokens are always read: they cost little, and the cache stays as it is.
constexpr std::uint64_t kAlwaysDrained = 16;

bool Engine::drain_is_quicker(const Request& request, const Answer& answer) const {
  const std::uint64_t generated = answer.ids.size();
  const std::uint64_t limit = request.sampling.max_tokens == 0 ? config_.max_position_embeddings
                                                                 : request.sampling.max_tokens + 1;
  const std::uint64_t room = config_.max_position_embeddings - std::min<std::uint64_t>(
                                 config_.max_position_embeddings, request.kv_position + request.tokens.size());
  const std::uint64_t most_lines = std::min(limit, room + 1);
  const std::uint64_t to_come = most_lines > generated ? most_lines - generated : 0;
  if (to_come <= kAlwaysDrained) return true;
  const double per_token = generated > 1 ? seconds(answer.last_token - answer.first_token) / double(generated - 1)
                                         : seconds(answer.first_token - answer.sent);
  const double per_prompt_token = seconds(answer.first_token - answer.sent) / double(request.tokens.size());
  const double restart = load_seconds_ + per_prompt_token * double(request.kv_position + request.tokens.size());
  return double(to_come) * per_token <= restart;
}

}  // namespace quorvel::cli
