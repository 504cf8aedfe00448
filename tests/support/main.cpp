// The main of every test executable of the project.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

#include "standin/plugin_host.h"

int main(int argc, char** argv)
{
    ::testing::InitGoogleMock(&argc, argv);
    const int result = RUN_ALL_TESTS();
    std::fflush(nullptr);
    // A loaded plug-in's threads never end, so the process ends without
    // destroying statics under them (leak check and coverage dump run first).
    standin::end_process(result);
}
