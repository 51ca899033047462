/* xtest_typer: types a fixed-seed sequence of key press and release pairs into the X display
 * through XTest, for the end-to-end latency benchmark (e2e_latency.py). The keys go to the
 * focused window (the benchmark activates it first).
 *
 * Usage: xtest_typer [--seed N] [--pairs N] [--warmup N] [--min-gap-ms N] [--max-gap-ms N]
 *                    [--keys KEYCODE,KEYCODE,...]
 *   Defaults: seed 1, 240 measured pairs after 10 warm-up pairs, gaps 20 to 40 ms, and the X key
 *   codes 39 40 42 43 44 (S D G H J on a US keyboard).
 *
 * Each pair: press a key, wait a gap, release it, wait a gap; key and gaps are drawn from a
 * xorshift generator seeded with N, so every run and every program gets the same sequence. The
 * events are placed on an absolute CLOCK_MONOTONIC schedule; CLOCK_MONOTONIC is read just before
 * each XTestFakeKeyEvent, which is followed by XFlush.
 *
 * Standard output, one line per event after the run (nanoseconds of CLOCK_MONOTONIC):
 *   press|release KEYCODE T warmup|measured
 */

#define _POSIX_C_SOURCE 200809L
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static uint64_t g_state;

static uint64_t next_random(void)
{
    g_state ^= g_state << 13;
    g_state ^= g_state >> 7;
    g_state ^= g_state << 17;
    return g_state;
}

static int64_t now_ns(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000000000 + ts.tv_nsec;
}

static void sleep_until(int64_t t)
{
    struct timespec ts = {(time_t)(t / 1000000000), (long)(t % 1000000000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, NULL) != 0) {
    }
}

int main(int argc, char** argv)
{
    unsigned long seed = 1;
    int pairs = 240, warmup = 10, min_gap = 20, max_gap = 40;
    int keys[64] = {39, 40, 42, 43, 44};
    int key_count = 5;
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 >= argc) {
            fprintf(stderr, "xtest_typer: option %s needs a value\n", argv[i]);
            return 1;
        }
        const char* value = argv[i + 1];
        if (strcmp(argv[i], "--seed") == 0)
            seed = strtoul(value, NULL, 10);
        else if (strcmp(argv[i], "--pairs") == 0)
            pairs = atoi(value);
        else if (strcmp(argv[i], "--warmup") == 0)
            warmup = atoi(value);
        else if (strcmp(argv[i], "--min-gap-ms") == 0)
            min_gap = atoi(value);
        else if (strcmp(argv[i], "--max-gap-ms") == 0)
            max_gap = atoi(value);
        else if (strcmp(argv[i], "--keys") == 0) {
            char* copy = strdup(value);
            key_count = 0;
            for (char* k = strtok(copy, ","); k != NULL && key_count < 64; k = strtok(NULL, ","))
                keys[key_count++] = atoi(k);
            free(copy);
        } else {
            fprintf(stderr, "xtest_typer: unknown option %s\n", argv[i]);
            return 1;
        }
    }
    if (pairs < 0 || warmup < 0 || min_gap < 1 || max_gap < min_gap || key_count == 0) {
        fputs("xtest_typer: bad counts, gaps or keys\n", stderr);
        return 1;
    }
    g_state = seed * 0x9E3779B97F4A7C15ull + 1;

    Display* display = XOpenDisplay(NULL);
    int event_base, error_base, major, minor;
    if (display == NULL || !XTestQueryExtension(display, &event_base, &error_base, &major, &minor)) {
        fputs("xtest_typer: no X display with the XTEST extension\n", stderr);
        return 2;
    }

    const int total = 2 * (warmup + pairs);
    int* codes = malloc(sizeof(int) * (size_t)total);
    int64_t* stamps = malloc(sizeof(int64_t) * (size_t)total);
    int64_t at = now_ns() + 100000000; /* 100 ms from now */
    for (int i = 0; i < total; ++i) {
        const int press = i % 2 == 0;
        codes[i] = press ? keys[next_random() % (uint64_t)key_count] : codes[i - 1];
        sleep_until(at);
        stamps[i] = now_ns();
        XTestFakeKeyEvent(display, (unsigned)codes[i], press ? True : False, CurrentTime);
        XFlush(display);
        at += (int64_t)(min_gap + (int)(next_random() % (uint64_t)(max_gap - min_gap + 1))) * 1000000;
    }
    XSync(display, False);
    XCloseDisplay(display);
    for (int i = 0; i < total; ++i)
        printf("%s %d %lld %s\n", i % 2 == 0 ? "press" : "release", codes[i], (long long)stamps[i],
               i < 2 * warmup ? "warmup" : "measured");
    free(codes);
    free(stamps);
    return 0;
}
