#pragma once

#include <ATen/core/Tensor.h>
#include <ATen/core/ivalue.h>
#include <ATen/record_function.h>

namespace tolvane {

/// A profiler scope under a fixed label that records one input, open as long as the object lives.
class profiler_scope {
 public:
  profiler_scope(const char* label, const at::Tensor& input) : record_(at::RecordScope::FUNCTION) {
    if (!record_.isActive()) return;
    if (record_.needsInputs()) {
      const c10::IValue recorded(input);
      record_.before(label, c10::ArrayRef<const c10::IValue>(&recorded, 1), -1);
    } else {
      record_.before(label, -1);
    }
  }

 private:
  at::RecordFunction record_;
};

}  // namespace tolvane
