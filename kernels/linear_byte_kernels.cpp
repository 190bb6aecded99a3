// The formats of one byte an element.

#include "formats/fp8_e4m3.h"
#include "formats/fp8_e5m2.h"
#include "formats/q8_0.h"
#include "linear_forward.h"

namespace tolvane {

template struct linear_launchers<q8_0>;
template struct linear_launchers<fp8_e4m3>;
template struct linear_launchers<fp8_e5m2>;

}  // namespace tolvane
