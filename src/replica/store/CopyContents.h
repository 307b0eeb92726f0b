#pragma once

namespace kestrowan::replica {

/// Makes the empty file `target` share the blocks of `source`. Gives 0, or the value of `errno`
/// where that cannot be.
int shareContents(int source, int target);

/// Copies everything in `source` to the empty file `target`: by sharing blocks where the file
/// system can, else byte by byte but for the holes. The offset of `source` may change. Gives 0 or
/// the value of `errno`.
int copyContents(int source, int target);

}  // namespace kestrowan::replica
