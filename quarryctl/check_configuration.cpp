// What is wrong with the configuration file.
#include <algorithm>
#include <cctype>
#include <fcntl.h>
#include <map>

#include "base/daemon_state.h"
#include "base/small_files.h"
#include "base/words.h"
#include "check.h"
#include "check_scripts.h"
#include "core/configuration.h"
#include "core/main_partition_search.h"

static const size_t file_limit = size_t{1} << 20;

// What is known of the file while its lines are taken.
struct Reading {
    Findings &findings;
    std::map<std::string, int> lines; // of a key: where it stood last
    bool has_carriage_returns = false;
};

static void add(Reading &reading, Severity severity, const char *code, int line,
                const std::string &effect, const std::string &remedy)
{
    reading.findings.push_back({severity, code, configuration_file, line, effect, remedy});
}

// Small letters, and one blank for whatever stands between two words.
static std::string simplified(std::string_view key)
{
    std::string simple;
    for (const char c : key) {
        const auto letter = static_cast<unsigned char>(c);
        if (letter == 0 || isspace(letter) || c == '-' || c == '_' || c == '.')
            simple += simple.empty() || simple.ends_with(' ') ? "" : " ";
        else
            simple += static_cast<char>(tolower(letter));
    }
    return simple.substr(0, simple.find_last_not_of(' ') + 1);
}

// How many letters must be added, dropped or changed to make one text of the other.
static size_t edit_distance(const std::string &a, const std::string &b)
{
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); j++)
        row[j] = j;
    for (size_t i = 1; i <= a.size(); i++) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); j++) {
            const size_t changed = diagonal + (a[i - 1] != b[j - 1]);
            diagonal = row[j];
            row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row[b.size()];
}

// Whether every word of the key is one of the known key's.
static bool has_only_words_of(const std::string &known, const std::string &key)
{
    std::vector<std::string> words;
    std::vector<std::string> known_words;
    cut_at(key, ' ', words);
    cut_at(known, ' ', known_words);
    return !words.empty() && std::all_of(words.begin(), words.end(), [&](const std::string &word) {
        return std::find(known_words.begin(), known_words.end(), word) != known_words.end();
    });
}

// The known key that somebody may have meant, or "".
static std::string nearest_key(const std::string &key)
{
    const size_t most_changes = 4;
    std::string nearest;
    size_t least = std::min(most_changes, key.size() / 2) + 1;
    for (const ConfigurationKey &known : configuration_keys()) {
        const size_t distance = edit_distance(key, known.name);
        if (distance < least) {
            least = distance;
            nearest = known.name;
        }
    }
    if (!nearest.empty())
        return nearest;
    for (const ConfigurationKey &known : configuration_keys()) {
        if (!has_only_words_of(known.name, key))
            continue;
        if (!nearest.empty())
            return std::string(); // "main" may be any of three
        nearest = known.name;
    }
    return nearest;
}

static bool is_known(std::string_view key)
{
    const auto keys = configuration_keys();
    return std::any_of(keys.begin(), keys.end(),
                       [&](const ConfigurationKey &known) { return key == known.name; });
}

static std::string quoted(std::string_view text)
{
    const size_t enough = 60;
    std::string quote(1, '"');
    quote += text.substr(0, enough);
    return quote + (text.size() > enough ? "...\"" : "\"");
}

