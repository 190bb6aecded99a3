#pragma once

#include <string_view>

namespace tolvane {

/// Whether an interpreter that calls itself `running` ("3.11.2 (main, …") is the Python `built_for` ("3.11"):
/// the text begins with it and no further digit follows.
constexpr bool same_python(std::string_view built_for, std::string_view running) {
  if (running.substr(0, built_for.size()) != built_for) return false;
  const char next = running.size() > built_for.size() ? running[built_for.size()] : '\0';
  return next < '0' || next > '9';
}

}  // namespace tolvane
