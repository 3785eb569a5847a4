#include "host/quorvel/serve/api_request.h"

#include <nlohmann/json.hpp>
#include <optional>

#include "host/quorvel/serve/api_error.h"

namespace quorvel::serve {
namespace {

using nlohmann::json;

// Deeper documents are refused while they are read: no request needs them.
constexpr int kMostNesting = 32;
constexpr std::size_t kMostStopStrings = 4;

json parse_object(std::string_view body) {
  const json::parser_callback_t limit_depth = [](int depth, json::parse_event_t, json&) {
    if (depth > kMostNesting) {
      throw invalid_request("the request nests deeper than " + std::to_string(kMostNesting) + " levels", "",
                            "invalid_json");
    }
    return true;
  };
  json document;
  try {
    document = json::parse(body, limit_depth);
  } catch (const json::exception& error) {
    throw invalid_request(std::string("the request body is not valid JSON: ") + error.what(), "", "invalid_json");
  }
  if (!document.is_object()) throw invalid_request("the request body must be a JSON object", "", "invalid_json");
  return document;
}

// The field, or nullptr when it is absent or null (clients send null for "not set").
const json* field(const json& object, const std::string& name) {
  const auto found = object.find(name);
  return found == object.end() || found->is_null() ? nullptr : &*found;
}

ApiError wrong_type(const std::string& name, const char* expected) {
  return invalid_request("'" + name + "' must be " + expected, name, "invalid_type");
}

const std::string& text_in(const json& value, const std::string& name) {
  if (!value.is_string()) throw wrong_type(name, "a string");
  return value.get_ref<const std::string&>();
}

std::optional<double> number_in(const json& object, const std::string& name, double low, double high) {
  const json* value = field(object, name);
  if (!value) return std::nullopt;
  if (!value->is_number()) throw wrong_type(name, "a number");
  const double number = value->get<double>();
  if (!(number >= low && number <= high)) {
    throw invalid_request("'" + name + "' must be between " + json(low).dump() + " and " + json(high).dump(), name);
  }
  return number;
}

std::optional<std::uint64_t> count_in(const json& object, const std::string& name, std::uint64_t least) {
  const json* value = field(object, name);
  if (!value) return std::nullopt;
  if (!value->is_number_integer()) throw wrong_type(name, "an integer");
  if (!value->is_number_unsigned() || value->get<std::uint64_t>() < least) {
    throw invalid_request("'" + name + "' must be at least " + std::to_string(least), name);
  }
  return value->get<std::uint64_t>();
}

bool flag_in(const json& object, const std::string& name) {
  const json* value = field(object, name);
  if (!value) return false;
  if (!value->is_boolean()) throw wrong_type(name, "true or false");
  return value->get<bool>();
}

// A string, or a list of strings: the one form ("stop", "prompt") or the other.
std::vector<std::string> texts_in(const json& value, const std::string& name) {
  if (value.is_string()) return {value.get<std::string>()};
  if (!value.is_array()) throw wrong_type(name, "a string or an array of strings");
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < value.size(); ++i) texts.push_back(text_in(value[i], name + "[" + std::to_string(i) + "]"));
  return texts;
}

std::vector<std::string> stop_strings(const json& object) {
  const json* value = field(object, "stop");
  if (!value) return {};
  std::vector<std::string> stop = texts_in(*value, "stop");
  if (stop.size() > kMostStopStrings) {
    throw invalid_request("'stop' may hold at most " + std::to_string(kMostStopStrings) + " strings", "stop");
  }
  for (const std::string& text : stop) {
    if (text.empty()) throw invalid_request("'stop' strings must not be empty", "stop");
  }
  return stop;
}

void refuse_unsupported(const json& object, double temperature_if_unset) {
  const auto unsupported = [](const std::string& name, const std::string& why) {
    return invalid_request("'" + name + "' is not supported: " + why, name, "unsupported_parameter");
  };
  if (count_in(object, "n", 0).value_or(1) != 1) throw unsupported("n", "this server makes one choice per request");
  for (const char* penalty : {"frequency_penalty", "presence_penalty"}) {
    if (number_in(object, penalty, -2, 2).value_or(0) != 0) {
      throw unsupported(penalty, "use 'repeat_penalty', a factor applied to recently seen tokens (1 = none)");
    }
  }
  if (flag_in(object, "logprobs") || field(object, "top_logprobs")) {
    throw unsupported("logprobs", "the engine reports token ids only");
  }
  if (field(object, "tools") || field(object, "functions")) throw unsupported("tools", "there is no tool calling");
  if (field(object, "seed") && number_in(object, "temperature", 0, 2).value_or(temperature_if_unset) != 0) {
    throw unsupported("seed", "sampling cannot be seeded; with temperature 0 every answer is the same");
  }
}

void read_common(const json& object, ApiRequest& request) {
  cli::SamplingOptions& sampling = request.sampling;
  sampling.temperature = number_in(object, "temperature", 0, 2);
  sampling.top_p = number_in(object, "top_p", 0, 1);
  sampling.top_k = count_in(object, "top_k", 0);
  sampling.repeat_penalty = number_in(object, "repeat_penalty", 0, 100);
  if (!sampling.repeat_penalty) sampling.repeat_penalty = number_in(object, "repetition_penalty", 0, 100);
  const std::optional<std::uint64_t> most = count_in(object, "max_completion_tokens", 1);
  sampling.max_tokens = most ? *most : count_in(object, "max_tokens", 1).value_or(0);
  request.stop = stop_strings(object);
  request.stream = flag_in(object, "stream");
  if (const json* options = field(object, "stream_options")) {
    if (!options->is_object()) throw wrong_type("stream_options", "an object");
    request.include_usage = flag_in(*options, "include_usage");
  }
  refuse_unsupported(object, 1);
}

// A message's content: a string, or an array of text parts ({"type": "text", "text": ...}).
std::string content_of(const json& message, const std::string& name) {
  const json* content = field(message, "content");
  if (!content) return "";
  if (content->is_string()) return content->get<std::string>();
  if (!content->is_array()) throw wrong_type(name, "a string or an array of content parts");
  std::string text;
  for (std::size_t i = 0; i < content->size(); ++i) {
    const json& part = (*content)[i];
    const std::string part_name = name + "[" + std::to_string(i) + "]";
    if (!part.is_object()) throw wrong_type(part_name, "an object");
    const json* type = field(part, "type");
    if (!type || text_in(*type, part_name + ".type") != "text") {
      throw invalid_request(part_name + " is not a text part; this model reads text only", part_name,
                            "unsupported_content");
    }
    const json* part_text = field(part, "text");
    if (!part_text) throw invalid_request(part_name + ".text is missing", part_name + ".text");
    text += text_in(*part_text, part_name + ".text");
  }
  return text;
}

text::ChatMessage message_of(const json& message, const std::string& name) {
  if (!message.is_object()) throw wrong_type(name, "an object");
  const json* role = field(message, "role");
  if (!role) throw invalid_request(name + ".role is missing", name + ".role");
  std::string role_name = text_in(*role, name + ".role");
  if (role_name == "developer") role_name = "system";
  if (role_name != "system" && role_name != "user" && role_name != "assistant") {
    throw invalid_request(name + ".role '" + role_name + "' is not one of system, user, assistant", name + ".role");
  }
  return {role_name, content_of(message, name + ".content")};
}

}  // namespace

ApiRequest parse_chat_request(std::string_view body) {
  const json object = parse_object(body);
  ApiRequest request;
  read_common(object, request);
  const json* messages = field(object, "messages");
  if (!messages) throw invalid_request("'messages' is missing", "messages");
  if (!messages->is_array()) throw wrong_type("messages", "an array");
  if (messages->empty()) throw invalid_request("'messages' must hold at least one message", "messages");
  for (std::size_t i = 0; i < messages->size(); ++i) {
    request.messages.push_back(message_of((*messages)[i], "messages[" + std::to_string(i) + "]"));
  }
  return request;
}

ApiRequest parse_completion_request(std::string_view body) {
  const json object = parse_object(body);
  ApiRequest request;
  request.chat = false;
  read_common(object, request);
  const json* prompt = field(object, "prompt");
  if (!prompt) throw invalid_request("'prompt' is missing", "prompt");
  const std::vector<std::string> prompts = texts_in(*prompt, "prompt");
  if (prompts.size() != 1) throw invalid_request("'prompt' must be one string; this server completes one at a time", "prompt");
  request.prompt = prompts.front();
  return request;
}

}  // namespace quorvel::serve
