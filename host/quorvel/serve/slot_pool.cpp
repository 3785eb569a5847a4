#include "host/quorvel/serve/slot_pool.h"

#include <algorithm>

#include "host/quorvel/serve/api_error.h"

namespace quorvel::serve {

SlotPool::SlotPool(std::vector<std::unique_ptr<Slot>> slots, std::size_t max_waiting)
    : slots_(std::move(slots)), max_waiting_(max_waiting), busy_(slots_.size()), last_used_(slots_.size()) {}

std::size_t SlotPool::best_idle(std::span<const text::TokenId> prompt) const {
  std::size_t best = slots_.size();
  std::size_t best_shared = 0;
  for (std::size_t i = 0; i < slots_.size(); ++i) {
    if (busy_[i]) continue;
    const std::size_t shared = slots_[i]->shared_prefix(prompt);
    if (best == slots_.size() || shared > best_shared ||
        (shared == best_shared && last_used_[i] < last_used_[best])) {
      best = i;
      best_shared = shared;
    }
  }
  return best;
}

std::shared_ptr<SlotPool::Lease> SlotPool::acquire(std::span<const text::TokenId> prompt) {
  std::unique_lock lock(mutex_);
  const auto idle = [&] { return std::find(busy_.begin(), busy_.end(), false) != busy_.end(); };
  if (!waiting_.empty() || !idle()) {
    if (waiting_.size() >= max_waiting_) {
      throw ApiError(503, "the server is busy: every slot is generating and " + std::to_string(waiting_.size()) +
                              " requests are waiting; try again later",
                     "server_busy");
    }
    const std::uint64_t ticket = next_ticket_++;
    waiting_.push_back(ticket);
    changed_.wait(lock, [&] { return waiting_.front() == ticket && idle(); });
    waiting_.pop_front();
  }
  const std::size_t chosen = best_idle(prompt);
  busy_[chosen] = true;
  last_used_[chosen] = ++uses_;
  changed_.notify_all();  // the next in line may find another idle slot
  return std::make_shared<Lease>(*this, *slots_[chosen]);
}

SlotPool::Occupancy SlotPool::occupancy() {
  const std::lock_guard lock(mutex_);
  return {static_cast<std::size_t>(std::count(busy_.begin(), busy_.end(), false)), waiting_.size()};
}

void SlotPool::release(Slot& slot) {
  {
    const std::lock_guard lock(mutex_);
    busy_[static_cast<std::size_t>(slot.index())] = false;
  }
  changed_.notify_all();
}

}  // namespace quorvel::serve
