#pragma once

// The snapshot in the Prometheus text exposition format (version 0.0.4).

#include <string>

#include "snapshot.h"

constexpr char kExpositionContentType[] = "text/plain; version=0.0.4; charset=utf-8";

struct RenderContext {
  double now = 0;              // wall-clock seconds
  double scrapeSeconds = 0;    // what this scrape has taken so far
  std::string libraryVersion;  // the loaded library's (Redfish_GetVersion)
};

std::string Render(const Snapshot& snapshot, const RenderContext& context);

// A label value as the format writes it: the BMC's text made Printable (valid
// UTF-8, which Prometheus would otherwise refuse the whole scrape for, and no
// control byte), with backslash and double quote escaped.
std::string LabelValue(const std::string& text);

// A sample value: shortest round-trip decimal, or NaN, +Inf, -Inf.
std::string SampleValue(double value);

// A metric's HELP and TYPE lines; one sample line; one label (name="value").
void Header(std::string& out, const char* name, const char* help, const char* type);
void Sample(std::string& out, const char* name, const std::string& labels, double value);
std::string Label(const char* name, const std::string& value);
// A metric's HELP and TYPE lines and its samples; nothing when it has none.
void WriteMetric(std::string& out, const char* name, const char* help, const char* type,
                 const std::string& samples);
