// The event loop: descriptors, timeouts, and how it ends.
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern "C" {
#include <libubox/uloop.h>
}

namespace {

struct pipe_watch {
    uloop_fd u = {};
    int write_end = -1;
    int calls = 0;
    bool closed = false; // seen by the handler
    uloop_fd *delete_too = nullptr;

    pipe_watch()
    {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        u.fd = ends[0];
        write_end = ends[1];
        u.cb = [](uloop_fd *fd, unsigned int) {
            auto *self = container_of(fd, pipe_watch, u);
            self->calls++;
            char c;
            self->closed = fd->eof || fd->error || read(fd->fd, &c, 1) == 0;
            if (self->delete_too) {
                uloop_fd_delete(self->delete_too);
                uloop_fd_delete(&self->u);
            }
        };
    }
    ~pipe_watch()
    {
        uloop_fd_delete(&u);
        close(u.fd);
        if (write_end >= 0)
            close(write_end);
    }
    void poke()
    {
        EXPECT_EQ(write(write_end, "x", 1), 1);
    }
};

struct Uloop : ::testing::Test {
    uloop_timeout guard = {};
    bool hung = false;
    static inline Uloop *self;

    void SetUp() override
    {
        self = this;
        ASSERT_EQ(uloop_init(), 0);
        guard.cb = [](uloop_timeout *) {
            self->hung = true;
            uloop_end();
        };
        uloop_timeout_set(&guard, 20000);
    }
    void TearDown() override
    {
        EXPECT_FALSE(hung);
        uloop_timeout_cancel(&guard);
        uloop_done();
    }
};

std::vector<int> order;

template<int N> void note(uloop_timeout *)
{
    order.push_back(N);
}

void note_and_end(uloop_timeout *)
{
    order.push_back(99);
    uloop_end();
}

TEST_F(Uloop, TimeoutsComeInTheirOrder)
{
    order.clear();
    uloop_timeout a = {}, b = {}, c = {}, end = {};
    a.cb = note<1>;
    b.cb = note<2>;
    c.cb = note<3>;
    end.cb = note_and_end;
    uloop_timeout_set(&end, 40);
    uloop_timeout_set(&a, 5000);
    uloop_timeout_set(&b, 1);
    uloop_timeout_set(&c, 10);
    uloop_timeout_set(&a, 20); // set again: the later time is forgotten
    uloop_timeout d = {};
    d.cb = note<4>;
    uloop_timeout_set(&d, 15);
    EXPECT_EQ(uloop_timeout_cancel(&d), 0);
    EXPECT_EQ(uloop_timeout_cancel(&d), -1);
    auto start = std::chrono::steady_clock::now();
    uloop_run();
    EXPECT_EQ(order, (std::vector<int>{2, 3, 1, 99}));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(39));
    EXPECT_FALSE(a.pending);
}

TEST_F(Uloop, HandlersMayDeleteOthersOfTheSameWait)
{
    pipe_watch first, second;
    first.delete_too = &second.u;
    second.delete_too = &first.u;
    uloop_fd_add(&first.u, ULOOP_READ);
    uloop_fd_add(&second.u, ULOOP_READ);
    first.poke();
    second.poke();
    uloop_timeout end = {};
    end.cb = note_and_end;
    uloop_timeout_set(&end, 50);
    uloop_run();
    EXPECT_EQ(first.calls + second.calls, 1);
    EXPECT_FALSE(first.u.registered);
    EXPECT_FALSE(second.u.registered);
}

TEST_F(Uloop, ATimeoutMayDeleteAnotherThatIsDue)
{
    static uloop_timeout other;
    other = {};
    other.cb = note<1>;
    order.clear();
    uloop_timeout first = {};
    first.cb = [](uloop_timeout *) { uloop_timeout_cancel(&other); };
    uloop_timeout end = {};
    end.cb = note_and_end;
    uloop_timeout_set(&first, 0);
    uloop_timeout_set(&other, 0);
    uloop_timeout_set(&end, 10);
    uloop_run();
    EXPECT_EQ(order, (std::vector<int>{99}));
}

