// The five-bit formats.

#include "formats/q5_0.h"
#include "formats/q5_1.h"
#include "linear_forward.h"

namespace tolvane {

template struct linear_launchers<q5_0>;
template struct linear_launchers<q5_1>;

}  // namespace tolvane
