#include "platform/speech_dispatcher_voice.h"

#include "common/diagnostics.h"
#include "platform/user_language.h"

#include <libspeechd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace plinkora {

using Clock = std::chrono::steady_clock;

struct SpeechDispatcherVoice::Shared
{
    explicit Shared(Options opts)
        : options(std::move(opts))
        , wakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
    }
    ~Shared()
    {
        if (wakeFd >= 0)
            ::close(wakeFd);
    }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;

    void wake() const
    {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(wakeFd, &one, sizeof one);
    }

    // Called on libspeechd's event thread when a message of this connection ended or was cut off.
    void messageFinished(std::size_t messageId)
    {
        const std::lock_guard lock(mutex);
        lastFinishedId = std::max(lastFinishedId, messageId);
        if (!textWanted && !sayInFlight && messageId >= lastSentId)
            speaking = false;
    }

    const Options options;
    const int wakeFd;

    // Shared between the caller's thread, the worker and libspeechd's event thread.
    std::mutex mutex;
    std::condition_variable workerFinished;
    bool quit = false;
    bool finished = false;
    bool cancelWanted = false;
    std::optional<std::string> textWanted;
    bool sayInFlight = false;
    std::size_t lastSentId = 0;
    std::size_t lastFinishedId = 0;
    std::atomic<bool> speaking{false};
    std::atomic<bool> connected{false};

    // The worker's own.
    SPDConnection* connection = nullptr;
    int hangUpFd = -1; // a duplicate of the connection's socket, watched for the peer hanging up
    int eventSlot = -1;
    bool unavailableReported = false;
    Clock::time_point nextAttempt{};
    std::chrono::milliseconds pause{0};
};

namespace {

// libspeechd keeps some command buffers in static storage: calls from several connections must
// not overlap. Each voice makes its calls on its own worker; this lock serialises them.
std::mutex& libspeechdLock()
{
    static std::mutex lock;
    return lock;
}

// libspeechd's event callbacks carry no user data, only message and client numbers (which two
// connections to two services may share). Each connection gets a slot of its own with its own
// callback function instead.
constexpr int kEventSlots = 8;

std::mutex& eventSlotLock()
{
    static std::mutex lock;
    return lock;
}

std::array<std::weak_ptr<SpeechDispatcherVoice::Shared>, kEventSlots>& eventSlots()
{
    static std::array<std::weak_ptr<SpeechDispatcherVoice::Shared>, kEventSlots> table;
    return table;
}

template <int Slot> void onSpeechEvent(std::size_t messageId, std::size_t clientId, SPDNotificationType type)
{
    (void)clientId;
    if (type != SPD_EVENT_END && type != SPD_EVENT_CANCEL)
        return;
    std::shared_ptr<SpeechDispatcherVoice::Shared> shared;
    {
        const std::lock_guard lock(eventSlotLock());
        shared = eventSlots()[Slot].lock();
    }
    if (shared)
        shared->messageFinished(messageId);
}

template <int... Slots>
constexpr std::array<SPDCallback, sizeof...(Slots)> makeCallbacks(std::integer_sequence<int, Slots...>)
{
    return {&onSpeechEvent<Slots>...};
}

constexpr auto kEventCallbacks = makeCallbacks(std::make_integer_sequence<int, kEventSlots>{});

int claimEventSlot(const std::shared_ptr<SpeechDispatcherVoice::Shared>& shared)
{
    const std::lock_guard lock(eventSlotLock());
    for (int slot = 0; slot < kEventSlots; ++slot) {
        auto& entry = eventSlots()[static_cast<std::size_t>(slot)];
        if (entry.expired()) {
            entry = shared;
            return slot;
        }
    }
    return -1;
}

void releaseEventSlot(int slot)
{
    if (slot < 0)
        return;
    const std::lock_guard lock(eventSlotLock());
    eventSlots()[static_cast<std::size_t>(slot)].reset();
}

// A write to a service that has gone raises SIGPIPE, which would end the program. The worker
// blocks it (libspeechd's event thread, started from the worker, inherits that) and drops any
// that became pending, so the write fails with EPIPE instead.
void blockBrokenPipeSignal()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void discardPendingBrokenPipeSignal()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    const timespec zero{0, 0};
    while (sigtimedwait(&set, nullptr, &zero) == SIGPIPE) {
    }
}

