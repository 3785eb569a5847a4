#include "host/serve_load/sse_parser.h"

namespace quorvel::serve_load {

std::vector<std::string> SseParser::feed(std::string_view bytes) {
  std::vector<std::string> events;
  for (std::size_t end; (end = bytes.find('\n')) != std::string_view::npos; bytes.remove_prefix(end + 1)) {
    partial_line_.append(bytes.substr(0, end));
    if (partial_line_.ends_with('\r')) partial_line_.pop_back();
    take_line(partial_line_, events);
    partial_line_.clear();
  }
  partial_line_.append(bytes);
  return events;
}

void SseParser::take_line(std::string_view line, std::vector<std::string>& events) {
  if (line.empty()) {
    if (has_data_) events.push_back(std::move(data_));
    data_.clear();
    has_data_ = false;
    return;
  }
  if (!line.starts_with("data:")) return;
  line.remove_prefix(5);
  if (line.starts_with(' ')) line.remove_prefix(1);
  if (has_data_) data_ += '\n';
  data_.append(line);
  has_data_ = true;
}

}  // namespace quorvel::serve_load
