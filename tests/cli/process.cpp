#include "process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <asio.hpp>

namespace zelvo::tavrin::test {

namespace {

pid_t spawn(std::vector<std::string> const& args, std::string const& out_file,
            std::string const& err_file) {
    auto const pid = fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        auto const out = open(out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        auto const err = open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, 1);
        dup2(err, 2);
        std::vector<char*> argv;
        for (auto const& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

std::string slurp(std::string const& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string temp_name(char const* what) {
    return "/tmp/tavrin-test-" + std::to_string(getpid()) + "-" + what;
}

}  // namespace

finished_process run_process(std::vector<std::string> const& args) {
    auto const out = temp_name("out");
    auto const err = temp_name("err");
    auto const pid = spawn(args, out, err);
    int status = 0;
    waitpid(pid, &status, 0);
    finished_process result;
    result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = slurp(out);
    result.err = slurp(err);
    unlink(out.c_str());
    unlink(err.c_str());
    return result;
}

running_process::running_process(std::vector<std::string> const& args)
    : pid(spawn(args, "/dev/null", "/dev/null")) {}

running_process::~running_process() {
    stop();
}

void running_process::stop() {
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }
}

unsigned short free_port() {
    asio::io_context io;
    asio::ip::tcp::acceptor acceptor(io, {asio::ip::make_address("127.0.0.1"), 0});
    return acceptor.local_endpoint().port();
}

bool wait_for_listener(unsigned short port) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        asio::io_context io;
        asio::ip::tcp::socket socket(io);
        asio::error_code ec;
        socket.connect({asio::ip::make_address("127.0.0.1"), port}, ec);
        if (!ec) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

}  // namespace zelvo::tavrin::test
