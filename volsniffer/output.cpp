#include "output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <unistd.h>

// What libblkid calls differently from the daemon. "hfsx" is HFS+ with case-sensitive names.
static const struct {
    const char *blkid;
    const char *daemon;
} renamed_filesystems[] = {
    {"vfat", "fat"},
    {"msdos", "fat"},
    {"hfsplus", "hfs+"},
    {"hfsx", "hfs+"},
};

const char *daemon_filesystem_name(const char *blkid_name)
{
    for (const auto &renamed : renamed_filesystems)
        if (strcmp(blkid_name, renamed.blkid) == 0)
            return renamed.daemon;
    return blkid_name;
}

// Bytes of the UTF-8 character at the start of text, its code point in code; 0 when the bytes there
// are no UTF-8: a stray or missing continuation byte, more bytes than needed, half of a surrogate
// pair, or past the last code point.
static size_t decode_utf8(const char *text, size_t length, unsigned &code)
{
    const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned lead = byte(0);
    if (lead < 0x80) {
        code = lead;
        return 1;
    }
    size_t size = 0;
    unsigned smallest = 0;
    if ((lead & 0xE0) == 0xC0) {
        size = 2;
        smallest = 0x80;
        code = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
        size = 3;
        smallest = 0x800;
        code = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
        size = 4;
        smallest = 0x10000;
        code = lead & 0x07;
    }
    if (size == 0 || size > length)
        return 0;
    for (size_t i = 1; i < size; i++) {
        if ((byte(i) & 0xC0) != 0x80)
            return 0;
        code = (code << 6) | (byte(i) & 0x3F);
    }
    if (code < smallest || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
        return 0;
    return size;
}

static bool is_harmful(unsigned code)
{
    return code == '/' || code < 0x20 || (code >= 0x7F && code <= 0x9F) // both sets of controls
           || code == 0x061C || code == 0x200E || code == 0x200F        // marks of direction
           || (code >= 0x2028 && code <= 0x202E)                        // separators, embeddings
           || (code >= 0x2066 && code <= 0x2069);                       // isolates
}

size_t harmless_text(std::string_view text, char *harmless, size_t limit)
{
    size_t kept = 0;
    for (size_t at = 0; at < text.size();) {
        unsigned code = 0;
        const size_t size = decode_utf8(text.data() + at, text.size() - at, code);
        const bool keep = size > 0 && !is_harmful(code);
        if (kept + (keep ? size : 1) > limit)
            break;
        if (keep) {
            memcpy(harmless + kept, text.data() + at, size);
            kept += size;
        } else {
            harmless[kept++] = '_';
        }
        at += size > 0 ? size : 1;
    }
    return kept;
}

size_t answer_text(const VolumeFacts &facts, bool label_only, char (&answer)[longest_answer])
{
    size_t length = harmless_text(facts.label, answer, longest_label);
    answer[length++] = '\n';
    if (label_only)
        return length;
    const struct {
        std::string_view key;
        const char *value;
    } lines[] = {
        {"  filesystem: ", daemon_filesystem_name(facts.filesystem)},
        {"  uuid: ", facts.uuid},
        {"  version: ", facts.version},
        {"  usage: ", facts.usage},
    };
    static_assert(longest_label + 1 + 4 * (sizeof("  filesystem: \n") + longest_value) <=
                  longest_answer);
    for (const auto &line : lines) {
        if (line.value[0] == '\0')
            continue;
        memcpy(answer + length, line.key.data(), line.key.size());
        length += line.key.size();
        length += harmless_text(line.value, answer + length, longest_value);
        answer[length++] = '\n';
    }
    return length;
}

int write_answer(int fd, std::string_view answer)
{
    const ssize_t written = write(fd, answer.data(), answer.size());
    if (written < 0)
        fprintf(stderr, "Cannot write the answer: %s\n", strerror(errno));
    else if (static_cast<size_t>(written) != answer.size())
        fprintf(stderr, "Cannot write the whole answer\n");
    return written >= 0 && static_cast<size_t>(written) == answer.size();
}
