// Deterministic faults on the controller device's system calls, and a record
// of what the code under test did with the device.
//
// The test executable itself defines open, read, write, select and close
// (see syscall_faults.cpp); a plug-in loaded into it resolves those
// names to these definitions first. Every call is passed on to the real
// function unless a fault is armed for it. "The device" is the descriptor that
// open() returned for the watched path.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace catra_test {

class SyscallFaults {
public:
    enum class Call { read, write, select };

    // Forgets the device, armed faults and the records, and watches `path`:
    // the next descriptor that open() returns for exactly this path becomes
    // the device (a later open of the same path replaces it).
    static void reset(const std::string& path);

    // The next call of that kind on the device fails with errno `error`
    // without reaching the system: read and write of the device descriptor;
    // select whose read set holds the device. Arming a kind again replaces an
    // earlier arming. With `after`, that many calls of the kind on the device
    // pass first (for example the third write of a sequence fails with after
    // = 2).
    static void fail_next(Call call, int error, int after = 0);

    static bool wait_device_closed(std::chrono::milliseconds timeout);

    // Write calls made on the device's descriptor number after it was closed,
    // while no file was open under that number (each one a write to a closed
    // descriptor).
    static int writes_after_close();

    // The bytes of every write call on the open device, in call order, NULs
    // included; failed calls (injected or real) are recorded too, as the code
    // under test made them.
    static std::vector<std::string> device_writes();
};

}  // namespace catra_test
