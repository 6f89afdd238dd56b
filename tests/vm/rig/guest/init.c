/* First program in the guest (static, in the initrd): loads the drivers of the root disk, mounts
 * it, hands the per-run files on in a tmpfs on /run and starts /run/rig/init of those files.
 *
 * Kernel command line: rig.root=vda1 rig.bus=virtio, and rig.first=0000:00:1f.2 to have that
 * controller driven before all others, so that the root disk is the first of its kind. */
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

static void die(const char *what)
{
    fprintf(stderr, "rig-initrd: %s: %s\n", what, strerror(errno));
    sleep(1);
    reboot(RB_POWER_OFF);
    for (;;)
        pause();
}

static char *option(char *cmdline, const char *key, const char *fallback)
{
    char *p = strstr(cmdline, key);
    if (!p)
        return strdup(fallback);
    p += strlen(key);
    return strndup(p, strcspn(p, " \n"));
}

static void load(const char *name)
{
    char path[300];
    snprintf(path, sizeof path, "/mods/%s.ko", name);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        die(path);
    if (syscall(SYS_finit_module, fd, "", 0) < 0 && errno != EEXIST)
        fprintf(stderr, "rig-initrd: %s: %s\n", path, strerror(errno));
    close(fd);
}

static void put(const char *path, const char *text)
{
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0 || write(fd, text, strlen(text)) < 0)
        fprintf(stderr, "rig-initrd: %s <- %s: %s\n", path, text, strerror(errno));
    if (fd >= 0)
        close(fd);
}

/* Lets the loaded drivers have the PCI devices that were held back. */
static void probe_the_rest(void)
{
    put("/sys/bus/pci/drivers_autoprobe", "1");
    DIR *d = opendir("/sys/bus/pci/devices");
    if (!d)
        die("/sys/bus/pci/devices");
    for (struct dirent *e; (e = readdir(d));) {
        char link[512];
        if (e->d_name[0] == '.')
            continue;
        snprintf(link, sizeof link, "/sys/bus/pci/devices/%s/driver", e->d_name);
        if (access(link, F_OK))
            put("/sys/bus/pci/drivers_probe", e->d_name);
    }
    closedir(d);
}

static void copy(const char *from, const char *to)
{
    char buf[65536];
    struct stat st;
    int in = open(from, O_RDONLY);
    if (in < 0 || fstat(in, &st) < 0)
        die(from);
    int out = open(to, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0)
        die(to);
    ssize_t n;
    while ((n = read(in, buf, sizeof buf)) > 0)
        if (write(out, buf, n) != n)
            die(to);
    fchmod(out, st.st_mode & 07777);
    close(in);
    close(out);
}

int main(void)
{
    static char cmdline[4096];
    mkdir("/dev", 0755);
    mkdir("/proc", 0755);
    mkdir("/root", 0755);
    if (mount("devtmpfs", "/dev", "devtmpfs", MS_NOSUID, "mode=0755"))
        die("devtmpfs");
    int con = open("/dev/console", O_RDWR);
    if (con >= 0) {
        dup2(con, 0);
        dup2(con, 1);
        dup2(con, 2);
        if (con > 2)
            close(con);
    }
    if (mount("proc", "/proc", "proc", 0, ""))
        die("proc");
    int fd = open("/proc/cmdline", O_RDONLY);
    if (fd < 0 || read(fd, cmdline, sizeof cmdline - 1) < 0)
        die("cmdline");
    close(fd);
    char *root = option(cmdline, "rig.root=", "vda1");
    char *bus = option(cmdline, "rig.bus=", "virtio");
    char *first = option(cmdline, "rig.first=", "");
    char path[300], line[256];
    if (*first) {
        mkdir("/sys", 0755);
        if (mount("sys", "/sys", "sysfs", 0, ""))
            die("sysfs");
        put("/sys/bus/pci/drivers_autoprobe", "0");
    }
    snprintf(path, sizeof path, "/mods.%s", bus);
    FILE *f = fopen(path, "r");
    if (!f)
        die(path);
    while (fgets(line, sizeof line, f)) {
        line[strcspn(line, "\n")] = 0;
        if (*line)
            load(line);
    }
    fclose(f);
    if (*first)
        put("/sys/bus/pci/drivers_probe", first);
    snprintf(path, sizeof path, "/dev/%s", root);
    for (int i = 0; access(path, F_OK); i++) {
        if (i > 6000)
            die(path);
        usleep(10000);
    }
    if (*first) {
        probe_the_rest();
        umount("/sys");
    }
    if (mount(path, "/root", "ext4", MS_NOATIME, ""))
        die("mount of the root file system");
    if (mount("tmpfs", "/root/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755"))
        die("/run");
    mkdir("/root/run/rig", 0755);
    DIR *d = opendir("/rig");
    if (!d)
        die("/rig");
    for (struct dirent *e; (e = readdir(d));) {
        char from[512], to[512];
        if (e->d_name[0] == '.')
            continue;
        snprintf(from, sizeof from, "/rig/%s", e->d_name);
        snprintf(to, sizeof to, "/root/run/rig/%s", e->d_name);
        copy(from, to);
    }
    closedir(d);
    if (mount("/dev", "/root/dev", "", MS_MOVE, ""))
        die("moving /dev");
    if (mount("/proc", "/root/proc", "", MS_MOVE, ""))
        die("moving /proc");
    if (chdir("/root") || mount(".", "/", "", MS_MOVE, "") || chroot(".") || chdir("/"))
        die("switch of root");
    char *argv[] = {"/run/rig/init", NULL};
    char *envp[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/root", NULL};
    execve(argv[0], argv, envp);
    die("/run/rig/init");
}
