#include "check/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

extern char** environ;

namespace terminal {

namespace {

class Pipe {
public:
    Pipe()
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe2");
        read_ = ends[0];
        write_ = ends[1];
    }
    ~Pipe()
    {
        close_read();
        close_write();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    int read_end() const { return read_; }
    int write_end() const { return write_; }
    void close_read() { close(read_); }
    void close_write() { close(write_); }

private:
    static void close(int& fd)
    {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
    int read_ = -1;
    int write_ = -1;
};

class SpawnActions {
public:
    SpawnActions() { posix_spawn_file_actions_init(&actions_); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    void dup(int from, int to) { posix_spawn_file_actions_adddup2(&actions_, from, to); }
    void open_null(int fd)
    {
        posix_spawn_file_actions_addopen(&actions_, fd, "/dev/null", O_RDONLY, 0);
    }
    const posix_spawn_file_actions_t* get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_{};
};

int milliseconds_until(std::chrono::steady_clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

ChildResult run_child(const std::vector<std::string>& arguments, std::chrono::milliseconds bound)
{
    Pipe out;
    Pipe err;
    SpawnActions actions;
    actions.open_null(STDIN_FILENO);
    actions.dup(out.write_end(), STDOUT_FILENO);
    actions.dup(err.write_end(), STDERR_FILENO);
    std::vector<std::string> words = arguments;
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int failed = ::posix_spawn(&pid, argv[0], actions.get(), nullptr, argv.data(), environ);
    if (failed != 0)
        throw std::system_error(failed, std::generic_category(), "cannot start " + words[0]);
    out.close_write();
    err.close_write();

    ChildResult result;
    const auto deadline = std::chrono::steady_clock::now() + bound;
    std::string* texts[] = {&result.out, &result.err};
    int open_fds[] = {out.read_end(), err.read_end()};
    while ((open_fds[0] >= 0 || open_fds[1] >= 0) && !result.timed_out) {
        pollfd watched[2] = {{open_fds[0], POLLIN, 0}, {open_fds[1], POLLIN, 0}};
        const int ready = ::poll(watched, 2, milliseconds_until(deadline));
        if (ready < 0 && errno != EINTR)
            break;
        if (ready == 0) {
            result.timed_out = true;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (open_fds[i] < 0 || (watched[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0)
                continue;
            char buffer[4096];
            const ssize_t got = ::read(open_fds[i], buffer, sizeof buffer);
            if (got > 0)
                texts[i]->append(buffer, static_cast<std::size_t>(got));
            else if (got == 0 || errno != EINTR)
                open_fds[i] = -1;
        }
    }
    int status = 0;
    if (result.timed_out || open_fds[0] >= 0 || open_fds[1] >= 0)
        ::kill(pid, SIGKILL);
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

}  // namespace terminal
