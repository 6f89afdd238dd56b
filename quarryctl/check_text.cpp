// What `check` prints, for people and for scripts.
#include <algorithm>

#include "check.h"
#include "listing.h"
#include "printable.h"

const char *severity_word(Severity severity)
{
    static const char *const words[] = {"error", "warning", "note"};
    return words[severity];
}

static size_t count(const Findings &findings, Severity severity)
{
    return static_cast<size_t>(
        std::count_if(findings.begin(), findings.end(),
                      [&](const Finding &finding) { return finding.severity == severity; }));
}

static std::string counted(size_t number, const std::string &word)
{
    return std::to_string(number) + " " + word + (number == 1 ? "" : "s");
}

std::string findings_text(const Findings &findings, const Style &style)
{
    static const Paint paints[] = {PAINT_RED, PAINT_YELLOW, PAINT_NONE};
    std::string text;
    for (const Finding &finding : findings) {
        text += painted(severity_word(finding.severity), paints[finding.severity], style) + ": " +
                printable(finding.place);
        if (finding.line > 0)
            text.append(1, ':').append(std::to_string(finding.line));
        text += ": " + printable(finding.effect) + "; " + printable(finding.remedy) + "\n";
    }
    if (findings.empty())
        return "Nothing to report.\n";
    return text + counted(count(findings, SEVERITY_ERROR), "error") + ", " +
           counted(count(findings, SEVERITY_WARNING), "warning") + ", " +
           counted(count(findings, SEVERITY_NOTE), "note") + "\n";
}

std::string findings_lines(const Findings &findings)
{
    std::string text;
    for (const Finding &finding : findings)
        text += join_plain({severity_word(finding.severity), finding.code, finding.place,
                            finding.line > 0 ? std::to_string(finding.line) : "", finding.effect,
                            finding.remedy});
    return text;
}
