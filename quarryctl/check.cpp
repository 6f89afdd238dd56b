#include "check.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "json_output.h"

Findings check_everything(const Installation &installation)
{
    Findings findings;
    check_configuration(installation, findings);
    check_hooks(installation, findings);
    check_programs(installation, findings);
    check_mnt(installation, findings);
    check_hotplug(installation, findings);
    check_running_system(installation, findings);
    return findings;
}

ExitStatus run_check(OutputForm form, const std::string &root)
{
    const Installation installation(root);
    if (!installation.IsOpen()) {
        complain("cannot look into " + root + ": " + strerror(errno));
        return EXIT_REFUSED;
    }
    const Findings findings = check_everything(installation);
    if (form == FORM_JSON)
        fputs(findings_json(findings).c_str(), stdout);
    else if (form == FORM_PLAIN)
        fputs(findings_lines(findings).c_str(), stdout);
    else
        fputs(findings_text(findings, style_of_stdout()).c_str(), stdout);
    const bool is_sound = std::all_of(findings.begin(), findings.end(), [](const Finding &finding) {
        return finding.severity == SEVERITY_NOTE;
    });
    return is_sound ? EXIT_DONE : EXIT_REFUSED;
}
