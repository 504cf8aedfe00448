// The registration object of a plug-in.
#include "ac/plugin.h"

#include "host_internal.h"

namespace ac {

Plugin::Plugin() = default;

// The plug-in's receivers go with its registration object.
Plugin::~Plugin()
{
    standin::Internals::bus().remove_receivers_of(this);
}

void Plugin::set_name(std::string name)
{
    name_ = std::move(name);
}

void Plugin::set_run(int (*run)())
{
    run_ = run;
}

// From here on the bus calls the row's function, on the delivery thread,
// with each message of the row's type. The row's flag is kept but not used.
void Plugin::add_messages_interested(const MessageListener* table, int count)
{
    standin::Internals::BusCore& bus = standin::Internals::bus();
    for (int i = 0; i < count; ++i) {
        listeners_.push_back(table[i]);
        void (*function)(Message*) = table[i].function;
        bus.add_receiver(table[i].type, this, [function](Message& msg) { function(&msg); });
    }
}

const std::string& Plugin::name() const
{
    return name_;
}

int (*Plugin::run_function() const)()
{
    return run_;
}

const std::vector<MessageListener>& Plugin::listeners() const
{
    return listeners_;
}

}  // namespace ac
