// Messages and replies.
#include "ac/message.h"

#include "ac/message_enqueuer.h"
#include "host_internal.h"

namespace ac {

// ---------------------------------------------------------------- Completion
void Message::Completion::signal()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        done_ = true;
    }
    done_cv_.notify_all();
}

void Message::Completion::wait()
{
    std::unique_lock<std::mutex> lock(mutex_);
    done_cv_.wait(lock, [this] { return done_; });
}

void Message::Completion::mark_transferred()
{
    std::lock_guard<std::mutex> lock(mutex_);
    transferred_ = true;
}

bool Message::Completion::transferred()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return transferred_;
}

void Message::Completion::mark_received()
{
    std::lock_guard<std::mutex> lock(mutex_);
    received_ = true;
}

bool Message::Completion::received()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
}

// ---------------------------------------------------------------- Message
Message::Message(std::string type, int priority, void (*reply_callback)(MessageReply*))
    : type_(std::move(type)), priority_(priority), reply_callback_(reply_callback)
{
}

// A copy carries the type and the fields only. The reply object stays with
// the original (its requester waits on the original, and a second holder
// could outlive it), and so do the handled and transferred marks and the
// delivery bookkeeping.
Message::Message(const Message& other)
    : type_(other.type_),
      priority_(other.priority_),
      reply_callback_(other.reply_callback_),
      fields_(other.fields_)
{
}

// A message never owns its reply object. Destroying a message ends its
// delivery: a synchronous sender waiting on it is released.
Message::~Message()
{
    if (completion_)
        completion_->signal();
}

void Message::add_int(std::string key, int value)
{
    MessageField field;
    field.key = std::move(key);
    field.is_int = true;
    field.int_value = value;
    fields_.push_back(std::move(field));
}

void Message::add_string(std::string key, std::string value)
{
    MessageField field;
    field.key = std::move(key);
    field.text = std::move(value);
    fields_.push_back(std::move(field));
}

// The first field of a key decides; one of the other type counts as absent.
// The interface takes the key by value.
// cppcheck-suppress passedByValue
// NOLINTNEXTLINE(performance-unnecessary-value-param)
bool Message::get_int(std::string key, int* value) const
{
    for (const MessageField& field : fields_) {
        if (field.key != key)
            continue;
        if (!field.is_int)
            return false;
        if (value)
            *value = field.int_value;
        return true;
    }
    return false;
}

// The interface takes the key by value.
// cppcheck-suppress passedByValue
// NOLINTNEXTLINE(performance-unnecessary-value-param)
bool Message::get_string(std::string key, std::string* value) const
{
    for (const MessageField& field : fields_) {
        if (field.key != key)
            continue;
        if (field.is_int)
            return false;
        if (value)
            *value = field.text;
        return true;
    }
    return false;
}

std::string Message::type() const
{
    return type_;
}

int Message::priority() const
{
    return priority_;
}

Message::ReplyCallback Message::reply_callback() const
{
    return reply_callback_;
}

MessageReply* Message::reply() const
{
    return reply_;
}

void Message::set_reply(MessageReply* reply)
{
    reply_ = reply;
}

void Message::set_handled()
{
    handled_ = true;
}

bool Message::handled() const
{
    return handled_;
}

// From the enqueue on, the queue owns this message and may free it at any
// time, so nothing here touches it afterwards.
void Message::transfer(MessageEnqueuer* queue)
{
    if (!queue)
        return;
    transferred_ = true;
    if (completion_)
        completion_->mark_transferred();
    queue->enqueue(this, nullptr);
}

bool Message::transferred() const
{
    return transferred_;
}

const std::vector<MessageField>& Message::fields() const
{
    return fields_;
}

std::shared_ptr<Message::Completion> Message::completion() const
{
    return completion_;
}

void Message::set_completion(std::shared_ptr<Completion> completion)
{
    completion_ = std::move(completion);
}

// ---------------------------------------------------------------- MessageReply
MessageReply::MessageReply() : Message("reply", 0, nullptr) {}

MessageReply::~MessageReply() = default;

bool MessageReply::replied() const
{
    return replied_;
}

void MessageReply::set_replied()
{
    replied_ = true;
}

}  // namespace ac
