// What the exporter's tests read an exposition as.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>
#include <string>

// Every sample line (name and labels -> value), checking on the way that each
// metric has its HELP and TYPE once, before its samples, which are contiguous.
inline std::map<std::string, std::string> Samples(const std::string& text) {
  std::map<std::string, std::string> samples;
  std::set<std::string> closed;
  std::string current, line;
  std::istringstream in(text);
  while (std::getline(in, line)) {
    if (line.rfind("# HELP ", 0) == 0) {
      const std::string name = line.substr(7, line.find(' ', 7) - 7);
      EXPECT_TRUE(closed.insert(name).second) << "second HELP for " << name;
      current = name;
      continue;
    }
    if (line.empty() || line[0] == '#') continue;
    const size_t space = line.rfind(' ');
    const std::string series = line.substr(0, space);
    EXPECT_EQ(series.substr(0, series.find('{')), current) << "sample outside its metric: " << line;
    EXPECT_TRUE(samples.emplace(series, line.substr(space + 1)).second) << "duplicate " << series;
  }
  return samples;
}

inline std::set<std::string> Names(const std::map<std::string, std::string>& samples) {
  std::set<std::string> names;
  for (const auto& s : samples) names.insert(s.first);
  return names;
}
