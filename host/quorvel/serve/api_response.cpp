#include "host/quorvel/serve/api_response.h"

#include <atomic>
#include <chrono>

namespace quorvel::serve {
namespace {

using nlohmann::json;

json header(const ResponseIdentity& identity) {
  return {{"id", identity.id},
          {"object", identity.chat ? "chat.completion.chunk" : "text_completion"},
          {"created", identity.created},
          {"model", identity.model}};
}

json chunk(const ResponseIdentity& identity, json delta_or_text, std::string_view finish_reason) {
  json choice{{"index", 0}, {"logprobs", nullptr}};
  choice[identity.chat ? "delta" : "text"] = std::move(delta_or_text);
  choice["finish_reason"] = finish_reason.empty() ? json() : json(finish_reason);
  json body = header(identity);
  body["choices"] = json::array({choice});
  return body;
}

}  // namespace

ResponseIdentity identity_for(bool chat, const std::string& model) {
  static std::atomic<std::uint64_t> responses{0};
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const std::int64_t created = std::chrono::duration_cast<std::chrono::seconds>(now).count();
  const std::string number = std::to_string(created) + "-" + std::to_string(++responses);
  return {(chat ? "chatcmpl-" : "cmpl-") + number, created, model, chat};
}

json usage_of(const Generation& generation) {
  const std::size_t prompt = generation.prompt_tokens();
  const std::size_t completion = generation.completion_tokens();
  return {{"prompt_tokens", prompt},
          {"completion_tokens", completion},
          {"total_tokens", prompt + completion},
          {"prompt_tokens_details", {{"cached_tokens", generation.request.kv_position}}}};
}

std::string_view finish_reason_of(const Generation& generation) {
  return cli::finish_reason(generation.reply.end);
}

json completion_body(const ResponseIdentity& identity, const Generation& generation) {
  json choice{{"index", 0}, {"logprobs", nullptr}, {"finish_reason", finish_reason_of(generation)}};
  if (identity.chat) {
    choice["message"] = {{"role", "assistant"}, {"content", generation.reply.text}};
  } else {
    choice["text"] = generation.reply.text;
  }
  json body = header(identity);
  body["object"] = identity.chat ? "chat.completion" : "text_completion";
  body["choices"] = json::array({choice});
  body["usage"] = usage_of(generation);
  return body;
}

json opening_chunk(const ResponseIdentity& identity) {
  return chunk(identity, {{"role", "assistant"}, {"content", ""}}, "");
}

json text_chunk(const ResponseIdentity& identity, std::string_view text) {
  return identity.chat ? chunk(identity, {{"content", text}}, "") : chunk(identity, text, "");
}

json finish_chunk(const ResponseIdentity& identity, std::string_view finish_reason) {
  return identity.chat ? chunk(identity, json::object(), finish_reason) : chunk(identity, "", finish_reason);
}

json usage_chunk(const ResponseIdentity& identity, const Generation& generation) {
  json body = header(identity);
  body["choices"] = json::array();
  body["usage"] = usage_of(generation);
  return body;
}

std::string json_text(const json& body) { return body.dump(-1, ' ', false, json::error_handler_t::replace); }

std::string event(const json& data) { return "data: " + json_text(data) + "\n\n"; }

}  // namespace quorvel::serve
