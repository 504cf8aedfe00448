// What both fuzz targets share: the plug-in set up once in the fuzzer's
// process, its state put back before every input, and the checks made after.
//
// The plug-in cannot be unloaded or reset as a whole, so the harness keeps it
// in one valid state between inputs: every input starts from the state a
// fresh set-up leaves (turnstile enabled and blocked, levels low, no pending
// release uuid), the database emptied and seeded again, the default
// configuration and the manual clock at its start. No thread of the plug-in
// runs: the fuzz target calls the event loop's read path and the queue
// handlers itself, on its own thread.
//
// The controller is a connected socket pair put in the place of the device
// that the set-up opened: what the harness writes to its end is readable at
// the plug-in's end at once, so every read of the plug-in takes exactly the
// bytes fed before it, and what the plug-in writes is drained from the
// harness's end.
#pragma once

#include <cstddef>
#include <string>

namespace catra_fuzz {

// Sets up the host and the plug-in (init_catra on a pseudo-terminal, then the
// socket pair in the device's place). Idempotent; aborts on failure.
void set_up_once();

// Puts the plug-in, the configuration, the database and the clock back into
// the state every input starts from.
void reset_for_input();

// Writes bytes into the controller line and has the plug-in read one event
// from them, as the event loop does once the device is readable: whatever the
// handling throws goes to the error log, as the loop writes it. What the
// plug-in wrote back is dropped.
void controller_event(const char* bytes, std::size_t size);

// Reads and drops whatever the plug-in wrote to the controller.
void drain_controller();

// Waits for the bus to deliver what the input sent, then aborts unless:
// state_mutex is free, current_state and default_state are within 0..3 and
// the controller is still open.
void check_invariants(const char* target);

}  // namespace catra_fuzz
