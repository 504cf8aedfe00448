#include "program_run.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "simulator/controller_pty.h"

extern char** environ;

namespace catra_test {

namespace {

// Bound of one run; only reached when the program hangs.
constexpr std::chrono::seconds kRunLimit{90};

struct Pipe {
    int read = -1;
    int write = -1;
    Pipe()
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe2");
        read = ends[0];
        write = ends[1];
    }
    ~Pipe()
    {
        close_read();
        close_write();
    }
    void close_read()
    {
        if (read >= 0)
            ::close(read);
        read = -1;
    }
    void close_write()
    {
        if (write >= 0)
            ::close(write);
        write = -1;
    }
};

std::vector<std::string> split_lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line))
        lines.push_back(line);
    return lines;
}

// Moves what is readable on fd into text; false at end of file or on error.
bool read_into(int fd, std::string& text)
{
    char buffer[4096];
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got > 0) {
        text.append(buffer, static_cast<std::size_t>(got));
        return true;
    }
    return got < 0 && errno == EINTR;
}

// Starts the program with the given descriptors as its standard streams.
pid_t spawn(const std::vector<std::string>& arguments, int in, int out, int err)
{
    std::vector<std::string> words{terminal_path()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    pid_t pid = -1;
    const int failed = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0)
        throw std::system_error(failed, std::generic_category(), "posix_spawn " + words[0]);
    return pid;
}

// Waits for the child; kills it when it outlives the deadline.
int reap(pid_t pid, std::chrono::steady_clock::time_point deadline)
{
    int status = 0;
    if (std::chrono::steady_clock::now() >= deadline) {
        if (::waitpid(pid, &status, WNOHANG) == 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            return -1;
        }
    } else {
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int remaining_ms(std::chrono::steady_clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

std::vector<Json> ProgramRun::lines() const
{
    std::vector<Json> parsed;
    for (const std::string& line : split_lines(out)) {
        Json json = Json::parse(line, nullptr, false);
        parsed.push_back(json.is_discarded() ? Json(line) : json);
    }
    return parsed;
}

std::vector<std::string> ProgramRun::error_lines() const
{
    return split_lines(err);
}

std::string terminal_path()
{
    return CATRA_TERMINAL_PATH;
}

std::string plugin_path()
{
    return CATRA_PLUGIN_PATH;
}

std::string example(const std::string& name)
{
    return std::string(CATRA_EXAMPLES_DIR) + "/" + name;
}

ProgramRun run_program(const std::vector<std::string>& arguments, const std::string& input)
{
    Pipe in;
    Pipe out;
    Pipe err;
    const pid_t pid = spawn(arguments, in.read, out.write, err.write);
    in.close_read();
    out.close_write();
    err.close_write();

    // The input is small (a pipe holds it whole); closing it is the end of input.
    std::size_t written = 0;
    while (written < input.size()) {
        const ssize_t n = ::write(in.write, input.data() + written, input.size() - written);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        written += static_cast<std::size_t>(n);
    }
    in.close_write();

    ProgramRun run;
    const auto deadline = std::chrono::steady_clock::now() + kRunLimit;
    bool out_open = true;
    bool err_open = true;
    while ((out_open || err_open) && remaining_ms(deadline) > 0) {
        pollfd watched[2] = {{out_open ? out.read : -1, POLLIN, 0},
                             {err_open ? err.read : -1, POLLIN, 0}};
        if (::poll(watched, 2, remaining_ms(deadline)) < 0 && errno != EINTR)
            break;
        if (out_open && (watched[0].revents & (POLLIN | POLLHUP | POLLERR)))
            out_open = read_into(out.read, run.out);
        if (err_open && (watched[1].revents & (POLLIN | POLLHUP | POLLERR)))
            err_open = read_into(err.read, run.err);
    }
    run.exit_code = reap(pid, (out_open || err_open) ? std::chrono::steady_clock::now() : deadline);
    return run;
}

ProgramRun run_program_on_terminal(const std::vector<std::string>& arguments)
{
    // A raw pseudo-terminal: what the program prints arrives unchanged.
    simulator::ControllerPty screen;
    const int terminal = ::open(screen.slave_path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (terminal < 0)
        throw std::system_error(errno, std::generic_category(), "open " + screen.slave_path());
    Pipe in;
    Pipe err;
    const pid_t pid = spawn(arguments, in.read, terminal, err.write);
    ::close(terminal);
    in.close_read();
    in.close_write();
    err.close_write();

    // The program's standard error closes when it ends; the screen is read
    // along the way so that the program never waits for it.
    ProgramRun run;
    const auto deadline = std::chrono::steady_clock::now() + kRunLimit;
    bool err_open = true;
    while (err_open && remaining_ms(deadline) > 0) {
        pollfd watched[2] = {{screen.master_fd(), POLLIN, 0}, {err.read, POLLIN, 0}};
        if (::poll(watched, 2, remaining_ms(deadline)) < 0 && errno != EINTR)
            break;
        if (watched[0].revents & POLLIN)
            run.out += screen.drain();
        if (watched[1].revents & (POLLIN | POLLHUP | POLLERR))
            err_open = read_into(err.read, run.err);
    }
    run.exit_code = reap(pid, err_open ? std::chrono::steady_clock::now() : deadline);
    run.out += screen.drain();
    return run;
}

ProgramRun run_example(const std::string& script)
{
    return run_program({"--json", "--config", example("terminal.ini"), "--plugin", plugin_path(),
                        "--script", example(script)});
}

}  // namespace catra_test
