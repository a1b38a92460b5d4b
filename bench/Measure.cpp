#include "bench/Measure.h"

#include <algorithm>
#include <cstdio>

namespace bench {

double percentile(std::vector<double> samples, double share) {
  if (samples.empty()) return 0;
  auto index = static_cast<std::size_t>(share * static_cast<double>(samples.size() - 1));
  std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(index), samples.end());
  return samples[index];
}

std::vector<double> samples(std::size_t count, const std::function<void()>& action) {
  std::vector<double> result;
  result.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    Stopwatch watch;
    action();
    result.push_back(watch.seconds());
  }
  return result;
}

namespace {

std::string figure(double value) {
  char text[32];
  if (value >= 1e6) {
    std::snprintf(text, sizeof text, "%.1f M", value / 1e6);
  } else if (value >= 1e3) {
    std::snprintf(text, sizeof text, "%.1f k", value / 1e3);
  } else if (value >= 1) {
    std::snprintf(text, sizeof text, "%.2f s", value);
  } else if (value >= 1e-3) {
    std::snprintf(text, sizeof text, "%.2f ms", value * 1e3);
  } else {
    std::snprintf(text, sizeof text, "%.2f us", value * 1e6);
  }
  return text;
}

bool met(const Row& row) {
  double ratio = row.value / row.limitValue;
  return row.atLeast ? ratio >= row.target : ratio <= row.target;
}

}  // namespace

void Table::add(Row row) {
  std::fprintf(stderr, "  %-52s %6.2f\n", row.road.c_str(), row.value / row.limitValue);
  rows_.push_back(std::move(row));
}

bool Table::print() const {
  std::printf("| road | measured | limit in the same run | | ratio | target | |\n|---|---:|---|---:|---:|---:|---|\n");
  for (const Row& row : rows_) {
    std::printf("| %s | %s | %s | %s | %.2f | %s %.2f | %s |\n", row.road.c_str(), figure(row.value).c_str(),
                row.limit.c_str(), figure(row.limitValue).c_str(), row.value / row.limitValue, row.atLeast ? "≥" : "≤",
                row.target, met(row) ? "met" : "**missed**");
  }
  return std::all_of(rows_.begin(), rows_.end(), met);
}

}  // namespace bench
