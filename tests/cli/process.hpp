// Child processes for tests of the `tavrin` command: run one to its end and
// collect its output, or keep one running (a simulator) and kill it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace zelvo::tavrin::test {

struct finished_process {
    int exit_code = -1;
    std::string out;
    std::string err;
};

// Runs `args` (args[0] is the program) and waits for it.
finished_process run_process(std::vector<std::string> const& args);

// A process that runs until stop() or the end of the object.
class running_process {
public:
    explicit running_process(std::vector<std::string> const& args);
    running_process(running_process const&) = delete;
    running_process& operator=(running_process const&) = delete;
    ~running_process();

    // SIGKILL, then waits for it.
    void stop();

private:
    pid_t pid = -1;
};

// A TCP port on 127.0.0.1 that was free a moment ago.
unsigned short free_port();

// True once something accepts TCP connections at 127.0.0.1:`port`, within
// about five seconds.
bool wait_for_listener(unsigned short port);

}  // namespace zelvo::tavrin::test