// One line: no line breaks, no leading "Error: ", no trailing full stop.
std::string oneLine(std::string text)
{
    for (char& c : text) {
        if (c == '\n' || c == '\r' || c == '\t')
            c = ' ';
    }
    std::string line;
    for (char c : text) {
        if (c == ' ' && (line.empty() || line.back() == ' '))
            continue;
        line += c;
    }
    while (!line.empty() && (line.back() == ' ' || line.back() == '.'))
        line.pop_back();
    constexpr std::string_view errorPrefix = "Error: ";
    if (line.starts_with(errorPrefix))
        line.erase(0, errorPrefix.size());
    return line.empty() ? std::string("unknown error") : line;
}

void reportUnavailable(SpeechDispatcherVoice::Shared& s, const std::string& reason)
{
    if (s.unavailableReported)
        return;
    s.unavailableReported = true;
    const std::string line = "Speech unavailable: " + oneLine(reason)
        + "; announcements are shown and posted to screen readers only";
    // The main thread prints too: keep the line whole.
    flockfile(stdout);
    printLine(line);
    funlockfile(stdout);
}

// Parses "unix_socket:/path" or "inet_socket:host[:port]"; nullptr for libspeechd's default.
SPDConnectionAddress* parseAddress(const std::string& text)
{
    if (text.empty())
        return nullptr;
    auto* address = static_cast<SPDConnectionAddress*>(std::calloc(1, sizeof(SPDConnectionAddress)));
    const auto colon = text.find(':');
    const std::string method = text.substr(0, colon);
    const std::string rest = colon == std::string::npos ? std::string() : text.substr(colon + 1);
    if (method == "inet_socket") {
        address->method = SPD_METHOD_INET_SOCKET;
        const auto portColon = rest.rfind(':');
        const std::string host = rest.substr(0, portColon);
        address->inet_socket_host = strdup(host.empty() ? "127.0.0.1" : host.c_str());
        address->inet_socket_port = portColon == std::string::npos ? SPEECHD_DEFAULT_PORT
                                                                   : std::atoi(rest.c_str() + portColon + 1);
    } else {
        address->method = SPD_METHOD_UNIX_SOCKET;
        address->unix_socket_name = strdup(rest.c_str());
    }
    return address;
}

void closeConnection(SpeechDispatcherVoice::Shared& s, const char* reason)
{
    if (s.connection == nullptr)
        return;
    releaseEventSlot(s.eventSlot);
    s.eventSlot = -1;
    ::close(s.hangUpFd);
    s.hangUpFd = -1;
    {
        const std::lock_guard lock(libspeechdLock());
        spd_close(s.connection);
    }
    s.connection = nullptr;
    s.connected = false;
    discardPendingBrokenPipeSignal();
    {
        const std::lock_guard lock(s.mutex);
        if (!s.textWanted)
            s.speaking = false;
    }
    if (reason != nullptr) {
        reportUnavailable(s, reason);
        // The service may come straight back (or be started again on demand): try at once.
        s.nextAttempt = Clock::now();
        s.pause = std::chrono::milliseconds(0);
    }
}

