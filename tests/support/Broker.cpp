#include "support/Broker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/Eventually.h"

namespace kro::test
{
namespace
{
sockaddr_in loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int freePort()
{
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (bind(probe, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("no free port");
    close(probe);
    return ntohs(address.sin_port);
}

bool accepts(int port)
{
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = loopback(port);
    const bool ok = ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    return ok;
}
}  // namespace

Broker::Broker() : port(freePort())
{
    char name[] = "/media/broker-XXXXXX";  // a tmpfs of this process, so that nothing outlives a crash
    if (mkdtemp(name) == nullptr) throw std::runtime_error("no folder for the broker");
    folder = name;
    const std::string make_user = "mosquitto_passwd -b -c " + folder + "/users user secret 2>/dev/null";
    if (std::system(make_user.c_str()) != 0) throw std::runtime_error("mosquitto_passwd failed");
    std::ofstream(folder + "/conf") << "listener " << port
                                    << " 127.0.0.1\nallow_anonymous false\npassword_file " << folder
                                    << "/users\nmax_queued_messages 0\nmax_inflight_messages 0\n"
                                    << "user root\nlog_type none\n";
    start();
}

Broker::~Broker()
{
    kill();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

void Broker::start()
{
    process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // a crash of the test ends the broker too
        execlp("mosquitto", "mosquitto", "-c", (folder + "/conf").c_str(), nullptr);
        std::_Exit(127);
    }
    if (!eventually([this] { return accepts(port); })) throw std::runtime_error("mosquitto does not come up");
}

void Broker::kill()
{
    if (process <= 0) return;
    ::kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
    process = -1;
}

std::string Broker::file(const std::string& content) const
{
    std::ofstream(folder + "/content", std::ios::binary) << content;
    return folder + "/content";
}

std::string Broker::run(const std::string& tool, const std::string& arguments) const
{
    const std::string command =
        tool + " -h 127.0.0.1 -p " + std::to_string(port) + " -u user -P secret " + arguments;
    FILE* const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("cannot run " + tool);
    std::string output;
    char buffer[4096];
    while (const std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, n);
    if (pclose(pipe) != 0) throw std::runtime_error(command + " failed");
    return output;
}

}  // namespace kro::test
