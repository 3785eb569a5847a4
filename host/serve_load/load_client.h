// One simulated user of the server.
#pragma once

#include <vector>

#include "host/serve_load/load_options.h"
#include "host/serve_load/request_result.h"

namespace quorvel::serve_load {

// Sends the client's options.requests requests one after another, each as soon as the one before
// has been answered, and carries chats on with the replies it gets.
std::vector<RequestResult> run_client(const LoadOptions& options, int client);

}  // namespace quorvel::serve_load
