// Loading a plug-in and running it, and ending the process around it.
#include "standin/plugin_host.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "host_internal.h"

#if defined(__SANITIZE_ADDRESS__)
#define STANDIN_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define STANDIN_ASAN 1
#endif
#endif

#if defined(STANDIN_ASAN)
#include <sanitizer/lsan_interface.h>
#endif

namespace standin {

namespace {

using InitFunction = bool (*)(ac::Plugin*, std::string*);

struct HostRegistry {
    std::mutex mutex;
    std::set<PluginHost*> hosts;  // guarded by mutex
};

HostRegistry& registry()
{
    static HostRegistry* hosts = new HostRegistry();
    return *hosts;
}

}  // namespace

void register_plugin_host(PluginHost* host)
{
    std::lock_guard<std::mutex> lock(registry().mutex);
    registry().hosts.insert(host);
}

void unregister_plugin_host(PluginHost* host)
{
    std::lock_guard<std::mutex> lock(registry().mutex);
    registry().hosts.erase(host);
}

void stop_all_plugin_hosts()
{
    std::lock_guard<std::mutex> lock(registry().mutex);
    for (PluginHost* host : registry().hosts)
        host->stop();
}

PluginHost::PluginHost(std::string library_path)
    : path_(std::move(library_path)), result_(std::make_shared<int>(0))
{
    register_plugin_host(this);
}

PluginHost::~PluginHost()
{
    stop();
    unregister_plugin_host(this);
}

bool PluginHost::init(std::string* error)
{
    std::string ignored;
    if (!error)
        error = &ignored;
    if (!handle_)
        handle_ = dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle_) {
        const char* text =
            dlerror();  // NOLINT(concurrency-mt-unsafe): read at once, on this thread
        *error = text ? std::string(text) : "cannot load " + path_;
        log_host("load failed: " + *error);
        return false;
    }
    // dlsym hands out every symbol as an object pointer.
    auto init_function =
        reinterpret_cast<InitFunction>(dlsym(handle_, "init"));  // NOLINT(*-reinterpret-cast)
    if (!init_function) {
        *error = "no init in " + path_;
        log_host(*error);
        return false;
    }
    try {
        return init_function(&plugin_, error);
    } catch (const std::exception& e) {
        *error = e.what();
    } catch (...) {
        *error = "unknown exception";
    }
    log_host("init threw: " + *error);
    return false;
}

ac::Plugin& PluginHost::plugin()
{
    return plugin_;
}

bool PluginHost::start()
{
    int (*run)() = plugin_.run_function();
    std::lock_guard<std::mutex> lock(thread_mutex_);
    if (!run || run_thread_.joinable() || stopped_)
        return false;
    finished_.store(false);
    run_thread_ = std::thread([this, run] {
        try {
            *result_ = run();
        } catch (const std::exception& e) {
            *result_ = -1;
            log_host(std::string("run threw: ") + e.what());
        } catch (...) {
            *result_ = -1;
            log_host("run threw an unknown exception");
        }
        finished_.store(true, std::memory_order_release);
    });
    return true;
}

void PluginHost::stop()
{
    std::thread run_thread;
    {
        std::lock_guard<std::mutex> lock(thread_mutex_);
        stopped_ = true;
        if (!run_thread_.joinable() || run_thread_.get_id() == std::this_thread::get_id())
            return;
        run_thread = std::move(run_thread_);
    }
    Bus::instance().stop_queues();
    run_thread.join();
}

bool PluginHost::running() const
{
    std::lock_guard<std::mutex> lock(thread_mutex_);
    return run_thread_.joinable() && !finished_.load(std::memory_order_acquire);
}

int PluginHost::run_result() const
{
    return finished_.load(std::memory_order_acquire) ? *result_ : 0;
}

void end_process(int code)
{
    Bus::instance().stop_queues();
    stop_all_plugin_hosts();
    Bus::instance().shutdown();
    // Only the output streams: standard input's lock may be held for good by
    // a thread blocked reading it.
    std::fflush(stdout);
    std::fflush(stderr);
#if defined(STANDIN_ASAN)
    __lsan_do_leak_check();
#endif
#if defined(STANDIN_COVERAGE_BUILD)
    // A coverage build: every module (the plug-in loaded with dlopen among
    // them) keeps its own, hidden coverage writer, which only exit() reaches.
    // Such a build carries no sanitizer, and the plug-in's threads are idle by
    // now (queues stopped, nothing written to the controller), so the static
    // destructors may run.
    std::exit(code);
#endif
    _exit(code);
}

}  // namespace standin
