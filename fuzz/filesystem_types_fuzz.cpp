// /proc/filesystems.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "harness.h"
#include "machine_in_memory.h"
#include "mount/mount_tables.h"

static const size_t line_limit = 127;

static std::string table_of(const std::list<std::string> &types, const char *flag)
{
    std::string table;
    for (const std::string &type : types)
        table += flag + type + "\n";
    return table;
}

// The types of a table by what stands before the first tab of a line.
static std::list<std::string> types_by_hand(const std::string &table, bool nodev)
{
    std::list<std::string> types;
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        line = line.substr(0, line_limit);
        const size_t tab = line.find('\t');
        if (tab != std::string::npos && (line.substr(0, tab) == "nodev") == nodev)
            types.push_back(line.substr(tab + 1));
    }
    return types;
}

void examine(Input &input)
{
    MemoryMachine machine;
    const std::string stranger = input.Text();
    std::string table = input.Rest();
    std::replace(table.begin(), table.end(), '\0', '?'); // the kernel writes text
    machine.Write("/proc/filesystems", table);
    ReadProcFilesystems();
    PROMISE(filesystems_list == types_by_hand(table, false));
    PROMISE(filesystems_nodev_list == types_by_hand(table, true));
    size_t longest = 0;
    for (int nodev : {0, 1}) {
        const std::list<std::string> &types = nodev ? filesystems_nodev_list : filesystems_list;
        bool is_listed = false;
        for (const std::string &type : types) {
            PROMISE(type.size() < line_limit && type.find('\n') == std::string::npos);
            PROMISE(HaveFilesystem(type, nodev));
            is_listed = is_listed || type == stranger;
            longest = std::max(longest, type.size());
        }
        PROMISE(HaveFilesystem(stranger, nodev) == is_listed);
    }
    char *shown = nullptr;
    size_t shown_size = 0;
    FILE *stream = open_memstream(&shown, &shown_size);
    DumpFilesystems(stream);
    fclose(stream);
    PROMISE(std::string(shown, shown_size) == "filesystems\n" + table_of(filesystems_list, "  ") +
                                                  "filesystems (nodev)\n" +
                                                  table_of(filesystems_nodev_list, "  "));
    free(shown);

    // What was read says the same when the kernel says it; and it stays when the kernel is silent.
    const std::list<std::string> types = filesystems_list;
    const std::list<std::string> nodev_types = filesystems_nodev_list;
    if (longest + sizeof("nodev") > line_limit)
        return;
    machine.Write("/proc/filesystems", table_of(types, "\t") + table_of(nodev_types, "nodev\t"));
    ReadProcFilesystems();
    PROMISE(filesystems_list == types && filesystems_nodev_list == nodev_types);
    machine.Remove("/proc/filesystems");
    ReadProcFilesystems();
    PROMISE(filesystems_list == types && filesystems_nodev_list == nodev_types);
}
