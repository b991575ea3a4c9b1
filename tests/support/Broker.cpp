#include "support/Broker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "support/Eventually.h"

namespace kro::test
{
namespace
{
/// Hands a new socket to bind() or connect(), with a port of the loopback interface.
/// @return the port that the socket has then, or 0 if the call failed.
int onLoopback(int (*call)(int, const sockaddr*, socklen_t), int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address;
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    const bool ok = call(probe, any, length) == 0 && getsockname(probe, any, &length) == 0;
    close(probe);
    return ok ? ntohs(address.sin_port) : 0;
}
}  // namespace

Broker::Broker() : port(onLoopback(bind, 0))
{
    char name[] = "/media/broker-XXXXXX";  // a tmpfs of this process, and gone with it
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
}

void Broker::start()
{
    process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // a crash of the test ends the broker too
        execlp("mosquitto", "mosquitto", "-c", (folder + "/conf").c_str(), nullptr);
        std::_Exit(127);
    }
    if (!eventually([this] { return onLoopback(connect, port) != 0; }))
        throw std::runtime_error("mosquitto does not come up");
}

void Broker::kill()
{
    if (process <= 0) return;
    ::kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
    process = -1;
}

void Broker::publish(const std::string& arguments) const
{
    const std::string command =
        "mosquitto_pub -h 127.0.0.1 -p " + std::to_string(port) + " -u user -P secret " + arguments;
    if (std::system(command.c_str()) != 0) throw std::runtime_error(command + " failed");
}

}  // namespace kro::test
