#pragma once

#include "host/quorvel/serve/serve_options.h"

namespace quorvel::serve {

// Serves until SIGINT or SIGTERM; returns the exit status, throws CommandError when it cannot start.
int serve_command(const ServeOptions& options);

}  // namespace quorvel::serve
