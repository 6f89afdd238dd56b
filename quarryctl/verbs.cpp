#include "verbs.h"

#include <cstdio>
#include <unistd.h>

#include "printable.h"

// Says what went wrong, if something did.
static ExitStatus report(const Answer &answer)
{
    if (answer.status != EXIT_DONE)
        complain(answer.complaint);
    return answer.status;
}

ExitStatus run_list(OutputForm, double seconds)
{
    return run_request({"list", "human"}, seconds);
}

ExitStatus run_enumerate(OutputForm, double seconds)
{
    return run_request({"enumerate"}, seconds);
}

ExitStatus run_mount(const std::string &mode, const std::string &device, double seconds)
{
    return run_request({"mount", mode, device}, seconds);
}

ExitStatus run_request(const std::vector<std::string> &words, double seconds)
{
    std::string request;
    if (!request_of(words, request)) {
        complain("the daemon cannot be told this: a line end or a quote is in it");
        return EXIT_USAGE;
    }
    const Answer answer = ask_daemon(request, seconds);
    if (answer.status != EXIT_DONE)
        return report(answer);
    for (const std::string &line : answer.reply.lines)
        printf("%s\n", printable(line).c_str());
    printf("%s\n", printable(answer.reply.text).c_str());
    return EXIT_DONE;
}

ExitStatus run_raw(const std::string &line, double seconds)
{
    return run_request({line}, seconds);
}
