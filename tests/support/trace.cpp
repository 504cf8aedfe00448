#include "trace.h"

#include "bus_recorder.h"
#include "bytes_text.h"
#include "standin/standin.h"
#include "syscall_faults.h"

namespace catra_test {

Trace::Trace() : seen_(SyscallFaults::device_writes().size())
{
    id_ = standin::Bus::instance().subscribe([this](const ac::Message& msg, bool sync) {
        std::lock_guard<std::mutex> lock(mutex_);
        take_writes();
        lines_.push_back(render(RecordedMessage{msg.type(), msg.fields(), sync}));
    });
}

Trace::~Trace()
{
    standin::Bus::instance().unsubscribe(id_);
}

std::vector<std::string> Trace::lines()
{
    std::lock_guard<std::mutex> lock(mutex_);
    take_writes();
    return lines_;
}

void Trace::take_writes()
{
    const std::vector<std::string> writes = SyscallFaults::device_writes();
    for (; seen_ < writes.size(); ++seen_) {
        lines_.push_back("write " + escape_bytes(writes[seen_]));
    }
}

}  // namespace catra_test
