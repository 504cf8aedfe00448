// Loading the plug-in the way the terminal does, and its controller set-up.
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "terminal_test.h"

namespace catra_test {
namespace {

using namespace std::string_literals;

class PluginLoad : public TerminalTest {};

// A path in a fresh, empty directory: nothing can be opened there.
class MissingDevicePath {
public:
    MissingDevicePath()
    {
        std::string pattern = ::testing::TempDir() + "catra-load-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        directory_ = pattern;
    }
    ~MissingDevicePath() { ::rmdir(directory_.c_str()); }
    std::string path() const { return directory_ + "/ttyCATRA"; }

private:
    std::string directory_;
};

TEST_F(PluginLoad, InitFailsForAMissingDevice)
{
    const MissingDevicePath missing;
    config().set("catra", "device_path", missing.path());

    std::string error;
    EXPECT_FALSE(load_plugin(&error));
    EXPECT_EQ(error, "Unable to open " + missing.path() + ": No such file or directory");

    // Inert: nothing registered, no run function, nothing written anywhere.
    EXPECT_TRUE(plugin_host().plugin().listeners().empty());
    EXPECT_FALSE(start_plugin());
    EXPECT_TRUE(SyscallFaults::device_writes().empty());
    EXPECT_EQ(pty().drain(), "");
}

}  // namespace
}  // namespace catra_test
