#include "operator_traits.hpp"

#include <algorithm>
#include <mutex>
#include <string_view>
#include <unordered_map>

namespace kelvor_xpu {
namespace {

using namespace std::string_view_literals;

/// Products that the CPU's kernels compute many times faster in float, or would round after every step.
constexpr std::array products{"mm"sv,     "addmm"sv,       "bmm"sv,          "baddbmm"sv,
                              "addbmm"sv, "convolution"sv, "_convolution"sv, "convolution_backward"sv};

/// "aten::add_" gives "add".
std::string_view base_name(const c10::FunctionSchema& schema) {
  std::string_view name = schema.name();
  name.remove_prefix(name.rfind(':') + 1);
  if (name.size() > 1 && name.back() == '_' && name[name.size() - 2] != '_') name.remove_suffix(1);
  return name;
}

Role role_of(const c10::Argument& argument) {
  if (argument.alias_info() != nullptr && argument.alias_info()->isWrite()) {
    return argument.kwarg_only() ? Role::output : Role::update;
  }
  return std::string_view(argument.name()).ends_with("dtype") ? Role::dtype : Role::input;
}

/// Whether arguments of `type` are numbers, strings, or lists of them.
bool is_plain(const c10::Type& type) {
  if (const auto* optional = type.castRaw<c10::OptionalType>()) return is_plain(*optional->getElementType());
  if (const auto* list = type.castRaw<c10::ListType>()) return is_plain(*list->getElementType());
  switch (type.kind()) {
    case c10::TypeKind::IntType:
    case c10::TypeKind::SymIntType:
    case c10::TypeKind::FloatType:
    case c10::TypeKind::BoolType:
    case c10::TypeKind::NumberType:
    case c10::TypeKind::StringType:
      return true;
    default:
      return false;
  }
}

}  // namespace

OperatorTraits::OperatorTraits(const c10::FunctionSchema& schema) {
  for (const c10::Argument& argument : schema.arguments()) {
    if (!is_plain(*argument.type())) carriers.push_back(roles.size());
    roles.push_back(role_of(argument));
    writes |= roles.back() == Role::update || roles.back() == Role::output;
  }
  for (const c10::Argument& result : schema.returns()) {
    is_view |= result.alias_info() != nullptr && !result.alias_info()->isWrite();
  }
  is_product = std::find(products.begin(), products.end(), base_name(schema)) != products.end();
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
