#pragma once

// The interface shared with the host: what a factory of the module returns.

#include "__ORN__/orn_basic.h"

namespace ZARN {

// One process of the module. The host calls a factory, then `initialize` with
// the working directory, then `execute`, then drops the reference.
class Process : public ORN::Interface {
public:
    ~Process() override = default;
    // Binds the process to its working directory; true when the process is
    // enabled for it.
    virtual bool initialize(const ORN::String<char> &working_path) = 0;
    // Runs the process (a disabled process reports that it is skipped).
    virtual void execute() = 0;
};

} // namespace ZARN
