// The engine process: start-up checks, model loading, the request loop and
// the exit status (1 for start-up failures, 0 otherwise). Exceptions from
// model construction, adapter loading or generation are not caught: they end
// the process abnormally, as a host expects of a worker that lost its state.
#pragma once

namespace quorvel {

int run_engine(int argc, char** argv);

}  // namespace quorvel