static void check_unknown_key(Reading &reading, int number, std::string_view key)
{
    const std::string byte_order_mark = "\xef\xbb\xbf";
    std::string_view rest = key;
    if (number == 1 && rest.starts_with(byte_order_mark)) {
        rest.remove_prefix(byte_order_mark.size());
        if (is_known(rest)) {
            add(reading, SEVERITY_ERROR, "config-byte-order-mark", number,
                "the line is ignored: an invisible byte order mark stands before the key",
                "save the file as UTF-8 without a byte order mark");
            return;
        }
    }
    const std::string simple = simplified(rest);
    const std::string nearest = is_known(simple) ? simple : nearest_key(simple);
    if (nearest.empty()) {
        std::string keys;
        for (const ConfigurationKey &known : configuration_keys())
            keys += (keys.empty() ? "" : ", ") + std::string(known.name);
        add(reading, SEVERITY_WARNING, "config-key-unknown", number,
            "the line is ignored: there is no key " + quoted(key),
            "remove it; the keys are: " + keys);
        return;
    }
    const bool is_indented = rest.starts_with(' ') || rest.starts_with('\t');
    const std::string_view unindented =
        rest.substr(std::min(rest.find_first_not_of(" \t"), rest.size()));
    if (is_indented && is_known(unindented))
        add(reading, SEVERITY_ERROR, "config-key-indented", number,
            "the line is ignored: its key is indented", "begin the line with the key");
    else if (rest.find('\t') != std::string_view::npos)
        add(reading, SEVERITY_ERROR, "config-key-tab", number,
            "the line is ignored: a tab belongs to the key", "write blanks, not tabs");
    else
        add(reading, SEVERITY_ERROR, "config-key-misspelt", number,
            "the line is ignored: there is no key " + quoted(key),
            "write \"" + nearest + "\", if that is meant");
}

static bool is_quoted(std::string_view value)
{
    return value.size() >= 2 && (value[0] == '"' || value[0] == '\'') && value.back() == value[0];
}

static void check_value(Reading &reading, int number, std::string_view key, std::string_view value)
{
    if (value.empty()) {
        add(reading, SEVERITY_NOTE, "config-value-empty", number,
            quoted(key) + " counts as not set", "give it a value, or remove the line");
        return;
    }
    if (value.ends_with(' ') || value.ends_with('\t'))
        add(reading, SEVERITY_WARNING, "config-value-trailing", number,
            "the blanks behind the value belong to it", "remove them");
    if (value.starts_with('\t'))
        add(reading, SEVERITY_WARNING, "config-value-tab", number,
            "the tab before the value belongs to it", "write a blank, or nothing");
    if (is_quoted(value))
        add(reading, SEVERITY_WARNING, "config-value-quoted", number,
            "the quotes belong to the value", "remove them; blanks need none");
    if (value.find(" #") != std::string_view::npos || value.find("\t#") != std::string_view::npos)
        add(reading, SEVERITY_WARNING, "config-value-comment", number,
            "what looks like a comment belongs to the value", "put it on a line of its own");
    if (key == "main drive model")
        add(reading, SEVERITY_WARNING, "config-deprecated", number,
            "nothing but a warning at every start: drives are found by what they hold",
            "use \"main partition signature\" or \"main partition label\"");
    if (key == "main partition signature" && value.size() > signature_limit)
        add(reading, SEVERITY_ERROR, "config-signature-too-long", number,
            "the main partition is never found: of its file .claimsig no more than " +
                std::to_string(signature_limit) + " bytes are read",
            "use a shorter signature");
}

static void check_line_without_setting(Reading &reading, int number, std::string_view line)
{
    const size_t start = line.find_first_not_of(" \t");
    if (start == std::string_view::npos || line[start] == '#')
        return; // what is ignored was meant to be
    add(reading, SEVERITY_WARNING, "config-no-equals", number,
        "the line is ignored: there is no \"=\" in it",
        "write \"key = value\", or a \"#\" at its beginning");
}

