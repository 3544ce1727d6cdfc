// How the tool ends when it does not come to its own end: by a signal, out of memory, or because a context
// crashed. Half-written outputs are removed in each case.
#pragma once

#include <cstddef>
#include <string>

namespace tool {

// Takes over the signals and the heap's last word.
void prepare_endings();

// Throws BadInput unless standard output has taken all that was printed.
void finish_report();

// "kelrt: the job does not fit into this machine's memory" and exit code 2, without asking the heap for
// anything.
[[noreturn]] void end_out_of_memory();

// While it lives, a crash is said to be that of context `index` of `file` (empty: of the command line), which
// has a title and, unless that is empty, a label. All texts must outlive it.
class CrashSite {
  public:
    CrashSite(const std::string& file, size_t index, const std::string& title, const std::string& label);
    ~CrashSite();
    CrashSite(const CrashSite&) = delete;
    CrashSite& operator=(const CrashSite&) = delete;
};

}  // namespace tool
