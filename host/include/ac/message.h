// Host messages, replies and the registration row.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace ac {

class MessageEnqueuer;
class MessageReply;

// One named field of a message: an int or a text, kept in the order added.
struct MessageField {
    std::string key;
    bool is_int = false;
    int int_value = 0;
    std::string text;
};

// Messages are copied (a queued copy of a received message) but never moved.
class Message {  // NOLINT(cppcoreguidelines-special-member-functions)
public:
    Message(std::string type, int priority, void (*reply_callback)(MessageReply*));
    Message(const Message& other);
    Message& operator=(const Message&) = delete;
    virtual ~Message();

    void add_int(std::string key, int value);
    void add_string(std::string key, std::string value);
    // True and *value set when a field of that key and type exists; false and
    // *value untouched otherwise (a field of the other type counts as absent).
    bool get_int(std::string key, int* value) const;
    bool get_string(std::string key, std::string* value) const;

    std::string type() const;

    MessageReply* reply() const;
    void set_reply(MessageReply* reply);

    void set_handled();
    bool handled() const;

    // Moves this message, with its reply object, into a plug-in's queue.
    void transfer(MessageEnqueuer* queue);
    bool transferred() const;

    const std::vector<MessageField>& fields() const;

    // What the sender built the message with, for the host's observers.
    int priority() const;
    using ReplyCallback = void (*)(MessageReply*);
    ReplyCallback reply_callback() const;

    // Host bookkeeping of synchronous deliveries; opaque to plug-ins.
    struct Completion;
    std::shared_ptr<Completion> completion() const;
    void set_completion(std::shared_ptr<Completion> completion);

private:
    std::string type_;
    int priority_;
    void (*reply_callback_)(MessageReply*);
    std::vector<MessageField> fields_;
    MessageReply* reply_ = nullptr;
    bool handled_ = false;
    bool transferred_ = false;
    std::shared_ptr<Completion> completion_;
};

// The answer to a synchronous request; owned by the requester.
class MessageReply : public Message {
public:
    MessageReply();
    ~MessageReply() override;
    MessageReply(const MessageReply&) = delete;
    MessageReply& operator=(const MessageReply&) = delete;

    bool replied() const;
    void set_replied();

private:
    bool replied_ = false;
};

// A registration row: message type, function to call, flag.
struct MessageListener {
    std::string type;
    void (*function)(Message*);
    bool flag;
};

}  // namespace ac
