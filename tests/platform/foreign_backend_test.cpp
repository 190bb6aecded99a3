// Somebody else's XPU backend is there before libkelvor-xpu is loaded.

#include <ATen/ops/empty.h>
#include <c10/core/impl/DeviceGuardImplInterface.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

namespace {

using foreign_guard = c10::impl::NoOpDeviceGuardImpl<c10::DeviceType::XPU>;
C10_REGISTER_GUARD_IMPL(XPU, foreign_guard);

TEST(ForeignBackend, KeepsTheDevice) {
  const auto* before = c10::impl::getDeviceGuardImpl(c10::DeviceType::XPU);
  ASSERT_NE(dlopen(KELVOR_XPU_LIBRARY, RTLD_NOW), nullptr) << dlerror();
  EXPECT_EQ(c10::impl::getDeviceGuardImpl(c10::DeviceType::XPU), before);
  // No operator and no allocator of the library's has entered PyTorch: this backend has none.
  try {
    at::empty({1}, at::device(c10::DeviceType::XPU));
    ADD_FAILURE() << "a tensor was made";
  } catch (const c10::Error& error) {
    EXPECT_NE(std::string(error.what()).find("aten::empty.memory_format"), std::string::npos) << error.what();
  }
}

}  // namespace
