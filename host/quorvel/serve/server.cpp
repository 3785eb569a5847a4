#include "host/quorvel/serve/server.h"

#include <cstdio>
#include <ctime>
#include <iostream>

#include "host/quorvel/command_error.h"
#include "host/quorvel/serve/api_error.h"
#include "host/quorvel/serve/api_response.h"
#include "host/quorvel/serve/request_log.h"
#include "models/model_memory.h"
#include "runtime/physical_memory.h"

namespace quorvel::serve {
namespace {

using HandlerResponse = httplib::Server::HandlerResponse;
using nlohmann::json;

// What the log line of the request being served on this thread reports. httplib serves a request
// on one thread from its arrival to its log line, a stream's content included.
struct RequestRecord {
  cli::Clock::time_point arrived = cli::Clock::now();
  std::optional<CompletionFigures> figures;
  int failed_status = 0;        // a stream that failed after its 200 went out
  std::string server_error;     // the message of a 5xx answer
  bool disconnected = false;
};
thread_local RequestRecord record;

void send_error(httplib::Response& response, const ApiError& error) {
  if (error.status() >= 500) record.server_error = error.what();
  response.status = error.status();
  response.set_content(json_text(error.body()), "application/json");
}

// Equal keys, compared in a time that depends on the expected key's length alone.
bool same_secret(std::string_view given, std::string_view expected) {
  unsigned difference = given.size() != expected.size() ? 1u : 0u;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const char mine = i < given.size() ? given[i] : '\0';
    difference |= static_cast<unsigned char>(mine ^ expected[i]);
  }
  return difference == 0;
}

// The JSON error of a status that httplib set without a body of ours.
ApiError error_for_status(const httplib::Request& request, int status, std::size_t max_body) {
  if (status == 404) return ApiError(404, "there is no " + request.method + " " + request.path, "not_found");
  if (status == 413) {
    return ApiError(413, "the request body is larger than " + std::to_string(max_body) + " bytes", "request_too_large");
  }
  return ApiError(status, "the request cannot be served (HTTP " + std::to_string(status) + ")", "http_error");
}

std::string memory_line(const quorvel::ModelMemory& memory) {
  return readable_size(memory.total()) + " (weights " + readable_size(memory.weights) + ", key/value caches " +
         readable_size(memory.caches) + ", buffers " + readable_size(memory.buffers) + ")";
}

}  // namespace

Server::Server(const ServeOptions& options, LogSink log)
    : options_(options), log_(std::move(log)), model_(options), pool_(start_slots(), options.max_queue), started_(std::time(nullptr)) {
  route();
}

std::vector<std::unique_ptr<Slot>> Server::start_slots() {
  const InitConfig& config = model_.engine_launch().config;
  const ModelMemory memory = estimate_model_memory(config, config.num_threads);
  const std::uint64_t physical = physical_memory_bytes();
  log_("quorvel serve: model " + model_.name() + ", context " + std::to_string(model_.context()) + ", " +
       std::to_string(options_.parallel) + " slot(s), each engine " + memory_line(memory) + "; the machine has " +
       readable_size(physical));
  if (!model_.no_chat_reason().empty()) log_("quorvel serve: chat completions are refused: " + model_.no_chat_reason());
  if (memory.total() > physical / options_.parallel) {
    throw cli::CommandError("--parallel " + std::to_string(options_.parallel) + " needs " +
                            readable_size(memory.total() * options_.parallel) + " of memory, more than the " +
                            readable_size(physical) + " this machine has");
  }
  std::vector<std::unique_ptr<Slot>> slots;
  for (std::size_t i = 0; i < options_.parallel; ++i) {
    slots.push_back(std::make_unique<Slot>(static_cast<int>(i), model_.engine_launch()));
    log_engine_ready(*slots.back());
  }
  return slots;
}

void Server::log_engine_ready(const Slot& slot) {
  char ready[96];
  std::snprintf(ready, sizeof ready, "slot %d: engine pid %d ready in %.2f s", slot.index(),
                static_cast<int>(slot.engine_pid()), slot.load_seconds());
  log_(ready);
}

void Server::route() {
  // Every request may hold a thread while it waits for a slot; a few more answer the rest.
  const std::size_t threads = options_.parallel + options_.max_queue + 4;
  http_.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
  http_.set_payload_max_length(options_.max_body_bytes);
  http_.set_keep_alive_max_count(1000);
  // A stream writes one small chunk per piece of text: each must leave at once, not wait for the
  // client's acknowledgement of the one before.
  http_.set_tcp_nodelay(true);
  http_.set_pre_routing_handler([this](const auto& request, auto& response) { return authorise(request, response); });
  http_.set_error_handler(httplib::Server::HandlerWithResponse([this](const auto& request, auto& response) {
    if (!response.body.empty()) return HandlerResponse::Unhandled;
    send_error(response, error_for_status(request, response.status, options_.max_body_bytes));
    return HandlerResponse::Handled;
  }));
  http_.set_exception_handler([](const auto&, auto& response, std::exception_ptr failure) {
    try {
      std::rethrow_exception(failure);
    } catch (const std::exception& error) {
      send_error(response, ApiError(500, error.what(), "internal_error"));
    }
  });
  http_.set_logger([this](const auto& request, const auto& response) { log(request, response); });
  http_.Post("/v1/chat/completions", [this](const auto& request, auto& response) { complete(request, response, true); });
  http_.Post("/v1/completions", [this](const auto& request, auto& response) { complete(request, response, false); });
  http_.Get("/v1/models", [this](const auto&, auto& response) {
    const json model{{"id", model_.name()}, {"object", "model"}, {"created", started_}, {"owned_by", "quorvel"}};
    response.set_content(json_text({{"object", "list"}, {"data", json::array({model})}}), "application/json");
  });
  http_.Get("/health", [this](const auto&, auto& response) {
    const SlotPool::Occupancy now = pool_.occupancy();
    const json health{{"status", "ok"}, {"slots", pool_.size()}, {"slots_idle", now.idle}, {"requests_waiting", now.waiting}};
    response.set_content(json_text(health), "application/json");
  });
}

