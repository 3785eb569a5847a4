#include "host/serve_load/server_check.h"

#include <httplib.h>

#include <regex>

namespace quorvel::serve_load {

namespace {

constexpr std::chrono::seconds kConnectTimeout{5};

// http or https, a host name or address, maybe a port, and no path (requests go to /v1/...).
bool names_a_server(const std::string& url) {
  static const std::regex server(R"(https?://(\[[0-9A-Fa-f:.]+\]|[A-Za-z0-9.-]+)(:[0-9]{1,5})?/?)");
  return std::regex_match(url, server);
}

}  // namespace

std::string options_problem(const LoadOptions& options) {
  const MixRanges& ranges = options.ranges;
  if (ranges.max_tokens.low > ranges.max_tokens.high) return "--max-tokens-range: LOW is above HIGH";
  if (ranges.prompt_words.low > ranges.prompt_words.high) return "--prompt-words-range: LOW is above HIGH";
  if (!names_a_server(options.url)) {
    return "--url " + options.url + " is not a server address like http://127.0.0.1:8080";
  }
  return "";
}

std::string server_problem(const std::string& url) {
  httplib::Client client(url);
  client.set_connection_timeout(kConnectTimeout);
  const httplib::Result answer = client.Get("/");
  return answer ? "" : "no server answers at " + url + " (" + httplib::to_string(answer.error()) + ")";
}

}  // namespace quorvel::serve_load
