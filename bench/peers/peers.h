// General libraries that do some of the same operations, each as fast as it can be made to: free to fuse, to
// reorder and to approximate within the tolerance of the comparison, on one thread. Which are built is
// decided by what is installed.
#pragma once

#include <cstddef>
#include <vector>

#include "problem.h"
#include "work.h"

namespace bench {

struct Peer {
    const char* name;
    Work (*work)(const Problem& problem);  // empty: it does not do this
};

const std::vector<Peer>& peers();

Work eigen(const Problem& problem);
Work highway(const Problem& problem);
Work libxsmm(const Problem& problem);
Work loop(const Problem& problem);
Work onednn(const Problem& problem);
Work openblas(const Problem& problem);
Work sleef(const Problem& problem);
Work volk(const Problem& problem);
Work xnnpack(const Problem& problem);

// The geometry of im2col, as the peers need it.
struct Patches {
    size_t out_rows, out_cols, kernel, row_bytes, stripe, patch;
    explicit Patches(const Shape& s)
        : out_rows(s.rows - s.kernel + 1),
          out_cols(s.cols - s.kernel + 1),
          kernel(s.kernel),
          row_bytes(s.cols * s.channels),
          stripe(s.kernel * s.channels),
          patch(s.patch_bytes()) {}
};

}  // namespace bench
