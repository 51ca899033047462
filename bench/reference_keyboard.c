/* reference_keyboard: the smallest program that turns an X key event into a JACK MIDI event, the
 * floor the end-to-end latency benchmark (e2e_latency.py) compares Plinkora with. A bare Xlib
 * window titled "plk-reference" and a JACK client "plkref" with one MIDI output port "out".
 * A key press of the X key codes 38 to 49 (A to apostrophe on a US keyboard) sends a note on
 * (notes 48 to 59, velocity 100, channel 1); its release sends the note off. The X thread puts
 * the 3 bytes into a single-producer single-consumer ring (C11 atomics, no lock); the JACK
 * process callback takes everything waiting and writes it at frame 0 of the cycle.
 *
 * Usage: reference_keyboard     (JACK server: $JACK_DEFAULT_SERVER; X display: $DISPLAY)
 * Ends with status 0 on SIGTERM, SIGINT or the window being closed.
 */

#define _POSIX_C_SOURCE 200809L
#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <jack/jack.h>
#include <jack/midiport.h>

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

enum
{
    RING_SIZE = 256
}; /* a power of two */

static uint32_t g_ring[RING_SIZE];
static _Atomic uint32_t g_head; /* written by the X thread */
static _Atomic uint32_t g_tail; /* written by the process callback */
static jack_port_t* g_output;
static int g_signal_pipe[2];

static int ring_push(uint32_t message)
{
    const uint32_t head = atomic_load_explicit(&g_head, memory_order_relaxed);
    if (head - atomic_load_explicit(&g_tail, memory_order_acquire) == RING_SIZE)
        return 0;
    g_ring[head % RING_SIZE] = message;
    atomic_store_explicit(&g_head, head + 1, memory_order_release);
    return 1;
}

static int process(jack_nframes_t frames, void* unused)
{
    (void)unused;
    void* buffer = jack_port_get_buffer(g_output, frames);
    jack_midi_clear_buffer(buffer);
    uint32_t tail = atomic_load_explicit(&g_tail, memory_order_relaxed);
    const uint32_t head = atomic_load_explicit(&g_head, memory_order_acquire);
    for (; tail != head; ++tail) {
        const uint32_t message = g_ring[tail % RING_SIZE];
        const jack_midi_data_t bytes[3] = {(jack_midi_data_t)(message >> 16), (jack_midi_data_t)(message >> 8),
                                           (jack_midi_data_t)message};
        jack_midi_event_write(buffer, 0, bytes, 3);
    }
    atomic_store_explicit(&g_tail, tail, memory_order_release);
    return 0;
}

static void on_signal(int sig)
{
    (void)sig;
    const char byte = 1;
    ssize_t ignored = write(g_signal_pipe[1], &byte, 1);
    (void)ignored;
}

int main(void)
{
    if (pipe(g_signal_pipe) != 0)
        return 2;
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = on_signal;
    sigaction(SIGTERM, &action, NULL);
    sigaction(SIGINT, &action, NULL);

    jack_status_t status;
    jack_client_t* client = jack_client_open("plkref", JackNoStartServer, &status);
    if (client == NULL) {
        fprintf(stderr, "reference_keyboard: no JACK server (status 0x%x)\n", (unsigned)status);
        return 2;
    }
    g_output = jack_port_register(client, "out", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
    if (g_output == NULL || jack_set_process_callback(client, process, NULL) != 0 || jack_activate(client) != 0) {
        fputs("reference_keyboard: cannot set up the JACK client\n", stderr);
        jack_client_close(client);
        return 2;
    }

    Display* display = XOpenDisplay(NULL);
    if (display == NULL) {
        fputs("reference_keyboard: no X display\n", stderr);
        jack_client_close(client);
        return 2;
    }
    Bool supported = False;
    XkbSetDetectableAutoRepeat(display, True, &supported); /* held keys: no release/press pairs */
    const Window window = XCreateSimpleWindow(display, DefaultRootWindow(display), 0, 0, 320, 120, 0, 0,
                                              WhitePixel(display, DefaultScreen(display)));
    XStoreName(display, window, "plk-reference");
    Atom delete_window = XInternAtom(display, "WM_DELETE_WINDOW", False);
    XSetWMProtocols(display, window, &delete_window, 1);
    XSelectInput(display, window, KeyPressMask | KeyReleaseMask);
    XMapWindow(display, window);
    XFlush(display);

    int held[256] = {0};
    int running = 1;
    struct pollfd fds[2] = {{ConnectionNumber(display), POLLIN, 0}, {g_signal_pipe[0], POLLIN, 0}};
    while (running) {
        while (XPending(display) > 0) {
            XEvent event;
            XNextEvent(display, &event);
            if (event.type == ClientMessage && (Atom)event.xclient.data.l[0] == delete_window) {
                running = 0;
            } else if (event.type == KeyPress || event.type == KeyRelease) {
                const unsigned code = event.xkey.keycode;
                if (code < 38 || code > 49)
                    continue;
                const int press = event.type == KeyPress;
                if (held[code] == press)
                    continue; /* a repeat */
                held[code] = press;
                const uint32_t note = 48 + (code - 38);
                ring_push(press ? (0x90u << 16 | note << 8 | 100u) : (0x80u << 16 | note << 8));
            }
        }
        if (!running)
            break;
        if (poll(fds, 2, -1) < 0 && errno != EINTR)
            break;
        if (fds[1].revents & POLLIN)
            running = 0;
    }
    jack_deactivate(client);
    jack_client_close(client);
    XCloseDisplay(display);
    return 0;
}
