// Interposition of the controller device's system calls.
//
// These definitions live in the test executable, which comes first in the
// process's symbol search order, so the plug-in's (and everybody's) calls of
// open, read, write, select and close land here. Each one is passed on to the
// next definition in the search order (a sanitizer's interceptor, then the C
// library), found lazily with dlsym(RTLD_NEXT).
//
// The project builds without _FORTIFY_SOURCE, so the plug-in calls these
// names and not their checked variants.

#include "syscall_faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdlib>
#include <mutex>

namespace catra_test {
namespace {

using OpenFn = int (*)(const char*, int, ...);
using ReadFn = ssize_t (*)(int, void*, size_t);
using WriteFn = ssize_t (*)(int, const void*, size_t);
using CloseFn = int (*)(int);
using SelectFn = int (*)(int, fd_set*, fd_set*, fd_set*, timeval*);

// Set while this thread looks up a next definition, so that a call made from
// inside dlsym goes straight to the kernel instead of recursing.
thread_local bool resolving = false;

template <typename Fn>
Fn next_definition(std::atomic<Fn>& cache, const char* name)
{
    Fn fn = cache.load(std::memory_order_acquire);
    if (fn == nullptr) {
        resolving = true;
        fn = reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, name));
        resolving = false;
        if (fn == nullptr) {
            const char text[] = "syscall_faults: no next definition of an interposed function\n";
            ::syscall(SYS_write, 2, text, sizeof text - 1);  // nothing interposed here
            std::abort();
        }
        cache.store(fn, std::memory_order_release);
    }
    return fn;
}

std::atomic<OpenFn> next_open{nullptr};
std::atomic<ReadFn> next_read{nullptr};
std::atomic<WriteFn> next_write{nullptr};
std::atomic<CloseFn> next_close{nullptr};
std::atomic<SelectFn> next_select{nullptr};

struct Fault {
    int error = 0;  // 0: none armed
    int after = 0;  // calls still to pass before the failure
};

// Everything below is guarded by the mutex. Never destroyed: calls may still
// arrive from other threads while the process ends.
struct State {
    std::mutex mutex;
    std::condition_variable closed_changed;
    std::string path;
    int device = -1;
    int closed_number = -1;
    bool closed = false;
    int writes_after_close = 0;
    std::vector<std::string> writes;
    Fault faults[3];

    // Counts one call of that kind on the device; true, with errno set, when
    // it is to fail.
    bool fails(SyscallFaults::Call call)
    {
        Fault& fault = faults[static_cast<int>(call)];
        if (fault.error == 0 || fault.after-- > 0)
            return false;
        errno = fault.error;
        fault.error = 0;
        return true;
    }
};

State& state()
{
    static State* const instance = new State;
    return *instance;
}

}  // namespace

// ------------------------------------------------------------------ control API

void SyscallFaults::reset(const std::string& path)
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.path = path;
    s.device = s.closed_number = -1;
    s.closed = false;
    s.writes_after_close = 0;
    s.writes.clear();
    for (Fault& fault : s.faults)
        fault = Fault{};
}

void SyscallFaults::fail_next(Call call, int error, int after)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    state().faults[static_cast<int>(call)] = Fault{error, after};
}

bool SyscallFaults::wait_device_closed(std::chrono::milliseconds timeout)
{
    State& s = state();
    std::unique_lock<std::mutex> lock(s.mutex);
    return s.closed_changed.wait_for(lock, timeout, [&s] { return s.closed; });
}

int SyscallFaults::writes_after_close()
{
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().writes_after_close;
}

std::vector<std::string> SyscallFaults::device_writes()
{
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().writes;
}

}  // namespace catra_test

// ------------------------------------------------------------------ interposed functions

using catra_test::SyscallFaults;
namespace faults = catra_test;

extern "C" {

int open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list arguments;
        va_start(arguments, flags);
        mode = static_cast<mode_t>(va_arg(arguments, int));
        va_end(arguments);
    }
    if (faults::resolving)
        return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
    const int fd = faults::next_definition(faults::next_open, "open")(path, flags, mode);
    faults::State& s = faults::state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (fd >= 0 && !s.path.empty() && s.path == path) {
        s.device = fd;
        s.closed_number = -1;
        s.closed = false;
    }
    return fd;
}

ssize_t read(int fd, void* buffer, size_t count)
{
    if (faults::resolving)
        return ::syscall(SYS_read, fd, buffer, count);
    const faults::ReadFn next = faults::next_definition(faults::next_read, "read");
    {
        faults::State& s = faults::state();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (fd >= 0 && fd == s.device && s.fails(SyscallFaults::Call::read))
            return -1;
    }
    return next(fd, buffer, count);
}

ssize_t write(int fd, const void* buffer, size_t count)
{
    if (faults::resolving)
        return ::syscall(SYS_write, fd, buffer, count);
    const faults::WriteFn next = faults::next_definition(faults::next_write, "write");
    {
        faults::State& s = faults::state();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (fd >= 0 && fd == s.device) {
            s.writes.emplace_back(static_cast<const char*>(buffer), count);
            if (s.fails(SyscallFaults::Call::write))
                return -1;
        } else if (fd >= 0 && fd == s.closed_number) {
            const int saved = errno;
            s.writes_after_close += ::fcntl(fd, F_GETFD) == -1 && errno == EBADF;
            errno = saved;
        }
    }
    return next(fd, buffer, count);
}

int close(int fd)
{
    if (faults::resolving)
        return static_cast<int>(::syscall(SYS_close, fd));
    const faults::CloseFn next = faults::next_definition(faults::next_close, "close");
    faults::State& s = faults::state();
    {
        // Marked before the descriptor is released, so that a file opened
        // under the same number right after is never taken for the device.
        std::lock_guard<std::mutex> lock(s.mutex);
        if (fd >= 0 && fd == s.device) {
            s.device = -1;
            s.closed_number = fd;
            s.closed = true;
            s.closed_changed.notify_all();
        }
    }
    return next(fd);
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* failed, timeval* timeout)
{
    if (faults::resolving) {
        errno = ENOSYS;
        return -1;
    }
    const faults::SelectFn next = faults::next_definition(faults::next_select, "select");
    {
        faults::State& s = faults::state();
        std::lock_guard<std::mutex> lock(s.mutex);
        const int fd = s.device;
        if (fd >= 0 && fd < count && fd < FD_SETSIZE && readable != nullptr &&
            FD_ISSET(fd, readable) && s.fails(SyscallFaults::Call::select))
            return -1;
    }
    return next(count, readable, writable, failed, timeout);
}

}  // extern "C"
