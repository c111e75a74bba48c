#pragma once

// The hardware's health with the failed parts named (Redfish_GetHealth).

#include <string>

namespace redfish {

class ReadContext;

// previous and readings may be null; document receives the health document.
int ReadHealth(ReadContext& read, const char* previous, const char* readings,
               std::string& document);

}  // namespace redfish
