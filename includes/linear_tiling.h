#pragma once

namespace tolvane {

/// When the dense route expands the weight in slices of rows and multiplies by one slice at a time.
struct tiling {
  long long threshold = 50000;     // from more than so many outputs on
  unsigned long long size = 4096;  // rows of a slice; 0 stands for a number that is not positive
};

/// TILE_THRESHOLD and TILE_SIZE, taken as far as they are numbers. Throws std::invalid_argument or
/// std::out_of_range where one is none.
tiling current_tiling();

/// Refuses slices of no rows.
void check_slices(const tiling& tiles);

}  // namespace tolvane
