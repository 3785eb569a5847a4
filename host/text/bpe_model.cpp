#include "host/text/bpe_model.h"

#include <algorithm>
#include <utility>

namespace quorvel::text {
namespace {

// One symbol of a piece being merged, linked to its neighbours; merged-away symbols get id -1.
struct Symbol {
  TokenId id;
  std::int32_t previous;
  std::int32_t next;
};

// A pair that may be merged: the left symbol's index, the ids both sides had when it was queued.
struct Candidate {
  std::int32_t rank;
  std::int32_t left;
  std::int32_t right;
  TokenId left_id;
  TokenId right_id;
  TokenId result;
};

// Lowest rank first, then leftmost.
bool after(const Candidate& a, const Candidate& b) {
  return a.rank != b.rank ? a.rank > b.rank : a.left > b.left;
}

}  // namespace

BpeModel::BpeModel(std::unordered_map<std::string, TokenId> vocab, bool ignore_merges)
    : vocab_(std::move(vocab)), ignore_merges_(ignore_merges) {
  for (unsigned byte = 0; byte < 256; ++byte) {
    const auto found = vocab_.find(std::string(1, static_cast<char>(byte)));
    byte_ids_[byte] = found == vocab_.end() ? -1 : found->second;
  }
}

int BpeModel::missing_byte() const {
  const auto missing = std::find(byte_ids_.begin(), byte_ids_.end(), -1);
  return missing == byte_ids_.end() ? -1 : static_cast<int>(missing - byte_ids_.begin());
}

std::uint64_t BpeModel::pair_key(TokenId left, TokenId right) {
  return (static_cast<std::uint64_t>(static_cast<std::uint32_t>(left)) << 32) | static_cast<std::uint32_t>(right);
}

bool BpeModel::add_merge(const std::string& left, const std::string& right) {
  const auto left_token = vocab_.find(left);
  const auto right_token = vocab_.find(right);
  const auto joined = vocab_.find(left + right);
  if (left_token == vocab_.end() || right_token == vocab_.end() || joined == vocab_.end()) return false;
  const auto rank = static_cast<std::int32_t>(merges_.size());
  merges_.try_emplace(pair_key(left_token->second, right_token->second), Merge{rank, joined->second});
  return true;
}

void BpeModel::encode_piece(std::string_view piece, std::vector<TokenId>& ids) const {
  if (piece.size() == 1) {
    ids.push_back(byte_ids_[static_cast<unsigned char>(piece[0])]);
    return;
  }
  if (ignore_merges_) {
    const auto whole = vocab_.find(std::string(piece));
    if (whole != vocab_.end()) {
      ids.push_back(whole->second);
      return;
    }
  }
  merge_symbols(piece, ids);
}

void BpeModel::merge_symbols(std::string_view piece, std::vector<TokenId>& ids) const {
  thread_local std::vector<Symbol> symbols;
  thread_local std::vector<Candidate> queue;
  symbols.clear();
  queue.clear();
  const auto count = static_cast<std::int32_t>(piece.size());
  for (std::int32_t i = 0; i < count; ++i) {
    symbols.push_back({byte_ids_[static_cast<unsigned char>(piece[i])], i - 1, i + 1 < count ? i + 1 : -1});
  }
  const auto queue_pair = [&](std::int32_t left) {
    if (left < 0 || symbols[left].next < 0) return;
    const std::int32_t right = symbols[left].next;
    const auto merge = merges_.find(pair_key(symbols[left].id, symbols[right].id));
    if (merge == merges_.end()) return;
    queue.push_back({merge->second.rank, left, right, symbols[left].id, symbols[right].id, merge->second.result});
    std::push_heap(queue.begin(), queue.end(), after);
  };
  for (std::int32_t i = 0; i + 1 < count; ++i) queue_pair(i);
  while (!queue.empty()) {
    std::pop_heap(queue.begin(), queue.end(), after);
    const Candidate top = queue.back();
    queue.pop_back();
    Symbol& left = symbols[top.left];
    if (left.id != top.left_id || left.next != top.right || symbols[top.right].id != top.right_id) continue;
    Symbol& right = symbols[top.right];
    left.id = top.result;
    left.next = right.next;
    if (right.next >= 0) symbols[right.next].previous = top.left;
    right.id = -1;
    queue_pair(left.previous);
    queue_pair(top.left);
  }
  for (std::int32_t i = 0; i >= 0; i = symbols[i].next) ids.push_back(symbols[i].id);
}

}  // namespace quorvel::text
