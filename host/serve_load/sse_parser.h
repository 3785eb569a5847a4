// Server-sent events: a text/event-stream body, fed in pieces as they arrive, split into the data
// of its events.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quorvel::serve_load {

class SseParser {
 public:
  // Adds the next bytes of the body; returns the data of each event they complete, in order. An
  // event's data lines are joined with "\n"; comments, other fields and events without data are
  // skipped. Lines may end in "\n" or "\r\n".
  std::vector<std::string> feed(std::string_view bytes);

 private:
  void take_line(std::string_view line, std::vector<std::string>& events);

  std::string partial_line_;
  std::string data_;
  bool has_data_ = false;
};

}  // namespace quorvel::serve_load
