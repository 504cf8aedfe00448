// A minimal plug-in for the plug-in host tests. Module "sample" of the
// configuration steers it: "init" = "throw" or "fail", "run" = "throw".
#include <memory>
#include <string>

#include "ac/ac.h"

namespace {

// Made afresh by every init, so that tests in one process may load the
// sample again after its queue was stopped.
std::unique_ptr<ac::MessageEnqueuer> queue;

void to_queue(ac::Message* msg)
{
    msg->set_handled();
    msg->transfer(queue.get());
}

void answer_ping(ac::Message* msg)
{
    if (!msg->reply())
        return;
    msg->reply()->add_string("answer", "pong");
    msg->reply()->set_replied();
}

std::string setting(const char* key)
{
    std::string value;
    ac::config::get_param("sample", key, value, false);
    return value;
}

int run()
{
    if (setting("run") == "throw")
        throw ac::ac_exception("sample run failure", true);
    queue->process(0, nullptr);
    return 7;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) bool init(ac::Plugin* plugin, std::string* error)
{
    if (setting("init") == "throw")
        throw ac::ac_exception("sample init failure", true);
    if (setting("init") == "fail") {
        *error = "sample refused";
        return false;
    }
    queue = std::make_unique<ac::MessageEnqueuer>();
    plugin->set_name("sample");
    const ac::MessageListener to_host[] = {{"sample_ping", to_queue, true}};
    const ac::MessageListener to_handler[] = {{"sample_ping", answer_ping, true}};
    plugin->add_messages_interested(to_host, 1);
    queue->listen(to_handler, 1);
    plugin->set_run(run);
    return true;
}
