// Sends planned requests to an OpenAI-compatible server and measures them.
#pragma once

#include <httplib.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "host/serve_load/request_plan.h"
#include "host/serve_load/request_result.h"

namespace quorvel::serve_load {

struct Exchange {
  RequestResult result;
  std::optional<std::string> reply;  // the reply's text, for a request that succeeded
};

class RequestSender {
 public:
  // url: scheme, host and port ("http://127.0.0.1:8080"); an empty api_key sends no Authorization.
  RequestSender(const std::string& url, const std::string& api_key, std::chrono::seconds timeout);

  Exchange send(const RequestPlan& plan, const nlohmann::json& body);

 private:
  using Clock = std::chrono::steady_clock;

  Exchange send_whole(const char* path, const std::string& body);
  Exchange send_streamed(const char* path, const std::string& body);
  httplib::Request post_request(const char* path, const std::string& body) const;

  httplib::Client client_;
  httplib::Headers headers_;
};

}  // namespace quorvel::serve_load
