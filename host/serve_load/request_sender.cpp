#include "host/serve_load/request_sender.h"

#include "host/serve_load/sse_parser.h"
#include "host/serve_load/stream_tally.h"

namespace quorvel::serve_load {

namespace {

constexpr std::size_t kQuotedBodyLength = 200;

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

Exchange failure(std::string outcome, std::string error) {
  Exchange exchange;
  exchange.result.outcome = std::move(outcome);
  exchange.result.error = std::move(error);
  return exchange;
}

Exchange transport_failure(httplib::Error error) {
  return failure("no response: " + httplib::to_string(error), httplib::to_string(error));
}

// The text of a whole response's first choice: message.content for a chat, text for a completion.
std::optional<std::string> reply_text_of(const nlohmann::json& response) {
  const auto choices = response.find("choices");
  if (choices == response.end() || !choices->is_array() || choices->empty()) return std::nullopt;
  const nlohmann::json& choice = (*choices)[0];
  const auto message = choice.find("message");
  const nlohmann::json& holder = message != choice.end() ? *message : choice;
  const auto text = holder.find(message != choice.end() ? "content" : "text");
  if (text == holder.end() || !text->is_string()) return std::nullopt;
  return text->get<std::string>();
}

// A whole (not streamed) 200 response: its text and usage.
Exchange read_completion(const std::string& body) {
  const nlohmann::json response = nlohmann::json::parse(body, nullptr, false);
  std::optional<std::string> reply = reply_text_of(response);
  const std::optional<TokenUsage> usage = token_usage_of(response);
  if (!reply || !usage) return failure("200 without a reply and usage", body.substr(0, kQuotedBodyLength));
  Exchange exchange;
  exchange.result.outcome = "200";
  exchange.result.usage = *usage;
  exchange.reply = std::move(reply);
  return exchange;
}

// A streamed request's outcome, from the status that came back and the stream's events.
Exchange streamed_exchange(const httplib::Result& response, int status, std::string error_body,
                           const StreamTally& tally) {
  if (!response && status == 0) return transport_failure(response.error());
  if (status != 200) {
    if (error_body.empty() && response) error_body = response->body;
    return failure(std::to_string(status), error_message_of(error_body));
  }
  Exchange exchange = failure(tally.outcome(), tally.error());
  exchange.result.usage = tally.usage();
  if (!response && exchange.result.outcome != "500") {
    exchange.result.outcome = "stream cut: " + httplib::to_string(response.error());
  }
  if (exchange.result.succeeded()) exchange.reply = tally.text();
  return exchange;
}

}  // namespace

RequestSender::RequestSender(const std::string& url, const std::string& api_key, std::chrono::seconds timeout)
    : client_(url) {
  client_.set_read_timeout(timeout);
  client_.set_write_timeout(timeout);
  client_.set_keep_alive(true);
  client_.set_tcp_nodelay(true);
  if (!api_key.empty()) headers_.emplace("Authorization", "Bearer " + api_key);
}

Exchange RequestSender::send(const RequestPlan& plan, const nlohmann::json& body) {
  const char* path = plan.endpoint == Endpoint::kChat ? "/v1/chat/completions" : "/v1/completions";
  Exchange exchange = plan.stream ? send_streamed(path, body.dump()) : send_whole(path, body.dump());
  exchange.result.streamed = plan.stream;
  return exchange;
}

Exchange RequestSender::send_whole(const char* path, const std::string& body) {
  const Clock::time_point start = Clock::now();
  const httplib::Result response = client_.Post(path, headers_, body, "application/json");
  const double seconds = seconds_since(start);
  Exchange exchange;
  if (!response) {
    exchange = transport_failure(response.error());
  } else if (response->status != 200) {
    exchange = failure(std::to_string(response->status), error_message_of(response->body));
  } else {
    exchange = read_completion(response->body);
  }
  exchange.result.first_token_seconds = exchange.result.total_seconds = seconds;
  return exchange;
}

httplib::Request RequestSender::post_request(const char* path, const std::string& body) const {
  httplib::Request request;
  request.method = "POST";
  request.path = path;
  request.headers = headers_;
  request.headers.emplace("Content-Type", "application/json");
  request.headers.emplace("Accept", "text/event-stream");
  request.body = body;
  return request;
}

Exchange RequestSender::send_streamed(const char* path, const std::string& body) {
  httplib::Request request = post_request(path, body);
  int status = 0;
  std::string error_body;
  SseParser parser;
  StreamTally tally;
  const Clock::time_point start = Clock::now();
  request.response_handler = [&status](const httplib::Response& response) {
    status = response.status;
    return true;
  };
  request.content_receiver = [&](const char* data, std::size_t size, std::uint64_t, std::uint64_t) {
    if (status != 200) {
      error_body.append(data, size);
      return true;
    }
    for (const std::string& event : parser.feed({data, size})) tally.add_event(event, seconds_since(start));
    return true;
  };
  const httplib::Result response = client_.send(request);
  Exchange exchange = streamed_exchange(response, status, error_body, tally);
  exchange.result.total_seconds = seconds_since(start);
  exchange.result.first_token_seconds = tally.first_token_seconds().value_or(exchange.result.total_seconds);
  return exchange;
}

}  // namespace quorvel::serve_load
