#include "host/text/vocabulary.h"

namespace quorvel::text {

std::uint32_t Vocabulary::hash_of(std::string_view bytes) {
  std::uint64_t hash = 0xCBF29CE484222325ull;  // FNV-1a, folded to 32 bits
  for (const char byte : bytes) hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001B3ull;
  return static_cast<std::uint32_t>(hash ^ (hash >> 32));
}

std::optional<TokenId> Vocabulary::find(std::string_view bytes) const {
  if (slots_.empty()) return std::nullopt;
  const std::uint32_t hash = hash_of(bytes);
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t slot = hash & mask; slots_[slot] != 0; slot = (slot + 1) & mask) {
    if (static_cast<std::uint32_t>(slots_[slot] >> 32) != hash) continue;
    const auto id = static_cast<TokenId>((slots_[slot] & 0xFFFFFFFFu) - 1);
    if (bytes_of_id_[id] == bytes) return id;
  }
  return std::nullopt;
}

void Vocabulary::add(std::string bytes, TokenId id) {
  if (find(bytes) || bytes_of(id)) return;
  if (2 * (count_ + 1) > slots_.size()) grow();
  if (static_cast<std::size_t>(id) >= bytes_of_id_.size()) {
    bytes_of_id_.resize(static_cast<std::size_t>(id) + 1);
    has_id_.resize(static_cast<std::size_t>(id) + 1);
  }
  place(hash_of(bytes), id);
  bytes_of_id_[id] = std::move(bytes);
  has_id_[id] = true;
  ++count_;
}

const std::string* Vocabulary::bytes_of(TokenId id) const {
  if (id < 0 || static_cast<std::size_t>(id) >= has_id_.size() || !has_id_[id]) return nullptr;
  return &bytes_of_id_[id];
}

void Vocabulary::place(std::uint32_t hash, TokenId id) {
  const std::size_t mask = slots_.size() - 1;
  std::size_t slot = hash & mask;
  while (slots_[slot] != 0) slot = (slot + 1) & mask;
  slots_[slot] = (static_cast<std::uint64_t>(hash) << 32) | static_cast<std::uint32_t>(id + 1);
}

void Vocabulary::grow() {
  std::vector<std::uint64_t> old = std::move(slots_);
  slots_.assign(old.empty() ? 1024 : 2 * old.size(), 0);
  for (const std::uint64_t entry : old) {
    if (entry != 0) place(static_cast<std::uint32_t>(entry >> 32), static_cast<TokenId>((entry & 0xFFFFFFFFu) - 1));
  }
}

}  // namespace quorvel::text
