// A request body as quorvel serve reads it, for both completion endpoints.
// A body is either refused with an ApiError (status 400, a message, the
// field at fault when there is one, an error body that serialises) or read
// into a request whose invariants hold; the chat messages then render in a
// chat format and the reply text serialises, invalid UTF-8 included.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "host/quorvel/serve/api_error.h"
#include "host/quorvel/serve/api_request.h"
#include "host/quorvel/serve/api_response.h"
#include "host/text/chat_format.h"

using namespace quorvel::serve;

namespace {

void check(bool holds) {
  if (!holds) std::abort();
}

void check_request(const ApiRequest& request) {
  check(request.stop.size() <= 4);
  for (const std::string& stop : request.stop) check(!stop.empty());
  if (request.chat) {
    check(!request.messages.empty());
    for (const auto& message : request.messages) {
      check(message.role == "system" || message.role == "user" || message.role == "assistant");
    }
    const auto parts = quorvel::text::ChatFormat::named("llama3").render(request.messages);
    check(!parts.empty());
  }
  const auto& sampling = request.sampling;
  check(!sampling.temperature || (*sampling.temperature >= 0 && *sampling.temperature <= 2));
  check(!sampling.top_p || (*sampling.top_p >= 0 && *sampling.top_p <= 1));
  check(json_text({{"text", request.chat ? request.messages.back().content : request.prompt}}).size() > 2);
}

void read(std::string_view body, bool chat) {
  try {
    check_request(chat ? parse_chat_request(body) : parse_completion_request(body));
  } catch (const ApiError& error) {
    check(error.status() == 400);
    check(std::string_view(error.what()).size() > 0);
    check(!json_text(error.body()).empty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  read(body, true);
  read(body, false);
  return 0;
}