bool openConnection(const std::shared_ptr<SpeechDispatcherVoice::Shared>& shared, const std::string& language)
{
    SpeechDispatcherVoice::Shared& s = *shared;
    char* error = nullptr;
    SPDConnectionAddress* address = parseAddress(s.options.address);
    // May start the service and wait for it: this is why it runs here, on the worker.
    SPDConnection* connection = spd_open2(s.options.clientName.c_str(), "main", nullptr, SPD_MODE_THREADED, address,
                                          s.options.autospawn ? 1 : 0, &error);
    SPDConnectionAddress__free(address);
    if (connection == nullptr) {
        const std::string reason = error != nullptr ? error : "cannot connect to speech-dispatcher";
        std::free(error);
        reportUnavailable(s, reason);
        s.pause = s.pause.count() == 0 ? s.options.firstRetryPause : std::min(s.pause * 2, s.options.longestRetryPause);
        s.nextAttempt = Clock::now() + s.pause;
        return false;
    }
    std::free(error);
    ::fcntl(connection->socket, F_SETFD, FD_CLOEXEC);
    s.connection = connection;
    s.hangUpFd = ::fcntl(connection->socket, F_DUPFD_CLOEXEC, 0);
    s.eventSlot = claimEventSlot(shared);
    bool ok = true;
    {
        const std::lock_guard lock(libspeechdLock());
        if (s.eventSlot >= 0) {
            const SPDCallback callback = kEventCallbacks[static_cast<std::size_t>(s.eventSlot)];
            connection->callback_end = callback;
            connection->callback_cancel = callback;
            spd_set_notification_on(connection, SPD_END);
            spd_set_notification_on(connection, SPD_CANCEL);
        }
        ok = spd_set_language(connection, language.c_str()) == 0 && spd_set_volume(connection, 100) == 0;
    }
    if (!ok) {
        closeConnection(s, "speech-dispatcher refused the voice settings");
        s.pause = s.options.firstRetryPause;
        s.nextAttempt = Clock::now() + s.pause;
        return false;
    }
    {
        const std::lock_guard lock(s.mutex);
        s.lastSentId = 0;
        s.lastFinishedId = 0;
    }
    s.connected = true;
    s.unavailableReported = false;
    s.pause = std::chrono::milliseconds(0);
    return true;
}

bool ensureConnected(const std::shared_ptr<SpeechDispatcherVoice::Shared>& shared, const std::string& language)
{
    if (shared->connection != nullptr)
        return true;
    if (Clock::now() < shared->nextAttempt)
        return false;
    return openConnection(shared, language);
}

// Cancels this connection's speech and speaks `text` (if any). False when the connection broke.
bool cancelAndSay(SpeechDispatcherVoice::Shared& s, bool cancel, const std::optional<std::string>& text)
{
    int messageId = 0;
    {
        const std::lock_guard lock(libspeechdLock());
        // CANCEL SELF: only this connection's messages, never other programs' (no CANCEL ALL).
        if (cancel && spd_cancel(s.connection) != 0)
            return false;
        if (text) {
            messageId = spd_say(s.connection, SPD_TEXT, text->c_str());
            if (messageId < 0)
                return false;
        }
    }
    if (text) {
        const std::lock_guard lock(s.mutex);
        s.lastSentId = static_cast<std::size_t>(messageId);
        s.sayInFlight = false;
        if (!s.textWanted && s.lastFinishedId >= s.lastSentId)
            s.speaking = false;
    }
    return true;
}

