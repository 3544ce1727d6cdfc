// Included before everything else here: this library may be preloaded into programs that have no platform at
// all, a shell for instance, and must load there too.
#pragma once

#include "kelRt_platform.h"

#pragma weak g_log_lvl
#pragma weak g_log_file_max_size
#pragma weak resetTivLogFile
#pragma weak tivIsProfileEvent
#pragma weak __android_log_print
