#include "linear_tiling.h"

#include <c10/util/Exception.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tolvane {
namespace {

/// The number that an environment variable begins with, by `parse`, whose exceptions get to name the variable
/// and its text.
template <class Number>
Number number_from(const char* variable, const char* text, const char* parser,
                   Number (*parse)(const std::string&, std::size_t*, int)) {
  const auto message = [&](const char* problem) {
    return std::string(parser) + ": " + variable + problem + ", but it is \"" + text + "\"";
  };
  try {
    return parse(text, nullptr, 10);
  } catch (const std::invalid_argument&) {
    throw std::invalid_argument(message(" must begin with a whole number"));
  } catch (const std::out_of_range&) {
    throw std::out_of_range(message(" must be a number of 64 bits"));
  }
}

}  // namespace

tiling current_tiling() {
  tiling result;
  if (const char* text = std::getenv("TILE_THRESHOLD")) {
    result.threshold = number_from<long long>("TILE_THRESHOLD", text, "stoll", std::stoll);
  }
  if (const char* text = std::getenv("TILE_SIZE")) {
    result.size = number_from<unsigned long long>("TILE_SIZE", text, "stoull", std::stoull);
    const std::string_view digits(text);
    if (digits[digits.find_first_not_of(" \t\n\v\f\r")] == '-') result.size = 0;
  }
  return result;
}

void check_slices(const tiling& tiles) {
  TORCH_CHECK(tiles.size > 0, "TILE_SIZE must be a positive number of weight rows, but it is \"",
              std::getenv("TILE_SIZE"), "\"");
}

}  // namespace tolvane
