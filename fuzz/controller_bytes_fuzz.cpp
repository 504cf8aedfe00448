// Fuzz target: arbitrary controller byte streams through the event loop's
// read path (read_catra_event, as the event thread calls it once the device
// is readable), with the manual clock moved between reads so that the time
// filters of the blocked (k) and give-up (j) letters are crossed both ways.
//
// Input: a sequence of steps of three bytes [clock][byte][byte]:
//   clock  the time that passes before the read: values below 0x80 are that
//          many milliseconds (0..127); from 0x80 on, (clock - 0x80) * 10 ms
//          (0..1270), so that any interval can be built from a few steps;
//   bytes  written into the controller line, then read by the plug-in in one
//          read of at most two bytes, as the controller's letter and NUL.
// A last step of two bytes feeds a single byte; one of one byte only moves
// the clock.
#include <cstddef>
#include <cstdint>
#include <exception>

#include "catra_internal.h"
#include "fuzz_support.h"
#include "standin/clock.h"

namespace {

long clock_step_ms(std::uint8_t code)
{
    return code < 0x80 ? code : (code - 0x80) * 10L;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    catra_fuzz::set_up_once();
    catra_fuzz::reset_for_input();

    std::size_t at = 0;
    while (at < size) {
        standin::Clock::instance().advance_ms(clock_step_ms(data[at]));
        ++at;
        const std::size_t chunk = size - at < 2 ? size - at : 2;
        if (chunk == 0)
            break;
        // Never a read without bytes fed before it: it would wait for ever.
        catra_fuzz::controller_event(reinterpret_cast<const char*>(data + at), chunk);
        at += chunk;
    }

    catra_fuzz::check_invariants("controller_bytes_fuzz");
    return 0;
}
