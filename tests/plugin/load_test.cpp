// Loading the plug-in the way the terminal does, on a device that is missing.
#include <string>

#include "terminal_test.h"

namespace catra_test {
namespace {

class PluginLoad : public TerminalTest {};

TEST_F(PluginLoad, InitFailsForAMissingDevice)
{
    const std::string missing = "/nonexistent-catra-folder/ttyCATRA";
    config().set("catra", "device_path", missing);

    std::string error;
    EXPECT_FALSE(load_plugin(&error));
    EXPECT_EQ(error, "Unable to open " + missing + ": No such file or directory");

    // Inert: nothing registered, no run function, nothing written anywhere.
    EXPECT_TRUE(plugin_host().plugin().listeners().empty());
    EXPECT_FALSE(start_plugin());
    EXPECT_TRUE(SyscallFaults::device_writes().empty());
}

}  // namespace
}  // namespace catra_test
