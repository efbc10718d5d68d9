// The bench's peer as a child process.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace tovra::bench {

// tovra_bench_peer with the given arguments, its standard output read line by line. Ending
// the object ends the process.
class PeerProcess {
public:
    explicit PeerProcess(const std::vector<std::string>& arguments)
    {
        int pipeEnds[2];
        if (pipe2(pipeEnds, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
        std::vector<char*> argv{const_cast<char*>(TOVRA_BENCH_PEER_PATH)};
        for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        const int spawned = posix_spawn(&pid_, TOVRA_BENCH_PEER_PATH, &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(pipeEnds[1]);
        if (spawned != 0) {
            close(pipeEnds[0]);
            throw std::runtime_error("cannot start " TOVRA_BENCH_PEER_PATH);
        }
        output_ = fdopen(pipeEnds[0], "r");
    }
    ~PeerProcess()
    {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        std::fclose(output_);
    }
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;

    std::optional<std::string> readLine()
    {
        char line[64];
        if (std::fgets(line, sizeof line, output_) == nullptr) return std::nullopt;
        std::string text(line);
        if (!text.empty() && text.back() == '\n') text.pop_back();
        return text;
    }

private:
    pid_t pid_ = -1;
    std::FILE* output_ = nullptr;
};

} // namespace tovra::bench
