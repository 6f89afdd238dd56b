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
static char table_text[table_limit + 1];

// Takes the number at the front of text, and the blanks behind it. 0 when there is none.
static int take_int(const char *&text)
{
    char *end;
    const int number = static_cast<int>(strtol(text, &end, 10));
    text = end + strspn(end, " ");
    return number;
}

static void parse_line(std::string_view line)
{
    if (line.starts_with('#'))
        return;
    skip_run(line, ' ');
    const std::string row_text(line);
    const char *rest = row_text.c_str();
    ProcPartition row;
    row.major = take_int(rest);
    if (row.major == 0) // the header line, which begins with a word, and whatever is no row
        return;
    row.minor = take_int(rest);
    char *end;
    row.blocks = strtoull(rest, &end, 0);
    rest = end + strspn(end, " ");
    row.name = std::string(rest, strcspn(rest, " "));
    proc_partitions.push_back(row);
}

void ReadProcPartitions()
{
    Descriptor file(open("/proc/partitions", O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) {
        fprintf(stderr, "Cannot open /proc/partitions\n");
        return;
    }
    ssize_t got = read(file.Get(), table_text, table_limit);
    table_text[got < 0 ? 0 : got] = '\0';
    proc_partitions.clear();
    LineReader lines(std::string_view(table_text, strlen(table_text)));
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
