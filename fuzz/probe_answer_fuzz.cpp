// What the label probe program prints, and how it ends.
#include "base/small_files.h"
#include "harness.h"
#include "inspect/label_probe.h"
#include "machine_in_memory.h"

void examine(Input &input)
{
    MemoryMachine machine;
    machine.child_status = static_cast<int>(input.Number(2));
    machine.probe_answer = input.Rest();

    std::string label = "as it was";
    std::string filesystem;
    const int done = probe_label("sdb1", label, &filesystem);
    PROMISE(done == (machine.child_status == 0));
    // Not empty, or the device would be probed at each listing.
    std::string only_label = "as it was";
    PROMISE(probe_label("/dev/sdb1", only_label, nullptr) == done && only_label == label);
    if (!done) {
        PROMISE(label == "as it was" && filesystem == " ");
        return;
    }
    // One read, and a text: what is behind 4095 bytes or a NUL is not there.
    std::string answer = machine.probe_answer.substr(0, 4095);
    answer = answer.substr(0, answer.find('\0'));
    PROMISE(label == answer.substr(0, answer.find('\n')));
    bool is_said = filesystem == " ";
    LineReader lines(answer);
    std::string_view line;
    for (lines.Next(line); lines.Next(line);)
        is_said = is_said || line.ends_with(":" + filesystem) || line.ends_with(": " + filesystem);
    PROMISE(is_said);
    PROMISE(said().find("Label: '" + label + "'\n") != std::string::npos);
}
