#include "host/text/nfc.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>

namespace quorvel::text {

std::string to_nfc(std::string_view text) {
  // ASCII is its own normal form.
  if (std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
    return std::string(text);
  }
  utf8proc_uint8_t* composed = nullptr;
  const utf8proc_ssize_t length =
      utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()), static_cast<utf8proc_ssize_t>(text.size()),
                   &composed, static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
  if (length < 0) throw std::bad_alloc();
  const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(composed, std::free);
  return std::string(reinterpret_cast<const char*>(composed), static_cast<std::size_t>(length));
}

}  // namespace quorvel::text
