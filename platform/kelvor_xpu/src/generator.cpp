#include "generator.hpp"

#include <ATen/CPUGeneratorImpl.h>

#include <mutex>

namespace kelvor_xpu {
namespace {

class DeviceGenerator final : public c10::GeneratorImpl {
 public:
  explicit DeviceGenerator(at::Generator cpu)
      : GeneratorImpl(c10::Device(c10::DeviceType::XPU, 0), c10::DispatchKeySet(c10::DispatchKey::XPU)),
        cpu_(std::move(cpu)) {}

  const at::Generator& cpu() const { return cpu_; }

  void set_current_seed(std::uint64_t seed) override {
    const std::lock_guard hold(cpu_.mutex());
    cpu_.set_current_seed(seed);
  }
  std::uint64_t current_seed() const override {
    const std::lock_guard hold(cpu_.mutex());
    return cpu_.current_seed();
  }
  std::uint64_t seed() override {
    const std::lock_guard hold(cpu_.mutex());
    return cpu_.seed();
  }
  void set_state(const c10::TensorImpl& state) override {
    const std::lock_guard hold(cpu_.mutex());
    cpu_.unsafeGetGeneratorImpl()->set_state(state);
  }
  c10::intrusive_ptr<c10::TensorImpl> get_state() const override {
    const std::lock_guard hold(cpu_.mutex());
    return cpu_.unsafeGetGeneratorImpl()->get_state();
  }
  // The sequence has no offset of its own: it is in the state. Pickling asks for one, and sets it again.
  std::uint64_t get_offset() const override { return 0; }
  void set_offset(std::uint64_t offset) override {
    TORCH_CHECK(offset == 0, "An xpu generator has no offset to set: use set_state");
  }

 private:
  DeviceGenerator* clone_impl() const override {
    const std::lock_guard hold(cpu_.mutex());
    return new DeviceGenerator(cpu_.clone());
  }

  mutable at::Generator cpu_;
};

}  // namespace

at::Generator new_generator() {
  return at::make_generator<DeviceGenerator>(at::detail::createCPUGenerator());
}

const at::Generator& default_generator() {
  static const auto& instance =
      *new at::Generator(at::make_generator<DeviceGenerator>(at::detail::getDefaultCPUGenerator()));
  return instance;
}

at::Generator cpu_generator(const at::Generator& generator) {
  if (!generator.defined() || generator.device().type() != c10::DeviceType::XPU) return generator;
  return static_cast<const DeviceGenerator*>(generator.unsafeGetGeneratorImpl())->cpu();
}

}  // namespace kelvor_xpu
