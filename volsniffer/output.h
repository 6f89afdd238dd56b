// Turns what a volume says about itself into the lines that the daemon reads.
//
// The daemon takes the first line as the label and every further line as "key: value", and it reads
// once: what does not arrive in the first 4095 bytes is lost.
//
// The texts are plain arrays: the program is run for every partition at every listing, and to begin
// the language's library costs a tenth of a run.
#ifndef VOLSNIFFER_OUTPUT_H
#define VOLSNIFFER_OUTPUT_H

#include <cstddef>
#include <cstring>
#include <string_view>

// What is kept of each, in bytes. No label that a filesystem can hold comes near: HFS+ has the
// longest, 255 UTF-16 units.
constexpr size_t longest_label = 1024;
constexpr size_t longest_value = 255;
constexpr size_t longest_answer = 4095;

// Each text is as libblkid gives it, or empty when the volume has none. All have room for one
// character more than is kept, so that none is cut inside.
struct VolumeFacts {
    char label[longest_label + 5];
    char filesystem[longest_value + 5]; // libblkid's name: "vfat", "ext4"
    char uuid[longest_value + 5];
    char version[longest_value + 5];
    char usage[longest_value + 5]; // "filesystem", "crypto", "other"
};

// Copies text, or as much of it as there is room for, with a NUL behind it.
template <size_t size>
void set_text(char (&to)[size], std::string_view text)
{
    const size_t length = text.size() < size ? text.size() : size - 1;
    memcpy(to, text.data(), length);
    to[length] = '\0';
}

// The daemon's name of a filesystem, by which it chooses the driver: "fat" for "vfat". A filesystem
// that it has no name for keeps libblkid's.
const char *daemon_filesystem_name(const char *blkid_name);

// Copies the text with everything replaced by "_" that could leave a directory, break a line or a
// column, or command a terminal: slashes, control characters, line separators, characters that turn
// the writing direction round, and each byte that is no valid UTF-8. At most limit bytes are
// written, whole characters only and no NUL behind them. Returns how many.
size_t harmless_text(std::string_view text, char *harmless, size_t limit);

// Writes the label line, followed by one line for each fact there is unless label_only is set.
// Returns its length; it fits, whatever the facts hold.
size_t answer_text(const VolumeFacts &facts, bool label_only, char (&answer)[longest_answer]);

// Writes the answer with one write(2), because its reader reads once. Non-zero when all of it went.
int write_answer(int fd, std::string_view answer);

#endif
