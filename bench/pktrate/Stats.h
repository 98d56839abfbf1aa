// Medians and spreads of a handful of repetitions, and their text.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace PktRate {

struct Spread {
  double median = NAN, min = NAN, max = NAN;
  bool valid() const { return !std::isnan(median); }
};

inline Spread spreadOf(std::vector<double> v) {
  v.erase(std::remove_if(v.begin(), v.end(), [](double x) { return std::isnan(x); }), v.end());
  if (v.empty()) return {};
  std::sort(v.begin(), v.end());
  size_t const n = v.size();
  double const median = n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
  return {median, v.front(), v.back()};
}

// "905 (880-930)"; a single value alone; "-" when there is none.
inline std::string text(Spread const & s, char const * format = "%.0f") {
  if (!s.valid()) return "-";
  char m[32], lo[32], hi[32];
  std::snprintf(m, sizeof m, format, s.median);
  std::snprintf(lo, sizeof lo, format, s.min);
  std::snprintf(hi, sizeof hi, format, s.max);
  if (std::string(lo) == hi) return m;
  return std::string(m) + " (" + lo + "-" + hi + ")";
}

// The p-th percentile (0..100) of `values`, which it sorts.
inline double percentile(std::vector<double> & values, double p) {
  if (values.empty()) return NAN;
  std::sort(values.begin(), values.end());
  size_t const i = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(values.size()))) ;
  return values[std::min(values.size() - 1, i == 0 ? 0 : i - 1)];
}

}  // namespace PktRate
