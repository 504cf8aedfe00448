#include "bus_recorder.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <mutex>
#include <sstream>

#include "standin/bus.h"
#include "syscall_faults.h"

namespace catra_test {

struct BusRecorder::Shared {
    mutable std::mutex mutex;
    std::vector<std::string> trace;
    std::size_t writes_seen = SyscallFaults::device_writes().size();

    // REQUIRES: mutex held.
    void take_writes()
    {
        const std::vector<std::string> writes = SyscallFaults::device_writes();
        for (; writes_seen < writes.size(); ++writes_seen) {
            std::string text = "write ";
            for (const char c : writes[writes_seen])
                text += c == '\0' ? std::string("\\0") : std::string(1, c);
            trace.push_back(text);
        }
    }
};

std::string render(const std::string& type, const std::vector<ac::MessageField>& fields)
{
    std::ostringstream out;
    out << type << '{';
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const ac::MessageField& field = fields[i];
        if (i > 0)
            out << ',';
        out << field.key << '=';
        if (field.is_int)
            out << field.int_value;
        else
            out << '"' << field.text << '"';
    }
    out << '}';
    return out.str();
}

BusRecorder::BusRecorder() : shared_(std::make_shared<Shared>())
{
    std::shared_ptr<Shared> shared = shared_;
    subscription_ =
        standin::Bus::instance().subscribe([shared](const ac::Message& message, bool sync) {
            const std::string line =
                render(message.type(), message.fields()) + (sync ? " (sync)" : "");
            if (message.priority() != 0 || message.reply_callback() != nullptr)
                ADD_FAILURE() << line << " was built with priority " << message.priority()
                              << (message.reply_callback() ? " and a reply callback" : "")
                              << ", not as new ac::Message(type, 0, nullptr)";
            std::lock_guard<std::mutex> lock(shared->mutex);
            shared->take_writes();
            shared->trace.push_back(line);
        });
}

BusRecorder::~BusRecorder()
{
    standin::Bus::instance().unsubscribe(subscription_);
}

std::vector<std::string> BusRecorder::trace() const
{
    std::lock_guard<std::mutex> lock(shared_->mutex);
    shared_->take_writes();
    return shared_->trace;
}

void BusRecorder::clear()
{
    std::lock_guard<std::mutex> lock(shared_->mutex);
    shared_->trace.clear();
    shared_->writes_seen = SyscallFaults::device_writes().size();
}

}  // namespace catra_test
