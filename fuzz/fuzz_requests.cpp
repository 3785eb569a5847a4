// The request loop over a tiny model loaded once: each input is the text a
// host sends after the init block (request blocks of key=value lines), served
// by a fresh RequestLoop exactly as the engine serves standard input. The
// model is BitNet (arch 1) unless QUORVEL_FUZZ_ARCH names another of 1..6.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <sstream>
#include <string>

#include "engine/model_runner.h"
#include "engine/request_loop.h"
#include "fuzz_support.h"
#include "models/model_base.h"

using namespace quorvel;

namespace {

fuzz::ModelFiles files;
std::unique_ptr<ModelBase> model;
std::unique_ptr<ModelRunner> runner;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::quiet_engine_messages();
  fuzz::set_fuzz_threads();
  const char* arch = std::getenv("QUORVEL_FUZZ_ARCH");
  files = fuzz::make_model_files(fuzz::tiny_model_args(arch != nullptr ? std::atoi(arch) : 1));
  model = fuzz::load_model(files, files.config);
  runner = std::make_unique<ModelRunner>(*model);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  std::ostringstream out;
  std::ostringstream err;
  try {
    RequestLoop(*runner, files.config, in, out, err).run();
  } catch (const std::exception& e) {
    // A token id outside the vocabulary: the embedding throws and the engine
    // process ends, as designed.
    fuzz::note(std::string("thrown: ") + e.what());
  }
  fuzz::note("output: " + out.str() + "messages: " + err.str());
  return 0;
}
