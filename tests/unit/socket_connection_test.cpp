// One client's connection: what it reads, how it splits a request, how it sends.
#include "protocol/socket_connection.h"

#include <fcntl.h>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

#include "made_up_machine.h"

using namespace std::string_literals;

using Words = std::map<int, std::string>;

class SocketConnectionTest : public MadeUpMachineTest {
protected:
    void SetUp() override
    {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        client = ends[0];
        connection = std::make_unique<SocketConnection>(ends[1], "/run/client", ucred{12, 34, 56});
        machine.ForgetCalls();
    }

    void TearDown() override
    {
        connection.reset();
        HangUp();
        MadeUpMachineTest::TearDown();
    }

    void Say(const std::string &text) const
    {
        ASSERT_EQ(write(client, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    // What has arrived at the client.
    std::string Hear() const
    {
        std::string text;
        char chunk[65536];
        for (ssize_t got; (got = recv(client, chunk, sizeof(chunk), MSG_DONTWAIT)) > 0;)
            text.append(chunk, static_cast<size_t>(got));
        return text;
    }

    void HangUp()
    {
        if (client >= 0)
            close(client);
        client = -1;
    }

    int client = -1;
    std::unique_ptr<SocketConnection> connection;
};

// A new connection is reading, knows its client, and never blocks.
TEST_F(SocketConnectionTest, StartsReading)
{
    EXPECT_EQ(connection->state, STATE_READING);
    EXPECT_EQ(connection->input + connection->output, "");
    EXPECT_EQ(connection->peer_name, "/run/client");
    EXPECT_EQ(connection->peer_pid, 12);
    EXPECT_EQ(connection->peer_uid, 34U);
    EXPECT_EQ(connection->peer_gid, 56U);
    EXPECT_EQ(connection->uid, 34U);
    EXPECT_EQ(connection->argc, 0);
    EXPECT_EQ(connection->sent, 0U);
    EXPECT_FALSE(connection->closed);
    EXPECT_NE(fcntl(connection->fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(errors.Take(), "");
}

// One that cannot be made non-blocking is kept, with a word about it.
TEST_F(SocketConnectionTest, IsKeptThoughItMayBlock)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    machine.Script(Call::FCNTL, {fails(EBADF)});
    {
        SocketConnection other(ends[0], "", ucred{1, 2, 3});
        EXPECT_EQ(errors.Take(), "fcntl(sock_fd) == -1! Bad file descriptor\n");
        EXPECT_EQ(other.fd, ends[0]);
    }
    machine.Script(Call::FCNTL, {really, fails(EPERM)});
    {
        SocketConnection other(ends[1], "", ucred{1, 2, 3});
        EXPECT_EQ(errors.Take(), "fcntl(sock_fd,F_SETFL) Operation not permitted\n");
        EXPECT_EQ(other.fd, ends[1]);
    }
}

// Its socket is closed with it, once.
TEST_F(SocketConnectionTest, ClosesItsSocket)
{
    const int fd = connection->fd;
    connection.reset();
    EXPECT_EQ(open_descriptors().count(fd), 0U);
    machine.ForgetCalls();
    {
        SocketConnection none(-1, "", ucred{1, 2, 3});
        EXPECT_EQ(none.fd, -1);
    }
    EXPECT_EQ(machine.Calls(Call::CLOSE), 0);
}

// Blanks separate words, and nothing else does; double quotes hold a word together.
TEST(SplitRequest, CutsAtBlanksAndHonoursQuotes)
{
    static const struct {
        std::string line;
        Words words;
    } cases[] = {
        {"", {}},
        {"   ", {}},
        {"list", {{0, "list"}}},
        {"  list   human  ", {{0, "list"}, {1, "human"}}},
        {"mount ro \"my disk\"", {{0, "mount"}, {1, "ro"}, {2, "my disk"}}},
        {"mount \"\" sdb1", {{0, "mount"}, {1, ""}, {2, "sdb1"}}}, // an empty word
        {"\"\"", {{0, ""}}},
        {"\"\"\"\"", {{0, ""}, {1, ""}}},
        {"\"", {{0, ""}}},                             // an opening quote at the very end
        {"list \"human", {{0, "list"}, {1, "human"}}}, // no closing quote: to the end
        {"list \"human readable ", {{0, "list"}, {1, "human readable "}}},
        {"\"list\"human", {{0, "list"}, {1, "human"}}}, // a closing quote ends the word
        {"\"a\"\"b\" c", {{0, "a"}, {1, "b"}, {2, "c"}}},
        {"li\"st a\"b", {{0, "li\"st"}, {1, "a\"b"}}}, // only a leading quote holds
        {"a \"b", {{0, "a"}, {1, "b"}}},
        {"list\thuman", {{0, "list\thuman"}}},
        {"a\vb\fc d", {{0, "a\vb\fc"}, {1, "d"}}},
        {"a\0b c"s, {{0, "a\0b"s}, {1, "c"}}},
        {"'a b'", {{0, "'a"}, {1, "b'"}}},
        {"a\\ b", {{0, "a\\"}, {1, "b"}}},
        {"\xC3\xBC \xFF", {{0, "\xC3\xBC"}, {1, "\xFF"}}},
    };
    for (const auto &c : cases) {
        Words words;
        EXPECT_EQ(split_request(c.line, words), static_cast<int>(c.words.size())) << c.line;
        EXPECT_EQ(words, c.words) << c.line;
    }
}

// There is no limit to the number of words.
TEST(SplitRequest, TakesAHundredThousandWords)
{
    std::string line;
    for (int i = 0; i < 100000; i++)
        line += "\"\" ";
    Words words;
    EXPECT_EQ(split_request(line, words), 100000);
}

// A line ends at CR or LF, and what follows in the same read is lost: a CR LF pair is harmless, a
// second line is gone. One request, one reply.
TEST_F(SocketConnectionTest, TakesTheFirstLineOfOneRead)
{
    static const struct {
        std::string sent;
        const char *input;
        int words;
    } cases[] = {
        {"list\n", "list", 1},
        {"list\r\n", "list", 1},
        {"list\r", "list", 1},
        {"help\nlist\n", "help", 1},
        {"help\rlist\n", "help", 1},
        {"\nlist\n", "", 0},
        {"\r\n", "", 0},
        {"   \n", "   ", 0},
        {"list human\nrest", "list human", 2},
    };
    for (const auto &c : cases) {
        Say(c.sent);
        EXPECT_EQ(connection->HandleInput(), 1);
        EXPECT_EQ(connection->state, STATE_DISPATCHING);
        EXPECT_EQ(connection->input, c.input);
        EXPECT_EQ(connection->argc, c.words);
        connection->Reset();
        EXPECT_EQ(connection->HandleInput(), 0) << "something was left"; // the read took it all
    }
}

// A line may come in pieces of any size.
TEST_F(SocketConnectionTest, ReadsALineInPieces)
{
    for (const char *piece : {"li", "s", "t hu", "man"}) {
        Say(piece);
        EXPECT_EQ(connection->HandleInput(), 1);
        EXPECT_EQ(connection->state, STATE_READING);
        EXPECT_EQ(connection->HandleInput(), 0);
    }
    Say("\n");
    EXPECT_EQ(connection->HandleInput(), 1);
    EXPECT_EQ(connection->state, STATE_DISPATCHING);
    EXPECT_EQ(connection->args, Words({{0, "list"}, {1, "human"}}));
}

// 1024 bytes are read at a time; what is behind them waits for the next request.
TEST_F(SocketConnectionTest, Reads1024BytesAtATime)
{
    Say(std::string(3000, 'x') + "\n");
    for (int step = 0; step < 3; step++) {
        EXPECT_EQ(connection->state, STATE_READING);
        EXPECT_EQ(connection->HandleInput(), 1);
    }
    EXPECT_EQ(connection->state, STATE_DISPATCHING);
    EXPECT_EQ(connection->input, std::string(3000, 'x'));
    connection->Reset();

    Say("help\n" + std::string(1019, 'y') + "list\n");
    connection->HandleInput();
    EXPECT_EQ(connection->input, "help");
    connection->Reset();
    connection->HandleInput();
    EXPECT_EQ(connection->input, "list");
}

// A request without an end grows, a read at a time.
TEST_F(SocketConnectionTest, EndlessRequestGrows)
{
    for (int i = 1; i <= 100; i++) {
        Say(std::string(1024, 'x'));
        EXPECT_EQ(connection->HandleInput(), 1);
    }
    EXPECT_EQ(connection->input.size(), 102400U);
    EXPECT_EQ(connection->state, STATE_READING);
}

// Nothing to read is no trouble; an error is told and the connection kept; the end closes it.
TEST_F(SocketConnectionTest, OnlyTheEndCloses)
{
    EXPECT_EQ(connection->HandleInput(), 0);
    EXPECT_EQ(errors.Take(), "");
    machine.Script(Call::RECV, {fails(ECONNRESET)});
    EXPECT_EQ(connection->HandleInput(), 0);
    EXPECT_EQ(errors.Take(), "HandleInput: Error is not EWOULDBLOCK? Connection reset by peer\n");
    EXPECT_FALSE(connection->closed);
    HangUp();
    EXPECT_EQ(connection->HandleInput(), 0);
    EXPECT_TRUE(connection->closed);
    EXPECT_EQ(errors.Take(), "");
    machine.ForgetCalls();
    EXPECT_EQ(connection->HandleInput(), 0);
    EXPECT_EQ(machine.Calls(Call::RECV), 0); // it is not asked any more
}

// Whether the client has gone is seen without taking anything from it.
TEST_F(SocketConnectionTest, SeesTheEndWithoutReading)
{
    EXPECT_FALSE(connection->HasClosed());
    Say("help\n");
    EXPECT_FALSE(connection->HasClosed());
    EXPECT_FALSE(connection->HasClosed());
    HangUp();
    EXPECT_FALSE(connection->HasClosed()); // its request is still there
    connection->HandleInput();
    EXPECT_EQ(connection->input, "help");
    machine.Script(Call::RECV, {fails(ECONNRESET), fails(EINTR)});
    EXPECT_FALSE(connection->HasClosed()); // an error is not the end
    EXPECT_FALSE(connection->HasClosed());
    EXPECT_TRUE(connection->HasClosed());
    EXPECT_TRUE(connection->closed);
    machine.ForgetCalls();
    EXPECT_TRUE(connection->HasClosed());
    EXPECT_EQ(machine.Calls(Call::RECV), 0);
    EXPECT_EQ(errors.Take(), "");
}

// A reply goes out in as many sends as it takes; then all is made ready for the next request.
TEST_F(SocketConnectionTest, SendsAndStartsAfresh)
{
    connection->state = STATE_SENDING;
    connection->output = "OK refreshed\n";
    connection->input = "refresh";
    connection->args = {{0, "refresh"}};
    connection->argc = 1;
    EXPECT_EQ(connection->HandleResponse(), 1);
    EXPECT_EQ(connection->sent, 13U);
    EXPECT_EQ(connection->state, STATE_SENDING);
    EXPECT_EQ(Hear(), "OK refreshed\n");
    EXPECT_EQ(connection->HandleResponse(), 1);
    EXPECT_EQ(connection->state, STATE_READING);
    EXPECT_EQ(connection->sent, 0U);
    EXPECT_EQ(connection->output + connection->input, "");
    EXPECT_EQ(connection->args, Words());
    EXPECT_EQ(connection->argc, 0);
    EXPECT_FALSE(connection->closed);
}

// A slow client gets a long reply piece by piece, whole and in order.
TEST_F(SocketConnectionTest, SlowClientGetsEverything)
{
    const int size = 4096;
    setsockopt(connection->fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    std::string reply;
    for (int i = 0; reply.size() < 300000; i++)
        reply += std::to_string(i) + "\n";
    connection->state = STATE_SENDING;
    connection->output = reply;
    std::string heard;
    int steps = 0;
    while (connection->state == STATE_SENDING && steps++ < 10000) {
        EXPECT_EQ(connection->HandleResponse(), 1); // also while the client's room is full
        if (steps % 3 == 0)
            heard += Hear();
    }
    heard += Hear();
    EXPECT_EQ(heard, reply);
    EXPECT_GT(steps, 10);
}

// A full socket counts as work: the loop comes back at once. A send that sends nothing closes.
TEST_F(SocketConnectionTest, SendThatReturnsZeroCloses)
{
    connection->state = STATE_SENDING;
    connection->output = "OK\n";
    machine.Script(Call::SEND, {fails(EAGAIN), returns(1), returns(0)});
    EXPECT_EQ(connection->HandleResponse(), 1);
    EXPECT_EQ(connection->sent, 0U);
    EXPECT_FALSE(connection->closed);
    EXPECT_EQ(connection->HandleResponse(), 1);
    EXPECT_EQ(connection->sent, 1U);
    EXPECT_EQ(connection->HandleResponse(), 1);
    EXPECT_TRUE(connection->closed);
    EXPECT_TRUE(connection->HasClosed());
    EXPECT_EQ(connection->state, STATE_SENDING);
    EXPECT_EQ(errors.Take(), "");
}

// Any other failure to send is told; the connection waits for its end. What the client has said in
// the meantime is its next request.
TEST_F(SocketConnectionTest, SendErrorIsTold)
{
    Say("help\n");
    connection->state = STATE_SENDING;
    connection->output = "OK\n";
    machine.Script(Call::SEND, {fails(ENOBUFS)});
    EXPECT_EQ(connection->HandleResponse(), 0);
    EXPECT_EQ(errors.Take(),
              "HandleResponse: some other error than EWOULDBLOCK? No buffer space available\n");
    EXPECT_FALSE(connection->closed);
    EXPECT_EQ(connection->HandleResponse(), 1);
    EXPECT_EQ(Hear(), "OK\n");
    EXPECT_EQ(connection->HandleResponse(), 1);
    EXPECT_EQ(connection->HandleInput(), 1);
    EXPECT_EQ(connection->input, "help");
}

// A client that goes while its reply is being sent raises no signal, and is found to be gone
// though it left unread requests behind.
TEST_F(SocketConnectionTest, ClientThatGoesUnheardIsFound)
{
    for (size_t unread : {0U, 1U, 16384U, 100000U}) {
        if (client < 0)
            SetUp();
        Say(std::string(unread, 'x'));
        connection->state = STATE_SENDING;
        connection->output = "OK\n";
        HangUp();
        int steps = 0;
        while (!connection->HasClosed() && steps++ < 100)
            EXPECT_EQ(connection->HandleResponse(), 0);
        EXPECT_TRUE(connection->closed) << unread;
        EXPECT_LT(steps, 10) << unread;
        const std::string said = errors.Take();
        EXPECT_TRUE(said.empty() ||
                    said.starts_with("HandleResponse: some other error than EWOULDBLOCK? Broken "
                                     "pipe\n"))
            << said;
    }
}

// A step does what the state asks for, once.
TEST_F(SocketConnectionTest, StepFollowsTheState)
{
    EXPECT_EQ(connection->Step(), 0);
    Say("help\n");
    EXPECT_EQ(connection->Step(), 1);
    EXPECT_EQ(connection->state, STATE_DISPATCHING);
    EXPECT_EQ(connection->output, "");
    EXPECT_EQ(connection->Step(), 1);
    EXPECT_EQ(connection->state, STATE_SENDING);
    EXPECT_EQ(Hear(), "");
    EXPECT_EQ(connection->Step(), 1);
    EXPECT_EQ(Hear().substr(0, 22), "OK-Valid commands are\n");
    EXPECT_EQ(connection->Step(), 1);
    EXPECT_EQ(connection->state, STATE_READING);
    EXPECT_EQ(connection->Step(), 0);
    connection->state = 7;
    EXPECT_EQ(connection->Step(), 0); // there is no such state
}

// Request after request on one connection.
TEST_F(SocketConnectionTest, ServesManyRequests)
{
    for (int i = 0; i < 100; i++) {
        Say("nonsense \"" + std::to_string(i) + "\n");
        while (connection->Step()) {
        }
        EXPECT_EQ(Hear(), "ERR unknown command\n");
    }
}
