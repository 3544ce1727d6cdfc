// Checks, silence and files.
#include "fuzz.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "kelRt_platform.h"

namespace fuzz {

void say(const std::string& line) {
    ::dprintf(STDERR_FILENO, "%s\n", line.c_str());
}

void must(bool holds, const std::string& what) {
    if (holds)
        return;
    say("does not hold: " + what);
    std::abort();
}

void quiet(int32_t log_level) {
    static std::FILE* const nowhere = std::fopen("/dev/null", "w");
    must(nowhere != nullptr, "there is somewhere that is nowhere");
    stdout = stderr = nowhere;  // the GNU C library lets them be set; descriptor 2 stays the terminal
    g_log_lvl = log_level;
}

Folder::Folder() {
    const std::filesystem::path memory = "/dev/shm";
    std::error_code unknown;
    const bool has_memory = std::filesystem::is_directory(memory, unknown);
    path_ = ((has_memory ? memory : std::filesystem::temp_directory_path()) / "kelrt_fuzz.XXXXXX").string();
    must(::mkdtemp(path_.data()) != nullptr, "a folder can be made as " + path_);
}

Folder::~Folder() {
    std::error_code unknown;
    std::filesystem::remove_all(path_, unknown);
}

std::string Folder::write(const std::string& name, Bytes contents) const {
    const std::string path = path_ + "/" + name;
    std::FILE* const file = std::fopen(path.c_str(), "wb");
    must(file != nullptr, path + " can be written");
    const size_t written = std::fwrite(contents.data(), 1, contents.size(), file);
    must(std::fclose(file) == 0 && written == contents.size(), path + " is written");
    return path;
}

}  // namespace fuzz

// In the place of the platform's: a line is made, as its arguments may be what is wrong, and goes nowhere.
int __android_log_print(int, const char*, const char* format, ...) {
    char message[1024];
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    return length;
}
