// What a recorded session expects of each output line.
#include <gtest/gtest.h>

#include "record/recorder.h"

namespace {

// A recording expects what the plug-in sent and wrote, and nothing else.
TEST(Recorder, ExpectsThePluginsLinesWithoutWhatVariesFromRunToRun)
{
    const lines::Json fields =
        lines::Json::parse(R"([["event", 8], ["timestamp", 17], ["uuid", "u"]])");
    const std::pair<lines::Json, const char*> rows[] = {
        {lines::bus_line("catra_event", fields),
         R"({"bus":"catra_event","fields":[["event",8],["uuid","u"]]})"},
        {lines::controller_line("r5"), R"({"controller":"r5"})"},
        {lines::init_failed_line("no fi1"), R"({"init_failed":"no fi1"})"},
        {lines::turnstile_line('f'), "null"},
        {lines::note_line("n"), "null"},
    };
    for (const auto& [line, expected] : rows)
        EXPECT_EQ(lines::compact(terminal::expectation_for(line)), expected) << line;
}

}  // namespace
