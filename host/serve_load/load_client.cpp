#include "host/serve_load/load_client.h"

#include "host/serve_load/chat_history.h"
#include "host/serve_load/request_sender.h"

namespace quorvel::serve_load {

std::vector<RequestResult> run_client(const LoadOptions& options, int client) {
  RequestMix mix(options.seed, client, options.ranges);
  RequestSender sender(options.url, options.api_key, options.timeout);
  ChatHistory history;
  std::vector<RequestResult> results;
  for (int i = 0; i < options.requests; ++i) {
    const RequestPlan plan = mix.next();
    if (plan.endpoint == Endpoint::kChat) history.add_user_turn(plan);
    Exchange exchange = sender.send(plan, request_body(plan, history));
    if (plan.endpoint == Endpoint::kChat) history.set_reply(std::move(exchange.reply));
    results.push_back(std::move(exchange.result));
  }
  return results;
}

}  // namespace quorvel::serve_load
