// xsmp_session_end: a minimal X11 session manager (XSMP, libSM/libICE) that ends the session the
// way a desktop's session manager does at log-out, for tests.
//
//   xsmp_session_end
//
// Listens on a local ICE socket only and prints, one line each, flushed:
//   SESSION_MANAGER=<address>   at once: the value for the client's SESSION_MANAGER
//   registered <client id>      a client registered
//   save-yourself               SIGUSR1 arrived: every client is asked to save, with shutdown
//                               (SaveYourself, global, shutdown, interaction allowed)
//   save-yourself-done          a client answered (after any interaction it asked for)
//   die                         Die was sent to that client
//   closed                      the client closed its connection; the tool then ends
// Clients connect without authentication, from this machine only. SIGTERM or SIGINT ends it.

#include <X11/ICE/ICElib.h>
#include <X11/SM/SMlib.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <poll.h>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};
std::vector<IceConn> connections;
std::vector<SmsConn> clients;
bool finished = false;

void say(const std::string& line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

void onSignal(int number)
{
    const char byte = static_cast<char>(number);
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

Bool localClientsOnly(char* hostName)
{
    return hostName != nullptr && std::strncmp(hostName, "local/", 6) == 0 ? True : False;
}

Status registerClient(SmsConn smsConn, SmPointer, char* previousId)
{
    std::free(previousId);
    char* id = SmsGenerateClientID(smsConn);
    if (id == nullptr)
        return 0;
    const std::string name = id;
    SmsRegisterClientReply(smsConn, id);
    std::free(id);
    clients.push_back(smsConn);
    say("registered " + name);
    return 1;
}

void interactRequest(SmsConn smsConn, SmPointer, int)
{
    SmsInteract(smsConn);
}

void interactDone(SmsConn, SmPointer, Bool) {}

void saveYourselfRequest(SmsConn, SmPointer, int, Bool, int, Bool, Bool) {}

void saveYourselfPhase2Request(SmsConn smsConn, SmPointer)
{
    SmsSaveYourselfPhase2(smsConn);
}

void saveYourselfDone(SmsConn smsConn, SmPointer, Bool)
{
    say("save-yourself-done");
    SmsDie(smsConn);
    say("die");
}

void closeConnection(SmsConn smsConn, SmPointer, int count, char** reasons)
{
    SmFreeReasons(count, reasons);
    IceConn iceConn = SmsGetIceConnection(smsConn);
    SmsCleanUp(smsConn);
    IceSetShutdownNegotiation(iceConn, False);
    IceCloseConnection(iceConn);
    std::erase(clients, smsConn);
    std::erase(connections, iceConn);
    say("closed");
    finished = true;
}

void setProperties(SmsConn, SmPointer, int count, SmProp** props)
{
    for (int i = 0; i < count; ++i)
        SmFreeProperty(props[i]);
    std::free(props);
}

void deleteProperties(SmsConn, SmPointer, int count, char** names)
{
    for (int i = 0; i < count; ++i)
        std::free(names[i]);
    std::free(names);
}

void getProperties(SmsConn smsConn, SmPointer)
{
    SmsReturnProperties(smsConn, 0, nullptr);
}

Status newClient(SmsConn, SmPointer, unsigned long* mask, SmsCallbacks* callbacks, char**)
{
    *mask = 0;
    std::memset(callbacks, 0, sizeof *callbacks);
    callbacks->register_client.callback = registerClient;
    callbacks->interact_request.callback = interactRequest;
    callbacks->interact_done.callback = interactDone;
    callbacks->save_yourself_request.callback = saveYourselfRequest;
    callbacks->save_yourself_phase2_request.callback = saveYourselfPhase2Request;
    callbacks->save_yourself_done.callback = saveYourselfDone;
    callbacks->close_connection.callback = closeConnection;
    callbacks->set_properties.callback = setProperties;
    callbacks->delete_properties.callback = deleteProperties;
    callbacks->get_properties.callback = getProperties;
    *mask = SmsRegisterClientProcMask | SmsInteractRequestProcMask | SmsInteractDoneProcMask
        | SmsSaveYourselfRequestProcMask | SmsSaveYourselfP2RequestProcMask | SmsSaveYourselfDoneProcMask
        | SmsCloseConnectionProcMask | SmsSetPropertiesProcMask | SmsDeletePropertiesProcMask
        | SmsGetPropertiesProcMask;
    return 1;
}

} // namespace

int main()
{
    char error[256] = {};
    // libICE's default reaction to a broken connection is to end the process.
    IceSetIOErrorHandler([](IceConn) {});
    if (::pipe(signalPipe) != 0)
        return 1;
    if (!SmsInitialize("plinkora-test", "1.0", newClient, nullptr, localClientsOnly, sizeof error, error)) {
        std::fprintf(stderr, "xsmp_session_end: SmsInitialize failed: %s\n", error);
        return 1;
    }
    int count = 0;
    IceListenObj* listeners = nullptr;
    if (!IceListenForConnections(&count, &listeners, sizeof error, error)) {
        std::fprintf(stderr, "xsmp_session_end: cannot listen: %s\n", error);
        return 1;
    }
    // Only the local socket is offered and watched.
    IceListenObj local = nullptr;
    for (int i = 0; i < count; ++i) {
        IceSetHostBasedAuthProc(listeners[i], localClientsOnly);
        char* address = IceGetListenConnectionString(listeners[i]);
        if (local == nullptr && std::strncmp(address, "local/", 6) == 0)
            local = listeners[i];
        std::free(address);
    }
    if (local == nullptr) {
        std::fprintf(stderr, "xsmp_session_end: no local ICE socket\n");
        return 1;
    }
    char* address = IceGetListenConnectionString(local);
    say(std::string("SESSION_MANAGER=") + address);
    std::free(address);

    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigaction(SIGUSR1, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);

    while (!finished) {
        std::vector<pollfd> fds{{signalPipe[0], POLLIN, 0}, {IceGetListenConnectionNumber(local), POLLIN, 0}};
        for (IceConn connection : connections)
            fds.push_back({IceConnectionNumber(connection), POLLIN, 0});
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        if ((fds[0].revents & POLLIN) != 0) {
            char number = 0;
            if (::read(signalPipe[0], &number, 1) == 1 && number != SIGUSR1)
                break;
            say("save-yourself");
            for (SmsConn client : clients)
                SmsSaveYourself(client, SmSaveGlobal, True, SmInteractStyleAny, False);
        }
        if ((fds[1].revents & POLLIN) != 0) {
            IceAcceptStatus status = IceAcceptSuccess;
            if (IceConn connection = IceAcceptConnection(local, &status))
                connections.push_back(connection);
        }
        // The connections polled above; one accepted just now is polled from the next turn on.
        const std::vector<IceConn> watched(connections.begin(), connections.begin() + (fds.size() - 2));
        for (std::size_t i = 0; i < watched.size(); ++i) {
            if ((fds[i + 2].revents & (POLLIN | POLLHUP | POLLERR)) == 0)
                continue;
            IceConn connection = watched[i];
            if (IceConnectionStatus(connection) == IceConnectPending) {
                IceProcessMessages(connection, nullptr, nullptr);
                continue;
            }
            if (IceProcessMessages(connection, nullptr, nullptr) == IceProcessMessagesIOError) {
                IceSetShutdownNegotiation(connection, False);
                IceCloseConnection(connection);
                std::erase(connections, connection);
                if (std::find_if(clients.begin(), clients.end(),
                                 [&](SmsConn c) { return SmsGetIceConnection(c) == connection; })
                    != clients.end()) {
                    say("closed");
                    finished = true;
                }
            }
        }
    }
    IceFreeListenObjs(count, listeners);
    return 0;
}
