// quorvel serve: an OpenAI-compatible HTTP server. Chat and text completions, streamed as
// server-sent events or whole, run on a pool of slots, one engine process each; /v1/models and
// /health answer at once. Errors are JSON in the OpenAI shape; every request is logged in one line.
#pragma once

#include <httplib.h>

#include "host/quorvel/serve/request_log.h"
#include "host/quorvel/serve/served_model.h"
#include "host/quorvel/serve/slot_pool.h"

namespace quorvel::serve {

class Server {
 public:
  // Reads the model directory and starts every slot's engine; throws CommandError when the model
  // cannot be served or `parallel` engines would not fit in the machine's memory.
  Server(const ServeOptions& options, LogSink log);

  // Binds the address (port 0: a free port) and returns the port; throws CommandError.
  int bind();
  // Serves until stop() is called.
  void run();
  void stop() { http_.stop(); }

  SlotPool& slots() { return pool_; }

 private:
  std::vector<std::unique_ptr<Slot>> start_slots();
  void route();
  httplib::Server::HandlerResponse authorise(const httplib::Request& request, httplib::Response& response);
  void complete(const httplib::Request& request, httplib::Response& response, bool chat);
  void stream(SlotPool::Lease& lease, const ApiRequest& request, const std::vector<text::TokenId>& prompt,
              const cli::SamplingOptions& sampling, httplib::DataSink& sink);
  void note(const Generation& generation, const Slot& slot);  // for the request's log line
  void log(const httplib::Request& request, const httplib::Response& response);
  void log_engine_ready(const Slot& slot);

  ServeOptions options_;
  LogSink log_;
  ServedModel model_;
  SlotPool pool_;
  std::int64_t started_;  // seconds since 1970, for /v1/models
  httplib::Server http_;
};

}  // namespace quorvel::serve
