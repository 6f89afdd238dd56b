// What the label probe makes of the facts on a medium, and what the daemon then reads in it.
#include <algorithm>
#include <string>
#include <vector>

#include "harness.h"
#include "inspect/label_probe.h"
#include "volsniffer/output.h"

// Whether text is UTF-8 without a character that could do harm; told from the bytes by the table of
// well-formed sequences, not by decoding.
static bool is_harmless(const std::string &text)
{
    for (size_t i = 0; i < text.size();) {
        const auto byte = [&](size_t at) {
            return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U;
        };
        const auto goes_on = [&](size_t at) { return (byte(at) & 0xC0) == 0x80; };
        const unsigned lead = byte(i);
        const unsigned next = byte(i + 1);
        if (lead < 0x20 || lead == '/' || lead == 0x7F || (lead > 0x7F && lead < 0xC2) ||
            lead > 0xF4)
            return false;
        if (lead < 0x80) {
            i += 1;
        } else if (lead < 0xE0) {
            if (!goes_on(i + 1) || (lead == 0xC2 && next < 0xA0) || (lead == 0xD8 && next == 0x9C))
                return false;
            i += 2;
        } else if (lead < 0xF0) {
            if (!goes_on(i + 1) || !goes_on(i + 2) || (lead == 0xE0 && next < 0xA0) ||
                (lead == 0xED && next > 0x9F))
                return false;
            const unsigned last = byte(i + 2);
            if (lead == 0xE2 && ((next == 0x80 && last >= 0x8E && last <= 0x8F) ||
                                 (next == 0x80 && last >= 0xA8 && last <= 0xAE) ||
                                 (next == 0x81 && last >= 0xA6 && last <= 0xA9)))
                return false;
            i += 3;
        } else {
            if (!goes_on(i + 1) || !goes_on(i + 2) || !goes_on(i + 3) ||
                (lead == 0xF0 && next < 0x90) || (lead == 0xF4 && next > 0x8F))
                return false;
            i += 4;
        }
    }
    return true;
}

static std::string made_harmless(const std::string &text, size_t limit)
{
    // No byte more than it may write, or the sanitizer tells.
    std::vector<char> harmless(limit);
    const size_t length = harmless_text(text, harmless.data(), limit);
    PROMISE(length <= limit);
    return std::string(harmless.data(), length);
}

static void check_text(const std::string &text, size_t limit)
{
    const std::string harmless = made_harmless(text, limit);
    PROMISE(harmless.size() <= limit && harmless.size() <= text.size());
    PROMISE(is_harmless(harmless));
    PROMISE(made_harmless(harmless, limit) == harmless);
    PROMISE(!is_harmless(text) || text.starts_with(harmless));
    PROMISE(!is_harmless(text) || text.size() > limit || harmless == text);
    PROMISE(text.empty() || limit == 0 || harmless.size() > 0 || limit < 4);
}

void examine(Input &input)
{
    const size_t limit = input.Byte();
    std::string label = input.Text();
    const std::string filesystem = input.Text();
    const std::string uuid = input.Text();
    const std::string version = input.Text();
    // A short text many times over is a long one.
    for (unsigned times = input.Byte(); times > 0; times--)
        label += uuid;
    const std::string usage = input.Rest();
    check_text(label, limit);
    check_text(usage, limit);

    VolumeFacts facts;
    set_text(facts.label, label);
    set_text(facts.filesystem, filesystem);
    set_text(facts.uuid, uuid);
    set_text(facts.version, version);
    set_text(facts.usage, usage);
    char bytes[longest_answer];
    const std::string answer(bytes, answer_text(facts, false, bytes));
    PROMISE(answer.size() <= longest_answer && is_whole_lines(answer));
    char label_bytes[longest_answer];
    const std::string label_line(label_bytes, answer_text(facts, true, label_bytes));
    PROMISE(label_line == answer.substr(0, answer.find('\n') + 1));
    size_t facts_there = 0;
    for (const char *fact : {facts.filesystem, facts.uuid, facts.version, facts.usage})
        facts_there += fact[0] != '\0';
    PROMISE(static_cast<size_t>(std::count(answer.begin(), answer.end(), '\n')) == 1 + facts_there);

    // The daemon reads the same label and the same filesystem, and as much of them as is promised.
    std::string read_label;
    std::string read_filesystem = " ";
    parse_probe_answer(answer, read_label, &read_filesystem);
    PROMISE(read_label == made_harmless(facts.label, longest_label));
    PROMISE(read_filesystem ==
            (filesystem.empty()
                 ? " "
                 : made_harmless(daemon_filesystem_name(facts.filesystem), longest_value)));
    PROMISE(read_label == in_one_column(read_label));
    PROMISE(read_filesystem == in_one_column(read_filesystem));
}
