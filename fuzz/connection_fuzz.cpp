// Clients on the control socket who say anything in pieces of any size, listen slowly, hang up, and
// talk over one another; the machine behind it has drives to list, mount and eject.
#include <algorithm>
#include <cerrno>
#include <memory>

#include "base/daemon_state.h"
#include "base/words.h"
#include "harness.h"
#include "machine_in_memory.h"
#include "mount/mount_tables.h"
#include "protocol/control_socket.h"
#include "protocol/socket_connection.h"
#include "record_promises.h"
#include "registry/block_device.h"

static const uid_t schedule = 77;
static const uid_t somebody = 1000;

// What a client has said, as the protocol's description has it, and what it must hear for that.
struct Talk {
    Client client;
    std::string line;        // so far
    bool is_asking = false;  // the line is complete and was not answered yet
    bool is_deaf = false;    // a send has failed: what was said then is lost
    size_t heard_before = 0; // bytes of earlier replies
    std::map<int, std::string> words;
};

// Every line but the last begins "OK-"; the last begins "OK " or "ERR ".
static bool is_reply(const std::string &text)
{
    std::vector<std::string> lines;
    if (!text.ends_with('\n'))
        return false;
    // Behind a mount that succeeded comes an empty line.
    if (text == "OK mount succeeded\n\n")
        return true;
    cut_at(text.substr(0, text.size() - 1), '\n', lines);
    for (size_t i = 0; i + 1 < lines.size(); i++) {
        if (!lines[i].starts_with("OK-"))
            return false;
    }
    return !lines.empty() && (lines.back().starts_with("OK ") || lines.back().starts_with("ERR "));
}

// What each client may get, and what is the same for all.
static void check_reply(const Talk &talk, const std::string &reply)
{
    static const std::map<std::string, const char *> for_root = {
        {"refresh", "ERR you must be root to do that\n"},
        {"hotplug", "ERR authorization required\n"},
        {"poll", "ERR authorization required\n"},
        {"polling", "ERR authorization required\n"},
        {"swapon", "ERR auth required\n"},
        {"swapoff", "ERR auth required\n"},
    };
    static const char *const others[] = {"list",  "enumerate", "eject",  "retract",
                                         "mount", "umount",    "notify", "help"};
    PROMISE(is_reply(reply));
    if (talk.words.empty()) {
        PROMISE(reply == "ERR no command given\n");
        return;
    }
    const std::string &word = talk.words.at(0);
    const auto argument = [&](int number) {
        const auto found = talk.words.find(number);
        return found == talk.words.end() ? std::string() : found->second;
    };
    const bool is_root = talk.client.uid == 0;
    if (for_root.contains(word)) {
        PROMISE(is_root == (reply != for_root.at(word)));
    } else if (std::find(std::begin(others), std::end(others), word) == std::end(others)) {
        PROMISE(reply == "ERR unknown command\n");
    } else if (word == "list" || word == "enumerate") {
        PROMISE(reply.starts_with("OK- ") || word == "enumerate");
        PROMISE(reply.ends_with("\nOK  eom\n"));
    } else if (word == "help") {
        PROMISE(reply.starts_with("OK-Valid commands are\n"));
    } else if (word == "notify") {
        PROMISE(is_root || reply.starts_with("ERR "));
    } else {
        PROMISE(talk.client.uid != schedule || reply.starts_with("ERR "));
        const std::string device = strip_dev(argument(word == "mount" ? 2 : 1));
        const bool is_roots = device == boot_drive || device == boot_partition ||
                              ((word == "mount" || word == "umount") &&
                               (device == main_drive || device == main_partition));
        PROMISE(is_root || !is_roots || reply.starts_with("ERR "));
    }
}

// The reply is out when the daemon reads on, or has nothing to do any more.
static void close_reply(Talk &talk, size_t heard)
{
    if (talk.is_asking)
        check_reply(talk, talk.client.heard.substr(talk.heard_before, heard - talk.heard_before));
    PROMISE(talk.is_asking || heard == talk.heard_before);
    talk.heard_before = heard;
    talk.is_asking = false;
}

