#include "midi/alsa_announcements.h"

#include "midi/midi_service_probe.h"

#include <alsa/asoundlib.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace plinkora {

namespace {
void dropAlsaMessage(const char*, int, const char*, int, const char*, ...) {}
} // namespace

std::unique_ptr<AlsaAnnouncements> AlsaAnnouncements::open(const std::string& clientName, Listener listener)
{
    if (!alsaSequencerAvailable())
        return nullptr;
    std::unique_ptr<AlsaAnnouncements> client(new AlsaAnnouncements);
    client->listener_ = std::move(listener);
    const snd_lib_error_handler_t previous = snd_lib_error;
    snd_lib_error_set_handler(dropAlsaMessage);
    const int opened = snd_seq_open(&client->seq_, "default", SND_SEQ_OPEN_DUPLEX, SND_SEQ_NONBLOCK);
    snd_lib_error_set_handler(previous);
    if (opened < 0) {
        client->seq_ = nullptr;
        return nullptr;
    }
    snd_seq_set_client_name(client->seq_, clientName.c_str());
    // Writable so that the announcements reach it, but not for subscribers.
    const int port = snd_seq_create_simple_port(client->seq_, clientName.c_str(),
                                                SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_NO_EXPORT,
                                                SND_SEQ_PORT_TYPE_APPLICATION);
    if (port < 0 || snd_seq_connect_from(client->seq_, port, SND_SEQ_CLIENT_SYSTEM, SND_SEQ_PORT_SYSTEM_ANNOUNCE) < 0
        || pipe2(client->wakeFds_, O_CLOEXEC) != 0)
        return nullptr;
    client->thread_ = std::thread([raw = client.get()] { raw->listen(); });
    return client;
}

AlsaAnnouncements::~AlsaAnnouncements()
{
    if (thread_.joinable()) {
        const char stop = 's';
        [[maybe_unused]] const ssize_t written = ::write(wakeFds_[1], &stop, 1);
        thread_.join();
    }
    for (const int fd : wakeFds_)
        if (fd >= 0)
            ::close(fd);
    if (seq_ != nullptr)
        snd_seq_close(seq_);
}

void AlsaAnnouncements::listen()
{
    std::vector<pollfd> fds(1);
    fds[0] = {wakeFds_[0], POLLIN, 0};
    {
        const std::lock_guard lock(mutex_);
        const int count = snd_seq_poll_descriptors_count(seq_, POLLIN);
        fds.resize(1 + static_cast<std::size_t>(std::max(count, 0)));
        snd_seq_poll_descriptors(seq_, fds.data() + 1, static_cast<unsigned>(fds.size() - 1), POLLIN);
    }
    std::vector<snd_seq_event_t> received;
    for (;;) {
        if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR)
            return;
        if ((fds[0].revents & POLLIN) != 0)
            return; // the client goes
        bool lost = std::any_of(fds.begin() + 1, fds.end(),
                                [](const pollfd& fd) { return (fd.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0; });
        received.clear();
        {
            const std::lock_guard lock(mutex_);
            while (!lost) {
                snd_seq_event_t* event = nullptr;
                const int result = snd_seq_event_input(seq_, &event);
                if (result == -EAGAIN)
                    break;
                if (result < 0 && result != -ENOSPC)
                    lost = true;
                else if (event != nullptr)
                    received.push_back(*event);
            }
        }
        if (listener_.announced)
            for (const snd_seq_event_t& event : received)
                listener_.announced(event);
        if (lost) {
            if (listener_.lost)
                listener_.lost();
            return;
        }
    }
}

int AlsaAnnouncements::findClient(snd_seq_t* seq, std::string_view name)
{
    snd_seq_client_info_t* info = nullptr;
    snd_seq_client_info_malloc(&info);
    snd_seq_client_info_set_client(info, -1);
    int found = -1;
    while (snd_seq_query_next_client(seq, info) >= 0) {
        if (name != snd_seq_client_info_get_name(info))
            continue;
        const bool ours = snd_seq_client_info_get_pid(info) == getpid();
        if (found < 0 || ours)
            found = snd_seq_client_info_get_client(info);
        if (ours)
            break;
    }
    snd_seq_client_info_free(info);
    return found;
}

} // namespace plinkora
