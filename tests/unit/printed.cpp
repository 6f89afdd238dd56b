// Catching a standard stream in a file that has no name.
#include "printed.h"

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "made_up_kernel.h"

// Where the sanitizers write; absent in a build without them.
extern "C" void __sanitizer_set_report_fd(void *fd) __attribute__((weak));

static int captured_errors_fd; // while stderr is captured: where it goes now
static int true_errors_fd;     // and where it went before

// An assertion that fails unawares is for whoever runs the tests, too.
static void show_captured_errors(int number)
{
    struct stat captured;
    struct stat current;
    fstat(captured_errors_fd, &captured);
    fstat(STDERR_FILENO, &current);
    char chunk[4096];
    off_t position = 0;
    for (ssize_t got; captured.st_ino == current.st_ino &&
                      (got = pread(captured_errors_fd, chunk, sizeof(chunk), position)) > 0;) {
        if (write(true_errors_fd, chunk, static_cast<size_t>(got)) < 0)
            break;
        position += got;
    }
    signal(number, SIG_DFL);
    raise(number);
}

Printed::Printed(FILE *stream)
    : stream_(stream), saved_fd_(__real_fcntl(fileno(stream), F_DUPFD_CLOEXEC, 0)),
      memory_fd_(memfd_create("printed", MFD_CLOEXEC))
{
    fflush(stream_);
    dup2(memory_fd_, fileno(stream_));
    if (stream_ != stderr)
        return;
    captured_errors_fd = memory_fd_;
    true_errors_fd = saved_fd_;
    signal(SIGABRT, show_captured_errors);
    // A sanitizer's report is for whoever runs the tests.
    if (__sanitizer_set_report_fd)
        __sanitizer_set_report_fd(reinterpret_cast<void *>(static_cast<intptr_t>(saved_fd_)));
}

Printed::~Printed()
{
    fflush(stream_);
    dup2(saved_fd_, fileno(stream_));
    if (stream_ == stderr) {
        signal(SIGABRT, SIG_DFL);
        if (__sanitizer_set_report_fd)
            __sanitizer_set_report_fd(
                reinterpret_cast<void *>(static_cast<intptr_t>(STDERR_FILENO)));
    }
    __real_close(memory_fd_);
    __real_close(saved_fd_);
}

std::string Printed::Take()
{
    fflush(stream_);
    std::string text;
    char chunk[4096];
    __real_lseek(memory_fd_, 0, SEEK_SET);
    for (ssize_t got; (got = __real_read(memory_fd_, chunk, sizeof(chunk))) > 0;)
        text.append(chunk, static_cast<size_t>(got));
    if (ftruncate(memory_fd_, 0) < 0)
        abort();
    __real_lseek(memory_fd_, 0, SEEK_SET); // the stream writes at the same position
    return text;
}