// Takes over what the daemon has read since the last look.
static void read_along(Talk &talk)
{
    for (const auto &[bytes, heard] : talk.client.taken) {
        if (talk.is_deaf)
            break;
        close_reply(talk, heard);
        const size_t end = bytes.find_first_of("\r\n");
        talk.line += bytes.substr(0, end);
        if (end == std::string::npos)
            continue;
        talk.is_asking = true;
        talk.words.clear();
        split_request(talk.line, talk.words);
        talk.line.clear();
    }
    talk.client.taken.clear();
}

// The drives' files, made once: most of a run would go into making them again.
static MemoryMachine::Nodes make_files()
{
    MemoryMachine machine;
    for (const char *drive : {"sda", "sdb", "sr0"})
        machine.Write(std::string("/sys/block/") + drive + "/size", "409600\n");
    for (const char *partition : {"sda/sda1", "sdb/sdb1", "sdb/sdb2"})
        machine.Write(std::string("/sys/block/") + partition + "/size", "2048\n");
    for (const char *device : {"sda", "sda1", "sdb", "sdb1", "sdb2", "sr0"})
        machine.Device(std::string("/dev/") + device, 65536);
    machine.Find("/dev/sdb1")->filesystem = "vfat";
    machine.Find("/dev/sdb2")->filesystem = "ext4";
    machine.Find("/dev/sr0")->filesystem = "iso9660";
    machine.Find("/dev/sda1")->filesystem = "ext4";
    machine.Write("/proc/filesystems", "nodev\tproc\n\text4\n\tvfat\n\tiso9660\n");
    machine.Write("/proc/swaps", "Filename Type Size Used Priority\n");
    machine.Write("/proc/partitions", "major minor  #blocks  name\n\n   8 0 204800 sda\n");
    machine.Write("/files/data", "");
    machine.Write("/files/film", "");
    machine.Find("/files/film")->is_write_protected = true;
    machine.Write("/mnt/.", "");
    machine.Remove("/mnt/.");
    return machine.nodes;
}

static BlockDevice *add_drive(const std::string &name, const std::string &type)
{
    BlockDevice *drive = blockdev_list[name] = new BlockDevice(name);
    drive->type = type;
    drive->sysfs_path = "/sys/block/" + name;
    drive->connection = &connection_types[CONNECTION_SATA];
    return drive;
}

static void add_partition(BlockDevice *drive, const std::string &name)
{
    PartitionDevice *partition = partdev_list[name] = new PartitionDevice(name);
    partition->set_parent(drive);
}

// Some use the stick, one way or another; the last does not.
static void add_processes(MemoryMachine &machine)
{
    machine.Process(21, "cwd", "/mnt/sdb1", false);
    machine.Process(22, "fd/3", "/mnt/sdb1/film", true);
    machine.Find("/proc/22/fd/3")->opened = "/files/film";
    machine.Process(23, "fd/4", "/mnt/sdb1/data", true);
    machine.Find("/proc/23/fd/4")->opened = "/files/data";
    machine.Process(24, "root", "/mnt/sdb2", false);
    machine.Process(25, "cwd", "/home/sdb1", false);
    machine.Find("/proc/25/cwd")->opened = "/files/data";
}

class Room {
public:
    Room(const MemoryMachine::Nodes &files, unsigned mounts)
    {
        machine.nodes = files;
        add_processes(machine);
        if (mounts & 1) {
            machine.Write("/mnt/sdb1/.", "");
            machine.Remove("/mnt/sdb1/.");
            machine.Mounted("/dev/sdb1", "/mnt/sdb1", "vfat", "rw,nosuid,nodev,noexec");
        }
        if (mounts & 2)
            machine.Mounted("/dev/sdb2", "/media/my stick", "ext4", "ro,nosuid,nodev");
        machine.Mounted("/dev/sda1", "/", "ext4", "rw");
        boot_drive = "sda";
        boot_partition = "sda1";
        schedule_uid = static_cast<int>(schedule);
        ReadProcFilesystems();
        add_partition(add_drive("sda", "Hard Drive"), "sda1");
        BlockDevice *stick = add_drive("sdb", "Hard Drive");
        add_partition(stick, "sdb1");
        add_partition(stick, "sdb2");
        add_drive("sr0", "CD-ROM");
        PROMISE(init_socket());
    }
    ~Room()
    {
        close_control_socket();
    }

    Talk &Connect(uid_t uid)
    {
        talks.push_back(std::make_unique<Talk>());
        talks.back()->client.uid = uid;
        machine.waiting_clients.push_back(&talks.back()->client);
        return *talks.back();
    }

