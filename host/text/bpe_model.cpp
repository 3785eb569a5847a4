#include "host/text/bpe_model.h"

#include <algorithm>
#include <stdexcept>
#include <string>
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

BpeModel::BpeModel(Vocabulary vocab, const std::vector<MergePair>& merges, bool ignore_merges)
    : vocab_(std::move(vocab)), merges_(merges.size()), ignore_merges_(ignore_merges) {
  find_byte_ids();
  add_merges(merges);
}

void BpeModel::find_byte_ids() {
  for (unsigned byte = 0; byte < 256; ++byte) {
    const char single = static_cast<char>(byte);
    const std::optional<TokenId> found = vocab_.find(std::string_view(&single, 1));
    if (!found) {
      throw std::invalid_argument("model.vocab has no token for byte " + std::to_string(byte) +
                                  " (byte-level BPE needs all 256)");
    }
    byte_ids_[byte] = *found;
  }
}

void BpeModel::add_merges(const std::vector<MergePair>& merges) {
  // Resolving every merge first and filling the table after keeps each loop small, so that the processor
  // overlaps the cache misses of successive lookups.
  std::vector<std::array<TokenId, 3>> resolved(merges.size());
  std::string joined;
  for (std::size_t rank = 0; rank < merges.size(); ++rank) {
    const auto& [left, right] = merges[rank];
    joined.assign(left).append(right);
    const std::optional<TokenId> left_token = vocab_.find(left);
    const std::optional<TokenId> right_token = vocab_.find(right);
    const std::optional<TokenId> joined_token = vocab_.find(joined);
    if (!left_token || !right_token || !joined_token) {
      throw std::invalid_argument("merge " + std::to_string(rank) + " joins tokens that are not in the vocabulary");
    }
    resolved[rank] = {*left_token, *right_token, *joined_token};
  }
  for (std::size_t rank = 0; rank < resolved.size(); ++rank) {
    const auto& [left, right, result] = resolved[rank];
    merges_.add(left, right, PairRanks::Merge{static_cast<std::int32_t>(rank), result});
  }
}

void BpeModel::encode_piece(std::string_view piece, std::vector<TokenId>& ids) const {
  if (piece.size() == 1) {
    ids.push_back(byte_ids_[static_cast<unsigned char>(piece[0])]);
    return;
  }
  if (ignore_merges_) {
    if (const std::optional<TokenId> whole = vocab_.find(piece)) {
      ids.push_back(*whole);
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
    const PairRanks::Merge* merge = merges_.find(symbols[left].id, symbols[right].id);
    if (!merge) return;
    queue.push_back({merge->rank, left, right, symbols[left].id, symbols[right].id, merge->result});
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
