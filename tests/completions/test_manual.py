"""The client's manual page knows what its help tells."""
import os
import re

from test_completions import help_of

PAGE = os.path.join(os.path.dirname(__file__), "..", "..", "man", "quarryctl.1")


def test_the_manual_describes_every_verb_and_option_of_the_client_and_no_other():
    """Whatever is new or renamed there has its place in the page, too."""
    with open(PAGE, encoding="utf-8") as file:
        page = file.read()
    verbs, options = help_of()
    for verb in verbs:
        options |= help_of(verb)[1]
    assert set(re.findall(r"^\.It Cm (\w+)", page, re.MULTILINE)) == verbs
    described = {"-" + word.replace("\\", "") for word in re.findall(r"Fl (\\-\w+)", page)}
    assert described - {"--nfsx"} == options    # that one is the daemon's
