#include "watch.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <map>
#include <poll.h>
#include <set>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include "printable.h"
#include "table.h"

using Clock = std::chrono::steady_clock;

// The device as it is now, with a new mark or an old one whose time is not over.
static WatchedDevice followed(const WatchedDevice *earlier, const ListedDevice &now,
                              Clock::time_point time)
{
    if (!earlier || earlier->mark == MARK_WENT)
        return {now, MARK_CAME, time};
    if (earlier->listed != now)
        return {now, MARK_CHANGED, time};
    const bool is_over = time - earlier->marked >= mark_lifetime;
    return {now, is_over ? MARK_NONE : earlier->mark, earlier->marked};
}

std::vector<WatchedDevice> follow(const std::vector<WatchedDevice> &before,
                                  const std::vector<ListedDevice> &now, Clock::time_point time)
{
    std::map<std::string, const WatchedDevice *> earlier;
    for (const WatchedDevice &watched : before)
        earlier[watched.listed.device.name] = &watched;
    std::set<std::string> to_come; // what is there now and not yet in the result
    for (const ListedDevice &listed : now)
        to_come.insert(listed.device.name);
    const std::set<std::string> is_there = to_come;

    std::vector<WatchedDevice> result;
    size_t next = 0;
    const auto take_next = [&] {
        const ListedDevice &listed = now[next++];
        const auto found = earlier.find(listed.device.name);
        result.push_back(followed(found == earlier.end() ? nullptr : found->second, listed, time));
        to_come.erase(listed.device.name);
    };
    for (const WatchedDevice &watched : before) {
        const std::string &name = watched.listed.device.name;
        if (is_there.contains(name)) {
            while (to_come.contains(name))
                take_next();
        } else if (watched.mark != MARK_WENT) {
            result.push_back({watched.listed, MARK_WENT, time});
        } else if (time - watched.marked < mark_lifetime) {
            result.push_back(watched);
        }
    }
    while (next < now.size())
        take_next();
    return result;
}

// Signals as something that can be waited for together with the daemon's socket.
struct Signals {
    int ending = -1;   // whoever wants the program to end, or to stop for a while
    int resizing = -1; // the terminal has another size
};

static int make_signal_fd(std::initializer_list<int> numbers)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers)
        sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

// The number of a signal that has come; 0 when none has.
static int take_signal(int fd)
{
    signalfd_siginfo info = {};
    return read(fd, &info, sizeof(info)) == sizeof(info) ? static_cast<int>(info.ssi_signo) : 0;
}

// The terminal while the table is on it: its other screen, no cursor, keys that come at once.
class Screen {
public:
    Screen() = default;
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;
    ~Screen()
    {
        Leave();
    }

    void Enter()
    {
        if (is_entered_)
            return;
        has_keys_ = tcgetattr(STDIN_FILENO, &found_) == 0;
        if (has_keys_) {
            termios wanted = found_;
            wanted.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
            wanted.c_cc[VMIN] = 1;
            wanted.c_cc[VTIME] = 0;
            tcsetattr(STDIN_FILENO, TCSADRAIN, &wanted);
        }
        fputs("\033[?1049h\033[?25l", stdout);
        fflush(stdout);
        is_entered_ = true;
    }

    void Leave()
    {
        if (!is_entered_)
            return;
        fputs("\033[?25h\033[?1049l", stdout);
        fflush(stdout);
        // What was typed meanwhile was meant for the table.
        if (has_keys_)
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &found_);
        is_entered_ = false;
    }

    bool HasKeys() const
    {
        return has_keys_;
    }

    // Where keys come from has gone.
    void ForgetKeys()
    {
        has_keys_ = false;
    }

private:
    termios found_ = {};
    bool has_keys_ = false;
    bool is_entered_ = false;
};

struct Watch {
    double interval = 0;
    double seconds = 0;
    bool has_terminal = false;
    Signals signals;
    Screen screen;
    std::vector<WatchedDevice> devices;
    std::string complaint; // why the list is not of now; empty when it is
    bool has_list = false; // there was one, at some time
};

static Row watched_row(const WatchedDevice &watched)
{
    static const char *const marks[] = {"  ", "+ ", "- ", "* "};
    static const Paint paints[] = {PAINT_NONE, PAINT_GREEN, PAINT_RED, PAINT_YELLOW};
    Row row = device_row(watched.listed);
    row.cells[0].insert(0, marks[watched.mark] + std::string(row.indent, ' '));
    row.indent = 0; // the mark stands before it
    if (watched.mark != MARK_NONE) {
        row.paint = paints[watched.mark];
        row.is_painted_whole = true;
    }
    return row;
}

static std::string clock_text()
{
    const time_t now = time(nullptr);
    tm parts = {};
    localtime_r(&now, &parts);
    char text[16];
    strftime(text, sizeof(text), "%H:%M:%S", &parts);
    return text;
}

static size_t screen_height()
{
    winsize size = {};
    const bool is_known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
    return is_known ? size.ws_row : 24;
}

// Draws over what is there: lines are emptied to their ends, not before, so nothing flickers.
static void draw(const Watch &watch)
{
    static const char emptied_end[] = "\033[K\r\n";
    const Style style = style_of_stdout();
    std::vector<Column> columns = device_columns();
    columns[0].heading = "  NAME"; // below it are the marks
    std::vector<Row> rows;
    for (const WatchedDevice &watched : watch.devices)
        rows.push_back(watched_row(watched));
    const std::string table = render_table(std::move(columns), std::move(rows), style);

    const std::string status =
        watch.complaint.empty()
            ? clock_text() + "   + came   - went   * changed   q quits"
            : clock_text() + "   " + printable(watch.complaint) + "; waiting   q quits";
    const std::string_view fitting =
        style.width > 0 ? fitting_part(status, style.width) : std::string_view(status);
    std::string picture = "\033[H";
    picture +=
        painted(std::string(fitting), watch.complaint.empty() ? PAINT_NONE : PAINT_RED, style);
    size_t room = screen_height() - 1;
    for (size_t start = 0; start < table.size() && room > 0; room--) {
        const size_t end = table.find('\n', start);
        picture += emptied_end;
        picture += table.substr(start, end - start);
        start = end + 1;
    }
    picture += "\033[K\033[J";
    fwrite(picture.data(), 1, picture.size(), stdout);
}

