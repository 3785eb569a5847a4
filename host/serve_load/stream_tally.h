// A streamed reply read event by event: its text, when its first content came, how many tokens it
// had, and whether it ended properly.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "host/serve_load/token_usage.h"

namespace quorvel::serve_load {

class StreamTally {
 public:
  // Takes the data of one event, received `seconds` after the request was sent.
  void add_event(const std::string& data, double seconds);

  // "200" for a stream ended by [DONE]; "500" when the server sent an error event; else what is
  // wrong with the stream.
  std::string outcome() const;
  const std::string& error() const { return error_; }
  std::optional<double> first_token_seconds() const { return first_token_seconds_; }
  // The stream's usage chunk when it sent one, else the number of content chunks as the completion.
  TokenUsage usage() const;
  const std::string& text() const { return text_; }

 private:
  void add_chunk(const nlohmann::json& chunk, double seconds);

  std::string text_;
  std::string error_;
  std::optional<double> first_token_seconds_;
  std::optional<TokenUsage> usage_;
  int content_chunks_ = 0;
  bool done_ = false;
  bool server_error_ = false;
  bool malformed_ = false;
};

// The "message" of an {"error": {...}} body, else the start of the body itself.
std::string error_message_of(const std::string& body);

}  // namespace quorvel::serve_load
