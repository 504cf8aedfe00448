#include <gtest/gtest.h>

#include "standin/standin.h"

// Loaded plug-ins keep threads of their own that static destructors would
// race with, so every test process ends through the host's end_process
// (stop the queues, leak check, coverage dump, _exit), never by returning.
int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    standin::Logs::instance().set_echo(false);
    standin::end_process(RUN_ALL_TESTS());
}
