#pragma once

// The yardstick of the 16-thread figures: h2load on one connection with
// `streams` concurrent streams; its requests per second (0 if it did not run).
#include <cstdio>
#include <string>

inline double H2load(const std::string& url, int streams, int requests,
                     const std::string& headers = "") {
  const std::string cmd = "h2load -n " + std::to_string(requests) + " -c 1 -m " +
                          std::to_string(streams) + " " + headers + " '" + url + "' 2>/dev/null";
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) return 0;
  char line[512];
  double rate = 0;
  while (std::fgets(line, sizeof line, p)) {
    // "finished in 1.23s, 81234.56 req/s, 5.67MB/s"
    if (std::sscanf(line, "finished in %*[^,], %lf req/s", &rate) == 1) break;
  }
  pclose(p);
  return rate;
}
