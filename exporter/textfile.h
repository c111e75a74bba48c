#pragma once

// Textfile mode, for node_exporter's textfile collector: one read per run,
// the exposition written atomically, and the last good values kept in a state
// file between runs so that a failed run still shows every series.

#include <string>

#include "snapshot.h"
#include "toolkit/atomic_file.h"

using toolkit::WriteAtomically;

// The last good values and counters from a state file; false (snapshot
// untouched) when there is none or it cannot be read.
bool LoadState(const std::string& path, Snapshot& snapshot);
bool SaveState(const std::string& path, const Snapshot& snapshot, std::string& error);
