// liblog of the simulated accelerator: prints Android's brief form, "E/tag( pid): message", on standard
// error, unless whoever reads that has the record from standard output already.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "kelRt_platform.h"

namespace {

bool share_a_terminal() {
    struct stat out {
    }, err{};
    return isatty(STDERR_FILENO) && fstat(STDOUT_FILENO, &out) == 0 && fstat(STDERR_FILENO, &err) == 0 &&
           out.st_dev == err.st_dev && out.st_ino == err.st_ino;
}

}  // namespace

int __android_log_print(int priority, const char* tag, const char* format, ...) {
    if (share_a_terminal())
        return 0;
    constexpr char kLetters[] = "??VDIWEF";
    const char letter = priority >= 0 && priority < 8 ? kLetters[priority] : '?';
    char message[1024];  // Android cuts longer messages too
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    message[std::strcspn(message, "\n")] = '\0';
    return std::fprintf(stderr, "%c/%s(%5d): %s\n", letter, tag, static_cast<int>(getpid()), message);
}