    MemoryMachine machine;
    std::vector<std::unique_ptr<Talk>> talks;
    bool may_evict = false; // somebody has asked for it, or may have
};

// One of the things that can go wrong on a connection.
static void disturb(Talk &talk, unsigned how)
{
    static const int read_faults[] = {EAGAIN, ECONNRESET, EINTR, 0};
    static const int send_faults[] = {EAGAIN, EPIPE, ECONNRESET, 0};
    if (how & 4) {
        talk.client.read_errors.push_back(read_faults[how & 3]);
        return;
    }
    talk.client.send_errors.push_back(send_faults[how & 3]);
    talk.is_deaf = talk.is_deaf || (how & 3) == 1 || (how & 3) == 2;
}

static void change_machine(MemoryMachine &machine, unsigned how, Input &input)
{
    switch (how & 3) {
    case 0:
        machine.probe_answer = input.Text();
        break;
    case 1:
        machine.disc_status = static_cast<int>(how >> 2);
        break;
    default:
        machine.child_status = how & 4 ? 256 : 0;
    }
}

// What holds between any two passes.
static void check_machine(Room &room)
{
    for (const auto &one : room.talks) {
        read_along(*one);
        const auto how = one->words.find(1);
        room.may_evict = room.may_evict || one->is_deaf ||
                         (how != one->words.end() && how->second.starts_with("rude"));
    }
    PROMISE(room.machine.AreMountsProtected());
    PROMISE(room.machine.evictions == 0 || room.may_evict);
}

// Until there is nothing to do: one pass may find none because it passes a client over.
static void serve_until_idle(Room &room)
{
    for (int idle = 0, passes = 0; idle < 3; passes++) {
        PROMISE(passes < 20000);
        idle = serve_control_socket() || !room.machine.waiting_clients.empty() ? 0 : idle + 1;
        check_machine(room);
    }
}

void examine(Input &input)
{
    static const uid_t uids[] = {0, somebody, schedule, 0};
    static const MemoryMachine::Nodes files = make_files();
    const unsigned how = input.Byte();
    Room room(files, how >> 5);
    hotplug_mode = how & 4 ? 1 : 0;
    if (how & 8)
        main_partition = "sdb2";
    if (how & 16)
        settings.swap_name = "swap.img";
    if (how & 128) {
        find_partition("sda1")->label = "SYSTEM";
        find_partition("sdb2")->label = "DATA";
        find_partition("sda1")->filesystem = find_partition("sdb2")->filesystem = "ext4";
    }
    room.machine.probe_answer = "STICK\n  filesystem: vfat\n";
    Talk *talk = &room.Connect(uids[how & 3]);
    while (!input.IsEmpty()) {
        const unsigned step = input.Byte();
        switch (step & 7) {
        case 4:
            disturb(*talk, step >> 3);
            break;
        case 5:
            talk->client.send_limit = 1 + (step >> 3) * 8;
            break;
        case 6:
            talk->client.has_left = talk->client.has_left || step & 8;
            talk->is_deaf = talk->is_deaf || talk->client.has_left;
            if (room.talks.size() < 8)
                talk = &room.Connect(uids[(step >> 4) & 3]);
            break;
        case 7:
            if (step & 8)
                talk = room.talks[(step >> 4) % room.talks.size()].get();
            else
                change_machine(room.machine, step >> 4, input);
            break;
        default: {
            std::string chunk = input.Text();
            for (unsigned times = step & 16 ? step >> 5 : 0; times > 0; times--)
                chunk += chunk.substr(0, 256);
            if (step & 8)
                chunk += '\n';
            if (!chunk.empty() && !talk->client.has_left)
                talk->client.unread.push_back(chunk);
        }
        }
        serve_control_socket();
        check_machine(room);
    }

    // Those who stay get what they asked for; those who have left are forgotten.
    for (const auto &one : room.talks) {
        one->client.read_errors.clear();
        one->client.send_errors.clear();
        one->client.send_limit = ~static_cast<size_t>(0);
    }
    serve_until_idle(room);
    for (const auto &one : room.talks) {
        read_along(*one);
        PROMISE(one->client.is_accepted && one->client.is_closed == one->client.has_left);
        if (one->is_deaf)
            continue;
        PROMISE(one->client.unread.empty());
        close_reply(*one, one->client.heard.size());
    }
    check_records();
}