HandlerResponse Server::authorise(const httplib::Request& request, httplib::Response& response) {
  record = RequestRecord{};
  if (options_.api_key.empty() || request.path == "/health") return HandlerResponse::Unhandled;
  if (same_secret(request.get_header_value("Authorization"), "Bearer " + options_.api_key)) {
    return HandlerResponse::Unhandled;
  }
  send_error(response, ApiError(401, "a valid API key is needed: Authorization: Bearer KEY", "invalid_api_key"));
  return HandlerResponse::Handled;
}

void Server::complete(const httplib::Request& http_request, httplib::Response& response, bool chat) {
  try {
    const ApiRequest request = chat ? parse_chat_request(http_request.body) : parse_completion_request(http_request.body);
    const std::vector<text::TokenId> prompt = model_.prompt_ids(request);
    const cli::SamplingOptions sampling = model_.sampling_for(request, prompt.size());
    std::shared_ptr<SlotPool::Lease> lease = pool_.acquire(prompt);
    if (request.stream) {
      response.set_header("Cache-Control", "no-cache");
      response.set_chunked_content_provider(
          "text/event-stream", [this, lease, request, prompt, sampling](std::size_t, httplib::DataSink& sink) {
            stream(*lease, request, prompt, sampling, sink);
            return !record.disconnected;
          });
      return;
    }
    Slot& slot = lease->slot();
    const Generation generation = slot.generate(prompt, sampling, model_.tokenizer(), {request.stop, cli::Engine::Rest::drop, {}});
    note(generation, slot);
    response.set_content(json_text(completion_body(identity_for(chat, model_.name()), generation)), "application/json");
  } catch (const ApiError& error) {
    send_error(response, error);
  }
}

void Server::stream(SlotPool::Lease& lease, const ApiRequest& request, const std::vector<text::TokenId>& prompt,
                    const cli::SamplingOptions& sampling, httplib::DataSink& sink) {
  const ResponseIdentity identity = identity_for(request.chat, model_.name());
  const auto send = [&](const std::string& event) {
    record.disconnected = record.disconnected || !sink.write(event.data(), event.size());
    return !record.disconnected;
  };
  if (request.chat) send(event(opening_chunk(identity)));
  const cli::TextSink on_text = [&](std::string_view text) {
    return text.empty() ? !record.disconnected : send(event(text_chunk(identity, text)));
  };
  Slot& slot = lease.slot();
  try {
    const Generation generation =
        slot.generate(prompt, sampling, model_.tokenizer(), {request.stop, cli::Engine::Rest::drop, on_text});
    note(generation, slot);
    send(event(finish_chunk(identity, finish_reason_of(generation))));
    if (request.include_usage) send(event(usage_chunk(identity, generation)));
    send(std::string(kDoneEvent));
  } catch (const ApiError& error) {
    record.failed_status = error.status();
    record.server_error = error.what();
    send(event(error.body()));
  }
  if (!record.disconnected) sink.done();
}

void Server::note(const Generation& generation, const Slot& slot) {
  record.figures = figures_of(generation, slot.index(), record.arrived);
  if (generation.engine_started) log_engine_ready(slot);
}

void Server::log(const httplib::Request& request, const httplib::Response& response) {
  const double seconds = std::chrono::duration<double>(cli::Clock::now() - record.arrived).count();
  const int status = record.failed_status != 0 ? record.failed_status : response.status;
  std::string line = log_line(request.method, request.path, status, record.figures, seconds);
  if (record.disconnected) line += " \xC2\xB7 the client left before the end";
  if (!record.server_error.empty()) line += " \xC2\xB7 " + record.server_error;
  log_(line);
}

int Server::bind() {
  const int port = options_.port == 0 ? http_.bind_to_any_port(options_.host)
                                      : (http_.bind_to_port(options_.host, options_.port) ? options_.port : -1);
  if (port < 0) {
    throw cli::CommandError("cannot listen on " + options_.host + ":" + std::to_string(options_.port) +
                            " (is the address in use, or not this machine's?)");
  }
  return port;
}

void Server::run() { http_.listen_after_bind(); }

}  // namespace quorvel::serve
