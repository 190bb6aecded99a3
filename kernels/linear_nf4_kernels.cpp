// The four-bit quantiles of a normal distribution.

#include "formats/nf4.h"
#include "linear_forward.h"

namespace tolvane {

template struct linear_launchers<nf4>;

}  // namespace tolvane
