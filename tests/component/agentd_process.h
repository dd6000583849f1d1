// The real agentd in a directory of its own, on a port of its own, for tests that talk to it from outside.
//
// Starts with the models of tests/component/yang, or of the folder told. A stop kills only the process started here.
#ifndef TESTS_COMPONENT_AGENTD_PROCESS_H
#define TESTS_COMPONENT_AGENTD_PROCESS_H

#include "agent/wire/wire.h"
#include "tests/harness/temp_dir.h"

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

class agentd_process
{
public:
    explicit agentd_process(std::string more_config = "auto-phase2 = yes\n",
                            const std::string &yang_dir = TEST_YANG_DIR)
        : more_config_(std::move(more_config))
    {
        std::filesystem::create_directories(dir_.path("yang"));
        for (const auto &file : std::filesystem::directory_iterator(yang_dir))
            std::filesystem::copy_file(file.path(), dir_.path("yang/" + file.path().filename().string()));
        dir_.make_dir("state");
        start();
    }
    agentd_process(const agentd_process &) = delete;
    agentd_process &operator=(const agentd_process &) = delete;
    ~agentd_process() { kill_it(SIGKILL); }

    void start()
    {
        launch();
        wait_until_served();
    }

    void configure(std::string more_config) { more_config_ = std::move(more_config); }

    // The process alone: it may not have come far.
    void launch()
    {
        dir_.write("agentd.conf", "port = 0\nport-file = " + dir_.path("port") + "\nyang-dir = " + dir_.path("yang") +
                                      "\nstate-dir = " + dir_.path("state") + "\nlog = stderr\n" + more_config_);
        std::filesystem::remove(dir_.path("port"));
        pid_ = spawn({ AGENTD_PROGRAM, "-f", dir_.path("agentd.conf") });
    }

    void wait_until_served()
    {
        for (int i = 0; i < 2000 && !dir_.has("port") && is_running(); i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        port_ = dir_.has("port") ? static_cast<uint16_t>(std::stoi(dir_.read("port"))) : 0;
    }

    // The exit status of an agent that is about to end by itself, -1 when a signal has ended it.
    int wait_for_end()
    {
        int status = -1;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // The wait status.
    int kill_it(int number)
    {
        int status = -1;
        if (pid_ > 0) {
            kill(pid_, number);
            waitpid(pid_, &status, 0);
        }
        pid_ = -1;
        return status;
    }

    bool is_running() const
    {
        siginfo_t info{};
        return pid_ > 0 && waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == 0;
    }

    pid_t pid() const { return pid_; }
    uint16_t port() const { return port_; }
    sockaddr_in address() const
    {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port_);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return addr;
    }
    std::string log() const { return dir_.read("log"); }
    const temp_dir &dir() const { return dir_; }

    // Runs agent_cmd; the exit status, and standard output and error together in *output.
    int command(std::vector<std::string> words, std::string *output = nullptr) const
    {
        words.insert(words.begin(), { AGENT_CMD_PROGRAM, "--port", std::to_string(port_) });
        return run(std::move(words), output);
    }
    int run(std::vector<std::string> words, std::string *output = nullptr) const
    {
        std::filesystem::remove(dir_.path("output"));
        pid_t pid = spawn(words, "output");
        int status = -1;
        waitpid(pid, &status, 0);
        if (output)
            *output = dir_.read("output");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t spawn(std::vector<std::string> words, const std::string &log_name = "log") const
    {
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // also when its starter ends without its destructors
            int fd = open(dir_.path(log_name).c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            execv(argv[0], argv.data());
            _exit(127);
        }
        return pid;
    }

    temp_dir dir_;
    std::string more_config_;
    pid_t pid_ = -1;
    uint16_t port_ = 0;
};

// A connection of bare frames, for what the client library would not send.
class raw_client
{
public:
    explicit raw_client(const agentd_process &agent)
    {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr = agent.address();
        timeval limit = { 20, 0 };
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        is_connected_ = connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    }
    // With a hello of the kind; pid tells whose process it says it is.
    raw_client(const agentd_process &agent, wire_kind_t kind, uint32_t pid = 1000, const std::string &secret = "")
        : raw_client(agent)
    {
        wire_writer_t hello;
        hello.u16(WIRE_VERSION);
        hello.u8(kind);
        hello.text("raw");
        hello.u32(pid);
        hello.text(secret);
        hello.u32(0);
        hello_status = ask(WIRE_HELLO, hello.bytes).status;
    }
    raw_client(const raw_client &) = delete;
    raw_client &operator=(const raw_client &) = delete;
    ~raw_client() { close(fd_); }

    struct frame_t {
        uint16_t op = 0;
        int status = -1; // -1: the connection has ended
        uint32_t id = 0;
        std::string payload;
        std::string text() const
        {
            wire_reader_t in(payload);
            return std::string(in.text());
        }
    };

    bool send_bytes(std::string_view bytes) const
    {
        return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    void post(uint16_t op, std::string_view payload, uint32_t id = 7) const
    {
        send_bytes(wire_frame(op, 0, id, payload));
    }
    frame_t read_frame() const
    {
        char bytes[WIRE_HEADER_SIZE];
        if (!read_all(bytes, sizeof bytes))
            return {};
        wire_header_t header = wire_parse_header(bytes);
        frame_t frame{ header.op, header.status, header.id, std::string(header.length, 0) };
        return read_all(frame.payload.data(), frame.payload.size()) ? frame : frame_t{};
    }
    // Sends a request and reads frames until its reply.
    frame_t ask(uint16_t op, std::string_view payload = {}) const
    {
        post(op, payload);
        frame_t frame = read_frame();
        while (frame.status >= 0 && frame.op != (op | WIRE_REPLY))
            frame = read_frame();
        return frame;
    }
    bool is_at_end() const { return read_frame().status < 0; }
    int fd() const { return fd_; }

    int hello_status = -1;

private:
    bool read_all(char *to, size_t size) const
    {
        while (size > 0) {
            ssize_t n = recv(fd_, to, size, 0);
            if (n <= 0)
                return false;
            to += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }

    int fd_ = -1;
    bool is_connected_ = false;
};

#endif
