#include "peers.h"

namespace bench {

const std::vector<Peer>& peers() {
    static const std::vector<Peer> all = {
        {"loop", loop},  // what the compiler makes of plain loops
#ifdef WITH_EIGEN
        {"Eigen", eigen},
#endif
#ifdef WITH_HIGHWAY
        {"Highway", highway},
#endif
#ifdef WITH_LIBXSMM
        {"libxsmm", libxsmm},
#endif
#ifdef WITH_ONEDNN
        {"oneDNN", onednn},
#endif
#ifdef WITH_OPENBLAS
        {"OpenBLAS", openblas},
#endif
#ifdef WITH_SLEEF
        {"SLEEF", sleef},
#endif
#ifdef WITH_VOLK
        {"VOLK", volk},
#endif
#ifdef WITH_XNNPACK
        {"XNNPACK", xnnpack},
#endif
    };
    return all;
}

}  // namespace bench
