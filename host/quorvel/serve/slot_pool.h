// The slots and the requests waiting for one. A request takes the idle slot whose cache shares the
// longest prefix with its prompt (of equals, the one idle longest), so a conversation comes back to
// the slot that holds it. When every slot is busy, requests wait in arrival order, up to a bound;
// beyond it they are turned away at once.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "host/quorvel/serve/slot.h"

namespace quorvel::serve {

class SlotPool {
 public:
  SlotPool(std::vector<std::unique_ptr<Slot>> slots, std::size_t max_waiting);

  // A slot held by one request; the slot is idle again when the lease ends.
  class Lease {
   public:
    Lease(SlotPool& pool, Slot& slot) : pool_(pool), slot_(slot) {}
    ~Lease() { pool_.release(slot_); }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    Slot& slot() const { return slot_; }

   private:
    SlotPool& pool_;
    Slot& slot_;
  };

  // Waits for the best idle slot for `prompt`; throws ApiError 503 when `max_waiting` requests
  // already wait.
  std::shared_ptr<Lease> acquire(std::span<const text::TokenId> prompt);

  struct Occupancy {
    std::size_t idle = 0, waiting = 0;
  };
  Occupancy occupancy();

  std::size_t size() const { return slots_.size(); }
  const Slot& slot(std::size_t index) const { return *slots_[index]; }

 private:
  void release(Slot& slot);
  std::size_t best_idle(std::span<const text::TokenId> prompt) const;  // under mutex_, with one idle

  std::vector<std::unique_ptr<Slot>> slots_;
  std::size_t max_waiting_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<bool> busy_;
  std::vector<std::uint64_t> last_used_;
  std::uint64_t uses_ = 0;
  std::deque<std::uint64_t> waiting_;  // tickets, in arrival order
  std::uint64_t next_ticket_ = 0;
};

}  // namespace quorvel::serve
