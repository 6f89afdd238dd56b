// One daemon at a time.
#include "core/single_instance.h"

#include <unistd.h>

#include "made_up_machine.h"

class SingleInstance : public MadeUpMachineTest {
protected:
    void SetProgram(const std::string &pid, const std::string &program)
    {
        machine.Remove("/proc/" + pid + "/exe");
        machine.Link("/proc/" + pid + "/exe", program);
    }

    const std::string self = std::to_string(getpid());
};

static const char own_line[] = "My EXE path: /usr/sbin/quarryd\n";

// Alone on the machine, whatever else runs.
TEST_F(SingleInstance, OtherProgramsAreNone)
{
    SetProgram(self, "/usr/sbin/quarryd");
    SetProgram("12", "/usr/sbin/quarryd2");
    SetProgram("13", "/usr/sbin/quarry");
    SetProgram("14", "/usr/sbin/quarryd (deleted)");
    machine.MakeDirectory("/proc/15"); // its program cannot be seen
    for (const char *name : {"self", "0", "-5", "net"})
        SetProgram(name, "/usr/sbin/quarryd");
    EXPECT_EQ(another_instance_runs(), 0);
    EXPECT_EQ(errors.Take(), own_line);
}

// The same program in another process is one.
TEST_F(SingleInstance, SameProgramIsOne)
{
    SetProgram(self, "/usr/sbin/quarryd");
    SetProgram("12", "/usr/sbin/quarryd");
    EXPECT_EQ(another_instance_runs(), 1);
    EXPECT_EQ(errors.Take(),
              std::string(own_line) + "Another instance of myself is running. Quitting\n");
    machine.Remove("/proc/12");
    EXPECT_EQ(another_instance_runs(), 0);
    SetProgram("12and", "/usr/sbin/quarryd"); // what begins with a number is read as that number
    SetProgram("12", "/usr/sbin/quarryd");
    machine.Remove("/proc/12and");
    EXPECT_EQ(another_instance_runs(), 1);
}

// A program whose own path cannot be told has nothing to look for, and starts.
TEST_F(SingleInstance, UnknownSelfStarts)
{
    SetProgram("12", "/usr/sbin/quarryd");
    EXPECT_EQ(another_instance_runs(), 0);
    EXPECT_EQ(errors.Take(), "Cannot read /proc entry on what my EXE is. There is nothing to "
                             "prevent multiple instance of me from running!\n");
    EXPECT_EQ(machine.Opened("/proc"), 0);
}

// Where /proc cannot be searched there may be one.
TEST_F(SingleInstance, UnsearchableProcMayHoldOne)
{
    SetProgram(self, "/usr/sbin/quarryd");
    machine.Refuse("/proc", EACCES);
    EXPECT_EQ(another_instance_runs(), 1);
    EXPECT_EQ(errors.Take(),
              std::string(own_line) + "cannot opendir proc, assuming the worst...\n");
}

// 511 bytes of a path are compared.
TEST_F(SingleInstance, Compares511Bytes)
{
    const std::string path = "/" + std::string(510, 'q');
    SetProgram(self, path + "a");
    SetProgram("12", path + "b");
    EXPECT_EQ(another_instance_runs(), 1);
    SetProgram("12", path.substr(1) + "b");
    EXPECT_EQ(another_instance_runs(), 0);
}
