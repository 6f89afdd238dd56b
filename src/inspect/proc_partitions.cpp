// Reader of /proc/partitions.
#include "inspect/proc_partitions.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

#include "base/descriptor.h"
#include "base/small_files.h"
#include "base/words.h"

std::vector<ProcPartition> proc_partitions;

// One read of at most this many bytes: the table is looked at by people, never by a decision, so a
// machine with more partitions than fit loses nothing.
static const size_t table_limit = 16383;

// The decimal digits (with a sign) at the front of rest, and the blanks behind them, are taken off.
static std::string take_number(std::string_view &rest)
{
    size_t length = rest.find(' ');
    std::string number(rest.substr(0, length));
    rest.remove_prefix(number.size());
    skip_run(rest, ' ');
    return number;
}

static void parse_line(std::string_view line)
{
    if (line.starts_with('#'))
        return;
    skip_run(line, ' ');
    if (line.empty())
        return;
    ProcPartition row;
    row.major = atoi(take_number(line).c_str());
    if (row.major == 0) // the header line, which begins with a word, and whatever is no row
        return;
    row.minor = atoi(take_number(line).c_str());
    row.blocks = strtoull(take_number(line).c_str(), nullptr, 0);
    row.name = std::string(line.substr(0, line.find(' ')));
    proc_partitions.push_back(row);
}

void ReadProcPartitions()
{
    static char text[table_limit + 1];
    Descriptor file(open("/proc/partitions", O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) {
        fprintf(stderr, "Cannot open /proc/partitions\n");
        return;
    }
    ssize_t got = read(file.Get(), text, table_limit);
    text[got < 0 ? 0 : got] = '\0';
    proc_partitions.clear();
    LineReader lines(std::string_view(text, strlen(text)));
    for (std::string_view line; lines.Next(line);)
        parse_line(line);
}

ProcPartition *FindProcPartition(const std::string &name)
{
    for (ProcPartition &row : proc_partitions) {
        if (row.name == name)
            return &row;
    }
    return nullptr;
}

void DumpProcPartitions(FILE *stream)
{
    fprintf(stream, "Partitions:\n");
    size_t number = 1;
    for (const ProcPartition &row : proc_partitions)
        fprintf(stream, "  #%zu: (%d,%d) %llu blocks on %s\n", number++, row.major, row.minor,
                row.blocks, row.name.c_str());
}
