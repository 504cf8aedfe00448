// Interposition of the controller device's system calls.
//
// These definitions live in the test executable, which comes first in the
// process's symbol search order, so the plug-in's (and everybody's) calls of
// open, read, write, select and close land here. Each one is passed on to the
// next definition in the search order (a sanitizer's interceptor, then the C
// library), found lazily with dlsym(RTLD_NEXT). Calls that do not concern the
// device take a lock-free path.
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

void die(const char* text)
{
    // Nothing here may call the interposed functions.
    ::syscall(SYS_write, 2, text, __builtin_strlen(text));
    std::abort();
}

template <typename Fn>
Fn next_definition(std::atomic<Fn>& cache, const char* name)
{
    Fn fn = cache.load(std::memory_order_acquire);
    if (fn != nullptr)
        return fn;
    resolving = true;
    fn = reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, name));
    resolving = false;
    if (fn == nullptr)
        die("syscall_faults: no next definition of an interposed function\n");
    cache.store(fn, std::memory_order_release);
    return fn;
}

// Lock-free view of the device, read on every call.
std::atomic<bool> watching{false};
std::atomic<int> device{-1};
std::atomic<int> closed_number{-1};

struct Fault {
    int error = 0;
    int times = 0;
    int after = 0;  // calls still to pass before the failures begin

    // Counts one call of this kind; true when it is to fail. Called with the
    // state's mutex held.
    bool fails_now()
    {
        if (times <= 0)
            return false;
        if (after > 0) {
            --after;
            return false;
        }
        --times;
        return true;
    }
};

struct State {
    std::mutex mutex;
    std::condition_variable closed_changed;
    std::string path;
    bool closed = false;
    int writes_after_close = 0;
    std::vector<std::string> writes;
    Fault faults[4];
};

// Never destroyed: calls may still arrive from other threads while the
// process ends.
State& state()
{
    static State* const instance = new State;
    return *instance;
}

int index_of(SyscallFaults::Call call)
{
    return static_cast<int>(call);
}

// Takes one armed failure of that kind; its errno in *error.
bool take_fault(SyscallFaults::Call call, int* error)
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    Fault& fault = s.faults[index_of(call)];
    if (!fault.fails_now())
        return false;
    *error = fault.error;
    return true;
}

bool needs_mode(int flags)
{
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

int open_through(const char* name, std::atomic<OpenFn>& cache, const char* path, int flags,
                 mode_t mode)
{
    if (resolving)
        return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
    const OpenFn next = next_definition(cache, name);
    if (!watching.load(std::memory_order_acquire) || path == nullptr)
        return next(path, flags, mode);

    State& s = state();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.path != path) {
            // Not the device: pass on below, outside the lock.
        } else {
            Fault& fault = s.faults[index_of(SyscallFaults::Call::open)];
            if (fault.fails_now()) {
                errno = fault.error;
                return -1;
            }
        }
    }
    const int fd = next(path, flags, mode);
    if (fd >= 0) {
        const int saved = errno;
        {
            std::lock_guard<std::mutex> lock(s.mutex);
            if (s.path == path) {
                device.store(fd, std::memory_order_release);
                closed_number.store(-1, std::memory_order_release);
                s.closed = false;
            }
        }
        errno = saved;
    }
    return fd;
}

std::atomic<OpenFn> next_open{nullptr};
std::atomic<OpenFn> next_open64{nullptr};
std::atomic<ReadFn> next_read{nullptr};
std::atomic<WriteFn> next_write{nullptr};
std::atomic<CloseFn> next_close{nullptr};
std::atomic<SelectFn> next_select{nullptr};

ssize_t read_through(int fd, void* buffer, size_t count)
{
    if (resolving)
        return ::syscall(SYS_read, fd, buffer, count);
    const ReadFn next = next_definition(next_read, "read");
    if (fd >= 0 && fd == device.load(std::memory_order_acquire)) {
        int error = 0;
        if (take_fault(SyscallFaults::Call::read, &error)) {
            errno = error;
            return -1;
        }
    }
    return next(fd, buffer, count);
}

