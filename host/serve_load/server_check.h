// Checks made before the load starts, so that a mistake costs one clear line instead of a run of
// failed requests.
#pragma once

#include <string>

#include "host/serve_load/load_options.h"

namespace quorvel::serve_load {

// What is wrong with the options (a range upside down, a URL that names no server), or "".
std::string options_problem(const LoadOptions& options);

// "" when something answers HTTP at the URL, else why nothing does.
std::string server_problem(const std::string& url);

}  // namespace quorvel::serve_load