static void print_changes(const Watch &watch, Clock::time_point time, bool is_first)
{
    static const char *const words[] = {"", "added", "removed", "changed"};
    for (const WatchedDevice &watched : watch.devices) {
        const bool is_news = watched.mark != MARK_NONE && watched.marked == time;
        if (is_news)
            printf("%s\t%s", is_first ? "present" : words[watched.mark],
                   plain_line(watched.listed).c_str());
    }
}

// Says once that the daemon is gone, and once that it is back.
static void note_complaint(Watch &watch, const std::string &complaint)
{
    if (!watch.has_terminal && watch.has_list && watch.complaint != complaint)
        complain(complaint.empty() ? "the daemon answers again" : complaint + "; waiting");
    watch.complaint = complaint;
}

// Asks for the list once. EXIT_DONE when it came, or when a signal was first.
static ExitStatus take_list(Watch &watch)
{
    const Answer answer = ask_daemon("list", watch.seconds, watch.signals.ending);
    if (answer.is_interrupted)
        return EXIT_DONE;
    std::vector<Drive> drives;
    if (answer.status != EXIT_DONE) {
        note_complaint(watch, answer.complaint);
        return answer.status;
    }
    if (!parse_list(answer.reply, drives)) {
        note_complaint(watch, "the daemon's answer cannot be understood");
        return EXIT_NO_DAEMON;
    }
    note_complaint(watch, "");
    const Clock::time_point now = Clock::now();
    watch.devices = follow(watch.devices, listed_devices(drives, read_mounts()), now);
    if (!watch.has_terminal)
        print_changes(watch, now, !watch.has_list);
    if (!watch.has_list)
        for (WatchedDevice &watched : watch.devices)
            watched.mark = MARK_NONE;
    watch.has_list = true;
    return EXIT_DONE;
}

// The user's Ctrl-Z: the terminal is theirs until the program goes on.
static void stop_for_a_while(Watch &watch)
{
    if (watch.has_terminal)
        watch.screen.Leave();
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTSTP);
    raise(SIGTSTP);
    sigprocmask(SIG_UNBLOCK, &stop, nullptr); // here it stops
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    if (watch.has_terminal && watch.has_list)
        watch.screen.Enter();
}

// Whether the user wants to go: a key that says so, or an end of keys together with the terminal.
static bool take_key(Watch &watch)
{
    char key = 0;
    const ssize_t got = read(STDIN_FILENO, &key, 1);
    if (got <= 0)
        watch.screen.ForgetKeys();
    return got == 1 && (key == 'q' || key == 'Q');
}

// Whether whoever read what is printed has gone. Of a file or a terminal that cannot be said.
static bool has_lost_reader(const pollfd &output)
{
    return (output.revents & POLLERR) != 0;
}

// Waits until the next list is due. Zero when the program is to end.
static int wait_for_next(Watch &watch)
{
    const auto due = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(watch.interval));
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now()).count();
        const bool has_keys = watch.has_terminal && watch.screen.HasKeys();
        pollfd requests[] = {{watch.signals.ending, POLLIN, 0},
                             {watch.signals.resizing, POLLIN, 0},
                             {has_keys ? STDIN_FILENO : -1, POLLIN, 0},
                             {watch.has_terminal ? -1 : STDOUT_FILENO, 0, 0}};
        if (poll(requests, 4, left > 0 ? static_cast<int>(left) : 0) < 0 && errno != EINTR)
            return 0;
        const int number = take_signal(watch.signals.ending);
        if (number == SIGTSTP)
            stop_for_a_while(watch);
        else if (number != 0)
            return 0;
        if ((requests[2].revents && take_key(watch)) || has_lost_reader(requests[3]))
            return 0;
        const bool is_resized = take_signal(watch.signals.resizing) != 0;
        if (watch.has_terminal && watch.has_list && (is_resized || number == SIGTSTP)) {
            draw(watch);
            fflush(stdout);
        }
        if (Clock::now() >= due)
            return 1;
    }
}

// A terminal on which a picture can be drawn.
static bool is_able_terminal()
{
    const char *const type = getenv("TERM");
    return isatty(STDOUT_FILENO) && type != nullptr && strcmp(type, "dumb") != 0;
}

ExitStatus run_watch(double interval, double seconds)
{
    Watch watch;
    watch.interval = interval;
    watch.seconds = seconds;
    watch.has_terminal = is_able_terminal();
    watch.signals.ending = make_signal_fd({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP});
    watch.signals.resizing = make_signal_fd({SIGWINCH});
    if (watch.signals.ending < 0 || watch.signals.resizing < 0) {
        complain(std::string("cannot watch for signals: ") + strerror(errno));
        return EXIT_REFUSED;
    }
    for (;;) {
        const ExitStatus status = take_list(watch);
        if (!watch.has_list && status != EXIT_DONE) {
            complain(watch.complaint);
            return status;
        }
        if (watch.has_terminal && watch.has_list) {
            watch.screen.Enter();
            draw(watch);
        }
        if (fflush(stdout) != 0 || !wait_for_next(watch))
            return EXIT_DONE;
    }
}
