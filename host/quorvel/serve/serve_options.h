// The command line of quorvel serve.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace quorvel::serve {

struct ServeOptions {
  std::filesystem::path model_dir;
  std::filesystem::path engine;  // empty: quorvel-inference beside this program
  std::string host = "127.0.0.1";
  int port = 8080;               // 0: any free port
  std::size_t parallel = 1;      // slots, one engine each
  std::size_t max_queue = 32;    // requests that may wait for a slot
  std::string api_key;           // empty: no key asked for
  std::uint64_t context = 0;     // positions a request may fill; 0: the model's context
  int threads = 0;               // engine threads; 0: the model's init.txt decides
  std::string chat_format;       // empty: the one the model's chat template shows
  bool thinking = true;
  std::size_t max_body_bytes = 4 << 20;
};

}  // namespace quorvel::serve