static void check_line(Reading &reading, int number, std::string_view line)
{
    if (line.size() > configuration_line_limit) {
        add(reading, SEVERITY_ERROR, "config-line-too-long", number,
            "the line is ignored: it has more than " + std::to_string(configuration_line_limit) +
                " bytes",
            "shorten it");
        return;
    }
    std::string_view key;
    std::string_view value;
    if (!split_configuration_line(line, key, value)) {
        check_line_without_setting(reading, number, line);
        return;
    }
    const size_t start = line.find_first_not_of(" \t");
    if (start != std::string_view::npos && line[start] == '#')
        return;
    if (!is_known(key)) {
        check_unknown_key(reading, number, key);
        return;
    }
    const int earlier = reading.lines[std::string(key)];
    reading.lines[std::string(key)] = number;
    if (earlier > 0)
        add(reading, SEVERITY_WARNING, "config-key-repeated", number,
            "this value replaces that of line " + std::to_string(earlier), "remove one of both");
    if (value.ends_with('\r')) {
        value.remove_suffix(1);
        if (!reading.has_carriage_returns)
            add(reading, SEVERITY_ERROR, "config-carriage-return", number,
                "a carriage return at the end of the line belongs to the value, here and maybe "
                "below",
                "save the file with plain line ends (dos2unix)");
        reading.has_carriage_returns = true;
    }
    check_value(reading, number, key, value);
}

// The swap file's name becomes part of a path that is compared with the kernel's, as text.
static void check_swap_name(Reading &reading)
{
    const std::string &name = settings.swap_name;
    if (name.empty())
        return;
    const int line = reading.lines["swap name"];
    if (settings.main_partition_label.empty() && settings.main_partition_signature.empty())
        add(reading, SEVERITY_ERROR, "config-swap-without-main", line,
            "the swap file is never used: no main partition is looked for that it could be on",
            "set \"main partition signature\" or \"main partition label\"");
    std::vector<std::string> pieces;
    cut_at(name, '/', pieces);
    const bool is_plain = std::none_of(pieces.begin(), pieces.end(), [](const std::string &piece) {
        return piece.empty() || piece == "." || piece == "..";
    });
    if (!is_plain)
        add(reading, SEVERITY_WARNING, "config-swap-name-path", line,
            "the swap file is not recognised when it is in use, and not switched off on demand: "
            "the "
            "kernel lists it by another path",
            "name it by its path from the root of the main partition, without a slash in front, "
            "\".\" or \"..\"");
    if (name.find_first_of("\"$`\\") != std::string::npos)
        add(reading, SEVERITY_WARNING, "config-swap-name-shell", line,
            "when the file must be formatted, a shell interprets its name",
            "use a name without \", $, ` and \\");
}

void check_configuration_text(std::string_view text, Findings &findings)
{
    Reading reading = {findings, {}, false};
    settings = Settings();
    if (text.find('\0') != std::string_view::npos) {
        add(reading, SEVERITY_ERROR, "config-not-text", 0,
            "the settings are not what they look like: there are zero bytes in the file",
            "save it as plain text (UTF-8)");
    }
    LineReader lines(text);
    int number = 0;
    for (std::string_view line; lines.Next(line);) {
        number++;
        check_line(reading, number, line);
        apply_configuration_line(line);
    }
    check_swap_name(reading);
}

void check_configuration(const Installation &installation, Findings &findings)
{
    struct stat status;
    settings = Settings();
    if (!installation.Status(configuration_file, status)) {
        findings.push_back({SEVERITY_NOTE, "config-missing", configuration_file, 0,
                            "nothing is set: no main partition, no swap file, no site scripts",
                            "make the file, if any of these is wanted"});
        return;
    }
    if (!S_ISREG(status.st_mode)) {
        findings.push_back({SEVERITY_ERROR, "config-not-a-file", configuration_file, 0,
                            "nothing is set: it is not a regular file", "put a text file there"});
        return;
    }
    Descriptor file(installation.Open(configuration_file, O_RDONLY | O_NONBLOCK));
    if (!file.IsOpen()) {
        findings.push_back({SEVERITY_ERROR, "config-unreadable", configuration_file, 0,
                            "it could not be examined: you may not read it", "run check as root"});
        return;
    }
    check_configuration_text(installation.Beginning(configuration_file, file_limit), findings);
    check_who_may_write(installation, configuration_file, findings);
    check_site_script(installation, "startup script", settings.startup_script, findings);
    check_site_script(installation, "shutdown script", settings.shutdown_script, findings);
}
