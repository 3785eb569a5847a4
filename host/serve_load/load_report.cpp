#include "host/serve_load/load_report.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

#include "host/serve_load/percentile.h"

namespace quorvel::serve_load {

namespace {

constexpr std::size_t kErrorsShown = 3;

Quantiles quantiles(const std::vector<double>& seconds) { return {percentile(seconds, 50), percentile(seconds, 95)}; }

std::string fixed(double value, int decimals) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(decimals) << value;
  return text.str();
}

std::string milliseconds(std::optional<double> seconds) { return seconds ? fixed(*seconds * 1000, 0) + " ms" : "-"; }

double share_percent(long part, long whole) {
  return whole > 0 ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 0;
}

std::string p50_p95(const Quantiles& q) { return milliseconds(q.p50) + " / " + milliseconds(q.p95); }

void note_error(LoadSummary& summary, const RequestResult& result) {
  const std::string line = result.outcome + ": " + result.error;
  const auto& seen = summary.first_errors;
  if (seen.size() < kErrorsShown && std::find(seen.begin(), seen.end(), line) == seen.end()) {
    summary.first_errors.push_back(line);
  }
}

}  // namespace

LoadSummary summarize(const std::vector<RequestResult>& results, double wall_seconds) {
  LoadSummary summary;
  summary.requests = static_cast<int>(results.size());
  summary.wall_seconds = wall_seconds;
  std::vector<double> streamed_first_token, first_token, latency;
  for (const RequestResult& result : results) {
    ++summary.outcomes[result.outcome];
    if (!result.succeeded()) {
      ++summary.failed;
      note_error(summary, result);
      continue;
    }
    if (result.streamed) streamed_first_token.push_back(result.first_token_seconds);
    first_token.push_back(result.first_token_seconds);
    latency.push_back(result.total_seconds);
    summary.prompt_tokens += result.usage.prompt_tokens;
    summary.cached_tokens += result.usage.cached_tokens;
    summary.completion_tokens += result.usage.completion_tokens;
  }
  summary.streamed_first_token = quantiles(streamed_first_token);
  summary.first_token = quantiles(first_token);
  summary.latency = quantiles(latency);
  return summary;
}

void print_summary(const LoadSummary& summary, std::ostream& out) {
  std::string statuses;
  for (const auto& [outcome, count] : summary.outcomes) {
    statuses += (statuses.empty() ? "" : ", ") + outcome + " × " + std::to_string(count);
  }
  const double rate =
      summary.wall_seconds > 0 ? static_cast<double>(summary.completion_tokens) / summary.wall_seconds : 0;
  out << "requests:              " << summary.requests << " (" << statuses << ")\n"
      << "failed:                " << summary.failed << "\n"
      << "first token p50 / p95: streamed " << p50_p95(summary.streamed_first_token) << ", all "
      << p50_p95(summary.first_token) << "\n"
      << "latency p50 / p95:     " << p50_p95(summary.latency) << "\n"
      << "prompt tokens:         " << summary.prompt_tokens << ", " << summary.cached_tokens << " of them cached ("
      << fixed(share_percent(summary.cached_tokens, summary.prompt_tokens), 1) << "%)\n"
      << "completion tokens:     " << summary.completion_tokens << " in " << fixed(summary.wall_seconds, 1)
      << " s = " << fixed(rate, 1) << " tokens/s\n"
      << "wall time:             " << fixed(summary.wall_seconds, 1) << " s\n";
  for (const std::string& error : summary.first_errors) out << "failure:               " << error << "\n";
}

bool acceptable(const LoadSummary& summary, bool expect_failures) {
  return std::all_of(summary.outcomes.begin(), summary.outcomes.end(), [&](const auto& entry) {
    return entry.first == "200" || (expect_failures && entry.first == "500");
  });
}

}  // namespace quorvel::serve_load
