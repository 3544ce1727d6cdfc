// Status codes by name.
#pragma once

#include <cstdint>
#include <string>

namespace tool {

// "NNA_STATUS_UNSUPPORTED (1063)"; just the number when it has no name.
std::string status_text(uint32_t status);

}  // namespace tool
