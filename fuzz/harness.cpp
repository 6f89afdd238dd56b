// Taking inputs apart, breaking promises loudly, and keeping the daemon's words off the terminal.
#include "harness.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

static std::string said_text;
static FILE *terminal; // what stderr was at the start

Input::Input(const uint8_t *bytes, size_t size) : rest_(reinterpret_cast<const char *>(bytes), size)
{
}

unsigned Input::Byte()
{
    if (rest_.empty())
        return 0;
    const unsigned byte = static_cast<unsigned char>(rest_.front());
    rest_.remove_prefix(1);
    return byte;
}

uint64_t Input::Number(unsigned size)
{
    uint64_t number = 0;
    for (unsigned i = 0; i < size; i++)
        number |= static_cast<uint64_t>(Byte()) << (8 * i);
    return number;
}

std::string Input::Text()
{
    const std::string_view text = rest_.substr(0, rest_.find('\0'));
    rest_.remove_prefix(std::min(text.size() + 1, rest_.size()));
    return std::string(text);
}

std::string Input::Rest()
{
    const std::string text(rest_);
    rest_ = std::string_view();
    return text;
}

void break_promise(const char *condition, const char *file, int line)
{
    fprintf(terminal, "%s:%d: broken: %s\n", file, line, condition);
    fflush(stderr);
    fprintf(terminal, "the daemon said:\n%s\n", said_text.c_str());
    fflush(terminal);
    abort();
}

std::string said()
{
    fflush(stderr);
    return said_text;
}

std::string in_one_column(std::string text)
{
    std::replace_if(
        text.begin(), text.end(),
        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '_');
    return text;
}

bool is_whole_lines(std::string_view text)
{
    return text.empty() || text.ends_with('\n');
}

static ssize_t keep_what_is_said(void *, const char *bytes, size_t size)
{
    said_text.append(bytes, size);
    return static_cast<ssize_t>(size);
}

extern "C" {

// The daemon's assertions are promises too; the C library would print them where nobody looks.
[[noreturn]] void __wrap___assert_fail(const char *condition, const char *file, unsigned line,
                                       const char *)
{
    break_promise(condition, file, static_cast<int>(line));
}

// A run allocates and frees a few hundred times: long memories of that would take most of its time.
const char *__asan_default_options()
{
    return "malloc_context_size=4:quarantine_size_mb=2:thread_local_quarantine_size_kb=512:"
           "max_malloc_fill_size=0:detect_stack_use_after_return=0";
}

int LLVMFuzzerInitialize(int *, char ***)
{
    terminal = stderr;
    stderr = fopencookie(nullptr, "w", {nullptr, keep_what_is_said, nullptr, nullptr});
    return stderr ? 0 : -1;
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    Input input(bytes, size);
    examine(input);
    PROMISE(is_whole_lines(said()));
    said_text.clear();
    return 0;
}
}
