// Loading a plug-in library, its init and run, as the terminal does.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "standin/standin.h"

namespace {

class PluginHostTest : public testing::Test {
protected:
    void SetUp() override
    {
        standin::Config::instance().clear();
        standin::Logs::instance().clear();
    }
    static std::vector<std::string> host_lines()
    {
        std::vector<std::string> lines;
        for (const standin::LogLine& line : standin::Logs::instance().lines()) {
            if (line.kind == standin::LogLine::Kind::host)
                lines.push_back(line.text);
        }
        return lines;
    }
};

TEST_F(PluginHostTest, LoadsInitsRunsServesAndStops)
{
    standin::PluginHost host(SAMPLE_PLUGIN_PATH);
    std::string error;
    ASSERT_TRUE(host.init(&error)) << error;
    EXPECT_EQ(host.plugin().name(), "sample");
    ASSERT_EQ(host.plugin().listeners().size(), 1u);
    EXPECT_EQ(host.plugin().listeners()[0].type, "sample_ping");
    ASSERT_TRUE(host.start());
    EXPECT_TRUE(host.running());

    ac::MessageReply reply;
    auto* ping = new ac::Message("sample_ping", 0, nullptr);
    ping->set_reply(&reply);
    EXPECT_TRUE(ac::PostOffice::send_message_sync(ping));
    std::string answer;
    EXPECT_TRUE(reply.replied());
    EXPECT_TRUE(reply.get_string("answer", &answer));
    EXPECT_EQ(answer, "pong");

    host.stop();
    EXPECT_FALSE(host.running());
    EXPECT_EQ(host.run_result(), 7);
    EXPECT_TRUE(host_lines().empty());
}

TEST_F(PluginHostTest, InitFailureAndInitExceptionEndInFalseWithTheirText)
{
    standin::PluginHost host(SAMPLE_PLUGIN_PATH);
    std::string error;
    standin::Config::instance().set("sample", "init", "fail");
    EXPECT_FALSE(host.init(&error));
    EXPECT_EQ(error, "sample refused");
    EXPECT_FALSE(host.start());  // no run function was registered

    standin::Config::instance().set("sample", "init", "throw");
    EXPECT_FALSE(host.init(&error));
    EXPECT_EQ(error, "sample init failure");
    EXPECT_EQ(host_lines(), (std::vector<std::string>{"init threw: sample init failure"}));
}

TEST_F(PluginHostTest, RunExceptionIsReported)
{
    standin::PluginHost host(SAMPLE_PLUGIN_PATH);
    std::string error;
    ASSERT_TRUE(host.init(&error)) << error;
    standin::Config::instance().set("sample", "run", "throw");
    ASSERT_TRUE(host.start());
    host.stop();
    EXPECT_EQ(host.run_result(), -1);
    EXPECT_EQ(host_lines(), (std::vector<std::string>{"run threw: sample run failure"}));
}

TEST_F(PluginHostTest, MissingLibraryFailsToLoad)
{
    standin::PluginHost host("/nonexistent/libnothing.so");
    std::string error;
    EXPECT_FALSE(host.init(&error));
    EXPECT_NE(error.find("/nonexistent/libnothing.so"), std::string::npos) << error;
}

}  // namespace
