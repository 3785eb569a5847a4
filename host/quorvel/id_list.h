// Token ids written as text, the way the engine's "tokens" key and `quorvel tokenize` write them.
#pragma once

#include <string>
#include <vector>

#include "host/text/tokenizer.h"

namespace quorvel::cli {

inline std::string id_list(const std::vector<text::TokenId>& ids, char separator) {
  std::string list;
  for (const text::TokenId id : ids) {
    if (!list.empty()) list.push_back(separator);
    list.append(std::to_string(id));
  }
  return list;
}

}  // namespace quorvel::cli