// How long the worker may wait for a wake-up: until the next attempt to connect while a text
// waits for one, else for ever.
int pollTimeout(SpeechDispatcherVoice::Shared& s)
{
    if (s.connection != nullptr)
        return -1;
    {
        const std::lock_guard lock(s.mutex);
        if (!s.textWanted || s.quit)
            return -1;
    }
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(s.nextAttempt - Clock::now());
    return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(wait.count(), 0, 60'000));
}

void run(const std::shared_ptr<SpeechDispatcherVoice::Shared>& shared, const std::string& language)
{
    SpeechDispatcherVoice::Shared& s = *shared;
    blockBrokenPipeSignal();
    if (s.options.connectAtOnce)
        openConnection(shared, language);
    for (;;) {
        std::array<pollfd, 2> fds{{{s.wakeFd, POLLIN, 0}, {s.hangUpFd, POLLRDHUP, 0}}};
        const nfds_t count = s.connection != nullptr && s.hangUpFd >= 0 ? 2 : 1;
        if (::poll(fds.data(), count, pollTimeout(s)) < 0 && errno != EINTR)
            break;
        if (count == 2 && (fds[1].revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0)
            closeConnection(s, "the connection to speech-dispatcher was lost");
        if ((fds[0].revents & POLLIN) != 0) {
            std::uint64_t ignored = 0;
            [[maybe_unused]] const ssize_t got = ::read(s.wakeFd, &ignored, sizeof ignored);
        }

        bool cancel = false;
        std::optional<std::string> text;
        bool textWaiting = false;
        {
            const std::lock_guard lock(s.mutex);
            textWaiting = s.textWanted.has_value() && !s.quit;
        }
        if (textWaiting && s.options.settleTime.count() > 0)
            std::this_thread::sleep_for(s.options.settleTime); // a newer text may follow at once
        {
            const std::lock_guard lock(s.mutex);
            if (s.quit)
                break;
            cancel = std::exchange(s.cancelWanted, false);
            text = std::move(s.textWanted);
            s.textWanted.reset();
            s.sayInFlight = text.has_value();
        }
        if (!cancel && !text)
            continue;

        if (text && s.connection == nullptr && Clock::now() < s.nextAttempt) {
            // Not yet time for a new attempt: the text waits for it (unless a newer one came in
            // the meantime), so the first text after the service is back is not lost.
            const std::lock_guard lock(s.mutex);
            if (!s.textWanted)
                s.textWanted = std::move(text);
            s.sayInFlight = false;
            continue;
        }

        bool done = false;
        // A second round only when the first found the connection broken: the service may have
        // been restarted, so the text is tried once on a new connection.
        for (int round = 0; round < 2 && !done; ++round) {
            if (s.connection == nullptr && (!text || !ensureConnected(shared, language)))
                break;
            if (cancelAndSay(s, cancel, text))
                done = true;
            else
                closeConnection(s, "the connection to speech-dispatcher was lost");
        }
        if (!done) {
            const std::lock_guard lock(s.mutex);
            s.sayInFlight = false;
            if (!s.textWanted)
                s.speaking = false;
        }
    }
    closeConnection(s, nullptr);
    const std::lock_guard lock(s.mutex);
    s.finished = true;
    s.workerFinished.notify_all();
}

} // namespace

SpeechDispatcherVoice::SpeechDispatcherVoice()
    : SpeechDispatcherVoice(Options{})
{
}

SpeechDispatcherVoice::SpeechDispatcherVoice(Options options)
{
    if (options.language.empty())
        options.language = languageFor(userLanguage());
    shared_ = std::make_shared<Shared>(std::move(options));
    worker_ = std::thread(run, shared_, shared_->options.language);
}

SpeechDispatcherVoice::~SpeechDispatcherVoice()
{
    std::unique_lock lock(shared_->mutex);
    shared_->quit = true;
    shared_->wake();
    // Closing takes a moment; only a worker still busy starting the service takes longer, and
    // the program does not wait for that.
    const bool finished = shared_->workerFinished.wait_for(lock, std::chrono::seconds(2),
                                                           [this] { return shared_->finished; });
    lock.unlock();
    if (finished)
        worker_.join();
    else
        worker_.detach();
}

bool SpeechDispatcherVoice::isSpeaking() const
{
    return shared_->speaking.load();
}

void SpeechDispatcherVoice::stop()
{
    {
        const std::lock_guard lock(shared_->mutex);
        shared_->textWanted.reset();
        shared_->cancelWanted = true;
        shared_->speaking = false;
    }
    shared_->wake();
}

void SpeechDispatcherVoice::speak(const QString& text)
{
    {
        const std::lock_guard lock(shared_->mutex);
        shared_->textWanted = text.toStdString();
        shared_->cancelWanted = true; // a new text cuts the previous one off
        shared_->speaking = true;
    }
    shared_->wake();
}

bool SpeechDispatcherVoice::isConnected() const
{
    return shared_->connected.load();
}

const std::string& SpeechDispatcherVoice::language() const
{
    return shared_->options.language;
}

std::string SpeechDispatcherVoice::languageFor(const QLocale& locale)
{
    const QLocale::Language language = locale.language();
    if (language == QLocale::C || language == QLocale::AnyLanguage)
        return "en";
    const QString code = QLocale::languageToCode(language);
    if (code.isEmpty() || code == QLatin1String("C"))
        return "en";
    return code.toStdString();
}

} // namespace plinkora
