// The bodies of POST /v1/chat/completions and POST /v1/completions, read and checked field by field:
// every field this server honours is taken with its type and range checked, fields it cannot honour
// are refused by name, and any other field is ignored, as clients send many optional ones.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/quorvel/sampling_options.h"
#include "host/text/chat_format.h"

namespace quorvel::serve {

struct ApiRequest {
  bool chat = true;
  std::vector<text::ChatMessage> messages;  // chat: at least one
  std::string prompt;                       // completion
  cli::SamplingOptions sampling;            // unset fields take the model's defaults
  std::vector<std::string> stop;
  bool stream = false;
  bool include_usage = false;  // stream_options.include_usage: a last chunk with the usage
};

// Both throw ApiError (400) with the field at fault.
ApiRequest parse_chat_request(std::string_view body);
ApiRequest parse_completion_request(std::string_view body);

}  // namespace quorvel::serve
