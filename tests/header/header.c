/* The public headers, each on its own. */
#include "kelRt.h"
#include "kelRt_platform.h"
