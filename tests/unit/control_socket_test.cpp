// The listening socket and its clients. The name is stood in for, so that a daemon that runs on
// this machine is not met.
#include "protocol/control_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "made_up_machine.h"
#include "registry/block_device.h"

using Words = std::vector<std::string>;

class ControlSocket : public MadeUpMachineTest {
protected:
    // A connected client, and a pass in which the daemon meets it.
    int Meet()
    {
        const int client = machine.Connect();
        EXPECT_GE(client, 0);
        serve_control_socket();
        return client;
    }

    static void Say(int client, const std::string &text)
    {
        ASSERT_EQ(send(client, text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }

    // What has arrived; "(end)" when the daemon has hung up.
    static std::string Hear(int client)
    {
        std::string text;
        char chunk[65536];
        for (;;) {
            const ssize_t got = recv(client, chunk, sizeof(chunk), MSG_DONTWAIT);
            if (got <= 0)
                return got == 0 ? text + "(end)" : text;
            text.append(chunk, static_cast<size_t>(got));
        }
    }

    static void Serve(int passes)
    {
        for (int i = 0; i < passes; i++)
            serve_control_socket();
    }
};

static const char unknown[] = "ERR unknown command\n";

// The name is a zero byte and "quarryd", eight bytes and not one more; sixteen may wait.
TEST_F(ControlSocket, ListensAtItsName)
{
    EXPECT_TRUE(init_socket());
    EXPECT_EQ(machine.Deeds(), Words({"bind 1 @quarryd", "listen 16"}));
    EXPECT_EQ(errors.Take(), "");
    std::set<int> added = open_descriptors();
    for (int fd : descriptors_before)
        added.erase(fd);
    ASSERT_EQ(added.size(), 1U);
    EXPECT_NE(fcntl(*added.begin(), F_GETFL) & O_NONBLOCK, 0);
    int type = 0;
    socklen_t length = sizeof(type);
    getsockopt(*added.begin(), SOL_SOCKET, SO_TYPE, &type, &length);
    EXPECT_EQ(type, SOCK_STREAM);
    close_control_socket();
    close_control_socket(); // nothing is left to close
}

// Each thing that may fail has its own words.
TEST_F(ControlSocket, EachFailureHasItsWords)
{
    static const struct {
        Call call;
        std::initializer_list<Answer> answers;
        const char *words;
    } cases[] = {
        {Call::SOCKET, {fails(EMFILE)}, "init_socket() cannot create socket Too many open files\n"},
        {Call::BIND,
         {fails(EADDRINUSE)},
         "init_socket() cannot bind socket Address already in use\n"},
        {Call::LISTEN,
         {fails(EOPNOTSUPP)},
         "listen() cannot set up socket Operation not supported\n"},
        {Call::FCNTL, {fails(EBADF)}, "fcntl(F_GETFL) failed Bad file descriptor\n"},
        {Call::FCNTL, {really, fails(EPERM)}, "fcntl(F_SETFL) failed Operation not permitted\n"},
    };
    for (const auto &c : cases) {
        machine.Script(c.call, c.answers);
        EXPECT_FALSE(init_socket());
        EXPECT_EQ(errors.Take(), c.words);
    }
    // A new attempt closes what the last one left open.
    EXPECT_TRUE(init_socket());
    EXPECT_EQ(open_descriptors().size(), descriptors_before.size() + 1);
}

// The socket can be made anew, under the same name.
TEST_F(ControlSocket, CanBeMadeAnew)
{
    EXPECT_TRUE(init_socket());
    EXPECT_TRUE(init_socket());
    EXPECT_EQ(open_descriptors().size(), descriptors_before.size() + 1);
    const int client = machine.Connect();
    EXPECT_GE(client, 0);
    close(client);
}

// Nobody there: a pass is one call, and idle.
TEST_F(ControlSocket, EmptyPassIsIdle)
{
    ASSERT_TRUE(init_socket());
    machine.ForgetCalls();
    EXPECT_FALSE(serve_control_socket());
    EXPECT_EQ(machine.SystemCalls(), 1);
    EXPECT_EQ(errors.Take(), "");
}

// A client that has sent its request already gets its reply in the pass that meets it, which does
// not count as busy for that.
TEST_F(ControlSocket, NewClientGetsAHeadStart)
{
    ASSERT_TRUE(init_socket());
    const int client = machine.Connect();
    Say(client, "nonsense\n");
    EXPECT_FALSE(serve_control_socket());
    EXPECT_EQ(Hear(client), unknown);
    Say(client, "nonsense\n");
    EXPECT_TRUE(serve_control_socket()); // read
    EXPECT_TRUE(serve_control_socket()); // run
    EXPECT_EQ(Hear(client), "");
    EXPECT_TRUE(serve_control_socket()); // sent
    EXPECT_EQ(Hear(client), unknown);
    EXPECT_TRUE(serve_control_socket()); // made ready
    EXPECT_FALSE(serve_control_socket());
    close(client);
}

// The head start ends after a hundred steps: a client that floods has to wait like the others.
TEST_F(ControlSocket, HeadStartEndsAfterAHundredSteps)
{
    ASSERT_TRUE(init_socket());
    const int client = machine.Connect();
    int size = 1 << 20;
    setsockopt(client, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    Say(client, std::string(150000, 'x'));
    machine.ForgetCalls();
    EXPECT_TRUE(serve_control_socket());
    // A hundred reads, then the pass's own look and read.
    EXPECT_EQ(machine.Calls(Call::RECV), 102);
    machine.ForgetCalls();
    EXPECT_TRUE(serve_control_socket());
    EXPECT_EQ(machine.Calls(Call::RECV), 2);
    close(client);
}

// A client that closes its side after the request is served by the head start.
TEST_F(ControlSocket, HalfClosedClientIsServedByTheHeadStart)
{
    ASSERT_TRUE(init_socket());
    const int client = machine.Connect();
    Say(client, "nonsense\n");
    shutdown(client, SHUT_WR);
    Serve(2);
    EXPECT_EQ(Hear(client), std::string(unknown) + "(end)");
    close(client);
}

// One that does so later is gone: the end of its stream is the end of the connection.
TEST_F(ControlSocket, HalfClosedClientIsGoneLater)
{
    ASSERT_TRUE(init_socket());
    const int client = Meet();
    Say(client, "nonsense\n");
    shutdown(client, SHUT_WR);
    Serve(3);
    EXPECT_EQ(Hear(client), "(end)");
    close(client);
}

// One client is taken in at a pass; the others wait.
TEST_F(ControlSocket, TakesInOneClientAPass)
{
    ASSERT_TRUE(init_socket());
    std::vector<int> clients;
    for (int i = 0; i < 5; i++) {
        clients.push_back(machine.Connect());
        Say(clients.back(), "nonsense\n");
    }
    for (int served = 1; served <= 5; served++) {
        machine.ForgetCalls();
        serve_control_socket();
        EXPECT_EQ(machine.Calls(Call::ACCEPT), 1);
        EXPECT_EQ(Hear(clients[static_cast<size_t>(served) - 1]), unknown);
        if (served < 5) {
            EXPECT_EQ(Hear(clients[static_cast<size_t>(served)]), "");
        }
    }
    for (int client : clients)
        close(client);
}

// Fifty are served; the fifty-first waits until one of them leaves.
TEST_F(ControlSocket, FiftyFirstClientWaits)
{
    ASSERT_TRUE(init_socket());
    std::vector<int> clients;
    for (int i = 0; i < 50; i++)
        clients.push_back(Meet());
    const int last = machine.Connect();
    Say(last, "nonsense\n");
    machine.ForgetCalls();
    Serve(5);
    EXPECT_EQ(machine.Calls(Call::ACCEPT), 0);
    EXPECT_EQ(Hear(last), "");
    close(clients[20]);
    serve_control_socket(); // it is found to be gone
    EXPECT_EQ(Hear(last), "");
    serve_control_socket();
    EXPECT_EQ(Hear(last), unknown);
    clients[20] = last;
    for (int client : clients)
        close(client);
    // Nothing of fifty clients stays.
    Serve(100);
    EXPECT_EQ(open_descriptors().size(), descriptors_before.size() + 1);
}

// The connection just below one that is removed is passed over until the next pass, on purpose.
TEST_F(ControlSocket, ConnectionBelowARemovedOneIsSkipped)
{
    ASSERT_TRUE(init_socket());
    const int first = Meet();
    const int second = Meet();
    const int third = Meet();
    Say(first, "nonsense\n");
    Say(second, "nonsense\n");
    close(third);
    serve_control_socket(); // third goes, second is skipped, first is read
    Serve(2);               // first is sent, second is only run
    EXPECT_EQ(Hear(first), unknown);
    EXPECT_EQ(Hear(second), "");
    serve_control_socket();
    EXPECT_EQ(Hear(second), unknown);
    close(first);
    close(second);
}

// Several that go at once take several passes; the lowest one's end is no trouble.
TEST_F(ControlSocket, AllMayGoAtOnce)
{
    ASSERT_TRUE(init_socket());
    std::vector<int> clients;
    for (int i = 0; i < 4; i++)
        clients.push_back(Meet());
    for (int client : clients)
        close(client);
    size_t left = 4;
    for (size_t after : {2U, 1U, 0U, 0U}) {
        serve_control_socket();
        left = after;
        EXPECT_EQ(open_descriptors().size(), descriptors_before.size() + 1 + left);
    }
}

// One that went before it was met is taken in and removed in the same pass.
TEST_F(ControlSocket, ClientThatWentBeforeItWasMet)
{
    ASSERT_TRUE(init_socket());
    close(machine.Connect());
    EXPECT_FALSE(serve_control_socket());
    EXPECT_EQ(open_descriptors().size(), descriptors_before.size() + 1);
}

// A client may have a path of its own, up to the last byte that an address holds.
TEST_F(ControlSocket, ClientWithAPathIsServed)
{
    ASSERT_TRUE(init_socket());
    for (size_t length : {60U, 107U, 108U}) {
        const int client = machine.Connect(length);
        ASSERT_GE(client, 0);
        Say(client, "nonsense\n");
        serve_control_socket();
        EXPECT_EQ(Hear(client), unknown) << length;
        close(client);
    }
}

// Without credentials there is no connection: the client is turned away, with a line.
TEST_F(ControlSocket, ClientWithoutCredentialsIsTurnedAway)
{
    ASSERT_TRUE(init_socket());
    machine.Script(Call::GETSOCKOPT, {fails(ENOBUFS)});
    const int client = Meet();
    EXPECT_EQ(errors.Take(), "Cannot accept connection: Cannot obtain peer credentials\n");
    EXPECT_EQ(Hear(client), "(end)");
    EXPECT_EQ(open_descriptors().size(), descriptors_before.size() + 2);
    close(client);
}

// A failure to take in is silent; the next pass tries again.
TEST_F(ControlSocket, FailureToTakeInIsSilent)
{
    ASSERT_TRUE(init_socket());
    machine.Script(Call::ACCEPT, {fails(EMFILE), fails(ECONNABORTED)});
    const int client = machine.Connect();
    Say(client, "nonsense\n");
    Serve(2);
    EXPECT_EQ(Hear(client), "");
    serve_control_socket();
    EXPECT_EQ(Hear(client), unknown);
    EXPECT_EQ(errors.Take(), "");
    close(client);
}

// A client that never reads its long reply holds up nobody, and costs nothing once it goes.
TEST_F(ControlSocket, StalledClientHoldsUpNobody)
{
    ASSERT_TRUE(init_socket());
    machine.on_list = [](std::string &reply) { reply.assign(5000000, 'x'); };
    const int stalled = machine.Connect();
    Say(stalled, "list\n");
    EXPECT_TRUE(serve_control_socket());
    const int other = machine.Connect();
    Say(other, "nonsense\n");
    EXPECT_TRUE(serve_control_socket()); // busy as long as a reply waits to go out
    EXPECT_EQ(Hear(other), unknown);
    close(stalled);
    Serve(4);
    EXPECT_EQ(open_descriptors().size(), descriptors_before.size() + 3); // both ends of the other
    close(other);
}

// One that closes its side while its reply goes out is gone, with what it has not got yet.
TEST_F(ControlSocket, HalfClosedWhileItsReplyIsSentIsGone)
{
    ASSERT_TRUE(init_socket());
    machine.on_list = [](std::string &reply) { reply.assign(5000000, 'x'); };
    const int client = machine.Connect();
    Say(client, "list\n");
    EXPECT_TRUE(serve_control_socket());
    shutdown(client, SHUT_WR);
    EXPECT_FALSE(serve_control_socket());
    EXPECT_EQ(open_descriptors().size(), descriptors_before.size() + 2);
    const std::string heard = Hear(client);
    EXPECT_TRUE(heard.starts_with("xxx"));
    EXPECT_TRUE(heard.ends_with("x(end)"));
    EXPECT_LT(heard.size(), 5000000U);
    EXPECT_EQ(errors.Take(), "");
    close(client);
}

// One that does not want to hear any more of its reply keeps its connection, does not keep the
// loop busy, and is found to be gone in the end, whatever it said before.
TEST_F(ControlSocket, DeafClientHoldsUpNobody)
{
    ASSERT_TRUE(init_socket());
    machine.on_list = [](std::string &reply) { reply.assign(5000000, 'x'); };
    const char *const told = "HandleResponse: some other error than EWOULDBLOCK? Broken pipe\n";
    for (const std::string &unread : {std::string(), std::string("list\n")}) {
        const int client = machine.Connect();
        Say(client, "list\n");
        EXPECT_TRUE(serve_control_socket());
        if (!unread.empty())
            Say(client, unread);
        shutdown(client, SHUT_RD);
        EXPECT_FALSE(serve_control_socket());
        EXPECT_EQ(errors.Take(), told);
        const int other = machine.Connect();
        Say(other, "nonsense\n");
        EXPECT_FALSE(serve_control_socket());
        EXPECT_EQ(Hear(other), unknown);
        EXPECT_EQ(errors.Take(), told);
        close(other);
        close(client);
        serve_control_socket(); // the other one goes, and the one below is skipped
        serve_control_socket(); // found: what it had not read comes before the end of its stream
        serve_control_socket();
        EXPECT_EQ(errors.Take(), told);
        EXPECT_EQ(open_descriptors().size(), descriptors_before.size() + 1);
    }
}

// What a step finds to be closed is removed in the next pass, not in the same, and not asked again.
TEST_F(ControlSocket, ConnectionFoundClosedIsRemovedInTheNextPass)
{
    ASSERT_TRUE(init_socket());
    static const struct {
        Call call;
        std::initializer_list<Answer> answers;
        const char *said;
        int passes; // before the one that finds it
        bool is_busy;
    } cases[] = {
        {Call::RECV, {fails(EINTR), returns(0)}, "", 0, false}, // a look, then a read
        {Call::SEND, {returns(0)}, "nonsense\n", 2, true},
    };
    for (const auto &c : cases) {
        const int client = Meet();
        Say(client, c.said);
        Serve(c.passes);
        machine.Script(c.call, c.answers);
        EXPECT_EQ(serve_control_socket(), c.is_busy);
        EXPECT_EQ(open_descriptors().size(), descriptors_before.size() + 3);
        machine.ForgetCalls();
        EXPECT_FALSE(serve_control_socket());
        EXPECT_EQ(machine.Calls(Call::RECV), 0);
        EXPECT_EQ(open_descriptors().size(), descriptors_before.size() + 2);
        close(client);
    }
}

// One that goes while its request is being answered is removed, whatever its state.
TEST_F(ControlSocket, ClientThatGoesInAnyStateIsRemoved)
{
    ASSERT_TRUE(init_socket());
    for (int passes = 0; passes < 5; passes++) {
        const int client = Meet();
        Say(client, "nonsense\n");
        Serve(passes);
        close(client);
        Serve(6);
        EXPECT_EQ(open_descriptors().size(), descriptors_before.size() + 1) << passes;
    }
    // A command that has no answer yet is not asked for ever.
    machine.on_list = [](std::string &) {};
    const int client = Meet();
    Say(client, "list\n");
    Serve(10);
    close(client);
    serve_control_socket();
    EXPECT_EQ(open_descriptors().size(), descriptors_before.size() + 1);
}

// At the end the clients are let go, too.
TEST_F(ControlSocket, ClosingLetsTheClientsGo)
{
    ASSERT_TRUE(init_socket());
    const int client = Meet();
    close_control_socket();
    EXPECT_EQ(Hear(client), "(end)");
    EXPECT_EQ(machine.Connect(), -1);
    close(client);
}
