// Turns what a volume says about itself into the lines that the daemon reads.
//
// The daemon takes the first line as the label and every further line as "key: value", and it reads
// once: what does not arrive in the first 4095 bytes is lost.
#ifndef VOLSNIFFER_OUTPUT_H
#define VOLSNIFFER_OUTPUT_H

#include <cstddef>
#include <string>

// Each string is as libblkid gives it, or empty when the volume has none.
struct VolumeFacts {
    std::string label;
    std::string filesystem; // libblkid's name: "vfat", "ext4"
    std::string uuid;
    std::string version;
    std::string usage; // "filesystem", "crypto", "other"
};

constexpr size_t longest_answer = 4095;

// The daemon's name of a filesystem, by which it chooses the driver: "fat" for "vfat". A filesystem
// that it has no name for keeps libblkid's.
std::string daemon_filesystem_name(const std::string &blkid_name);

// The text with everything replaced by "_" that could leave a directory, break a line or a column,
// or command a terminal: slashes, control characters, line separators, characters that turn the
// writing direction round, and each byte that is no valid UTF-8. At most limit bytes are kept,
// whole characters only.
std::string harmless_text(const std::string &text, size_t limit);

// The label line, followed by one line for each fact there is unless label_only is set. Never
// longer than longest_answer, whatever the facts hold.
std::string answer_text(const VolumeFacts &facts, bool label_only);

// Writes the answer with one write(2), because its reader reads once. Non-zero when all of it went.
int write_answer(int fd, const std::string &answer);

#endif
