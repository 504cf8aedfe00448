// Peak memory of the stand-in terminal (catra-terminal) over a run of many
// passages, beside the floor: the same terminal started and ended with one
// passage. Each passage is the road of one release: "liberate_catra"
// clockwise, the controller frees the side, a person turns, the turnstile
// blocks again. The peak is the child's maximum resident set (VmHWM), as
// wait4 reports it.
//
//   terminal_memory_bench [PASSAGES]     default 10000
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

namespace {

struct Run {
    long peak_kib = 0;
    long turns = 0;          // "TURN RIGHT" events the plug-in published
    long script_errors = 0;  // lines the terminal reported on standard error
    double seconds = 0;
};

std::string write_script(const std::string& folder, long passages)
{
    const std::string path = folder + "/passages-" + std::to_string(passages) + ".jsonl";
    std::ofstream script(path);
    script
        << R"({"wait_for": {"bus": "catra_event", "fields": [["event_name", "ALWAYS BLOCKED"]]}})"
        << "\n";
    for (long i = 0; i < passages; ++i) {
        script << R"({"send": "liberate_catra", "fields": {"catra_direction": "clockwise", )"
               << R"("uuid": "passage-)" << i << R"(", "catra_reason": 1}})"
               << "\n"
               << R"({"wait_for": {"bus": "catra_state_changed", "fields": [["state", 2]]}})"
               << "\n"
               << R"({"person": "turn_right"})"
               << "\n"
               << R"({"wait_for": {"bus": "catra_state_changed", "fields": [["state", 0]]}})"
               << "\n";
    }
    return path;
}

long count_lines_with(const std::string& path, const std::string& a, const std::string& b)
{
    std::ifstream in(path);
    std::string line;
    long count = 0;
    while (std::getline(in, line))
        if (line.find(a) != std::string::npos && line.find(b) != std::string::npos)
            ++count;
    return count;
}

long count_lines(const std::string& path)
{
    std::ifstream in(path);
    std::string line;
    long count = 0;
    while (std::getline(in, line))
        ++count;
    return count;
}

Run run_terminal(const std::string& folder, long passages)
{
    const std::string script = write_script(folder, passages);
    const std::string out = folder + "/out.jsonl";
    const std::string err = folder + "/err.txt";
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child < 0) {
        std::perror("fork");
        std::exit(1);
    }
    if (child == 0) {
        const int out_fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err_fd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int in_fd = open("/dev/null", O_RDONLY);
        if (out_fd < 0 || err_fd < 0 || in_fd < 0)
            _exit(126);
        dup2(in_fd, 0);
        dup2(out_fd, 1);
        dup2(err_fd, 2);
        execl(CATRA_TERMINAL_PATH, CATRA_TERMINAL_PATH, "--config", CATRA_TERMINAL_CONFIG,
              "--script", script.c_str(), "--json", static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    if (wait4(child, &status, 0, &usage) != child) {
        std::perror("wait4");
        std::exit(1);
    }
    Run run;
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "terminal_memory_bench: catra-terminal failed (status %d); see %s\n",
                     status, err.c_str());
        std::exit(1);
    }
    run.peak_kib = usage.ru_maxrss;
    run.turns = count_lines_with(out, "\"catra_event\"", "TURN RIGHT");
    run.script_errors = count_lines(err);
    return run;
}

}  // namespace

int main(int argc, char** argv)
{
    const long passages = argc > 1 ? std::max(1L, std::atol(argv[1])) : 10000;
    char folder_template[] = "/tmp/catra-memory-bench-XXXXXX";
    const char* folder = mkdtemp(folder_template);
    if (folder == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    const Run floor = run_terminal(folder, 1);
    const Run run = run_terminal(folder, passages);

    std::printf("catra-terminal peak memory (maximum resident set)\n");
    std::printf("%-28s %12s %10s %14s %10s\n", "", "peak", "turns", "script errors", "time");
    std::printf("%-28s %9ld KiB %10ld %14ld %8.1f s\n",
                (std::to_string(passages) + " passages").c_str(), run.peak_kib, run.turns,
                run.script_errors, run.seconds);
    std::printf("%-28s %9ld KiB %10ld %14ld %8.1f s\n", "floor: 1 passage", floor.peak_kib,
                floor.turns, floor.script_errors, floor.seconds);
    std::printf("growth per passage: %.2f KiB\n",
                static_cast<double>(run.peak_kib - floor.peak_kib) / static_cast<double>(passages));
    const std::string cleanup = std::string("rm -rf ") + folder;
    if (std::system(cleanup.c_str()) != 0)
        std::fprintf(stderr, "terminal_memory_bench: could not remove %s\n", folder);
    return run.turns == passages && run.script_errors == 0 ? 0 : 1;
}
