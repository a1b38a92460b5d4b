// Times in one run, beside each other: every row of a group is measured once a round, so that whatever else the machine
// does falls on all of them; the figures are medians over the rounds, and what counts is their ratio to the first row.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace bench {

class Stopwatch {
 public:
  double seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count(); }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// The value below which the given share of the samples lies.
double percentile(std::vector<double> samples, double share);
inline double median(std::vector<double> samples) { return percentile(std::move(samples), 0.5); }

// Runs `action` this many times and answers the seconds of each.
std::vector<double> samples(std::size_t count, const std::function<void()>& action);

// One line of the table: what was measured, its limit in the same run, and the target for their ratio.
struct Row {
  std::string road;
  std::string limit;
  double value;       // seconds, bytes, or requests a second
  double limitValue;  // the same
  double target;      // of value / limitValue
  bool atLeast = false;
};

class Table {
 public:
  void add(Row row);
  // Prints the table and answers whether every target was met.
  bool print() const;

 private:
  std::vector<Row> rows_;
};

}  // namespace bench
