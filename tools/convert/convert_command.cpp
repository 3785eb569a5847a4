#include "tools/convert/convert_command.h"

namespace quorvel::convert {

int run_convert(std::span<const std::string_view> /*args*/, std::ostream& /*out*/, std::ostream& err) {
  err << "Error: quorvel-convert is not built yet" << std::endl;
  return 1;
}

}  // namespace quorvel::convert
