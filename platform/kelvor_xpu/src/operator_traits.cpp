#include "operator_traits.hpp"

#include <algorithm>
#include <limits>
#include <mutex>
#include <string_view>
#include <unordered_map>

namespace kelvor_xpu {
namespace {

using namespace std::string_view_literals;

/// Operators whose sums the CPU's kernels would round after every step, or not offer at all, in reduced
/// types.
constexpr std::array sums{"mm"sv,
                          "addmm"sv,
                          "bmm"sv,
                          "baddbmm"sv,
                          "addbmm"sv,
                          "mv"sv,
                          "addmv"sv,
                          "dot"sv,
                          "vdot"sv,
                          "_softmax"sv,
                          "_log_softmax"sv,
                          "_softmax_backward_data"sv,
                          "_log_softmax_backward_data"sv,
                          "convolution"sv,
                          "_convolution"sv,
                          "convolution_backward"sv};

/// The same, but these have statistics too, which are float where the rest is not.
constexpr std::array norms{"native_layer_norm"sv, "native_group_norm"sv, "native_batch_norm"sv};
constexpr std::array norm_backwards{"native_layer_norm_backward"sv, "native_group_norm_backward"sv,
                                    "native_batch_norm_backward"sv};

/// "aten::add_" gives "add".
std::string_view base_name(const c10::FunctionSchema& schema) {
  std::string_view name = schema.name();
  name.remove_prefix(name.rfind(':') + 1);
  if (name.size() > 1 && name.back() == '_' && name[name.size() - 2] != '_') name.remove_suffix(1);
  return name;
}

template <class Names>
bool contains(const Names& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

Role role_of(const c10::Argument& argument) {
  if (argument.alias_info() != nullptr && argument.alias_info()->isWrite()) {
    return argument.kwarg_only() ? Role::output : Role::update;
  }
  return std::string_view(argument.name()).ends_with("dtype") ? Role::dtype : Role::input;
}

}  // namespace

OperatorTraits::OperatorTraits(const c10::FunctionSchema& schema) {
  for (const c10::Argument& argument : schema.arguments()) {
    roles.push_back(role_of(argument));
    writes |= roles.back() == Role::update || roles.back() == Role::output;
  }
  for (const c10::Argument& result : schema.returns()) {
    is_view |= result.alias_info() != nullptr && !result.alias_info()->isWrite();
  }
  const std::string_view name = base_name(schema);
  accepts_float = contains(norms, name) || contains(norm_backwards, name);
  always_lift = accepts_float || contains(sums, name);
  first_statistic = contains(norms, name) ? 1 : std::numeric_limits<std::size_t>::max();
}

const OperatorTraits& traits_of(const c10::OperatorHandle& op) {
  static auto& lock = *new std::mutex;
  static auto& known = *new std::unordered_map<const c10::FunctionSchema*, OperatorTraits>;
  // What a thread has asked for lately, by address.
  struct Recent {
    const c10::FunctionSchema* schema;
    const OperatorTraits* traits;
  };
  static thread_local std::array<Recent, 256> recent{};
  const c10::FunctionSchema& schema = op.schema();
  Recent& entry = recent[reinterpret_cast<std::uintptr_t>(&schema) / 64 % recent.size()];
  if (entry.schema == &schema) return *entry.traits;
  const std::lock_guard hold(lock);
  entry = {&schema, &known.try_emplace(&schema, schema).first->second};
  return *entry.traits;
}

}  // namespace kelvor_xpu
