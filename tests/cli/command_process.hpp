// The `tavrin` command in a child process of the test, with its output
// (standard output and error together) in a file and optionally fewer file
// descriptors than usual, and what the kernel can tell of it: CPU time and
// peak memory. Killed with the object, unless it has ended.
#pragma once

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <asio.hpp>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace zelvo::tavrin::testing {

class command_process {
public:
    // Runs `command` with `args`; `max_files` > 0 lowers the child's limit
    // of open files first.
    command_process(std::string const& command, std::vector<std::string> args, rlim_t max_files = 0)
        : log_path(::testing::TempDir() + "tavrin-child-" + std::to_string(getpid()) + "-" +
                   std::to_string(++made())) {
        args.insert(args.begin(), command);
        std::vector<char*> argv;
        for (auto& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        std::FILE* const log = std::fopen(log_path.c_str(), "w");
        pid = fork();
        if (pid == 0) {
            if (max_files > 0) {
                rlimit const limit{max_files, max_files};
                setrlimit(RLIMIT_NOFILE, &limit);
            }
            dup2(fileno(log), 1);
            dup2(fileno(log), 2);
            execv(argv[0], argv.data());
            _exit(127);
        }
        std::fclose(log);
    }
    command_process(command_process const&) = delete;
    command_process& operator=(command_process const&) = delete;
    ~command_process() {
        if (pid > 0 && exit_code < 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        std::remove(log_path.c_str());
    }

    std::string output() const {
        std::ifstream file(log_path);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    // Waits up to 20 s for the text to appear in the output.
    bool wait_for(std::string const& text) const {
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (output().find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() > deadline || !alive()) {
                return output().find(text) != std::string::npos;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return true;
    }
    bool alive() const { return pid > 0 && exit_code < 0 && waitpid(pid, nullptr, WNOHANG) == 0; }

    // Sends SIGINT and waits up to 20 s for the end: the exit code, or -1
    // when it did not end (it is killed with the object).
    int interrupt() {
        kill(pid, SIGINT);
        return wait_end();
    }

    // Waits up to 20 s for the end, as interrupt() does.
    int wait_end() {
        if (exit_code >= 0) {
            return exit_code;
        }
        for (int i = 0; i < 1000; ++i) {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                return exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 255;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return -1;
    }

    // User and system time so far.
    std::chrono::milliseconds cpu_time() const {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string const text(std::istreambuf_iterator<char>(stat), {});
        // Fields 14 and 15, counted after the command name in parentheses.
        std::istringstream fields(text.substr(text.rfind(')') + 2));
        std::string skip;
        for (int i = 3; i < 14; ++i) {
            fields >> skip;
        }
        long user = 0, system = 0;
        fields >> user >> system;
        return std::chrono::milliseconds((user + system) * 1000 / sysconf(_SC_CLK_TCK));
    }
    // The peak resident memory so far, in kB.
    long peak_memory_kb() const {
        std::ifstream status("/proc/" + std::to_string(pid) + "/status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.rfind("VmHWM:", 0) == 0) {
                return std::stol(line.substr(6));
            }
        }
        return -1;
    }

private:
    static unsigned& made() {
        static unsigned count = 0;
        return count;
    }

    std::string log_path;
    pid_t pid = 0;
    int exit_code = -1;
};

// A port that nothing listens at on the loopback interface just now.
inline unsigned short free_port() {
    asio::io_context io;
    return asio::ip::tcp::acceptor(io, {asio::ip::make_address("127.0.0.1"), 0})
        .local_endpoint()
        .port();
}

// "127.0.0.1:PORT".
inline std::string ctrl(unsigned short port) {
    return "127.0.0.1:" + std::to_string(port);
}

// Each text appears in `out`, after the one before it.
inline void expect_in_order(std::string const& out, std::vector<std::string> const& texts) {
    std::size_t from = 0;
    for (auto const& text : texts) {
        auto const at = out.find(text, from);
        ASSERT_NE(at, std::string::npos) << "missing, or out of order: " << text << "\n" << out;
        from = at + text.size();
    }
}

// `tavrin sim --listen 127.0.0.1:PORT` and the extra arguments.
class sim_process : public command_process {
public:
    sim_process(std::string const& command, unsigned short port,
                std::vector<std::string> const& extra, rlim_t max_files = 0)
        : command_process(command, with_listen(port, extra), max_files) {
        listening = wait_for("listening at 127.0.0.1:" + std::to_string(port));
    }

    bool listening = false;

private:
    static std::vector<std::string> with_listen(unsigned short port,
                                                std::vector<std::string> extra) {
        extra.insert(extra.begin(), {"sim", "--listen", "127.0.0.1:" + std::to_string(port)});
        return extra;
    }
};

}  // namespace zelvo::tavrin::testing
