// The switch of the linear family's matrix-engine route.

#include <cstdlib>
#include <string_view>

#include "device_frame.h"

bool is_sysarr_enabled() {
  const char* disabled = std::getenv("QUARN_LLM_SYSARR_DISABLED");
  return disabled == nullptr || std::string_view(disabled) != "1";
}
