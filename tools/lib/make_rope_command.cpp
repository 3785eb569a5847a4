#include <exception>
#include <filesystem>
#include <fstream>

#include "engine/init_config_parser.h"
#include "tools/lib/init_text_writer.h"
#include "tools/lib/rope_cache_writer.h"
#include "tools/lib/tool_commands.h"
#include "tools/lib/utf8_path.h"

namespace quorvel::tools {

int run_make_rope(std::span<const std::string_view> args, std::ostream& err) {
  if (args.size() != 1) {
    err << "Usage: quorvel-make-rope <Model Directory>" << std::endl;
    return 1;
  }
  const std::filesystem::path dir = utf8_path(args[0]);
  std::ifstream in(dir / kInitTextFileName, std::ios::binary);
  if (!in.is_open()) {
    err << "quorvel-make-rope: could not open " << (dir / kInitTextFileName).string() << std::endl;
    return 1;
  }
  try {
    // The engine's own reader, so that init.txt means here what it means there.
    const InitConfig config = read_init_config(in);
    write_rope_cache(dir / kRopeCacheFileName, config.head_dim, config.max_position_embeddings, config.rope_theta);
  } catch (const std::exception& error) {
    err << "quorvel-make-rope: " << error.what() << std::endl;
    return 1;
  }
  return 0;
}

}  // namespace quorvel::tools
