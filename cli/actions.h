#pragma once

#include <cstring>

#include "bmcredfish.h"

// The power actions as redfishctl names them.
enum class Target { On, Off, Toggle, Same };

struct Action {
  const char* name;
  REDFISHCMD command;
  Target target;  // the power state --wait waits for
};

inline constexpr Action kActions[] = {
    {"on", REDFISHCMD_ON, Target::On},
    {"force-on", REDFISHCMD_FORCE_ON, Target::On},
    {"force-off", REDFISHCMD_FORCE_OFF, Target::Off},
    {"graceful-shutdown", REDFISHCMD_GRACEFUL_SHUTDOWN, Target::Off},
    {"force-restart", REDFISHCMD_FORCE_RESTART, Target::On},
    {"graceful-restart", REDFISHCMD_GRACEFUL_RESTART, Target::On},
    {"power-cycle", REDFISHCMD_POWER_CYCLE, Target::On},
    {"push-power-button", REDFISHCMD_PUSH_POWER_BUTTON, Target::Toggle},
    {"nmi", REDFISHCMD_NMI, Target::Same},
};

// The action of that name, or null.
inline const Action* FindAction(const char* name) {
  for (const Action& a : kActions)
    if (std::strcmp(a.name, name) == 0) return &a;
  return nullptr;
}