int open_mode_argument(int flags, va_list arguments)
{
    return needs_mode(flags) ? static_cast<int>(va_arg(arguments, mode_t)) : 0;
}

}  // namespace

// ------------------------------------------------------------------ control API

void SyscallFaults::reset()
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    watching.store(false, std::memory_order_release);
    device.store(-1, std::memory_order_release);
    closed_number.store(-1, std::memory_order_release);
    s.path.clear();
    s.closed = false;
    s.writes_after_close = 0;
    s.writes.clear();
    for (Fault& fault : s.faults)
        fault = Fault{};
}

void SyscallFaults::watch_path(const std::string& path)
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.path = path;
    watching.store(true, std::memory_order_release);
}

void SyscallFaults::fail_next(Call call, int error, int times, int after)
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.faults[index_of(call)] = Fault{error, times, after};
}

bool SyscallFaults::wait_device_closed(std::chrono::milliseconds timeout)
{
    State& s = state();
    std::unique_lock<std::mutex> lock(s.mutex);
    return s.closed_changed.wait_for(lock, timeout, [&s] { return s.closed; });
}

int SyscallFaults::writes_after_close()
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.writes_after_close;
}

std::vector<std::string> SyscallFaults::device_writes()
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.writes;
}

}  // namespace catra_test

// ------------------------------------------------------------------ interposed functions

using catra_test::SyscallFaults;
namespace faults = catra_test;

extern "C" {

int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const int mode = faults::open_mode_argument(flags, arguments);
    va_end(arguments);
    return faults::open_through("open", faults::next_open, path, flags, static_cast<mode_t>(mode));
}

int open64(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const int mode = faults::open_mode_argument(flags, arguments);
    va_end(arguments);
    return faults::open_through("open64", faults::next_open64, path, flags,
                                static_cast<mode_t>(mode));
}

ssize_t read(int fd, void* buffer, size_t count)
{
    return faults::read_through(fd, buffer, count);
}

ssize_t write(int fd, const void* buffer, size_t count)
{
    if (faults::resolving)
        return ::syscall(SYS_write, fd, buffer, count);
    const faults::WriteFn next = faults::next_definition(faults::next_write, "write");
    if (fd < 0)
        return next(fd, buffer, count);

    if (fd == faults::device.load(std::memory_order_acquire)) {
        faults::State& s = faults::state();
        std::unique_lock<std::mutex> lock(s.mutex);
        s.writes.emplace_back(static_cast<const char*>(buffer), count);
        faults::Fault& fault = s.faults[faults::index_of(SyscallFaults::Call::write)];
        if (fault.fails_now()) {
            errno = fault.error;
            return -1;
        }
    } else if (fd == faults::closed_number.load(std::memory_order_acquire)) {
        const int saved = errno;
        if (::fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
            faults::State& s = faults::state();
            std::lock_guard<std::mutex> lock(s.mutex);
            ++s.writes_after_close;
        }
        errno = saved;
    }
    return next(fd, buffer, count);
}

int close(int fd)
{
    if (faults::resolving)
        return static_cast<int>(::syscall(SYS_close, fd));
    const faults::CloseFn next = faults::next_definition(faults::next_close, "close");
    if (fd >= 0 && fd == faults::device.load(std::memory_order_acquire)) {
        faults::State& s = faults::state();
        {
            std::lock_guard<std::mutex> lock(s.mutex);
            // Marked before the descriptor is released, so that a file opened
            // under the same number right after is never taken for the device.
            if (faults::device.load(std::memory_order_acquire) == fd) {
                faults::device.store(-1, std::memory_order_release);
                faults::closed_number.store(fd, std::memory_order_release);
                s.closed = true;
            }
        }
        s.closed_changed.notify_all();
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
    const int fd = faults::device.load(std::memory_order_acquire);
    if (fd >= 0 && fd < count && fd < FD_SETSIZE && readable != nullptr && FD_ISSET(fd, readable)) {
        int error = 0;
        if (faults::take_fault(SyscallFaults::Call::select, &error)) {
            errno = error;
            return -1;
        }
    }
    return next(count, readable, writable, failed, timeout);
}

}  // extern "C"