TEST_F(Uloop, SetsNonBlockingUnlessTold)
{
    pipe_watch plain, blocking;
    uloop_fd_add(&plain.u, ULOOP_READ);
    uloop_fd_add(&blocking.u, ULOOP_READ | ULOOP_BLOCKING);
    EXPECT_TRUE(fcntl(plain.u.fd, F_GETFL) & O_NONBLOCK);
    EXPECT_FALSE(fcntl(blocking.u.fd, F_GETFL) & O_NONBLOCK);
}

TEST_F(Uloop, AClosedPeerDoesNotSpinTheLoop)
{
    pipe_watch watch;
    uloop_fd_add(&watch.u, ULOOP_READ);
    close(watch.write_end);
    watch.write_end = -1;
    uloop_timeout end = {};
    end.cb = note_and_end;
    uloop_timeout_set(&end, 50);
    uloop_run();
    EXPECT_TRUE(watch.closed);
    EXPECT_LE(watch.calls, 2);
}

TEST_F(Uloop, AFlagSetBeforeTheStartIsForgotten)
{
    order.clear();
    uloop_timeout end = {};
    end.cb = note_and_end;
    uloop_timeout_set(&end, 1);
    uloop_cancelled = true;
    uloop_run();
    EXPECT_EQ(order, (std::vector<int>{99}));
    EXPECT_TRUE(uloop_cancelled);
}

TEST_F(Uloop, SignalsEndItAndTheirActionsReturn)
{
    for (int signal : {SIGINT, SIGTERM}) {
        static int sent;
        sent = signal;
        struct sigaction before, after;
        sigaction(signal, nullptr, &before);
        uloop_timeout raiser = {};
        raiser.cb = [](uloop_timeout *) { raise(sent); };
        uloop_timeout_set(&raiser, 1);
        uloop_run();
        EXPECT_TRUE(uloop_cancelled);
        sigaction(signal, nullptr, &after);
        EXPECT_EQ(before.sa_handler, after.sa_handler);
    }
}

TEST(UloopSignals, AreTakenFromTheInitOnWhereNobodyElseHasThem)
{
    struct sigaction action, own = {};
    own.sa_handler = [](int) {};
    sigaction(SIGTERM, &own, nullptr);
    ASSERT_EQ(uloop_init(), 0);
    sigaction(SIGINT, nullptr, &action);
    EXPECT_NE(action.sa_handler, SIG_DFL);
    sigaction(SIGTERM, nullptr, &action);
    EXPECT_EQ(action.sa_handler, own.sa_handler);
    uloop_done();
    sigaction(SIGINT, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
}

// A child that somebody else of the process waits for, ended while a loop runs.
int status_beside_the_loop()
{
    EXPECT_EQ(uloop_init(), 0);
    const pid_t child = fork();
    if (child == 0)
        _exit(7);
    uloop_timeout end = {};
    end.cb = [](uloop_timeout *) { uloop_end(); };
    uloop_timeout_set(&end, 100);
    uloop_run();
    uloop_done();
    int status = 0;
    return waitpid(child, &status, 0) == child ? WEXITSTATUS(status) : -1;
}

TEST(UloopChildren, AreWaitedForUnlessTheLoopIsTold)
{
    EXPECT_EQ(status_beside_the_loop(), -1);
    uloop_handle_sigchld = false;
    EXPECT_EQ(status_beside_the_loop(), 7);
    uloop_handle_sigchld = true;
}

TEST_F(Uloop, RunWithATimeoutReturns)
{
    pipe_watch watch;
    uloop_fd_add(&watch.u, ULOOP_READ);
    uloop_run_timeout(10);
    EXPECT_EQ(watch.calls, 0);
    watch.poke();
    uloop_run_timeout(10000);
    EXPECT_EQ(watch.calls, 1);
}

} // namespace
