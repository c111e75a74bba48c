#pragma once

// The snapshot in the Prometheus text exposition format (version 0.0.4).

#include <string>

#include "snapshot.h"

constexpr char kExpositionContentType[] = "text/plain; version=0.0.4; charset=utf-8";

struct RenderContext {
  double now = 0;            // wall-clock seconds
  double scrapeSeconds = 0;  // what this scrape has taken so far
};

std::string Render(const Snapshot& snapshot, const RenderContext& context);

// A label value as the format writes it: valid UTF-8 (bad bytes become
// U+FFFD, which Prometheus would otherwise refuse the whole scrape for), with
// backslash, double quote and line feed escaped.
std::string LabelValue(const std::string& text);

// A sample value: shortest round-trip decimal, or NaN, +Inf, -Inf.
std::string SampleValue(double value);
