// First touch of large fresh buffers, spread over the worker pool.
//
// A fresh heap buffer costs a page fault on the first write to each page,
// and the kernel clears the page then; for the tables of a model that is
// most of the time spent loading it. Touching the pages from every pool
// thread at once divides that cost by the thread count.
#pragma once

#include <cstdint>

namespace quorvel {

// Writes a zero to the first byte of every page of [buffer, buffer + bytes):
// for a buffer about to be overwritten whole.
void touch_pages(void* buffer, std::uint64_t bytes);

}  // namespace quorvel
