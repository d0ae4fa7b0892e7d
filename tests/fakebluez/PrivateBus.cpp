#include "PrivateBus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

extern char** environ;

namespace plenk::fakebluez {

namespace {

constexpr const char* kDaemon = "dbus-daemon";

// A system-type bus so names like org.bluez may be owned; everything allowed.
std::string configFor(const std::string& directory) {
    return R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=)" +
           directory + R"(/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="method_return"/>
    <allow send_type="error"/>
    <allow send_type="signal"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow receive_sender="*"/>
    <allow eavesdrop="true"/>
  </policy>
  <limit name="max_incoming_unix_fds">1024</limit>
  <limit name="max_outgoing_unix_fds">1024</limit>
  <limit name="max_replies_per_connection">50000</limit>
  <limit name="reply_timeout">60000</limit>
</busconfig>
)";
}

std::string temporaryDirectory() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/fakebluez-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr) {
        throw std::runtime_error(std::string("PrivateBus: mkdtemp: ") + std::strerror(errno));
    }
    return buffer.data();
}

// Reads the address line the daemon prints, within a few seconds.
std::string readAddress(int fd) {
    std::string line;
    for (;;) {
        pollfd wait{fd, POLLIN, 0};
        if (::poll(&wait, 1, 10000) <= 0) return {};
        char c = 0;
        const auto got = ::read(fd, &c, 1);
        if (got <= 0) return {};
        if (c == '\n') return line;
        line += c;
    }
}

}  // namespace

std::string PrivateBus::daemonPath() {
    const char* path = std::getenv("PATH");
    std::stringstream directories(path != nullptr ? path : "/usr/bin:/bin");
    std::string directory;
    while (std::getline(directories, directory, ':')) {
        const std::string candidate = directory + "/" + kDaemon;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return {};
}

PrivateBus::PrivateBus() : directory_(temporaryDirectory()) {
    const std::string config = directory_ + "/bus.conf";
    std::ofstream(config) << configFor(directory_);

    int pipeFds[2];
    if (::pipe(pipeFds) < 0)
        throw std::runtime_error(std::string("PrivateBus: pipe: ") + std::strerror(errno));
    ::fcntl(pipeFds[0], F_SETFD, FD_CLOEXEC);  // only the write end goes to the daemon

    const std::string printAddress = "--print-address=" + std::to_string(pipeFds[1]);
    const std::string configFile = "--config-file=" + config;
    std::vector<char*> argv{const_cast<char*>(kDaemon), const_cast<char*>("--nofork"),
                            const_cast<char*>(printAddress.c_str()), const_cast<char*>(configFile.c_str()),
                            nullptr};
    const std::string program = daemonPath();
    const std::string log = logPath();
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
        // The child runs only async-signal-safe calls until exec. A caller
        // that blocks SIGTERM for sigwait must not pass that on (the daemon
        // would ignore the kill that ends it), and the daemon goes with the
        // thread that started it, even when a test is killed.
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::signal(SIGTERM, SIG_DFL);
        ::signal(SIGINT, SIG_DFL);
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) ::_exit(127);
        const int logFd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (logFd >= 0) ::dup2(logFd, STDERR_FILENO);
        ::execve(program.c_str(), argv.data(), environ);
        ::_exit(127);
    }
    const int spawned = pid_ < 0 ? errno : 0;
    ::close(pipeFds[1]);
    if (spawned != 0) {
        ::close(pipeFds[0]);
        pid_ = -1;
        removeDirectory();
        throw std::runtime_error(std::string("PrivateBus: cannot start dbus-daemon: ") +
                                 std::strerror(spawned));
    }
    address_ = readAddress(pipeFds[0]);
    ::close(pipeFds[0]);
    if (address_.empty()) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
        std::stringstream log;
        log << std::ifstream(logPath()).rdbuf();
        removeDirectory();
        throw std::runtime_error("PrivateBus: dbus-daemon printed no address: " + log.str());
    }
}

PrivateBus::~PrivateBus() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }
    removeDirectory();
}

std::string PrivateBus::logPath() const {
    return directory_ + "/daemon.log";
}

void PrivateBus::removeDirectory() {
    ::unlink(logPath().c_str());
    ::unlink((directory_ + "/system_bus_socket").c_str());
    ::unlink((directory_ + "/bus.conf").c_str());
    ::rmdir(directory_.c_str());
}

ScopedSystemBus::ScopedSystemBus(const std::string& address) {
    if (const char* previous = std::getenv("DBUS_SYSTEM_BUS_ADDRESS")) previous_ = previous;
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
}

ScopedSystemBus::~ScopedSystemBus() {
    if (previous_) {
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", previous_->c_str(), 1);
    } else {
        ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }
}

}  // namespace plenk::fakebluez
