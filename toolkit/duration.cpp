#include "toolkit/duration.h"

#include <cmath>
#include <cstdlib>

namespace toolkit {

bool ParseDuration(const std::string& text, double& seconds, bool& unit) {
  char* end = nullptr;
  const double amount = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || !std::isfinite(amount) || amount < 0) return false;
  unit = *end != '\0';
  if (!unit) {
    seconds = amount;
    return true;
  }
  static const struct {
    char unit;
    double seconds;
  } kUnits[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
  for (const auto& u : kUnits) {
    if (end[0] == u.unit && end[1] == '\0') {
      seconds = amount * u.seconds;
      return true;
    }
  }
  return false;
}

}  // namespace toolkit
