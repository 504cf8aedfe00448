// The live view's history: numbered events, bounded in lines and bytes; a
// stream reads on from its number, and one that fell behind ends.
#include <gtest/gtest.h>

#include <thread>

#include "live/history.h"

namespace {

using namespace std::chrono_literals;
using terminal::History;

std::vector<std::string> texts(const std::optional<std::vector<History::Event>>& events)
{
    std::vector<std::string> texts;
    for (const History::Event& event : events.value())
        texts.push_back(*event);
    return texts;
}

TEST(History, KeepsTheNewestWithinItsBoundsAndDropsAStreamThatFellBehind)
{
    History history(3, 6);
    std::uint64_t next = history.first();
    for (const char* event : {"ab", "cd", "e"})
        history.add(event);
    EXPECT_EQ(texts(history.read(next, 0ms)), (std::vector<std::string>{"ab", "cd", "e"}));
    EXPECT_EQ(next, 3u);
    history.add("f");  // a fourth line: "ab" goes
    EXPECT_EQ(history.first(), 1u);
    EXPECT_EQ(texts(history.read(next, 0ms)), std::vector<std::string>{"f"});
    history.add("0123456789");  // alone past the bytes: kept, alone
    EXPECT_EQ(history.first(), 4u);
    std::uint64_t behind = 3;
    EXPECT_EQ(history.read(behind, 0ms), std::nullopt);
    EXPECT_EQ(texts(history.read(next, 0ms)), std::vector<std::string>{"0123456789"});
}

TEST(History, AWaitingReadGetsTheNextEventAndAStopEndsEveryRead)
{
    History history(10, 100);
    std::uint64_t next = 0;
    std::thread adder([&history] { history.add("x"); });
    EXPECT_EQ(texts(history.read(next, 10s)), std::vector<std::string>{"x"});
    adder.join();
    history.stop();
    EXPECT_EQ(history.read(next, 10s), std::nullopt);
}

}  // namespace
