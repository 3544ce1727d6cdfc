/* The public headers as C++. */
#include "kelRt.h"
#include "kelRt_platform.h"
