#include <stdexcept>

#include "runtime/kernel_base.h"
#include "runtime/kernel_sets.h"

namespace quorvel::kernels {
namespace {

// The engine refuses a forced set that cannot be had at start-up, before any
// kernel runs; a tool that skips that check stops here with the same words.
std::unique_ptr<KernelBase> make_chosen_set() {
  const KernelSetChoice& choice = chosen_kernel_set();
  if (choice.set == nullptr) throw std::runtime_error(choice.error);
  return choice.set->make();
}

}  // namespace

// Chosen once, under the thread-safe static guard, from the processor's
// features (or QUORVEL_KERNEL_SET); read-only afterwards. Nothing below this
// point checks the processor again.
const KernelBase& kernels() {
  static const std::unique_ptr<KernelBase> instance = make_chosen_set();
  return *instance;
}

}  // namespace quorvel::kernels
