// Loading a plug-in into the stand-in host, and ending the process around it.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "ac/plugin.h"

namespace standin {

// Loads a plug-in library the way the terminal does: dlopen, "init", then the
// registered run function on a thread of its own. Exceptions that leave init
// or run are caught and reported to the host log, as a host would.
// The library is never closed (no dlclose), not even by the destructor:
// threads that the plug-in started may run its code until the process ends.
class PluginHost {
public:
    explicit PluginHost(std::string library_path);
    // Stops as stop does.
    ~PluginHost();
    PluginHost(const PluginHost&) = delete;
    PluginHost& operator=(const PluginHost&) = delete;
    PluginHost(PluginHost&&) = delete;
    PluginHost& operator=(PluginHost&&) = delete;

    // dlopen (once) and call init; false (with *error set, when error is not
    // null) when init fails, throws or the library cannot be loaded.
    bool init(std::string* error);
    ac::Plugin& plugin();
    // Starts the run function on the run thread; false when none was
    // registered, it was already started, or stop() came first.
    bool start();
    // Once run was started: stops every queue on the bus (run serves the
    // plug-in's) and waits for run to return. Does nothing on the run thread.
    void stop();
    bool running() const;
    // What run returned, -1 when it threw; 0 until it has returned.
    int run_result() const;

private:
    std::string path_;
    void* handle_ = nullptr;
    ac::Plugin plugin_;
    // start() and stop() may come from two threads at once: the session's
    // steps start the plug-in while a stop signal ends the process.
    mutable std::mutex thread_mutex_;
    std::thread run_thread_;  // guarded by thread_mutex_
    bool stopped_ = false;    // guarded by thread_mutex_; no start() after a stop()
    std::shared_ptr<int> result_;
    std::atomic<bool> finished_{false};  // set by the run thread when run has returned
};

// Ends the process with code, without destroying statics: stops every queue,
// stops every PluginHost alive, shuts the bus down, flushes standard output
// and standard error (not standard input, whose lock a blocked reader may
// hold for good), runs the leak check of a sanitized build and calls _exit.
// The plug-in has no shutdown and its detached threads may still be inside
// its code, so static destructors would race with them. A coverage build ends
// through exit() instead, the only way to each module's coverage writer.
[[noreturn]] void end_process(int code);

}  // namespace standin
