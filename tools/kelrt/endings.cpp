// What runs here may have interrupted anything: it calls only what a signal handler may, and allocates
// nothing.
#include "endings.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "bad_input.h"
#include "output_files.h"

namespace tool {
namespace {

constexpr int kCrashes[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS};
// Whatever else ends a program that knows nothing of it: the user, a lost terminal or reader, a limit, a
// timer.
constexpr int kRequests[] = {SIGINT,  SIGTERM, SIGHUP,  SIGQUIT,   SIGPIPE, SIGXCPU,
                             SIGALRM, SIGUSR1, SIGUSR2, SIGVTALRM, SIGPROF, SIGIO};

struct sigaction before[64];  // by signal: who handled it before us

// The context that runs; null titles mean none.
const char* volatile site_file;
const char* volatile site_title;
const char* volatile site_label;
volatile size_t site_index;

void say(const char* text) {
    const ssize_t ignored = ::write(STDERR_FILENO, text, std::strlen(text));
    static_cast<void>(ignored);
}

void say(size_t number) {
    char digits[24];
    char* at = digits + sizeof digits;
    *--at = '\0';
    do
        *--at = static_cast<char>('0' + number % 10);
    while (number /= 10);
    say(at);
}

void on_request(int signal) {
    const int error = errno;  // of the interrupted code, should whoever comes next go on
    npy::remove_unfinished_files();
    ::sigaction(signal, &before[signal], nullptr);
    ::raise(signal);  // and end as if nobody had interfered
    errno = error;
}

void on_crash(int signal, siginfo_t* info, void*) {
    if (const char* const title = site_title) {
        say("kelrt: ");
        if (*site_file) {
            say(site_file);
            say(": contexts[");
            say(site_index);
            say("]: ");
        }
        say(title);
        if (*site_label) {
            say(" (");
            say(site_label);
            say(")");
        }
        say(" brought the tool down\n");
    }
    npy::remove_unfinished_files();
    ::sigaction(signal, &before[signal], nullptr);
    // A fault happens again on return, and meets whoever handled it before: a sanitizer wants to see it
    // itself.
    if (info->si_code <= 0)
        ::raise(signal);
}

// A context may crash for want of stack.
alignas(16) char crash_stack[65536];

}  // namespace

void prepare_endings() {
    std::set_new_handler(end_out_of_memory);
    // Beyond the file size limit writing then fails, and is reported as any failure is.
    ::signal(SIGXFSZ, SIG_IGN);

    struct sigaction action {};
    sigfillset(&action.sa_mask);
    for (const int signal : kRequests) {
        ::sigaction(signal, nullptr, &before[signal]);
        action.sa_handler = on_request;
        if (before[signal].sa_handler != SIG_IGN)
            ::sigaction(signal, &action, nullptr);
    }
    const stack_t stack = {crash_stack, 0, sizeof crash_stack};
    ::sigaltstack(&stack, nullptr);
    for (const int signal : kCrashes) {
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        action.sa_sigaction = on_crash;
        ::sigaction(signal, &action, &before[signal]);
    }
}

void finish_report() {
    if (std::fflush(stdout) != 0 || std::ferror(stdout))
        throw BadInput("standard output: the report cannot be written");
}

void end_out_of_memory() {
    say("kelrt: the job does not fit into this machine's memory\n");
    npy::remove_unfinished_files();
    ::_exit(2);
}

CrashSite::CrashSite(const std::string& file, size_t index, const std::string& title,
                     const std::string& label) {
    site_label = label.c_str();
    site_file = file.c_str();
    site_index = index;
    site_title = title.c_str();
}

CrashSite::~CrashSite() {
    site_title = nullptr;
}

}  // namespace tool
