#include "settings.hpp"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <stdexcept>
#include <sycl/pool.hpp>

namespace kelvor_xpu {
namespace {

std::optional<int> positive_number(const char* variable) {
  const char* text = std::getenv(variable);
  if (text == nullptr || *text == '\0') return std::nullopt;
  int value = 0;
  const char* end = text + std::strlen(text);
  const auto [rest, error] = std::from_chars(text, end, value);
  if (error != std::errc() || rest != end || value < 1) {
    throw std::invalid_argument(std::string(variable) + " must be a whole number from 1 to " +
                                std::to_string(std::numeric_limits<int>::max()) + ", but it is \"" + text +
                                "\"");
  }
  return value;
}

Settings read() {
  Settings result;
  if (const char* name = std::getenv("KELVOR_XPU_DEVICE_NAME"); name != nullptr && *name != '\0') {
    result.device_name = name;
  }
  if (const auto size = positive_number("KELVOR_XPU_MAX_WORK_GROUP_SIZE")) {
    result.max_work_group_size = static_cast<std::size_t>(*size);
  }
  if (const auto threads = positive_number("KELVOR_XPU_THREADS")) sycl::host::set_pool_threads(*threads);
  return result;
}

}  // namespace

const Settings& settings() {
  static const Settings& instance = *new Settings(read());
  return instance;
}

}  // namespace kelvor_xpu
