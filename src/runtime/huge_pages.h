// Large buffers backed by huge pages where the system offers them on request.
//
// A model's tables are hundreds of megabytes written once at load and then
// streamed for every token. In 4 KiB pages the first write to each page
// costs a fault and the streaming a walk of the page tables every 4 KiB;
// in 2 MiB pages both happen 512 times less often. Linux backs an anonymous
// range with huge pages when it is asked to (the usual setting of
// transparent huge pages); elsewhere this does nothing.
#pragma once

#include <cstddef>

namespace quorvel {

// Asks for huge pages under the whole 2 MiB pages of [buffer, buffer +
// bytes). Must come before the first write to the range. Only a hint: a
// refusal changes nothing but the speed.
void advise_huge_pages(void* buffer, std::size_t bytes);

// Asks for small pages only under [buffer, buffer + bytes), also where the
// system would give huge pages unasked: for a buffer written sparsely, whose
// every huge page would be committed whole by its first write. Must come
// before the first write to the range.
void advise_small_pages(void* buffer, std::size_t bytes);

}  // namespace quorvel
